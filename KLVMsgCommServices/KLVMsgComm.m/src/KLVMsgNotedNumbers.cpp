#include "KLVMsgNotedNumbers.h"

#include <algorithm>
#include <mutex>
#include <utility>

static std::mutex mutex;
static std::vector<int> noted;
std::atomic<bool> KLVMsgNumbersAreNoted{false};

// Requires: the mutex is held.
static bool IsNoted(int number) {
    return std::find(noted.begin(), noted.end(), number) != noted.end();
}

void KLVMsgNoteNumber(int number) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (!IsNoted(number)) {
        noted.push_back(number);
    }
    KLVMsgNumbersAreNoted = true;
}

bool KLVMsgIsNoted(int number) {
    if (!KLVMsgNumbersAreNoted) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    return IsNoted(number);
}

std::vector<int> KLVMsgTakeNotedNumbers() {
    const std::lock_guard<std::mutex> lock(mutex);
    KLVMsgNumbersAreNoted = false;
    return std::exchange(noted, {});
}
