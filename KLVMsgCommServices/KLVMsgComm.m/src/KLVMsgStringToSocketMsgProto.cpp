#include "KLVMsgStringToSocketMsgProto.h"

template class omi_BtreeNode<KLVString, KLVMsgSocketMessage*>;
template class omi_Btree<KLVString, KLVMsgSocketMessage*>;
template class omi_BtreeNodeLink<KLVString, KLVMsgSocketMessage*>;
template class omi_BtreeIterator<KLVString, KLVMsgSocketMessage*>;
