// For the library's own sources: which failures of a system call end a connection.
#pragma once

#include <cerrno>

// True for the errno values that tell that the peer or the network is gone.
inline bool KLVMsgIsConnectionLost(int error) {
    switch (error) {
        case ENETDOWN:
        case ENETUNREACH:
        case ENETRESET:
        case ECONNABORTED:
        case ECONNRESET:
        case ENOTCONN:
        case ESHUTDOWN:
            return true;
        default:
            return false;
    }
}
