// The shared/exclusive lock: the waiting that the inline fast paths leave out, and the exported functions.
#include "runtime/shared_lock.h"

#include "runtime/backoff.h"

namespace vesk::shared_lock {

// The single steps of an arrival. Once the reader is counted, a writer that begins to wait no longer keeps it
// back.
void acquireSharedSlowly(VeskSharedExclusiveLock& lock) noexcept {
  Backoff backoff(lock.spinCount);
  while (loadRelaxed(lock.writerWaiting) == 1) backoff.busy();
  fetchAdd(word(lock), kOneReader);
  for (;;) {
    if (loadRelaxed(lock.state) == kExclusive) {
      backoff.busy();
    } else if (compareAndSwap(lock.state, kFree, kShared) || loadAcquire(lock.state) == kShared) {
      return; // a shared state stays shared while we are counted
    }
  }
}

// The single steps of a departure: another reader may arrive between them, and then the lock stays shared. Both are made on
// the whole word, so that what a reader has read is ordered before the writer that finds the lock freed by another one.
void releaseSharedSlowly(VeskSharedExclusiveLock& lock) noexcept {
  fetchAdd(word(lock), -kOneReader);
  compareAndSwap(word(lock), kShared, kFree);
}

void waitForExclusive(VeskSharedExclusiveLock& lock) noexcept {
  Backoff backoff(lock.spinCount);
  for (;;) {
    if (loadRelaxed(lock.state) == kFree) {
      if (compareAndSwap(lock.state, kFree, kExclusive)) return;
      continue;
    }
    // Raised anew on every round: a writer that gets in clears it for all.
    if (loadRelaxed(lock.writerWaiting) == 0) storeRelaxed(lock.writerWaiting, 1);
    if (backoff.busy() && compareAndSwap(lock.state, kFree, kExclusive)) return;
  }
}

} // namespace vesk::shared_lock

using namespace vesk;

void __VeskInitializeSharedExclusiveLock(VeskSharedExclusiveLock* lock) {
  __VeskInitializeSharedExclusiveLockAndSpinCount(lock, 0);
}

void __VeskInitializeSharedExclusiveLockAndSpinCount(VeskSharedExclusiveLock* lock, uint32_t spinCount) {
  *lock = VeskSharedExclusiveLock{};
  lock->spinCount = spinCount;
}

void __VeskAcquireSharedLock(VeskSharedExclusiveLock* lock) { acquireShared(*lock); }

void __VeskReleaseSharedLock(VeskSharedExclusiveLock* lock) { releaseShared(*lock); }

void __VeskAcquireExclusiveLock(VeskSharedExclusiveLock* lock) { acquireExclusive(*lock); }

void __VeskReleaseExclusiveLock(VeskSharedExclusiveLock* lock) { releaseExclusive(*lock); }

int __VeskTryToAcquireExclusiveLock(VeskSharedExclusiveLock* lock, uint32_t tries) {
  const std::uint64_t self = nativeThreadId();
  if (loadRelaxed(lock->owner) == self) {
    lock->recursionCount = lock->recursionCount + 1;
    return 1;
  }
  if (!tryToTake(lock->state, shared_lock::kExclusive, tries)) return 0;
  shared_lock::own(*lock, self);
  return 1;
}

int __VeskIsExclusiveLockAcquiredByCallingThread(const VeskSharedExclusiveLock* lock) {
  return loadRelaxed(lock->state) == shared_lock::kExclusive && loadRelaxed(lock->owner) == nativeThreadId();
}
