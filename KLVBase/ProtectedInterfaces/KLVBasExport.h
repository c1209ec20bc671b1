// For applications and the library's own sources: marks what libKLVBase exports.
#pragma once

// Symbols are hidden by default (-fvisibility=hidden); this makes one visible.
#define KLVBASE_EXPORT __attribute__((visibility("default")))
