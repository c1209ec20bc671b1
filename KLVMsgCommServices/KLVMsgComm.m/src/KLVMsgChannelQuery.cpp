#include "KLVMsgChannelQuery.h"

#include "KLVMsgChannelQueryByLabel.h"
#include "KLVMsgVectors.h"

KLVMsgChannelQueryByLabel::KLVMsgChannelQueryByLabel(const KLVString& labelText)
    : label(labelText) {}

void KLVMsgChannelQueryByLabel::Search(const KLVBasVector<KLVMsgChannel>& in,
                                       KLVBasVector<KLVMsgChannel>& out) const {
    KLVMsgAppending<KLVMsgChannel> appending(out);
    for (std::size_t i = 0; i < in.Size(); ++i) {
        if (in[i].GetLabel().Compare(label) == 0) {
            out.PushBack(in[i]);
        }
    }
    appending.Keep();
}
