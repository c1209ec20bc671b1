// For applications and the kit's own sources: marks what libKLVMsgKit exports.
#pragma once

// Symbols are hidden by default (-fvisibility=hidden); this makes one visible.
#define KLVMSGKIT_EXPORT __attribute__((visibility("default")))
