// The host's own lock: a word and a yield. The library's locks ask the host who a thread is, so the host,
// which stands below them, uses none of them.
#pragma once

#include <atomic>

#include <sched.h>

namespace veskhost {

class SpinLock {
public:
  void lock() noexcept {
    while (held_.exchange(true, std::memory_order_acquire)) sched_yield();
  }
  // Gives up after so many tries with a yield between them.
  bool lockWithin(unsigned tries) noexcept {
    for (; !tryLock(); sched_yield()) {
      if (tries-- == 0) return false;
    }
    return true;
  }
  bool tryLock() noexcept { return !held_.exchange(true, std::memory_order_acquire); }
  void unlock() noexcept { held_.store(false, std::memory_order_release); }

private:
  std::atomic<bool> held_{false};
};

class ScopedLock {
public:
  explicit ScopedLock(SpinLock& lock) noexcept : lock_(lock) { lock_.lock(); }
  ~ScopedLock() { lock_.unlock(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

private:
  SpinLock& lock_;
};

} // namespace veskhost
