#include "veskrt/spin_lock.h"

#include <thread>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/runtime.h"

namespace {

struct SpinLock : testing::Test {
  void SetUp() override {
    test::installHost();
    __veskNumberOfProcessors = 2;
    __VeskInitializeSpinLockAndSpinCount(&lock, 100);
  }
  void expectWords(uint64_t owner, uint32_t state, uint32_t recursion) const {
    EXPECT_EQ(lock.owner, owner);
    EXPECT_EQ(lock.state, state);
    EXPECT_EQ(lock.recursionCount, recursion);
  }
  VeskSpinLock lock;
};

} // namespace

TEST_F(SpinLock, HolderReentersAndOthersFindItBusy) {
  expectWords(0, 0, 0);
  EXPECT_EQ(lock.spinCount, 100u);
  __VeskReleaseSpinLock(&lock); // a free lock is left alone
  expectWords(0, 0, 0);

  __VeskAcquireSpinLock(&lock);
  __VeskAcquireSpinLock(&lock);
  EXPECT_EQ(__VeskTryToAcquireSpinLock(&lock, 0), 1);
  expectWords(test::threadId(), 1, 3);
  EXPECT_EQ(__VeskIsSpinLockAcquiredByCallingThread(&lock), 1);
  std::thread([&] {
    EXPECT_EQ(__VeskIsSpinLockInAcquiredState(&lock), 1);
    EXPECT_EQ(__VeskIsSpinLockAcquiredByCallingThread(&lock), 0);
    EXPECT_EQ(__VeskTryToAcquireSpinLock(&lock, 0), 0);
    EXPECT_EQ(__VeskTryToAcquireSpinLock(&lock, 50), 0);
  }).join();
  __VeskReleaseSpinLock(&lock);
  __VeskReleaseSpinLock(&lock);
  expectWords(test::threadId(), 1, 1);
  __VeskReleaseSpinLock(&lock);
  expectWords(0, 0, 0);
  std::thread([&] {
    EXPECT_EQ(__VeskTryToAcquireSpinLock(&lock, 1), 1);
    __VeskReleaseSpinLock(&lock);
  }).join();
}

TEST_F(SpinLock, HoldsFromBeforeTheHookWasInstalledDoNotJamIt) {
  __VeskSetGetNativeThreadIdProc(nullptr);
  __VeskAcquireSpinLock(&lock);
  __VeskReleaseSpinLock(&lock);
  __VeskSetGetNativeThreadIdProc(test::threadId);
  __VeskAcquireSpinLock(&lock);
  __VeskReleaseSpinLock(&lock);
  expectWords(0, 0, 0);
}

TEST_F(SpinLock, ExcludesOversubscribedThreadsInEveryMode) {
  for (const int32_t processors : {1, 2}) {
    for (const uint32_t spinCount : {0u, 500u}) {
      __veskNumberOfProcessors = processors;
      __VeskInitializeSpinLockAndSpinCount(&lock, spinCount);
      uint64_t guarded = 0; // plain: only the lock keeps it whole
      test::runThreads(8, [&](int i) {
        for (int n = 0; n < 2000; ++n) {
          if (i % 2 == 0) {
            __VeskAcquireSpinLock(&lock);
          } else {
            while (__VeskTryToAcquireSpinLock(&lock, n % 3) == 0) __VeskYield();
          }
          __VeskAcquireSpinLock(&lock);
          ++guarded;
          __VeskReleaseSpinLock(&lock);
          __VeskReleaseSpinLock(&lock);
        }
      });
      EXPECT_EQ(guarded, 16000u);
      expectWords(0, 0, 0);
    }
  }
}
