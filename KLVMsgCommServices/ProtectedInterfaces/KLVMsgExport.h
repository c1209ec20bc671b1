// For applications and the library's own sources: marks what libKLVMsgCommModules exports.
#pragma once

// Symbols are hidden by default (-fvisibility=hidden); this makes one visible.
#define KLVMSG_EXPORT __attribute__((visibility("default")))

// Keeps a private operation of an exported class out of the binary interface.
#define KLVMSG_LOCAL __attribute__((visibility("hidden")))
