#include "KLVMsgNotedNumbers.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace {

struct Note {
    int number;
};

}  // namespace

static std::mutex notesMutex;
static auto& notes = *new std::vector<Note>;  // never destroyed: threads may connect at exit
std::atomic<bool> KLVMsgAnyNoted{false};

// Requires: notesMutex is held.
static bool IsNoted(int number) {
    return std::any_of(notes.begin(), notes.end(),
                       [number](const Note& note) { return note.number == number; });
}

void KLVMsgNoteNumber(int number) {
    const std::lock_guard<std::mutex> lock(notesMutex);
    if (!IsNoted(number)) {
        notes.push_back({number});
    }
    KLVMsgAnyNoted = true;
}

bool KLVMsgIsNoted(int number) {
    if (!KLVMsgAnyNoted) {
        return false;
    }
    const std::lock_guard<std::mutex> lock(notesMutex);
    return IsNoted(number);
}

bool KLVMsgTakeNote(int& number) {
    const std::lock_guard<std::mutex> lock(notesMutex);
    if (notes.empty()) {
        return false;
    }
    number = notes.back().number;
    notes.pop_back();
    KLVMsgAnyNoted = !notes.empty();
    return true;
}
