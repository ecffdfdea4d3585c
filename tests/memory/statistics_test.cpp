#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"

namespace {

constexpr uint32_t kHalfSlab = 32728;

VeskMemoryCategoryInfo info(uint32_t category) {
  VeskMemoryCategoryInfo result = {};
  EXPECT_EQ(__VeskGetMemoryInfoByCategory(category, &result), 1);
  return result;
}

} // namespace

TEST(Categories, AreHandedOutUntilTheTableIsFull) {
  test::startRuntime();
  EXPECT_EQ(__VeskGetNumMemoryCategories(), 1u);
  EXPECT_STREQ(info(0).name, "VESK_MISC");
  EXPECT_EQ(__VeskRegisterMemoryCategory(nullptr), VESK_INVALID_ID);
  EXPECT_EQ(test::logged("<!-- A name must be specified when registering memory categories -->"), 1u);
  EXPECT_EQ(__VeskRegisterMemoryCategory("0123456789012345678901234567890123456789"), 1u);
  EXPECT_STREQ(info(1).name, "0123456789012345678901234567890");

  std::atomic<int> refused{0};
  std::atomic<uint64_t> given{0};
  test::runThreads(7, [&](int) { // 70 requests for the 62 that are left
    for (int i = 0; i < 10; ++i) {
      const uint32_t id = __VeskRegisterMemoryCategory("same");
      if (id == VESK_INVALID_ID) {
        ++refused;
      } else {
        given |= uint64_t{1} << id;
      }
    }
  });
  EXPECT_EQ(refused, 8);
  EXPECT_EQ(given, ~uint64_t{3});
  EXPECT_EQ(__VeskGetNumMemoryCategories(), 64u);
  EXPECT_STREQ(info(63).name, "same");

  VeskMemoryCategoryInfo untouched;
  std::memset(&untouched, 0x55, sizeof untouched);
  EXPECT_EQ(__VeskGetMemoryInfoByCategory(64, &untouched), 0);
  EXPECT_EQ(__VeskGetMemoryInfoByCategory(0, nullptr), 0);
  EXPECT_EQ(untouched.allocated, 0x5555555555555555);
}

TEST(Statistics, CountSlabsAndRememberThePeak) {
  test::startRuntime();
  const uint32_t mine = __VeskRegisterMemoryCategory("MINE");
  __VeskMalloc(mine, 100, 0);
  EXPECT_EQ(info(mine).allocated, 0); // not on yet
  __VeskEnableMemoryStatisticsCollection();

  void* chunks[6];
  for (void*& chunk : chunks) chunk = __VeskMalloc(mine, kHalfSlab, 0);
  EXPECT_EQ(info(mine).allocated, 3 * 65536);
  void* large = __VeskMalloc(mine, 1 << 20, 0);
  EXPECT_EQ(info(mine).allocated, 3 * 65536); // large blocks are not counted
  __VeskFree(large);
  __VeskFree(chunks[0]); // two slabs in the row's list, the second one becomes free
  __VeskFree(chunks[2]);
  __VeskFree(chunks[3]);
  EXPECT_EQ(info(mine).allocated, 2 * 65536);
  EXPECT_EQ(info(mine).allocatedAtPeak, 3 * 65536);
  EXPECT_EQ(__VeskGetPeakTotalMemoryAllocated(), 3u * 65536);

  __VeskMalloc(0, 100, 2); // a new peak: of the total, with this category's lower figure in it
  EXPECT_EQ(__VeskGetPeakTotalMemoryAllocated(), 2u * 65536 + 4 * 65536);
  EXPECT_EQ(info(mine).allocatedAtPeak, 2 * 65536);
  EXPECT_EQ(info(0).allocatedAtPeak, 4 * 65536);
  EXPECT_EQ(__VeskGetTotalTimesMemoryCollected(), 0u);
}

// The dump is written under the statistics lock, by the thread whose slab was the hundredth; creating the log
// for it takes memory, and with it more slabs.
TEST(Statistics, EveryHundredthSlabDumpsIntoTheLog) {
  test::startRuntime();
  const uint32_t mine = __VeskRegisterMemoryCategory("MINE");
  __VeskEnableMemoryStatisticsCollection();
  const auto dumps = [] { return test::logged("<!-- Periodic allocation status dump -->"); };
  for (int i = 0; i < 99; ++i) __VeskMalloc(mine, kHalfSlab, 0), __VeskMalloc(mine, kHalfSlab, 0);
  EXPECT_EQ(dumps(), 0u);
  __VeskMalloc(mine, kHalfSlab, 0);
  EXPECT_EQ(dumps(), 1u);
  EXPECT_EQ(test::logged("<!-- Allocation status for VESK_MISC                :"), 1u);
  EXPECT_EQ(test::logged("<!-- Allocation status for MINE                     :        6553600 -->"), 1u);
  test::runThreads(4, [&](int) {
    for (int i = 0; i < 100; ++i) __VeskMalloc(mine, kHalfSlab, 0);
  });
  EXPECT_GE(dumps(), 2u);
}
