#include "KLVMsgChannelOrganizer.h"

#include "KLVMsgChannelList.h"
#include "KLVMsgChannelQuery.h"
#include "KLVMsgVectors.h"

void KLVMsgChannelOrganizer::RegisterChannel(const KLVMsgChannel& channel, bool mark) {
    KLVMsgAppending<KLVMsgChannel> appending(channels);
    channels.PushBack(channel);
    if (mark) {
        waitable.channels.PushBack(channel);
    }
    appending.Keep();
}

void KLVMsgChannelOrganizer::LookupChannel(KLVMsgChannelQuery* query,
                                           KLVBasVector<KLVMsgChannel>& out) const {
    KLVMsgAppending<KLVMsgChannel> appending(out);
    if (query != nullptr) {
        query->Search(channels, out);
    } else {
        for (std::size_t i = 0; i < channels.Size(); ++i) {
            out.PushBack(channels[i]);
        }
    }
    appending.Keep();
}

void KLVMsgChannelOrganizer::RemoveChannel(KLVMsgChannel& channel, bool) {
    // A copy, since `channel` may be an entry: then another one moves up into its place.
    KLVMsgChannel removed = channel;
    const bool isEntry =
        KLVMsgIsEntry(channels, channel) || KLVMsgIsEntry(waitable.channels, channel);
    KLVMsgEraseFirst(channels, removed.connection);
    KLVMsgEraseFirst(waitable.channels, removed.connection);
    removed.Shutdown();
    if (!isEntry) {
        channel = removed;
    }
}

void KLVMsgChannelOrganizer::RemoveChannel(KLVMsgChannelQuery* query, bool) {
    KLVBasVector<KLVMsgChannel> selected;
    LookupChannel(query, selected);
    KLVMsgEraseSelected(selected, channels, waitable.channels);
    for (std::size_t i = 0; i < selected.Size(); ++i) {
        selected[i].Shutdown();
    }
}

void KLVMsgChannelOrganizer::Shutdown() {
    for (std::size_t i = 0; i < channels.Size(); ++i) {
        channels[i].Shutdown();
    }
    channels.Clear();
    waitable.channels.Clear();
}
