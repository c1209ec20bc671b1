// For applications: the ordered map from a message type's name to its prototype.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"
#include "omi_Btree.h"
#include "omi_BtreeIterator.h"

// Where the class is already defined, g++ says that the attribute comes too late: it is the same
// one.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattributes"
class KLVMSG_EXPORT KLVMsgSocketMessage;
#pragma GCC diagnostic pop

extern template class KLVMSG_EXPORT omi_BtreeNode<KLVString, KLVMsgSocketMessage*>;
extern template class KLVMSG_EXPORT omi_Btree<KLVString, KLVMsgSocketMessage*>;
extern template class KLVMSG_EXPORT omi_BtreeNodeLink<KLVString, KLVMsgSocketMessage*>;
extern template class KLVMSG_EXPORT omi_BtreeIterator<KLVString, KLVMsgSocketMessage*>;
