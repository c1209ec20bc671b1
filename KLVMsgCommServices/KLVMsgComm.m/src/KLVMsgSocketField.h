// For the library's own sources: looking at a socket's public fields while another thread may change
// them.
#pragma once

// The fields are plain, since applications use them so. A body's transfer runs without a lock and may
// be ended by another thread at any time: on both sides the library reads and writes them with these.
template <class Field>
Field KLVMsgLoad(const Field& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <class Field>
void KLVMsgStore(Field& field, Field value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}
