// What the pieces of the host that need no interposition share: the state of a thread, and the hooks that the
// preloaded host hangs into them.
#pragma once

#include <cstdint>

#include "veskrt/host.h"
#include "veskrt/runtime.h"

namespace veskhost {

// Whose code a thread runs. It decides where a heap call of the thread goes (see interpose_heap.cpp).
enum class Mark : std::uint32_t {
  kProgram,   // the program's: its calls raise events
  kCollector, // the collector's or the library's
  kAllocator  // the program's allocator, which may call heap functions of its own
};

struct TlsSlot;

struct ThreadState {
  std::uint32_t id;       // the kernel's thread id; 0 until it is asked for
  std::uint32_t parentId; // that of the thread that made it; 0 if unknown
  Mark mark;
  Mark markBeforeFork;
  bool quietBeforeFork; // no other thread was inside the collector when this one forked
  bool holdsForkLocks;
  bool tellEnd;          // its start has been told
  TlsSlot* slots;        // the thread's values of TLS slots; null until the first is stored
  void* execEnvironment; // an environment that this thread, as the child of a vfork, has left behind
};

// Initial-exec: reached in one instruction, and never allocated by the dynamic loader in the middle of a heap
// call.
extern constinit thread_local ThreadState self [[gnu::tls_model("initial-exec")]];

[[gnu::noinline]] std::uint32_t askForThreadId() noexcept;

[[gnu::always_inline]] inline std::uint32_t threadId() noexcept {
  const std::uint32_t id = self.id;
  return id != 0 ? id : askForThreadId();
}

// Runs its scope as the collector's.
class ScopedCollectorMark {
public:
  ScopedCollectorMark() noexcept : before_(self.mark) { self.mark = Mark::kCollector; }
  ~ScopedCollectorMark() { self.mark = before_; }
  ScopedCollectorMark(const ScopedCollectorMark&) = delete;
  ScopedCollectorMark& operator=(const ScopedCollectorMark&) = delete;

private:
  Mark before_;
};

// ---- Threads ----

// Makes the key whose destructor hears of the end of threads, and installs ids, TLS slots and thread
// services.
void installThreads() noexcept;

// Has the end of the calling thread heard of, after its own thread-local destructors.
void watchThreadEnd() noexcept;

using ThreadEndHook = void (*)() noexcept;

// Called at the end of a thread whose `tellEnd` is set; null in the static host.
extern constinit ThreadEndHook threadEndHook;

// Starts an internal thread; its arguments are those of VeskCreateThreadProc.
int createThread(VeskThreadFunction function, void* argument, std::size_t stackSize, void** handle) noexcept;
// The last act of an internal thread.
[[noreturn]] void endThread(std::uint32_t exitCode) noexcept;
int waitForThread(void** handle, std::uint32_t milliseconds, std::uint32_t* exitCode) noexcept;

// ---- Process ----

void installProcess() noexcept;

int addExitCallback(VeskExitCallback callback, void* argument) noexcept;

// Runs the exit callbacks that this process (not its parent) has registered, last first, each once.
void runExitCallbacks() noexcept;

using FatalHook = void (*)(int status) noexcept;

// Takes the library's fatal path over; null in the static host, where it ends in exit().
extern constinit FatalHook fatalHook;

// Around a fork that runs no fork handlers.
void prepareFork() noexcept;
void forkedInParent() noexcept;
void forkedInChild() noexcept;

// ---- All of it ----

// As veskHostInstall, without a place among the program's exit handlers. False if it has been done before.
bool install() noexcept;

// Memory: held across a fork, so that the child finds it free.
bool lockMemoryForFork() noexcept;
void unlockMemory() noexcept;

// Tries before a fork goes on without a lock, which its own thread may hold: a signal handler forks anywhere.
inline constexpr unsigned kForkPatience = 10000;

// Milliseconds of a clock that is never set.
std::uint64_t nowMilliseconds() noexcept;

} // namespace veskhost
