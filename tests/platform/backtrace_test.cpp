#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "veskrt/backtrace.h"

namespace {

uint16_t capture(const void* start, std::vector<void*>& frames) {
  frames.assign(VESK_MAX_BACKTRACE_FRAMES, nullptr); // what lies behind, address sanitizer watches
  return __VeskCaptureStackBackTrace(1, 2, 3, reinterpret_cast<uint64_t>(start), 5, frames.data());
}

// Takes every trace there is, `depth` calls deep.
__attribute__((noinline)) void check(int depth) {
  if (depth > 0) {
    check(depth - 1);
    asm volatile(""); // no tail call: the frame stays
    return;
  }
  std::vector<void*> all, trimmed;
  EXPECT_EQ(capture(nullptr, all), 0) << "null is not on the stack";
  all.resize(capture(all[0], all));
  auto frame = std::find(all.begin() + 1, all.end(), __builtin_return_address(0));
  ASSERT_NE(frame, all.end());
  for (; frame != all.end(); ++frame) { // those before depend on the place of the call
    trimmed.resize(capture(*frame, trimmed));
    EXPECT_EQ(trimmed, std::vector(std::find(all.begin(), all.end(), *frame), all.end()));
  }
  char** const names = __VeskGetStackBackTraceSymbols(all.data(), static_cast<int>(all.size()));
  EXPECT_NE(std::strchr(names[all.size() - 1], '['), nullptr);
  std::free(names);
}

} // namespace

TEST(BackTrace, BeginsWithTheStartAddress) { check(3), check(60); }
