#include "KLVMsgMessageQuery.h"

#include "KLVMsgMessageQueryByType.h"
#include "KLVMsgSocketMessage.h"
#include "KLVMsgVectors.h"

KLVMsgMessageQuery::~KLVMsgMessageQuery() = default;

KLVMsgMessageQueryByType::KLVMsgMessageQueryByType(const KLVString& typeName) : type(typeName) {}

void KLVMsgMessageQueryByType::Search(const KLVBasVector<KLVMsgSocketMessage*>& messages,
                                      KLVBasVector<int>& indexes) const {
    KLVMsgAppending<int> appending(indexes);
    for (std::size_t i = 0; i < messages.Size(); ++i) {
        if (messages[i]->GetMessageType().Compare(type) == 0) {
            indexes.PushBack(static_cast<int>(i));
        }
    }
    appending.Keep();
}
