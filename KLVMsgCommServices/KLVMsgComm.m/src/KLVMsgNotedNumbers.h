// For the library's own sources: connection numbers that have been given out anew.
//
// What the communicator knows under such a number is about a connection that has gone. The registry
// never calls the communicator. It notes the number before it registers the new connection, and the
// communicator looks at the notes first whenever it has taken its lock.
//
// The notes have a mutex of their own. A thread that has it takes no further lock.
#pragma once

#include <atomic>

// True when there are notes. Looked at by every operation of the communicator.
extern std::atomic<bool> KLVMsgAnyNoted;

// Notes a number, once. Takes memory: std::bad_alloc notes nothing.
void KLVMsgNoteNumber(int number);

// True when this number is noted.
bool KLVMsgIsNoted(int number);

// Takes one note back and sets `number` to it; false when there is none.
bool KLVMsgTakeNote(int& number);
