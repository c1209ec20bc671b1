// For applications: selecting channels by label.
#pragma once

#include "KLVMsgChannelQuery.h"
#include "KLVMsgExport.h"
#include "KLVString.h"

// Selects every channel with exactly this label. The empty label selects the channels whose
// connection has no name.
class KLVMSG_EXPORT KLVMsgChannelQueryByLabel : public KLVMsgChannelQuery {
public:
    // Selects by `labelText`.
    explicit KLVMsgChannelQueryByLabel(const KLVString& labelText);

    void Search(const KLVBasVector<KLVMsgChannel>& in,
                KLVBasVector<KLVMsgChannel>& out) const override;

    KLVString label;  // the label that is looked for
};
