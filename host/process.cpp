// The process: its id, its exit callbacks, the fatal exit, and what a fork must find in order.
#include <atomic>
#include <cstdlib>

#include <pthread.h>
#include <unistd.h>

#include "host/core.h"
#include "host/spin.h"
#include "veskrt/memory.h"

namespace veskhost {

constinit FatalHook fatalHook = nullptr;

namespace {

constexpr std::uint32_t kExitCallbacks = 32;

struct ExitCallback {
  VeskExitCallback callback;
  void* argument;
  std::int32_t pid; // a child of fork inherits the list, but not the threads that the callbacks stop
};

constinit SpinLock exitLock;
constinit ExitCallback exitCallbacks[kExitCallbacks] = {};
constinit std::uint32_t exitCallbackCount = 0;

bool takeExitCallback(ExitCallback& taken) noexcept {
  ScopedLock hold(exitLock);
  if (exitCallbackCount == 0) return false;
  taken = exitCallbacks[--exitCallbackCount];
  return true;
}

std::int32_t processId() { return getpid(); }

void endFatally(std::int32_t exitCode) {
  if (fatalHook != nullptr) fatalHook(exitCode);
  std::exit(exitCode);
}

} // namespace

int addExitCallback(VeskExitCallback callback, void* argument) noexcept {
  ScopedLock hold(exitLock);
  // A child of fork starts anew where its parent's callbacks stand.
  while (exitCallbackCount > 0 && exitCallbacks[exitCallbackCount - 1].pid != processId())
    --exitCallbackCount;
  if (exitCallbackCount == kExitCallbacks) return 0;
  exitCallbacks[exitCallbackCount++] = {callback, argument, processId()};
  return 1;
}

void runExitCallbacks() noexcept {
  ExitCallback next;
  while (takeExitCallback(next)) {
    if (next.pid == processId()) next.callback(next.argument);
  }
}

void prepareFork() noexcept {
  self.holdsForkLocks = false;
  if (!exitLock.lockWithin(kForkPatience)) return;
  self.holdsForkLocks = lockMemoryForFork();
  if (!self.holdsForkLocks) exitLock.unlock();
}

void forkedInParent() noexcept {
  if (!self.holdsForkLocks) return;
  unlockMemory();
  exitLock.unlock();
}

// Whoever held the locks is not here.
void forkedInChild() noexcept {
  self.id = 0;
  unlockMemory();
  exitLock.unlock();
}

void installProcess() noexcept {
  pthread_atfork(prepareFork, forkedInParent, forkedInChild);
  __VeskSetGetPidProc(processId);
  __VeskSetExitHandler(endFatally);
}

bool install() noexcept {
  static constinit std::atomic<bool> installed{false};
  if (installed.exchange(true)) return false;
  installThreads();
  installProcess();
  __VeskInitializeSubAllocator(veskHostAllocate, veskHostFree);
  __VeskRtStartup();
  return true;
}

} // namespace veskhost

void veskHostInstall() {
  if (veskhost::install()) std::atexit([] { veskhost::runExitCallbacks(); });
}
