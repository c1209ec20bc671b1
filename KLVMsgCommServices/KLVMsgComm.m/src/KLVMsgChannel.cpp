#include "KLVMsgChannel.h"

#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgSocket.h"

static KLVMsgConnectionServicesUtils& Registry() {
    return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
}

KLVMsgChannel::KLVMsgChannel(KLVMsgSocket* socket, const KLVString& label) {
    if (socket != nullptr) {
        connection = socket->descriptor;
        SetLabel(label);
    }
}

KLVString KLVMsgChannel::GetLabel() const {
    KLVString label;
    Registry().GetName(connection, label);
    return label;
}

void KLVMsgChannel::SetLabel(const KLVString& label) { Registry().SetName(connection, label); }

KLVMsgSocket* KLVMsgChannel::GetSocket() const { return Registry().GetSocket(connection); }

bool KLVMsgChannel::IsActiveInCurrentThreads() {
    // Asked for under the registry's lock: the message task may be removing the socket.
    return connection != -1 && Registry().IsConnectionOpen(connection);
}

void KLVMsgChannel::Shutdown() {
    Registry().ShutDownConnection(connection);
    connection = -1;
}
