#include "host/events.h"

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/descriptors.h"
#include "host/modules.h"
#include "host/next.h"

namespace veskhost {

constinit std::atomic<bool> watchingFlag{false};

namespace {

constexpr VeskHostEvents kNobody = {};

constinit VeskHostEvents collectorEvents = {};
constinit std::atomic<pid_t> ownProcess{0};
constinit std::atomic<std::uint32_t> endingThread{0}; // who ends the process; nobody yet
constinit std::atomic<bool> ended{false};             // and has told the collector
constinit struct stat standardError = {};             // as it was at the start
constinit std::atomic<bool> cancellationAllowed{false};

// How long to wait for threads that are inside the collector, when they may be stuck there.
constexpr std::uint64_t kPatience = 2000;
// How long another thread that ends the process waits for the collector to write its result.
constexpr std::uint64_t kPatienceForResult = 10000;

// ---- The gate ----
//
// A thread counts itself into one of several counters and then looks whether the gate is closed; whoever
// closes it looks at the counters afterwards. Both are locked instructions, so one of the two sees the other.

constexpr std::uint32_t kCounters = 64;

struct alignas(64) Counter {
  std::atomic<std::uint32_t> inside;
};

constinit Counter counters[kCounters] = {};
constinit std::atomic<std::uint32_t> closed{0}; // how many keep it closed

Counter& ownCounter() noexcept { return counters[threadId() % kCounters]; }

[[gnu::noinline]] void waitAtGate(Counter& counter) noexcept {
  do {
    counter.inside.fetch_sub(1);
    while (closed.load(std::memory_order_relaxed) != 0) sched_yield();
    counter.inside.fetch_add(1);
  } while (closed.load() != 0);
}

void passIn() noexcept {
  Counter& counter = ownCounter();
  counter.inside.fetch_add(1);
  if (closed.load() != 0) [[unlikely]]
    waitAtGate(counter);
}

void passOut() noexcept { ownCounter().inside.fetch_sub(1); }

std::uint32_t threadsInside() noexcept {
  std::uint32_t inside = 0;
  for (const Counter& counter : counters) inside += counter.inside.load();
  return inside;
}

// Waits until nobody is inside, or only the caller; false when that takes too long.
bool waitUntilQuiet(std::uint64_t milliseconds, std::uint32_t callers = 0) noexcept {
  if (threadsInside() == callers) return true;
  const std::uint64_t deadline = nowMilliseconds() + milliseconds;
  while (threadsInside() != callers) {
    if (nowMilliseconds() >= deadline) return false;
    sched_yield();
  }
  return true;
}

// ---- The end ----

struct Ending {
  VeskProcessEnd how;
  int status;
  std::uint64_t patience;
};

// In this order, so that nobody else works on what the collector writes: threads of the program, the
// collector's own threads, the last callback.
void endCollector(const Ending& ending) noexcept {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
  listener.store(&kNobody);
  if (ending.patience > 0) waitUntilQuiet(ending.patience);
  runExitCallbacks();
  if (collectorEvents.processEnding != nullptr) collectorEvents.processEnding(ending.how, ending.status);
  ended.store(true);
}

// Is the calling thread the one that ends the process? Of several the first is, and the others wait for it.
bool beginEnd() noexcept {
  std::uint32_t first = 0;
  if (endingThread.compare_exchange_strong(first, threadId())) return true;
  const std::uint64_t deadline = nowMilliseconds() + kPatienceForResult;
  while (first != threadId() && !ended.load() && nowMilliseconds() < deadline) sched_yield();
  return false;
}

// Descriptor 2 may have become a file of the program.
bool standardErrorIsStillThere() noexcept {
  struct stat now;
  return fstat(STDERR_FILENO, &now) == 0 && now.st_dev == standardError.st_dev &&
         now.st_ino == standardError.st_ino;
}

void endFatally(int status) noexcept {
  if (isOwnProcess() && beginEnd()) {
    static constexpr char kText[] =
        "veskhost: the collector cannot go on, and ends the program; its log says why\n";
    if (standardErrorIsStillThere()) {
      [[maybe_unused]] const ssize_t ignored = write(STDERR_FILENO, kText, sizeof kText - 1);
    }
    ScopedCollectorMark mark;
    endCollector({VESK_END_FATAL, status, 0});
  }
  next().exit(status);
}

} // namespace

constinit std::atomic<const VeskHostEvents*> listener{&kNobody};

Event::Event() noexcept : errno_(errno) {
  self.mark = Mark::kCollector;
  passIn();
  if (cancellationAllowed.load(std::memory_order_relaxed)) [[unlikely]] {
    cancellationHeld_ = true;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancellation_);
  }
  listener_ = listener.load();
}

