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

// ---- Brief sections ----
//
// A few moves that call nothing, under the lock's state alone: this spares the thread-id read and the
// bookkeeping. Others see a lock whose holder has not recorded itself yet. A brief section may lie inside an
// ordinary acquisition by the same thread, and another lock's brief section inside it.

// Waits for a busy lock's state, or counts a recursion and returns true if the caller holds the lock already.
bool waitForSpinLockOrNest(VeskSpinLock& lock) noexcept;

template <class Section, class... Arguments>
[[gnu::noinline]] auto brieflyWhenFree(VeskSpinLock& lock, Section section, Arguments... arguments) noexcept {
  const bool nested = waitForSpinLockOrNest(lock);
  const auto result = section(arguments...);
  if (nested) {
    release(lock);
  } else {
    storeRelease(lock.state, 0);
  }
  return result;
}

// Runs section(arguments...) and returns its result. The section captures nothing: its data stays in
// registers.
template <class Section, class... Arguments>
[[gnu::always_inline]] inline auto briefly(VeskSpinLock& lock, Section section,
                                           Arguments... arguments) noexcept {
  if (!compareAndSwap(lock.state, 0, 1)) [[unlikely]]
    return brieflyWhenFree(lock, section, arguments...);
  const auto result = section(arguments...);
  storeRelease(lock.state, 0);
  return result;
}

// Runs section() and returns true if a single attempt takes the lock; a caller that holds it already does not
// get it.
template <class Section>
[[gnu::always_inline]] inline bool tryBriefly(VeskSpinLock& lock, Section section) noexcept {
  if (!compareAndSwap(lock.state, 0, 1)) return false;
  section();
  storeRelease(lock.state, 0);
  return true;
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
