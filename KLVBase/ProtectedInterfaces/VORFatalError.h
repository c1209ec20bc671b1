// For applications: the report of a broken invariant.
#pragma once

#include "KLVBasExport.h"

// Writes `text`, the further texts that are not null, the source file and the line to standard
// error and calls std::abort. It is not declared noreturn: an application that brings its own may
// choose to go on.
KLVBASE_EXPORT void VORFatalError(const char* text, const char* text2, const char* text3,
                                  const char* text4, const char* file, int line);
