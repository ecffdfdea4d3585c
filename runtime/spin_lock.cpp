// The spin lock: the waiting that the inline fast path leaves out, and the exported functions.
#include "runtime/spin_lock.h"

#include "runtime/backoff.h"

namespace vesk {

void waitForSpinLock(VeskSpinLock& lock) noexcept {
  Backoff backoff(lock.spinCount);
  for (;;) {
    if (loadRelaxed(lock.state) != 0) {
      backoff.busy();
    } else if (compareAndSwap(lock.state, 0, 1)) {
      return;
    }
  }
}

bool waitForSpinLockOrNest(VeskSpinLock& lock) noexcept {
  if (loadRelaxed(lock.owner) == nativeThreadId()) {
    lock.recursionCount = lock.recursionCount + 1;
    return true;
  }
  waitForSpinLock(lock);
  return false;
}

} // namespace vesk

using namespace vesk;

void __VeskInitializeSpinLock(VeskSpinLock* lock) { __VeskInitializeSpinLockAndSpinCount(lock, 0); }

void __VeskInitializeSpinLockAndSpinCount(VeskSpinLock* lock, uint32_t spinCount) {
  *lock = VeskSpinLock{};
  lock->spinCount = spinCount;
}

int __VeskIsSpinLockInAcquiredState(const VeskSpinLock* lock) { return loadRelaxed(lock->state) == 1; }

int __VeskIsSpinLockAcquiredByCallingThread(const VeskSpinLock* lock) {
  return loadRelaxed(lock->state) == 1 && loadRelaxed(lock->owner) == nativeThreadId();
}

void __VeskAcquireSpinLock(VeskSpinLock* lock) { acquire(*lock); }

int __VeskTryToAcquireSpinLock(VeskSpinLock* lock, uint32_t tries) {
  const std::uint64_t self = nativeThreadId();
  if (loadRelaxed(lock->owner) == self) {
    lock->recursionCount = lock->recursionCount + 1;
    return 1;
  }
  if (!tryToTake(lock->state, 1, tries)) return 0;
  ownSpinLock(*lock, self);
  return 1;
}

void __VeskReleaseSpinLock(VeskSpinLock* lock) { release(*lock); }
