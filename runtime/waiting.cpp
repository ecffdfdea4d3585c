// The two ways to wait.
#include <cstdint>

#include <sched.h>

#include "runtime/atomic.h"
#include "veskrt/runtime.h"

namespace {

constexpr std::uint32_t kRoundsPerUnit = 5000000;

// Work for the rounds of a sleep, shared by all sleepers.
constinit std::uint32_t scratch = 0;

} // namespace

int __VeskYield() { return sched_yield(); }

void __VeskSleep(uint32_t count) {
  for (std::uint32_t rounds = count * kRoundsPerUnit; rounds != 0; --rounds) {
    __VeskYield();
    vesk::fetchAdd(scratch, 1);
    vesk::storeRelaxed(scratch, 0);
  }
}
