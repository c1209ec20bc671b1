// For applications and the library's own sources: marks what libKLVBase exports.
#pragma once

#if __cplusplus < 201703L
#error "KLVMsgCommModules needs C++17 or later: compile with -std=c++17"
#endif

// Symbols are hidden by default (-fvisibility=hidden); this makes one visible.
#define KLVBASE_EXPORT __attribute__((visibility("default")))
