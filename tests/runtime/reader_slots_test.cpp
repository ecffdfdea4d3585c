#include "runtime/reader_slots.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "veskrt/runtime.h"

namespace {

struct ReaderSlots : testing::Test {
  void SetUp() override { test::installHost(); }
  VeskSharedExclusiveLock lock = {};
  std::vector<char> memory = std::vector<char>(vesk::ReaderSlots::kBytes);
  vesk::ReaderSlots slots{memory.data()};
};

} // namespace

TEST_F(ReaderSlots, ArriveOnlyWhileNobodyHoldsOrWantsTheLockExclusive) {
  EXPECT_FALSE(slots.hasReaders());
  vesk::ReaderSlot* const mine = slots.tryToArrive(lock);
  ASSERT_NE(mine, nullptr);
  EXPECT_TRUE(slots.hasReaders());
  EXPECT_EQ(slots.tryToArrive(lock), nullptr); // taken
  vesk::ReaderSlots::leave(*mine);
  EXPECT_FALSE(slots.hasReaders());

  lock.writerWaiting = 1;
  EXPECT_EQ(slots.tryToArrive(lock), nullptr);
  lock.writerWaiting = 0;
  __VeskAcquireExclusiveLock(&lock);
  EXPECT_EQ(slots.tryToArrive(lock), nullptr);
  EXPECT_FALSE(slots.hasReaders());
  __VeskReleaseExclusiveLock(&lock);
  __VeskAcquireSharedLock(&lock);
  EXPECT_EQ(slots.tryToArrive(lock), mine);
  vesk::ReaderSlots::leave(*mine);
}

// Plain words that readers see whole or not at all: the thread sanitizer, too, looks at these.
TEST_F(ReaderSlots, WritersAreAlone) {
  uint64_t first = 0;
  uint64_t second = 0;
  std::atomic<bool> done{false};
  std::atomic<int> torn{0};
  std::atomic<int> announced{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      while (!done || announced == 0) {
        vesk::ReaderSlot* const slot = slots.tryToArrive(lock);
        if (slot == nullptr) {
          __VeskYield();
          continue;
        }
        torn += first != second;
        ++announced;
        vesk::ReaderSlots::leave(*slot);
      }
    });
  }
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 3000; ++round) {
        __VeskAcquireExclusiveLock(&lock);
        slots.waitForReaders();
        ++first;
        ++second;
        __VeskReleaseExclusiveLock(&lock);
      }
    });
  }
  threads[3].join();
  threads[4].join();
  done = true;
  for (int i = 0; i < 3; ++i) threads[static_cast<size_t>(i)].join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(first, 6000u);
}
