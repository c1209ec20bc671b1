// The functions that arrays of the base facilities call for the elements that the library puts in.
#include "KLVBasVectorGeneric.h"
#include "KLVMsgChannelMsgStruct.h"

template void KLVBasPODCopy<unsigned int>(void*, const void*);
template void KLVBasPODCopy<int>(void*, const void*);
template void KLVBasPODCopy<void*>(void*, const void*);

// Channels and records are plain data: copied member by member, and destroying one does nothing.
template void KLVBasStandardCopy<KLVMsgChannel>(void*, const void*);
template void KLVBasStandardDestroy<KLVMsgChannel>(void*);
template void KLVBasStandardCopy<KLVMsgChannelMsgStruct>(void*, const void*);
template void KLVBasStandardDestroy<KLVMsgChannelMsgStruct>(void*);
