// The thread-safe queue beside Boost's lock-free one and a locked std::queue.
#include <memory>
#include <mutex>
#include <queue>

#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#include <sched.h>

#include "bench/bench.h"
#include "veskrt/memory.h"
#include "veskrt/queue.h"

namespace {

using namespace bench;

// Each contestant: put (false if it is full), take (0 if it is empty).

struct Ours {
  ~Ours() {
    __VeskDestroyQueue(queue);
    __VeskFree(queue);
  }
  bool put(uint64_t value) {
    __VeskEnqueue(queue, value);
    return true;
  }
  uint64_t take() { return __VeskDequeue(queue); }
  Queue* queue = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, 0);
};

struct Boost {
  bool put(uint64_t value) { return queue.push(value); }
  uint64_t take() {
    uint64_t value = 0;
    queue.pop(value);
    return value;
  }
  boost::lockfree::queue<uint64_t> queue{1024};
};

struct Guarded {
  bool put(uint64_t value) {
    std::lock_guard hold(mutex);
    queue.push(value);
    return true;
  }
  uint64_t take() {
    std::lock_guard hold(mutex);
    if (queue.empty()) return 0;
    const uint64_t value = queue.front();
    queue.pop();
    return value;
  }
  std::mutex mutex;
  std::queue<uint64_t> queue;
};

// One thread: a lock at each end. Many may put and many take, so neither end can do without.
struct TwoLocks {
  bool put(uint64_t value) {
    hold(tail);
    values[written++ % kRoom] = value;
    drop(tail);
    return true;
  }
  uint64_t take() {
    hold(head);
    const uint64_t value = read != written ? values[read++ % kRoom] : 0;
    drop(head);
    return value;
  }
  static void hold(std::atomic<uint32_t>& lock) {
    uint32_t expected = 0;
    while (!lock.compare_exchange_weak(expected, 1, std::memory_order_acquire)) expected = 0;
  }
  static void drop(std::atomic<uint32_t>& lock) { lock.store(0, std::memory_order_release); }
  static constexpr size_t kRoom = 4096;
  std::atomic<uint32_t> tail{0};
  std::atomic<uint32_t> head{0};
  size_t written = 0;
  size_t read = 0;
  uint64_t values[kRoom] = {};
};

// Two threads: a ring for exactly one that puts and one that takes, without a lock.
struct Ring {
  bool put(uint64_t value) { return ring.push(value); }
  uint64_t take() {
    uint64_t value = 0;
    ring.pop(value);
    return value;
  }
  boost::lockfree::spsc_queue<uint64_t, boost::lockfree::capacity<1024>> ring;
};

template <class Contestant, size_t kWaiting>
void putAndTake(benchmark::State& state) {
  const auto queue = std::make_unique<Contestant>();
  for (size_t i = 0; i < kWaiting; ++i) queue->put(i + 1);
  uint64_t next = 1;
  for (auto _ : state) {
    queue->put(next++);
    uint64_t taken = queue->take();
    benchmark::DoNotOptimize(taken);
  }
  while (queue->take() != 0) {
  }
  countItems(state, 1);
}

void wait(unsigned& failures) {
  if (++failures % 128 == 0) sched_yield();
}

// The first thread puts, the second takes as many.
template <class Contestant>
void handOver(benchmark::State& state) {
  static std::unique_ptr<Contestant> queue;
  if (state.thread_index() == 0) queue = std::make_unique<Contestant>();
  unsigned failures = 0;
  if (state.thread_index() == 0) {
    uint64_t next = 1;
    for (auto _ : state) {
      while (!queue->put(next)) wait(failures);
      ++next;
    }
    countItems(state, 1);
    queue.reset();
  } else {
    uint64_t expected = 1;
    for (auto _ : state) {
      uint64_t taken;
      while ((taken = queue->take()) == 0) wait(failures);
      if (taken != expected++) state.SkipWithError("out of order");
    }
  }
}

template <class Contestant>
void growth(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  Contestant queue;
  for (auto _ : state) {
    for (size_t i = 0; i < count; ++i) queue.put(i + 1);
    for (size_t i = 0; i < count; ++i) benchmark::DoNotOptimize(queue.take());
  }
  countItems(state, count);
}

template <class Contestant>
void addContestant(const char* name) {
  add("queue.alone", name, putAndTake<Contestant, 0>);
  add("queue.waiting", name, putAndTake<Contestant, 1000>);
  add("queue.pair", name, handOver<Contestant>)->Threads(2)->UseRealTime();
}

} // namespace

void registerRows() {
  addContestant<Ours>("ours");
  addContestant<Boost>("boost::lockfree");
  addContestant<Guarded>("mutex + std::queue");
  add("queue.alone", "floor", putAndTake<TwoLocks, 0>);
  add("queue.waiting", "floor", putAndTake<TwoLocks, 1000>);
  add("queue.pair", "floor", handOver<Ring>)->Threads(2)->UseRealTime();
  addGrowth("growth.queue", "ours", growth<Ours>);
  addGrowth("growth.queue", "mutex + std::queue", growth<Guarded>);
}
