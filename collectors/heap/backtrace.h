// The call stack of the program at a heap call.
//
// A walk goes from frame to frame by rules (frame_rules.h) that are read once for each return address and
// then kept in a table for all threads. Where a stack has a frame without a simple rule, the whole of it is
// left to libunwind, stepwise and without its own cache of frames, which would outlive the modules.
#pragma once

#include <cstdint>

namespace heap {

inline constexpr std::uint32_t kMaxDepth = 25;

// Return addresses, innermost first.
struct Trace {
  const void* frames[kMaxDepth];
  std::uint32_t depth;
  bool cut; // the stack goes on beyond the depth asked for, or nobody knows
};

void startBacktraces();

// Fills `trace` with up to `depth` frames, 1 to kMaxDepth, from the one that `caller` returns to on.
void captureBacktrace(Trace& trace, const void* caller, std::uint32_t depth);

// Modules have come or gone: what is known of code may be wrong.
void forgetCode();

} // namespace heap
