// For applications: the ordered map from a connection number to its name.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"
#include "omi_Btree.h"
#include "omi_BtreeIterator.h"

extern template class KLVMSG_EXPORT omi_BtreeNode<int, KLVString>;
extern template class KLVMSG_EXPORT omi_Btree<int, KLVString>;
extern template class KLVMSG_EXPORT omi_BtreeNodeLink<int, KLVString>;
extern template class KLVMSG_EXPORT omi_BtreeIterator<int, KLVString>;
