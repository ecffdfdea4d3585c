// The call stacks, each once, and the site that belongs to each.
//
// A stack is found by its frames: first in a small cache of the thread, which takes no lock; then in one
// table for all. Its frames are resolved to modules when it is first seen. When a module goes, the stacks
// that lead through it are retired: they keep what was counted, and the same addresses make a new stack,
// until the very same module is back at its place.
#pragma once

#include <atomic>
#include <cstdint>

#include "collectors/heap/accounts.h"
#include "collectors/heap/backtrace.h"
#include "veskrt/host.h"

namespace heap {

struct Stack {
  std::uint64_t hash;
  const void* const* frames;
  const std::uint32_t* modules; // of each frame: an index, or kNoModule
  std::uint32_t depth;
  std::uint32_t id; // from 1 on
  bool cut;
  std::atomic<bool> retired;
};

// What belongs to one thread. Only its thread touches it.
struct ThreadState {
  static constexpr std::uint32_t kCached = 1024;

  const void* lastBlock; // handed out by the thread's last heap call; null when that was no allocation
  ThreadState* next;     // of those that no thread uses
  Stack* cached[kCached];
};

struct StackCategories {
  std::uint32_t stacks;
  std::uint32_t sites;
  std::uint32_t threads;
};

// Before the first event.
void startStacks(const StackCategories& categories);

// The stack with these frames. Without a state the thread goes to the shared table each time.
Stack& findStack(const Trace& trace, ThreadState* thread);

Site& siteOf(const Stack& stack);
Site& siteById(std::uint32_t id);

// A thread that makes its first heap call, and one that ends.
ThreadState* beginThread();
void endThread(ThreadState* state);

// `moduleCame` says whether that of another has been noticed by it: one has gone, or is back.
bool moduleCame(const VeskHostModule& module);
void moduleWent(const VeskHostModule& module);

// In the child of a fork: every site is 0 again.
void clearSites();

// While one is held, no stack and no module is added.
class StillStacks {
public:
  StillStacks();
  ~StillStacks();
  StillStacks(const StillStacks&) = delete;
  StillStacks& operator=(const StillStacks&) = delete;

  std::uint32_t count() const; // their sites have the ids 1 to count()
};

} // namespace heap
