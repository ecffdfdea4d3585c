#include "veskrt/atomic.h"

#include <gtest/gtest.h>

#include "support/threads.h"

TEST(Atomic, ResultsAreOldOrNewValues) {
  uint32_t word = 3;
  EXPECT_EQ(__VeskInterlockedCompareExchange(&word, 5, 3), 3u);
  EXPECT_EQ(word, 5u);
  EXPECT_EQ(__VeskInterlockedCompareExchangeInternal(&word, 9, 3), 5u);
  EXPECT_EQ(word, 5u);
  EXPECT_EQ(__VeskInterlockedExchangeAdd(&word, 0xFFFFFFFF), 5u);
  EXPECT_EQ(__VeskInterlockedExchangeAddInternal(&word, 2), 4u);
  EXPECT_EQ(word, 6u);

  uint64_t wide = 0x100000003;
  EXPECT_EQ(__VeskInterlockedCompareExchange64(&wide, 1, 3), 0x100000003u); // compares all 64 bits
  EXPECT_EQ(__VeskInterlockedCompareExchange64Internal(&wide, 0x700000001, 0x100000003), 0x100000003u);
  EXPECT_EQ(wide, 0x700000001u);

  uint32_t counter = 1;
  EXPECT_EQ(__VeskInterlockedDecrement(&counter), 0);
  EXPECT_EQ(__VeskInterlockedDecrementInternal(&counter), -1);
  EXPECT_EQ(__VeskInterlockedIncrement(&counter), 0);
  EXPECT_EQ(__VeskInterlockedIncrementInternal(&counter), 1);
}

TEST(Atomic, BitScans) {
  for (uint32_t bit = 0; bit < 64; ++bit) {
    const uint64_t value = uint64_t{1} << bit;
    EXPECT_EQ(__VeskGetMostSignificantOneIndexLong(value), bit);
    EXPECT_EQ(__VeskGetMostSignificantOneIndexLong(value | (value - 1)), bit);
    if (bit >= 32) continue;
    const auto narrow = static_cast<uint32_t>(value);
    EXPECT_EQ(__VeskGetLeastSignificantOneIndex(narrow | 0x80000000), bit);
    EXPECT_EQ(__VeskGetLeastSignificantOneIndexInternal(narrow), bit);
    EXPECT_EQ(__VeskGetMostSignificantOneIndexInternal(narrow | 1), bit);
  }
}

TEST(Atomic, NoCountIsLostBetweenThreads) {
  uint32_t counter = 0;
  uint32_t swapped = 0;
  test::runThreads(4, [&](int) {
    for (int n = 0; n < 20000; ++n) {
      __VeskInterlockedIncrement(&counter);
      __VeskInterlockedExchangeAdd(&counter, 2);
      __VeskInterlockedDecrement(&counter);
      uint32_t seen = 0;
      for (uint32_t next; (next = __VeskInterlockedCompareExchange(&swapped, seen + 1, seen)) != seen;) {
        seen = next;
      }
    }
  });
  EXPECT_EQ(counter, 160000u);
  EXPECT_EQ(swapped, 80000u);
}
