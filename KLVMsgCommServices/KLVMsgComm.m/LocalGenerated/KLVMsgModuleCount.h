// For the library's own sources: the counting that every initialize and finalize shares.
#pragma once

// Each returns whether this call is the one that works: the first initialize, or the finalize that
// matches it. `called` has no floor.
inline bool IsFirstInitialize(int& called) { return called++ == 0; }

inline bool IsLastFinalize(int& called) { return --called == 0; }
