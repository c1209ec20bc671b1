// For applications: selecting messages by type.
#pragma once

#include "KLVMsgExport.h"
#include "KLVMsgMessageQuery.h"
#include "KLVString.h"

// Selects every message whose GetMessageType is exactly this name.
class KLVMSG_EXPORT KLVMsgMessageQueryByType : public KLVMsgMessageQuery {
public:
    // Selects by `typeName`.
    explicit KLVMsgMessageQueryByType(const KLVString& typeName);

    // Requires: no message is null.
    void Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                KLVBasVector<int>& indexes) const override;

    KLVString type;  // the name that is looked for
};
