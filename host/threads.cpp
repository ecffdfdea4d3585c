// Who a thread is, its thread-local slots, and internal threads.
//
// One pthread key stands for all slots of all threads: a thread's values are a table that its state points
// to. The key's destructor puts itself off to the last round that the C library makes, so that it runs after
// the thread's own destructors; that is where the end of a thread is told and its table goes back.
//
// A slot that is freed and reserved again must read as null everywhere. Reserving gives it a new generation,
// and a value counts only with the generation that it was stored under.
#include <atomic>
#include <climits>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <ctime>
#include <new>

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/core.h"
#include "host/spin.h"

namespace veskhost {

constinit thread_local ThreadState self [[gnu::tls_model("initial-exec")]] = {};
constinit ThreadEndHook threadEndHook = nullptr;

struct TlsSlot {
  std::uint64_t generation;
  void* value;
};

namespace {

constexpr std::uint32_t kSlots = 128;

constinit SpinLock slotLock;
// Odd while the slot is reserved; changed under the lock.
constinit std::atomic<std::uint64_t> slotGeneration[kSlots] = {};

constinit pthread_key_t endKey = 0;
constinit bool haveEndKey = false;

// ---- The end of a thread ----

void threadEnds(void* round) {
  const auto rounds = reinterpret_cast<std::uintptr_t>(round);
  if (rounds < PTHREAD_DESTRUCTOR_ITERATIONS) {
    pthread_setspecific(endKey, reinterpret_cast<void*>(rounds + 1));
    return;
  }
  if (self.tellEnd && threadEndHook != nullptr) {
    self.tellEnd = false;
    threadEndHook();
  }
  veskHostFree(self.slots);
  self.slots = nullptr;
  veskHostFree(self.execEnvironment);
  self.execEnvironment = nullptr;
}

// ---- Slots ----

bool reserved(std::uint64_t generation) { return (generation & 1) != 0; }

std::uint32_t allocateSlot() {
  ScopedLock hold(slotLock);
  for (std::uint32_t slot = 0; slot < kSlots; ++slot) {
    const std::uint64_t generation = slotGeneration[slot].load(std::memory_order_relaxed);
    if (!reserved(generation)) {
      slotGeneration[slot].store(generation + 1, std::memory_order_relaxed);
      return slot;
    }
  }
  return VESK_INVALID_ID;
}

int freeSlot(std::uint32_t slot) {
  if (slot >= kSlots) return 0;
  ScopedLock hold(slotLock);
  const std::uint64_t generation = slotGeneration[slot].load(std::memory_order_relaxed);
  if (!reserved(generation)) return 0;
  slotGeneration[slot].store(generation + 1, std::memory_order_relaxed);
  return 1;
}

void* slotValue(std::uint32_t slot) {
  const TlsSlot* slots = self.slots;
  if (slots == nullptr || slot >= kSlots) return nullptr;
  return slots[slot].generation == slotGeneration[slot].load(std::memory_order_relaxed) ? slots[slot].value
                                                                                        : nullptr;
}

[[gnu::noinline]] bool makeSlots() noexcept {
  auto* slots = static_cast<TlsSlot*>(veskHostAllocate(kSlots * sizeof(TlsSlot)));
  if (slots == nullptr) return false;
  std::memset(slots, 0, kSlots * sizeof(TlsSlot));
  self.slots = slots;
  watchThreadEnd();
  return true;
}

int setSlotValue(std::uint32_t slot, void* value) {
  if (slot >= kSlots) return 0;
  const std::uint64_t generation = slotGeneration[slot].load(std::memory_order_relaxed);
  if (!reserved(generation) || (self.slots == nullptr && !makeSlots())) return 0;
  self.slots[slot] = {generation, value};
  return 1;
}

// ---- Internal threads ----

constexpr std::size_t kDefaultStack = 256 * 1024;

struct InternalThread {
  VeskThreadFunction function;
  void* argument;
  std::uint32_t parentId;
  std::uint32_t exitCode;
  std::atomic<std::uint32_t> ended; // a futex
  std::atomic<std::uint32_t> users; // the thread, and whoever may still wait for it
  std::jmp_buf out;
};

constinit thread_local InternalThread* internalThread [[gnu::tls_model("initial-exec")]] = nullptr;

void drop(InternalThread* thread) noexcept {
  if (thread->users.fetch_sub(1, std::memory_order_acq_rel) == 1) veskHostFree(thread);
}

void* runInternalThread(void* record) {
  auto* thread = static_cast<InternalThread*>(record);
  self.mark = Mark::kCollector;
  self.parentId = thread->parentId;
  internalThread = thread;
  if (setjmp(thread->out) == 0) thread->function(thread->argument);
  thread->ended.store(1, std::memory_order_release);
  syscall(SYS_futex, &thread->ended, FUTEX_WAKE_PRIVATE, INT_MAX, nullptr, nullptr, 0);
  drop(thread);
  return nullptr;
}

std::uint64_t currentThread() { return threadId(); }
std::uint32_t nativeThread() { return threadId(); }
std::uint64_t parentThread() { return self.parentId; }

} // namespace

std::uint32_t askForThreadId() noexcept { return self.id = static_cast<std::uint32_t>(syscall(SYS_gettid)); }

std::uint64_t nowMilliseconds() noexcept {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000000;
}

void watchThreadEnd() noexcept {
  ScopedCollectorMark mark; // a key behind the first 32 takes memory
  if (haveEndKey) pthread_setspecific(endKey, reinterpret_cast<void*>(1));
}

int createThread(VeskThreadFunction function, void* argument, std::size_t stackSize, void** handle) noexcept {
  auto* thread = static_cast<InternalThread*>(veskHostAllocate(sizeof(InternalThread)));
  if (thread == nullptr) return 0;
  ::new (thread) InternalThread{function, argument, threadId(), 0, {0}, {2}, {}};
  *handle = thread; // before the thread runs: it may look at its own handle

  ScopedCollectorMark mark;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_attr_setstacksize(&attributes, stackSize == 0 ? kDefaultStack : stackSize);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t ignored;
  const int error = pthread_create(&ignored, &attributes, runInternalThread, thread);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  pthread_attr_destroy(&attributes);
  if (error == 0) return 1;
  *handle = nullptr;
  veskHostFree(thread);
  return 0;
}

// Jumps out of the thread's function: pthread_exit would load an unwinder into the program.
void endThread(std::uint32_t exitCode) noexcept {
  if (internalThread == nullptr) pthread_exit(nullptr); // not ours to end, yet it must not return
  internalThread->exitCode = exitCode;
  std::longjmp(internalThread->out, 1);
}

int waitForThread(void** handle, std::uint32_t milliseconds, std::uint32_t* exitCode) noexcept {
  auto* thread = static_cast<InternalThread*>(*handle);
  if (thread == nullptr) return 1;
  const std::uint64_t deadline = nowMilliseconds() + milliseconds;
  while (thread->ended.load(std::memory_order_acquire) == 0) {
    const std::uint64_t now = nowMilliseconds();
    if (now >= deadline) return 0;
    const timespec left = {static_cast<time_t>((deadline - now) / 1000),
                           static_cast<long>((deadline - now) % 1000 * 1000000)};
    syscall(SYS_futex, &thread->ended, FUTEX_WAIT_PRIVATE, 0, &left, nullptr, 0);
  }
  if (exitCode != nullptr) *exitCode = thread->exitCode;
  *handle = nullptr;
  drop(thread);
  return 1;
}

void installThreads() noexcept {
  haveEndKey = pthread_key_create(&endKey, threadEnds) == 0;
  __VeskSetGetCurrentThreadIdProc(currentThread);
  __VeskSetGetNativeThreadIdProc(nativeThread);
  __VeskSetGetNativeParentThreadIdProc(parentThread);
  __VeskSetTlsAllocProc(allocateSlot);
  __VeskSetTlsFreeProc(freeSlot);
  __VeskSetTlsGetValueProc(slotValue);
  __VeskSetTlsSetValueProc(setSlotValue);
  __VeskSetThreadProcs(createThread, endThread, waitForThread, addExitCallback);
}

} // namespace veskhost
