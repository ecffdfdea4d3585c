// The call stack of the program at a heap call.
#pragma once

#include <cstdint>

namespace heap {

inline constexpr std::uint32_t kMaxDepth = 25;

// Return addresses, innermost first.
struct Trace {
  const void* const* frames;
  std::uint32_t depth;
  bool cut; // the stack goes on beyond the depth asked for

  // What is between the program and the unwinder (this collector and the host) lies in front of `frames`.
  static constexpr std::uint32_t kOwnFrames = 8;
  void* buffer[kMaxDepth + kOwnFrames + 1];
};

void startBacktraces();

// Fills `trace` with up to `depth` frames, 1 to kMaxDepth, from the one that `caller` returns to on.
void captureBacktrace(Trace& trace, const void* caller, std::uint32_t depth);

// The code in this range is gone.
void forgetCode(std::uint64_t start, std::uint64_t end);

} // namespace heap
