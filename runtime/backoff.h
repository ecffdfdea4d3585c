// How every loop of the library waits for a busy word.
#pragma once

#include "runtime/hooks.h"

namespace vesk {

class Backoff {
public:
  explicit Backoff(std::uint32_t spinCount) noexcept : limit_(spinCount) {}

  // One busy reading. On one processor it yields; elsewhere it yields when as many readings as the spin count
  // were busy in a row. Says whether it yielded.
  bool busy() noexcept {
    if (!onOneProcessor() && ++readings_ < limit_) return false;
    readings_ = 0;
    __VeskYield();
    return true;
  }

private:
  std::uint32_t limit_;
  std::uint32_t readings_ = 0;
};

// Takes a lock's state word from free to `held` without ever yielding. With `tries` 0, or on one processor,
// it makes one attempt; otherwise every busy reading and every failed attempt uses one of `tries` up.
inline bool tryToTake(std::uint32_t& state, std::uint32_t held, std::uint32_t tries) noexcept {
  if (tries == 0 || onOneProcessor()) return compareAndSwap(state, 0, held);
  do {
    if (loadRelaxed(state) == 0 && compareAndSwap(state, 0, held)) return true;
  } while (--tries != 0);
  return false;
}

// Readings before a yield where a loop waits for a word that has no spin count of its own.
inline constexpr std::uint32_t kDefaultSpinCount = 500;

} // namespace vesk