Event::~Event() {
  if (cancellationHeld_) [[unlikely]]
    pthread_setcancelstate(cancellation_, nullptr);
  passOut();
  self.mark = Mark::kProgram;
  errno = errno_;
}

void listen(const VeskHostEvents& events) noexcept {
  collectorEvents = events;
  ownProcess.store(getpid(), std::memory_order_relaxed);
  fstat(STDERR_FILENO, &standardError);
  fatalHook = endFatally;
  listener.store(&collectorEvents, std::memory_order_release);
  pthread_atfork(prepareObservedFork, observedForkInParent, observedForkInChild);
}

bool isOwnProcess() noexcept { return watching() && ownProcess.load(std::memory_order_relaxed) == getpid(); }

// A signal handler may end the process on a thread that is inside the collector. What that thread holds it
// will not let go, so the end is left to another thread, and given up if that gets stuck.
void processEnds(VeskProcessEnd how, int status) noexcept {
  if (!isOwnProcess() || !beginEnd()) return;
  lookForModules();
  const bool inside = self.mark == Mark::kCollector;
  ScopedCollectorMark mark;
  static constinit Ending ending = {};
  ending = {how, status, inside ? 100 : kPatience};
  if (!inside) {
    endCollector(ending);
    return;
  }
  void* thread;
  const auto run = [](void* argument) { endCollector(*static_cast<const Ending*>(argument)); };
  if (createThread(run, &ending, 0, &thread)) waitForThread(&thread, kPatience, nullptr);
}

void allowCancellation() noexcept {
  if (!watching() || cancellationAllowed.exchange(true) || self.mark != Mark::kProgram) return;
  closed.fetch_add(1);
  waitUntilQuiet(kPatience);
  closed.fetch_sub(1);
}

// The forking thread is marked while the gate is closed: a signal handler on it must not wait at its own
// gate.
void prepareObservedFork() noexcept {
  if (!watching()) return;
  self.markBeforeFork = self.mark;
  self.quietBeforeFork = false;
  if (self.mark == Mark::kCollector) return;
  self.mark = Mark::kCollector;
  closed.fetch_add(1);
  self.quietBeforeFork = waitUntilQuiet(kPatience);
}

void observedForkInParent() noexcept {
  if (!watching()) return;
  if (self.markBeforeFork != Mark::kCollector) closed.fetch_sub(1);
  self.mark = self.markBeforeFork;
}

// A child whose parent had other threads inside the collector may find locks held for ever: it is left alone,
// like one that is not to be followed.
void observedForkInChild() noexcept {
  if (!watching()) return;
  for (Counter& counter : counters) counter.inside.store(0, std::memory_order_relaxed);
  closed.store(0, std::memory_order_relaxed);
  self.mark = self.markBeforeFork;
  self.tellEnd = false; // it is the first thread now
  if (!veskHostFollowsChildren() || !self.quietBeforeFork ||
      endingThread.load(std::memory_order_relaxed) != 0) {
    listener.store(&kNobody, std::memory_order_relaxed);
    return;
  }
  ownProcess.store(getpid(), std::memory_order_relaxed);
  if (!hears(&VeskHostEvents::forkedInChild)) return;
  Event event;
  CollectorOpensFiles opening;
  if (event->forkedInChild != nullptr) event->forkedInChild();
}

} // namespace veskhost

using namespace veskhost;

int veskHostBeginWork() {
  passIn();
  if (listener.load() != &kNobody) return 1;
  passOut();
  return 0;
}

void veskHostEndWork() { passOut(); }

int veskHostHoldEvents(std::uint32_t milliseconds) {
  closed.fetch_add(1);
  if (waitUntilQuiet(milliseconds, 1)) return 1;
  closed.fetch_sub(1);
  return 0;
}

void veskHostReleaseEvents() { closed.fetch_sub(1); }
