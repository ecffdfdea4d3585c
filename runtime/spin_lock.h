// The spin lock's fast paths, for use inside the library: a free lock costs one thread-id read and one locked
// instruction, and its release is two plain stores.
//
// The state word alone decides who holds the lock. Owner and recursion count belong to the holder; the owner
// is also read by threads that do not hold the lock, and never shows them their own id: the holder clears it
// before it lets go.
#pragma once

#include "runtime/hooks.h"
#include "veskrt/spin_lock.h"

namespace vesk {

// Waits until the state is free and takes it. The caller then records itself as the owner.
void waitForSpinLock(VeskSpinLock& lock) noexcept;

[[gnu::always_inline]] inline void ownSpinLock(VeskSpinLock& lock, std::uint64_t self) noexcept {
  storeRelaxed(lock.owner, self);
  // Set, not added to: acquisitions made before the host installed its thread-id hook left a count behind.
  lock.recursionCount = 1;
}

[[gnu::always_inline]] inline void acquire(VeskSpinLock& lock) noexcept {
  const std::uint64_t self = nativeThreadId();
  if (loadRelaxed(lock.owner) == self) [[unlikely]] {
    lock.recursionCount = lock.recursionCount + 1;
    return;
  }
  if (!compareAndSwap(lock.state, 0, 1)) [[unlikely]]
    waitForSpinLock(lock);
  ownSpinLock(lock, self);
}

[[gnu::always_inline]] inline void release(VeskSpinLock& lock) noexcept {
  if (loadRelaxed(lock.state) != 1) [[unlikely]]
    return;
  if (lock.recursionCount > 1) [[unlikely]] {
    lock.recursionCount = lock.recursionCount - 1;
    return;
  }
  lock.recursionCount = 0;
  storeRelaxed(lock.owner, 0);
  storeRelease(lock.state, 0);
}

class ScopedSpinLock {
public:
  explicit ScopedSpinLock(VeskSpinLock& lock) noexcept : lock_(lock) { acquire(lock_); }
  ~ScopedSpinLock() { release(lock_); }
  ScopedSpinLock(const ScopedSpinLock&) = delete;
  ScopedSpinLock& operator=(const ScopedSpinLock&) = delete;

private:
  VeskSpinLock& lock_;
};

} // namespace vesk
