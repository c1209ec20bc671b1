#include "KLVMsgChannel.h"

#include "KLVMsgRegistryInternals.h"
#include "KLVMsgSocket.h"

KLVMsgChannel::KLVMsgChannel(KLVMsgSocket* socket, const KLVString& label) {
    if (socket != nullptr) {
        connection = socket->descriptor;
        SetLabel(label);
    }
}

KLVString KLVMsgChannel::GetLabel() const {
    KLVString label;
    KLVMsgRegistry().GetName(connection, label);
    return label;
}

void KLVMsgChannel::SetLabel(const KLVString& label) {
    KLVMsgRegistry().SetName(connection, label);
}

KLVMsgSocket* KLVMsgChannel::GetSocket() const { return KLVMsgRegistry().GetSocket(connection); }

bool KLVMsgChannel::IsActiveInCurrentThreads() {
    // Asked for under the registry's lock: the message task may be removing the socket.
    return connection != -1 && KLVMsgRegistry().IsConnectionOpen(connection);
}

void KLVMsgChannel::Shutdown() {
    KLVMsgRegistry().ShutDownConnection(connection);
    connection = -1;
}
