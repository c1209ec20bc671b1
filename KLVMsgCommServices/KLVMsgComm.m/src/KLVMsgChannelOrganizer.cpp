#include "KLVMsgChannelOrganizer.h"

#include "KLVMsgChannelList.h"
#include "KLVMsgChannelQuery.h"

void KLVMsgChannelOrganizer::RegisterChannel(const KLVMsgChannel& channel, bool mark) {
    channels.PushBack(channel);
    if (mark) {
        waitable.channels.PushBack(channel);
    }
}

void KLVMsgChannelOrganizer::LookupChannel(KLVMsgChannelQuery* query,
                                           KLVBasVector<KLVMsgChannel>& out) const {
    if (query != nullptr) {
        query->Search(channels, out);
        return;
    }
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        out.PushBack(channels[i]);
    }
}

void KLVMsgChannelOrganizer::RemoveChannel(KLVMsgChannel& channel, bool) {
    KLVMsgEraseFirst(channels, channel);
    KLVMsgEraseFirst(waitable.channels, channel);
    channel.Shutdown();
}

void KLVMsgChannelOrganizer::RemoveChannel(KLVMsgChannelQuery* query, bool flag) {
    KLVBasVector<KLVMsgChannel> selected;
    LookupChannel(query, selected);
    for (std::size_t i = 0; i < selected.Size(); ++i) {
        RemoveChannel(selected[i], flag);
    }
}

void KLVMsgChannelOrganizer::ForgetChannel(const KLVMsgChannel& channel) {
    KLVMsgEraseEvery(channels, channel);
    KLVMsgEraseEvery(waitable.channels, channel);
}

void KLVMsgChannelOrganizer::Shutdown() {
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        channels[i].Shutdown();
    }
    channels.Clear();
    waitable.channels.Clear();
}
