// For the kit's own headers: how a session calls the library.
#pragma once

#include <cstddef>

#include "KLVBasAtiGlobalSingleton.h"
#include "KLVMsgChannel.h"
#include "KLVMsgChannelQuery.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgSocketCommunicator.h"

// The singletons, and what a session asks them.
struct KLVMsgSessionLibrary {
    static KLVMsgSocketCommunicator& Communicator() {
        return *KLVBasAtiGlobalSingleton<KLVMsgSocketCommunicator>::Instance();
    }
    static KLVMsgConnectionServicesUtils& Registry() {
        return *KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
    }

    static KLVMsgChannel Channel(int number) {
        KLVMsgChannel channel;
        channel.connection = number;
        return channel;
    }

    struct ByNumber : KLVMsgChannelQuery {
        explicit ByNumber(int wanted) : number(wanted) {}
        void Search(const KLVBasVector<KLVMsgChannel>& in,
                    KLVBasVector<KLVMsgChannel>& out) const override {
            for (std::size_t i = 0; i < in.Size(); ++i) {
                if (in[i].connection == number) {
                    out.PushBack(in[i]);
                }
            }
        }
        int number;
    };
};
