#include "collectors/heap/counting.h"

#include "collectors/heap/accounts.h"
#include "collectors/heap/blocks.h"
#include "collectors/heap/large_blocks.h"
#include "collectors/heap/stacks.h"

namespace heap {

namespace {

// Written while no thread is inside an event.
constinit std::uint64_t restarts = 0;

constexpr std::uint64_t kStampMask = ((std::uint64_t{1} << kStampBits) - 1) << kStampShift;

std::uint64_t stamp() { return restarts << kStampShift & kStampMask; }

} // namespace

void restartCounting() {
  ++restarts;
  forgetBlocks();
  forgetLargeBlocks();
  clearSites();
  restartAccounts();
}

std::uint64_t stampToken(std::uint64_t word) { return word == 0 ? 0 : word | stamp(); }

std::uint64_t openToken(std::uint64_t token) {
  const std::uint64_t word = token & ~kStampMask;
  if ((token & kStampMask) == stamp() || token == 0) [[likely]]
    return word;
  openBlock(word); // which gives its memory back
  return 0;
}

} // namespace heap
