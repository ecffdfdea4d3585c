// The collector's lock: one word, one locked instruction to take it, none to let it go.
//
// Not recursive and without an owner: a thread that holds one is marked as inside the collector, so no event
// of its own can reach the lock a second time. Where two are held, the stacks' comes before the accounts'.
#pragma once

#include <atomic>
#include <cstdint>

#include "veskrt/runtime.h"

namespace heap {

class Lock {
public:
  void acquire() noexcept {
    if (word_.exchange(1, std::memory_order_acquire) != 0) wait();
  }
  void release() noexcept { word_.store(0, std::memory_order_release); }

private:
  [[gnu::noinline]] void wait() noexcept {
    constexpr int kSpins = 200;
    do {
      for (int spin = 0; word_.load(std::memory_order_relaxed) != 0; ++spin) {
        if (spin < kSpins)
          __builtin_ia32_pause();
        else
          __VeskYield();
      }
    } while (word_.exchange(1, std::memory_order_acquire) != 0);
  }

  std::atomic<std::uint32_t> word_{0};
};

class Holding {
public:
  explicit Holding(Lock& lock) noexcept : lock_(lock) { lock_.acquire(); }
  ~Holding() { lock_.release(); }
  Holding(const Holding&) = delete;
  Holding& operator=(const Holding&) = delete;

private:
  Lock& lock_;
};

} // namespace heap
