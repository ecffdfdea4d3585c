// A guard word around work that is done once: start-up, the sub-allocator, memory collection, the log's
// creation.
//
// The word is taken from 0 to 1, with a yield between attempts, and given back by storing 0. Whether the work
// has been done is a flag of its own, tested under the guard. Not recursive.
#pragma once

#include <cstdint>

#include "runtime/atomic.h"
#include "veskrt/runtime.h"

namespace vesk {

class ScopedOnceGuard {
public:
  explicit ScopedOnceGuard(std::uint32_t& word) noexcept : word_(word) {
    while (!compareAndSwap(word_, 0, 1)) __VeskYield();
  }
  ~ScopedOnceGuard() { storeRelease(word_, 0); }
  ScopedOnceGuard(const ScopedOnceGuard&) = delete;
  ScopedOnceGuard& operator=(const ScopedOnceGuard&) = delete;

private:
  std::uint32_t& word_;
};

} // namespace vesk
