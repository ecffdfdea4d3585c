// The process's one handler and the thread that serves it.
//
// The host creates the thread before there is a channel. The new thread is held on the registration word, in
// the kernel, until registration has finished either way; a channel that is ready then admits exactly one
// thread.
//
//     none -> claimed -> in progress -> ready -> served -> none
//                 |           |                             ^
//                 +-----------+----- registration failed ---+
//
// A forked child has copies of all this but no command thread, and the channel is its parent's: there,
// nothing is stopped and nothing removed.
#include <cerrno>
#include <climits>
#include <new>

#include <linux/futex.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "runtime/atomic.h"
#include "runtime/once_guard.h"
#include "runtime/thread_services.h"
#include "veskrt/command_handler.hpp"

using namespace vesk;

namespace {

constexpr std::uint32_t kStopTimeoutMilliseconds = 1000;

enum Registration : std::uint32_t { kNone, kClaimed, kInProgress, kReady, kServed };

constinit std::uint32_t registration = kNone;
constinit void* commandThread = nullptr; // the host's handle; null when no thread is registered
constinit std::int32_t stopFlag = 0;     // set before the post that wakes the thread; never cleared
constinit std::uint32_t stopGuard = 0;   // whoever waits for the thread's end
constinit pid_t owner = 0;               // the process that registered

// Constructed by the first registration: an object with a destructor would have one registered at load.
alignas(CollectorCommandHandler) constinit unsigned char storage[sizeof(CollectorCommandHandler)] = {};
constinit CollectorCommandHandler* handler = nullptr;

bool ownedHere() { return loadAcquire(owner) == getpid(); }

void finishRegistration(Registration outcome) {
  storeRelease(registration, outcome);
  syscall(SYS_futex, &registration, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
}

// Holds the calling thread until registration has finished; says whether it is the one to serve the channel.
bool admitted() {
  while (loadAcquire(registration) == kInProgress) {
    syscall(SYS_futex, &registration, FUTEX_WAIT_PRIVATE, kInProgress, nullptr, nullptr, 0);
  }
  return compareAndSwap(registration, kReady, kServed);
}

} // namespace

namespace vesk {

// What the thread knows of the handler beyond its public members.
struct CommandThread {
  // Read afresh for every wait: the channel may be taken down and its set with it.
  static int semaphoreSet() { return loadRelaxed(handler->semaphoreSet_); }
  static bool hasChannel() { return handler != nullptr && loadRelaxed(handler->segmentAddress_) != nullptr; }
};

} // namespace vesk

namespace {

// Waits for posts, and for the period in between if there is one, until it is stopped or the wait fails.
void serve(std::intptr_t heartbeatSeconds) {
  const timespec period = {static_cast<std::int32_t>(heartbeatSeconds), 0};
  for (;;) {
    sembuf take = {0, -1, 0};
    const bool posted =
        semtimedop(CommandThread::semaphoreSet(), &take, 1, heartbeatSeconds != 0 ? &period : nullptr) == 0;
    if (!posted && errno != EAGAIN) return;
    if (loadAcquire(stopFlag) != 0) return;
    if (posted) {
      handler->processCommands();
    } else {
      handler->processHeartbeat();
    }
  }
}

void commandThreadLoop(void* argument) {
  if (admitted()) {
    serve(reinterpret_cast<std::intptr_t>(argument));
    storeRelease(registration, kNone);
  }
  const VeskEndThreadProc endThread = threadServices().endThread;
  if (endThread != nullptr) endThread(0);
}

void stopCommandThread() {
  storeRelease(stopFlag, 1);
  sembuf post = {0, 1, SEM_UNDO};
  semop(CommandThread::semaphoreSet(), &post, 1);
  const VeskWaitForThreadProc waitForThread = threadServices().waitForThread;
  if (waitForThread != nullptr) waitForThread(&commandThread, kStopTimeoutMilliseconds, nullptr);
  storeRelaxed(commandThread, nullptr);
}

// A thread that a failed registration has left, or that is about to end since its channel is gone: the host
// gets it back before a new one takes its place.
void awaitEndedThread(const ThreadServices& services) {
  ScopedOnceGuard guard(stopGuard);
  const std::uint32_t state = loadAcquire(registration);
  const bool ends = state == kNone || ((state == kReady || state == kServed) && !CommandThread::hasChannel());
  if (!ends || loadRelaxed(commandThread) == nullptr) return;
  services.waitForThread(&commandThread, kStopTimeoutMilliseconds, nullptr);
  storeRelaxed(commandThread, nullptr);
}

void commandHandlerExitCallback(void*) {
  if (!ownedHere()) return;
  ScopedOnceGuard guard(stopGuard);
  if (loadRelaxed(commandThread) != nullptr) stopCommandThread();
}

} // namespace

int __VeskRegisterCommandHandlerWithHeartbeat(const char* directory, VeskCommandCallback callback,
                                              void* context, int heartbeatSeconds) {
  const ThreadServices services = threadServices();
  if (services.createThread == nullptr || services.endThread == nullptr ||
      services.waitForThread == nullptr || services.addExitCallback == nullptr) {
    return 0;
  }
  awaitEndedThread(services);
  if (!compareAndSwap(registration, kNone, kClaimed)) return 0;
  if (handler == nullptr) handler = new (storage) CollectorCommandHandler;
  storeRelease(owner, getpid());
  storeRelease(registration, kInProgress);

  auto* const period = reinterpret_cast<void*>(static_cast<std::intptr_t>(heartbeatSeconds));
  if (services.createThread(commandThreadLoop, period, 0, &commandThread) == 0) {
    finishRegistration(kNone);
    return 0;
  }
  services.addExitCallback(commandHandlerExitCallback, nullptr);
  const bool ready = handler->initializeCommandHandler(directory, callback, context) != 0;
  finishRegistration(ready ? kReady : kNone);
  return ready;
}

int __VeskRegisterCommandHandler(const char* directory, VeskCommandCallback callback, void* context) {
  return __VeskRegisterCommandHandlerWithHeartbeat(directory, callback, context, 0);
}

void __VeskShutdownCommandHandler() { commandHandlerExitCallback(nullptr); }

void __VeskUnregisterCommandHandler(int extent) {
  if (!ownedHere()) return;
  handler->cleanupCommandHandler(extent == VESKCMDHDLR_CLEAN_PARTIAL ? VESKCMDHDLR_CLEAN_PARTIAL
                                                                     : VESKCMDHDLR_CLEAN_COMPLETE);
}
