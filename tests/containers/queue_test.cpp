#include "veskrt/queue.h"

#include <atomic>
#include <deque>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "veskrt/counted_string.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

struct QueueTest : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

int32_t dividesOnce(uint32_t divisor, uint64_t mark, uint64_t value) {
  EXPECT_EQ(mark, 0x123456789ABCDEF0u);
  return value % divisor == 0 ? 1 : value % 2 == 0 ? 2 : -1; // 1 alone selects
}

void expectIs(Queue* queue, const std::deque<uint64_t>& model) {
  const QueueNode* node = &queue->dummy;
  ASSERT_EQ(queue->head, node);
  for (const uint64_t value : model) {
    node = node->next;
    ASSERT_NE(node, nullptr);
    ASSERT_EQ(node->value, value);
  }
  ASSERT_EQ(node->next, nullptr);
  ASSERT_EQ(queue->tail, node);
  ASSERT_EQ(__VeskIsQueueEmpty(queue), model.empty());
  ASSERT_EQ(queue->headLock.state + queue->tailLock.state, 0u);
}

} // namespace

TEST_F(QueueTest, AgreesWithADeque) {
  for (uint32_t seed = 0; seed < 20; ++seed) {
    std::mt19937 random(seed);
    Queue* queue = __VeskCreateQueue((seed % 2 == 0 ? VESK_QUEUE_THREAD_SAFE : 0) | 0xABC00FF1, 0x2A);
    ASSERT_EQ(queue->flags, (seed % 2 == 0 ? 0xABC00003u : 0xABC00001u) | 0x2A0);
    std::deque<uint64_t> model;
    uint64_t next = 1;
    for (int step = 0; step < 600; ++step) {
      const uint32_t action = random() % (step / 100 % 2 == 0 ? 8 : 14); // now growing, now shrinking
      if (action < 5) {
        __VeskEnqueue(queue, next);
        model.push_back(next++);
      } else if (action < 7 || action > 10) {
        ASSERT_EQ(__VeskDequeue(queue), model.empty() ? 0 : model.front());
        if (!model.empty()) model.pop_front();
      } else {
        const uint32_t divisor = 1 + random() % 7;
        const bool remove = random() % 2 == 0;
        const bool any = random() % 4 == 0;
        auto at = model.begin();
        while (!any && at != model.end() && *at % divisor != 0) ++at;
        const uint64_t expected = at != model.end() ? *at : 0;
        ASSERT_EQ(
            __VeskPeekQueue(queue, any ? nullptr : dividesOnce, divisor, 0x123456789ABCDEF0, remove ? 3 : 0),
            expected);
        if (remove && at != model.end()) model.erase(at);
      }
      expectIs(queue, model);
      ASSERT_FALSE(HasFatalFailure());
    }
    __VeskSetQueueFlag(queue, 77);
    EXPECT_EQ(queue->queueFlag, 77u);
    __VeskDestroyQueue(queue);
    expectIs(queue, {});
    __VeskEnqueue(queue, 5);
    expectIs(queue, {5});
    __VeskDestroyQueue(queue);
    __VeskFree(queue);
  }
}

// Producers, consumers and searchers over a queue that runs empty all the time: nothing is lost, nothing comes twice, and each
// producer's values that come out in turn keep their order.
TEST_F(QueueTest, NothingIsLostAmongManyThreads) {
  const uint32_t category = __VeskRegisterMemoryCategory("QUEUE");
  __VeskEnableMemoryStatisticsCollection();
  Queue* queue = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, category);
  constexpr uint64_t kProducers = 3;
  constexpr uint64_t kEach = 8000;
  std::vector<std::atomic<int>> seen(kProducers * kEach);
  std::atomic<uint64_t> taken{0};
  std::atomic<int> disorder{0};
  std::vector<std::thread> threads;
  for (uint64_t p = 0; p < kProducers; ++p) {
    threads.emplace_back([&, p] {
      for (uint64_t i = 0; i < kEach; ++i) {
        __VeskEnqueue(queue, 1 + p * kEach + i);
        if (i % 64 == 0) __VeskYield();
      }
    });
  }
  for (uint32_t c = 0; c < 4; ++c) {
    threads.emplace_back([&, c] {
      int64_t last[kProducers] = {-1, -1, -1};
      while (taken < kProducers * kEach) {
        const bool searches = c >= 2; // takes out from anywhere, the last node included
        const uint64_t value =
            searches
                ? __VeskPeekQueue(
                      queue, [](uint32_t parity, uint64_t, uint64_t v) { return v % 2 == parity ? 1 : 0; },
                      c % 2, 0, 1)
                : __VeskDequeue(queue);
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
    });
  }
  for (auto& thread : threads) thread.join();
  for (const auto& count : seen) ASSERT_EQ(count, 1);
  EXPECT_EQ(disorder, 0);
  expectIs(queue, {});
  __VeskFree(queue);
  VeskMemoryCategoryInfo info;
  __VeskGetMemoryInfoByCategory(category, &info);
  EXPECT_LE(info.allocated, 2 * 65536);
}

TEST_F(QueueTest, CountedStringsGrowAsStated) {
  const uint32_t category = __VeskRegisterMemoryCategory("STRING");
  CountedString* string = __VeskStrAlloc(category, 4, "0123456789");
  EXPECT_EQ(string->capacity, 20u);
  EXPECT_STREQ(string->buffer, "0123456789");
  EXPECT_EQ(__VeskStrSet(string, "abc"), string);
  EXPECT_EQ(string->capacity, 20u);
  EXPECT_EQ(string->length, 3u);
  __VeskStrSet(string, "0123456789012345678"); // fits to the last byte
  EXPECT_EQ(string->capacity, 20u);
  __VeskStrAppend(string, "x");
  EXPECT_EQ(string->capacity, 42u);
  __VeskStrAppend(string, nullptr);
  __VeskStrAppend(nullptr, "x");
  __VeskStrAppend(string, string->buffer); // its own text, which moves
  EXPECT_EQ(string->length, 40u);
  EXPECT_STREQ(string->buffer, "0123456789012345678x0123456789012345678x");
  __VeskStrSet(string, string->buffer + 38);
  EXPECT_STREQ(string->buffer, "8x");
  __VeskStrDestroy(string);
  string = __VeskStrAlloc(category, 0, "");
  EXPECT_EQ(string->capacity, 1u);
  EXPECT_STREQ(string->buffer, "");
  __VeskStrDestroy(string);
  string = __VeskStrAlloc(category, 8, "12345");
  __VeskStrAppend(string, "678");
  EXPECT_EQ(string->capacity, 22u);
  EXPECT_EQ(string->length, 8u);
  EXPECT_EQ(string->category, category);
  __VeskStrDestroy(string);
  __VeskStrDestroy(nullptr);
}
