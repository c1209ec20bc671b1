// For the library's own sources: a socket's public fields, which another thread may change.
#pragma once

// The fields are plain, since applications use them so. A body's transfer runs without a lock, and
// another thread may end it at any time: on both sides the library goes through these.
template <class Field>
Field KLVMsgLoad(const Field& field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <class Field>
void KLVMsgStore(Field& field, Field value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}
