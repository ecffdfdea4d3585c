// The shared/exclusive lock's fast paths, for use inside the library.
//
//   state   readers   what it means
//     0        0      free
//     0        r      r readers on their way; the first of them to get to it sets the state
//     1        r      held shared; 0 readers only inside a release
//     2        r      held exclusive, r readers wait for it
//
// State and reader count are one 64-bit word. While no writer holds or waits, a reader arrives by one
// compare-and-swap of the word, {0 or 1, r} to {1, r + 1}, and leaves by another, the last one to {0, 0}; the
// slow paths take the same steps singly. A writer swaps the state alone, from 0 to 2, so that readers on
// their way do not keep it out.
#pragma once

#include "runtime/hooks.h"
#include "veskrt/shared_lock.h"

namespace vesk {

namespace shared_lock {

inline constexpr std::uint32_t kFree = 0;
inline constexpr std::uint32_t kShared = 1;
inline constexpr std::uint32_t kExclusive = 2;
inline constexpr std::uint64_t kOneReader = std::uint64_t{1} << 32;

[[gnu::always_inline]] inline std::uint64_t& word(VeskSharedExclusiveLock& lock) noexcept {
  using Word [[gnu::may_alias]] = std::uint64_t;
  return reinterpret_cast<Word&>(lock.state);
}

void acquireSharedSlowly(VeskSharedExclusiveLock& lock) noexcept;
void releaseSharedSlowly(VeskSharedExclusiveLock& lock) noexcept;
void waitForExclusive(VeskSharedExclusiveLock& lock) noexcept;

[[gnu::always_inline]] inline void own(VeskSharedExclusiveLock& lock, std::uint64_t self) noexcept {
  storeRelaxed(lock.writerWaiting, 0);
  storeRelaxed(lock.owner, self);
  lock.recursionCount = 1;
}

} // namespace shared_lock

// Those that take the caller's id spare a caller of several locks the reads of it.
[[gnu::always_inline]] inline void acquireShared(VeskSharedExclusiveLock& lock, std::uint64_t self) noexcept {
  using namespace shared_lock;
  if (loadRelaxed(lock.owner) == self) [[unlikely]]
    return;
  const std::uint64_t seen = loadRelaxed(word(lock));
  const std::uint64_t arrived = (seen | kShared) + kOneReader;
  if (static_cast<std::uint32_t>(seen) > kShared || loadRelaxed(lock.writerWaiting) != 0 ||
      !compareAndSwap(word(lock), seen, arrived)) [[unlikely]] {
    acquireSharedSlowly(lock);
  }
}

[[gnu::always_inline]] inline void acquireShared(VeskSharedExclusiveLock& lock) noexcept {
  acquireShared(lock, nativeThreadId());
}

[[gnu::always_inline]] inline void releaseShared(VeskSharedExclusiveLock& lock, std::uint64_t self) noexcept {
  using namespace shared_lock;
  if (loadRelaxed(lock.owner) == self) [[unlikely]]
    return;
  const std::uint64_t seen = loadRelaxed(word(lock));
  const std::uint64_t left = seen == (kShared | kOneReader) ? 0 : seen - kOneReader;
  if (!compareAndSwap(word(lock), seen, left)) [[unlikely]]
    releaseSharedSlowly(lock);
}

[[gnu::always_inline]] inline void releaseShared(VeskSharedExclusiveLock& lock) noexcept {
  releaseShared(lock, nativeThreadId());
}

[[gnu::always_inline]] inline void acquireExclusive(VeskSharedExclusiveLock& lock,
                                                    std::uint64_t self) noexcept {
  if (loadRelaxed(lock.owner) == self) [[unlikely]] {
    lock.recursionCount = lock.recursionCount + 1;
    return;
  }
  if (!compareAndSwap(lock.state, shared_lock::kFree, shared_lock::kExclusive)) [[unlikely]] {
    shared_lock::waitForExclusive(lock);
  }
  shared_lock::own(lock, self);
}

[[gnu::always_inline]] inline void acquireExclusive(VeskSharedExclusiveLock& lock) noexcept {
  acquireExclusive(lock, nativeThreadId());
}

// Gives the caller's shared hold back and takes the lock exclusive. Says whether nobody could hold it in
// between: the only reader swaps {1, 1} for {2, 0} at once, and only other readers can have come and gone
// since it arrived.
[[gnu::always_inline]] inline bool exchangeSharedForExclusive(VeskSharedExclusiveLock& lock,
                                                              std::uint64_t self) noexcept {
  using namespace shared_lock;
  if (compareAndSwap(word(lock), kShared | kOneReader, std::uint64_t{kExclusive})) [[likely]] {
    own(lock, self);
    return true;
  }
  releaseShared(lock, self);
  acquireExclusive(lock, self);
  return false;
}

[[gnu::always_inline]] inline void releaseExclusive(VeskSharedExclusiveLock& lock) noexcept {
  if (loadRelaxed(lock.state) != shared_lock::kExclusive) [[unlikely]]
    return;
  if (lock.recursionCount > 1) [[unlikely]] {
    lock.recursionCount = lock.recursionCount - 1;
    return;
  }
  lock.recursionCount = 0;
  storeRelaxed(lock.owner, 0);
  storeRelease(lock.state, shared_lock::kFree);
}

class ScopedSharedLock {
public:
  explicit ScopedSharedLock(VeskSharedExclusiveLock& lock) noexcept : lock_(lock) { acquireShared(lock_); }
  ~ScopedSharedLock() { releaseShared(lock_); }
  ScopedSharedLock(const ScopedSharedLock&) = delete;
  ScopedSharedLock& operator=(const ScopedSharedLock&) = delete;

private:
  VeskSharedExclusiveLock& lock_;
};

class ScopedExclusiveLock {
public:
  explicit ScopedExclusiveLock(VeskSharedExclusiveLock& lock) noexcept : lock_(lock) {
    acquireExclusive(lock_);
  }
  ~ScopedExclusiveLock() { releaseExclusive(lock_); }
  ScopedExclusiveLock(const ScopedExclusiveLock&) = delete;
  ScopedExclusiveLock& operator=(const ScopedExclusiveLock&) = delete;

private:
  VeskSharedExclusiveLock& lock_;
};

} // namespace vesk
