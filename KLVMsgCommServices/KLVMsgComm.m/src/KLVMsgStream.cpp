#include "KLVMsgStream.h"

#include <climits>
#include <cstdint>

#include "KLVMsgBufferedOutputStream.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgRegistryInternals.h"
#include "KLVMsgSimpleInputStream.h"
#include "KLVMsgSocketField.h"

// A count may fall below zero while a socket fails, and in the end wrap around: the sums are made
// where that is defined, on unsigned values.
static int Sum(int a, int b) {
    return static_cast<int>(static_cast<unsigned int>(a) + static_cast<unsigned int>(b));
}

static int Difference(int a, int b) {
    return static_cast<int>(static_cast<unsigned int>(a) - static_cast<unsigned int>(b));
}

static const char* At(const void* data, int offset) {
    return reinterpret_cast<const char*>(reinterpret_cast<std::uintptr_t>(data) +
                                         static_cast<std::uintptr_t>(offset));
}

// False when a send of so many bytes fails without a system call, now and ever after.
static bool CanSend(KLVMsgCommSocket& socket, int length) {
    return length >= 0 && KLVMsgLoad(socket.outputOpen) &&
           !(KLVMsgLoad(socket.closed) && KLVMsgSocketHold::HasClosed(socket));
}

void KLVMsgSimpleInputStream::read(void* buffer, int length, int& count) {
    const auto socket = KLVMsgHoldStreamSocket(m_connectionNumber);
    if (socket != nullptr) {
        count = socket->read(static_cast<char*>(buffer), length);
    }
}

KLVMsgBufferedOutputStream::KLVMsgBufferedOutputStream(int bufferSize) : m_bufferSize(bufferSize) {}

// Sends the data in pieces, one call each. Out of the way of what fits into one call.
[[gnu::noinline]] static void WritePieces(KLVMsgCommSocket& socket, const void* data, int length,
                                          int pieceSize, int& count) {
    int offset = 0;
    int remaining = 0;
    do {
        count = Sum(count, socket.write(At(data, offset), pieceSize));
        offset = count;
        remaining = Difference(length, count);
        if (remaining > pieceSize && !CanSend(socket, pieceSize)) {
            // Each further piece would step back by one byte, until what remains no longer grows.
            remaining = INT_MIN;
            count = Difference(length, remaining);
        }
    } while (remaining > pieceSize);
    if (remaining != 0) {
        socket.write(At(data, offset), remaining);
    }
}

void KLVMsgBufferedOutputStream::write(void* data, int length, int& count) {
    const auto socket = KLVMsgHoldStreamSocket(m_connectionNumber);
    if (socket == nullptr) {
        return;
    }
    if (length <= m_bufferSize) {
        count = Sum(count, socket->write(static_cast<const char*>(data), length));
    } else {
        WritePieces(*socket, data, length, m_bufferSize, count);
    }
}
