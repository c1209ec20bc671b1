#include "VORFatalError.h"

#include <cstdio>
#include <cstdlib>
#include <initializer_list>

void VORFatalError(const char* text, const char* text2, const char* text3, const char* text4,
                   const char* file, int line) {
    for (const char* part : {text, text2, text3, text4}) {
        if (part != nullptr) {
            std::fprintf(stderr, "%s ", part);
        }
    }
    std::fprintf(stderr, "(%s:%d)\n", file == nullptr ? "unknown file" : file, line);
    std::abort();
}
