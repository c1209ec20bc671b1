// For applications: an internet address as text.
#pragma once

#include "KLVMsgExport.h"
#include "KLVString.h"

class KLVMSG_EXPORT KLVMsgInetAddress {
public:
    // The address that `text` writes out; nothing is checked.
    explicit KLVMsgInetAddress(const KLVString& text);

    // Always true, an IPv6 text included: every internet address counts as IPv4 here.
    bool IsInet4Address();

private:
    KLVString m_text;
};
