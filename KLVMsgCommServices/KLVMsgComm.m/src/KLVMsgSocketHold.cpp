#include "KLVMsgSocketHold.h"

#include <chrono>
#include <mutex>

#include "KLVMsgServerSocket.h"
#include "KLVMsgSocketInternals.h"

void KLVMsgSocketHold::Destroy(KLVMsgSocket* socket) {
    {
        const std::lock_guard<std::mutex> lock(KLVMsgSocketDepartures.Guard());
        if (!KLVMsgSocketDepartures.DestroysNow(*socket)) {
            return;
        }
    }
    KLVMsgDestroySocket(socket);
}

void KLVMsgSocketHold::AwaitClosedListeners() {
    KLVMsgSocketDepartures.AwaitClosed(std::chrono::seconds(1), [](KLVMsgSocket& socket) {
        return KLVMsgAsServerSocket(&socket) != nullptr;
    });
}

void KLVMsgSocketHold::Settle() {
    KLVMsgSocketDepartures.Settle(
        [](KLVMsgSocket& socket, int descriptor) { socket.CloseDescriptor(descriptor); },
        &KLVMsgDestroySocket);
}
