#include "veskrt/shared_lock.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "runtime/atomic.h"
#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/runtime.h"

namespace {

struct SharedLock : testing::Test {
  void SetUp() override {
    test::installHost();
    __veskNumberOfProcessors = 2;
    __VeskInitializeSharedExclusiveLockAndSpinCount(&lock, 50);
  }
  void expectWords(uint32_t state, uint32_t readers, uint32_t waiting, uint32_t recursion) const {
    EXPECT_EQ(lock.state, state);
    EXPECT_EQ(lock.readerCount, readers);
    EXPECT_EQ(lock.writerWaiting, waiting);
    EXPECT_EQ(lock.recursionCount, recursion);
  }
  void waitUntil(const uint32_t& word, uint32_t value) {
    while (vesk::loadRelaxed(word) != value) __VeskYield();
  }
  VeskSharedExclusiveLock lock;
};

} // namespace

TEST_F(SharedLock, HolderReentersExclusiveAndSharedIsNothingToIt) {
  __VeskReleaseExclusiveLock(&lock);
  expectWords(0, 0, 0, 0);
  __VeskAcquireExclusiveLock(&lock);
  __VeskAcquireExclusiveLock(&lock);
  EXPECT_EQ(__VeskTryToAcquireExclusiveLock(&lock, 0), 1);
  __VeskAcquireSharedLock(&lock);
  __VeskReleaseSharedLock(&lock);
  expectWords(2, 0, 0, 3);
  EXPECT_EQ(lock.owner, test::threadId());
  std::thread([&] {
    EXPECT_EQ(__VeskIsExclusiveLockAcquiredByCallingThread(&lock), 0);
    EXPECT_EQ(__VeskTryToAcquireExclusiveLock(&lock, 20), 0);
  }).join();
  EXPECT_EQ(__VeskIsExclusiveLockAcquiredByCallingThread(&lock), 1);
  for (int i = 0; i < 3; ++i) __VeskReleaseExclusiveLock(&lock);
  expectWords(0, 0, 0, 0);
  EXPECT_EQ(lock.owner, 0u);
}

TEST_F(SharedLock, ReadersShareAndTheLastOneFreesIt) {
  __VeskAcquireSharedLock(&lock);
  std::thread([&] {
    __VeskAcquireSharedLock(&lock);
    expectWords(1, 2, 0, 0);
    EXPECT_EQ(__VeskTryToAcquireExclusiveLock(&lock, 0), 0);
    expectWords(1, 2, 0, 0); // a try is no waiting writer
    __VeskReleaseSharedLock(&lock);
  }).join();
  expectWords(1, 1, 0, 0);
  __VeskReleaseSharedLock(&lock);
  expectWords(0, 0, 0, 0);
}

TEST_F(SharedLock, WaitingWriterKeepsNewReadersBack) {
  __VeskAcquireSharedLock(&lock);
  std::atomic<int> order{0};
  int writerAt = 0;
  int readerAt = 0;
  std::thread writer([&] {
    __VeskAcquireExclusiveLock(&lock);
    writerAt = ++order;
    __VeskReleaseExclusiveLock(&lock);
  });
  waitUntil(lock.writerWaiting, 1);
  std::thread reader([&] {
    __VeskAcquireSharedLock(&lock);
    readerAt = ++order;
    __VeskReleaseSharedLock(&lock);
  });
  for (int i = 0; i < 1000; ++i) __VeskYield();
  EXPECT_EQ(order, 0);
  EXPECT_EQ(vesk::loadRelaxed(lock.readerCount), 1u);
  __VeskReleaseSharedLock(&lock);
  writer.join();
  reader.join();
  EXPECT_EQ(writerAt, 1);
  EXPECT_EQ(readerAt, 2);
  expectWords(0, 0, 0, 0);
}

// A reader that has been counted but has not reached the state yet: the last leaver must not free the lock
// under it, and a writer may still take a free state past it.
TEST_F(SharedLock, ReaderOnItsWayIsCounted) {
  __VeskAcquireSharedLock(&lock);
  lock.readerCount = 2; // the newcomer's increment
  __VeskReleaseSharedLock(&lock);
  expectWords(1, 1, 0, 0);
  __VeskReleaseSharedLock(&lock);
  expectWords(0, 0, 0, 0);

  lock.readerCount = 1;
  __VeskAcquireExclusiveLock(&lock);
  expectWords(2, 1, 0, 1);
  __VeskReleaseExclusiveLock(&lock);
  __VeskAcquireSharedLock(&lock);
  expectWords(1, 2, 0, 0);
}

TEST_F(SharedLock, ReadersAndWritersUnderContention) {
  for (const int32_t processors : {1, 2}) {
    __veskNumberOfProcessors = processors;
    __VeskInitializeSharedExclusiveLock(&lock);
    uint64_t first = 0; // plain words that are equal whenever the lock is not held exclusive
    uint64_t second = 0;
    std::atomic<int> torn{0};
    test::runThreads(8, [&](int i) {
      for (int n = 0; n < 1500; ++n) {
        if (i < 5) {
          __VeskAcquireSharedLock(&lock);
          torn += first != second;
          __VeskReleaseSharedLock(&lock);
          continue;
        }
        if (i == 7) {
          while (__VeskTryToAcquireExclusiveLock(&lock, 3) == 0) __VeskYield();
        } else {
          __VeskAcquireExclusiveLock(&lock);
        }
        ++first;
        __VeskAcquireSharedLock(&lock);
        ++second;
        __VeskReleaseSharedLock(&lock);
        __VeskReleaseExclusiveLock(&lock);
      }
    });
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(first, 4500u);
    EXPECT_EQ(second, 4500u);
    expectWords(0, 0, 0, 0);
  }
}
