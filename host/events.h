// The collector's ear: who listens, and how a thread goes in and out of the collector.
//
// Every callback runs inside an Event. An Event marks its thread, keeps errno and cancellation from the
// program, and passes the gate, which counts the threads that are inside. Whoever needs the collector to
// stand still (a fork, so that the child finds no lock held; the end of the process) closes the gate or takes
// the listener away and waits until nobody is inside.
#pragma once

#include <atomic>
#include <cerrno>

#include "host/core.h"

namespace veskhost {

// Set in the constructor when there is a collector; false in a program that is only passed through.
[[gnu::visibility("hidden")]] extern constinit std::atomic<bool> watchingFlag;

[[gnu::always_inline]] inline bool watching() noexcept {
  return watchingFlag.load(std::memory_order_relaxed);
}

// Never null: a table of null callbacks when nobody listens.
[[gnu::visibility("hidden")]] extern constinit std::atomic<const VeskHostEvents*> listener;

class Event {
public:
  Event() noexcept;
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  const VeskHostEvents* operator->() const noexcept { return listener_; }

private:
  const int errno_;
  bool cancellationHeld_ = false;
  int cancellation_ = 0;
  const VeskHostEvents* listener_;
};

// Does the calling thread raise events now, and does somebody hear this one?
template <class Callback>
[[gnu::always_inline]] inline bool hears(Callback VeskHostEvents::*callback) noexcept {
  return self.mark == Mark::kProgram && listener.load(std::memory_order_relaxed)->*callback != nullptr;
}

// From here on callbacks run.
void listen(const VeskHostEvents& events) noexcept;

// Is this the process that the collector was started in (or a child that is followed), and not a child that
// shares its memory or has not been told of?
bool isOwnProcess() noexcept;

// The end of the process, told once; with the program's exit handlers behind it.
void processEnds(VeskProcessEnd how, int status) noexcept;

// From now on threads may be cancelled: returns when every thread inside is safe from it.
void allowCancellation() noexcept;

// A fork through _Fork, which runs no handlers, by the steps of one that does.
void prepareObservedFork() noexcept;
void observedForkInParent() noexcept;
void observedForkInChild() noexcept;

} // namespace veskhost
