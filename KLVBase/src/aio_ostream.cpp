#include "aio_ostream.h"

#include <cstdio>

aio_ostream aio_cerr;

void aio_ostream::print(const char* text) { std::fputs(text, stderr); }

void aio_ostream::print_int(int number) { std::fprintf(stderr, "%d", number); }

void aio_ostream::put(char character) { std::fputc(character, stderr); }

void aio_ostream::flush() { std::fflush(stderr); }
