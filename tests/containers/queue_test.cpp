#include "veskrt/queue.h"

#include <atomic>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

// Producers, consumers and searchers over a queue that runs empty all the time: nothing is lost, nothing comes twice, and each
// producer's values that come out in turn keep their order.
TEST(Queue, NothingIsLostAmongManyThreads) {
  test::startRuntime();
  Queue* queue = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, 0);
  constexpr uint64_t kProducers = 3;
  constexpr uint64_t kEach = 8000;
  std::vector<std::atomic<int>> seen(kProducers * kEach);
  std::atomic<uint64_t> taken{0};
  std::atomic<int> disorder{0};
  const auto produce = [&](uint64_t producer) {
    for (uint64_t i = 0; i < kEach; ++i) {
      __VeskEnqueue(queue, 1 + producer * kEach + i);
      if (i % 64 == 0) __VeskYield();
    }
  };
  // A searcher takes out from anywhere, the last node included.
  const auto consume = [&](bool searches, uint32_t parity) {
    const auto hasParity = [](uint32_t wanted, uint64_t, uint64_t v) { return v % 2 == wanted ? 1 : 0; };
    int64_t last[kProducers] = {-1, -1, -1};
    while (taken < kProducers * kEach) {
      const uint64_t value =
          searches ? __VeskPeekQueue(queue, hasParity, parity, 0, 1) : __VeskDequeue(queue);
      if (value == 0) {
        __VeskYield();
        continue;
      }
      ++taken;
      ++seen[value - 1];
      const uint64_t producer = (value - 1) / kEach;
      const auto position = static_cast<int64_t>((value - 1) % kEach);
      disorder += position <= last[producer];
      last[producer] = position;
    }
  };
  test::runThreads(7, [&](int t) {
    if (t < 3) return produce(static_cast<uint64_t>(t));
    consume(t >= 5, static_cast<uint32_t>(t) % 2);
  });
  for (const auto& count : seen) ASSERT_EQ(count, 1);
  EXPECT_EQ(disorder, 0);
  EXPECT_EQ(__VeskIsQueueEmpty(queue), 1);
  EXPECT_EQ(queue->tail, &queue->dummy);
  EXPECT_EQ(queue->headLock.state + queue->tailLock.state, 0u);
  __VeskFree(queue);
}
