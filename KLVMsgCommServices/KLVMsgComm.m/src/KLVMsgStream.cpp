#include "KLVMsgStream.h"

#include <cstdint>

#include "KLVMsgBufferedOutputStream.h"
#include "KLVMsgCommSocket.h"
#include "KLVMsgConnectionServicesUtils.h"
#include "KLVMsgSimpleInputStream.h"
#include "KLVMsgSocketInternals.h"

// The stream socket of a connection, or null.
static KLVMsgCommSocket* FindSocket(int connectionNumber) {
    auto* const registry = KLVBasAtiGlobalSingleton<KLVMsgConnectionServicesUtils>::Instance();
    return KLVMsgAsStreamSocket(registry->GetSocket(connectionNumber));
}

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

void KLVMsgSimpleInputStream::read(void* buffer, int length, int& count) {
    KLVMsgCommSocket* const socket = FindSocket(m_connectionNumber);
    if (socket != nullptr) {
        count = socket->read(static_cast<char*>(buffer), length);
    }
}

KLVMsgBufferedOutputStream::KLVMsgBufferedOutputStream(int bufferSize) : m_bufferSize(bufferSize) {}

void KLVMsgBufferedOutputStream::write(void* data, int length, int& count) {
    KLVMsgCommSocket* const socket = FindSocket(m_connectionNumber);
    if (socket == nullptr) {
        return;
    }
    if (length <= m_bufferSize) {
        count = Sum(count, socket->write(static_cast<const char*>(data), length));
        return;
    }

    int offset = 0;
    int remaining = 0;
    do {
        count = Sum(count, socket->write(At(data, offset), m_bufferSize));
        offset = count;
        remaining = Difference(length, count);
    } while (remaining > m_bufferSize);
    if (remaining != 0) {
        socket->write(At(data, offset), remaining);
    }
}
