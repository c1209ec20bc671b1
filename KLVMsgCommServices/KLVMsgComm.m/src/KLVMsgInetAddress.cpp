#include "KLVMsgInetAddress.h"

KLVMsgInetAddress::KLVMsgInetAddress(const KLVString& text) : m_text(text) {}

bool KLVMsgInetAddress::IsInet4Address() { return true; }
