// For applications: the diagnostic stream.
#pragma once

#include "KLVBasExport.h"

// A stream of diagnostic text. Each call is whole by itself; a line made of several calls can be
// interleaved with another thread's.
class KLVBASE_EXPORT aio_ostream {
public:
    // Writes a zero-terminated text.
    // Requires: `text` is not null.
    void print(const char* text);

    // Writes the decimal text of a number.
    void print_int(int number);

    // Writes one character.
    void put(char character);

    // Hands everything written so far to the operating system.
    void flush();
};

// Goes to the process's standard error.
extern KLVBASE_EXPORT aio_ostream aio_cerr;
