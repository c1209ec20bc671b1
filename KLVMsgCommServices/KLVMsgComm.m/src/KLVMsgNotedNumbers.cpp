#include "KLVMsgNotedNumbers.h"

#include <algorithm>
#include <atomic>
#include <mutex>

static std::mutex mutex;
static std::vector<int> noted;
static std::atomic<bool> anyNoted{false};

void KLVMsgNoteNumber(int number) {
    const std::lock_guard<std::mutex> lock(mutex);
    if (std::find(noted.begin(), noted.end(), number) == noted.end()) {
        noted.push_back(number);
    }
    anyNoted = true;
}

std::vector<int> KLVMsgTakeNotedNumbers() {
    std::vector<int> taken;
    if (anyNoted) {
        const std::lock_guard<std::mutex> lock(mutex);
        taken.swap(noted);
        anyNoted = false;
    }
    return taken;
}
