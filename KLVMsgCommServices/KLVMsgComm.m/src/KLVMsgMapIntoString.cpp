#include "KLVMsgMapIntoString.h"

template class omi_BtreeNode<int, KLVString>;
template class omi_Btree<int, KLVString>;
template class omi_BtreeNodeLink<int, KLVString>;
template class omi_BtreeIterator<int, KLVString>;
