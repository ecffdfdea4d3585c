// What the fuzz targets, which play every container against a model, leave open: the real memory manager, damaged
// records, null, the order of what comes back, and threads.
#include <atomic>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/counted_string.h"
#include "veskrt/hash_table.h"
#include "veskrt/memory.h"
#include "veskrt/queue.h"
#include "veskrt/range_table.h"
#include "veskrt/runtime.h"
#include "veskrt/set.h"
#include "veskrt/tree.h"
#include "veskrt/vector.h"

namespace {

struct Containers : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

} // namespace

TEST_F(Containers, TakeFromTheirCategoryAndGiveItBack) {
  __VeskEnableMemoryStatisticsCollection();
  __VeskFree(__VeskMalloc(0, 100, 0));
  constexpr uint64_t kMany = 20000;
  // use(category, full) fills a container, calls full() and destroys it.
  const auto check = [](const char* name, auto use) {
    const uint32_t category = __VeskRegisterMemoryCategory(name);
    const int64_t others = test::bytesOfSlabs(0);
    use(category, [&] {
      EXPECT_GT(test::bytesOfSlabs(category), 10 * 65536) << name;
      EXPECT_EQ(test::bytesOfSlabs(0), others) << name;
    });
    EXPECT_LE(test::bytesOfSlabs(category), 16 * 65536) << name; // a last slab of each size, of up to 256 KiB
  };
  check("hash table", [](uint32_t category, auto full) {
    VeskHashTable* table = __VeskCreateHashTable(0, nullptr, 2, nullptr, nullptr, category, 0);
    for (uint64_t key = 1; key < kMany; ++key) __VeskInsertHashTableEntry(table, key * 77, table);
    full();
    __VeskDestroyHashTable(table, nullptr);
  });
  check("tree", [](uint32_t category, auto full) {
    RedBlackTree* tree = __VeskCreateRedBlackTree(category, nullptr, nullptr, nullptr);
    for (uint64_t n = 0; n < kMany; ++n) __VeskInsertRedBlackEntry(tree, n * 0x9E3779B97F4A7C15, n);
    full();
    __VeskDestroyRedBlackTree(tree);
  });
  check("range table", [](uint32_t category, auto full) {
    RangeTable* table = __VeskCreateRangeTable(64, category, 2, 0, nullptr);
    for (uint64_t n = 0; n < kMany; ++n) __VeskInsertRangeTableEntry(table, n * 100, n * 100 + 90, n);
    full();
    __VeskScanAndEmptyRangeTable(table);
    __VeskDestroyRangeTable(table);
  });
  check("set", [](uint32_t category, auto full) {
    Set set = {0, category, nullptr};
    for (uint32_t n = 1; n <= kMany * 2; ++n) __VeskAddAnElementToSet(&set, (kMany * 2 - n) * 64);
    full();
    __VeskDestroySet(&set);
  });
  check("multiset", [](uint32_t category, auto full) {
    MultiSet set = {0, category, nullptr};
    for (uint32_t n = 1; n <= kMany; ++n) __VeskAddAnElementToMultiSet(&set, (kMany - n) * 64);
    full();
    __VeskDestroyMultiSet(&set);
  });
  check("queue", [](uint32_t category, auto full) {
    Queue* queue = __VeskCreateQueue(0, category);
    for (uint64_t n = 0; n < 2 * kMany; ++n) __VeskEnqueue(queue, n);
    full();
    __VeskDestroyQueue(queue);
    __VeskFree(queue);
  });
  check("string", [](uint32_t category, auto full) {
    std::vector<CountedString*> strings(500);
    for (CountedString*& string : strings)
      __VeskStrAppend(string = __VeskStrAlloc(category, 9, "x"), "yyyyyyyyy");
    for (CountedString* string : strings) __VeskStrSet(string, std::string(2000, 'z').c_str());
    full();
    for (CountedString* string : strings) __VeskStrDestroy(string);
  });
  check("vector", [](uint32_t category, auto full) {
    Vector* vector = __VeskCreateVector(category);
    for (uint32_t i = 0; i <= VESK_VECTOR_MAX_INDEX; i += 256) __VeskSetVectorElement(vector, i, 1);
    full();
    const int64_t before = test::bytesOfSlabs(category);
    Vector* duplicate = __VeskDuplicateVector(vector, 0); // whose pages are in the source's category
    EXPECT_GT(test::bytesOfSlabs(category), before * 3 / 2);
    __VeskDestroyVector(duplicate);
    __VeskDestroyVector(vector);
  });
}

TEST_F(Containers, RecordsHoldTheirFlags) {
  Queue* queue = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE | 0xABC00FF1, 0x2A);
  EXPECT_EQ(queue->flags, 0xABC002A3u);
  __VeskFree(queue);
  RangeTable* table = __VeskCreateRangeTable(0, 5, 3, 0xFFFFFFFF & ~1u, nullptr);
  EXPECT_EQ(table->flags, 0xFFF305FEu);
  __VeskDestroyRangeTable(table);
}

TEST_F(Containers, ValidationFindsWhatIsBroken) {
  RedBlackTree* tree = __VeskCreateRedBlackTree(0, nullptr, nullptr, nullptr);
  EXPECT_EQ(__VeskValidateRedBlack(tree), 1);
  for (uint64_t key = 0; key < 40; ++key) __VeskInsertRedBlackEntry(tree, key * 7 % 40, key);
  EXPECT_EQ(__VeskValidateRedBlack(tree), 1);
  for (RedBlackEntry* entry = __VeskGetRedBlackRangeStart(tree, 0, 40); entry != nullptr;
       entry = __VeskGetRedBlackRangeNext(entry, 40)) {
    entry->colour ^= 1; // breaks a height, or makes two reds meet
    if (entry != tree->root || (entry->left->colour | entry->right->colour) == 1) {
      EXPECT_EQ(__VeskValidateRedBlack(tree), 0) << entry->key;
    }
    entry->colour ^= 1;
    if (entry->next != tree->nil) { // equal keys would still be in order: swap two that differ
      std::swap(entry->key, entry->next->key);
      EXPECT_EQ(__VeskValidateRedBlack(tree), 0);
      std::swap(entry->key, entry->next->key);
    }
  }
  tree->count += 1;
  EXPECT_EQ(__VeskValidateRedBlack(tree), 0);
  tree->count -= 1;
  EXPECT_EQ(__VeskValidateRedBlack(tree), 1);
  __VeskDestroyRedBlackTree(tree);
}

TEST_F(Containers, RangesInHugeIntervalsAreFoundSoonAndInOrder) {
  constexpr uint64_t kTop = UINT64_MAX;
  static std::vector<uint64_t> destroyed;
  const auto destroyItem = [](uint64_t item) { destroyed.push_back(item); };
  RangeTable* table = __VeskCreateRangeTable(1 << 20, 0, 0, 0, destroyItem);
  const auto fill = [&] {
    __VeskInsertRangeTableEntry(table, 0x1001, 0x1009, 1);
    __VeskInsertRangeTableEntry(table, uint64_t{1} << 46, (uint64_t{1} << 46) + 5000, 2);
    __VeskInsertRangeTableEntry(table, kTop - 20, kTop, 3);
  };
  const auto fillBetween = [&] {
    for (uint64_t item = 6; item >= 4; --item) {
      const uint64_t start = (uint64_t{1} << 47) + item * 0x100020;
      __VeskInsertRangeTableEntry(table, start, start + 32 * item, item);
    }
  };
  fill();
  EXPECT_EQ(__VeskLookupRangeTable(table, kTop - 1, nullptr, nullptr), 3u);
  EXPECT_EQ(__VeskLookupRangeTable(table, kTop, nullptr, nullptr), 0u);
  for (const uint64_t item : {1, 2, 3, 0})
    EXPECT_EQ(__VeskRemoveFirstRangeTableEntry(table, 0x100, kTop), item);
  fill();
  fillBetween();
  uint64_t start;
  uint64_t end;
  __VeskDestroyRangeTableSpan(table, 0x1004, kTop, &start, &end);
  EXPECT_EQ(start, 0x1001u);
  EXPECT_EQ(end, kTop);
  EXPECT_EQ(destroyed, (std::vector<uint64_t>{1, 3, 2, 4, 5, 6})); // at both ends, then what lies between
  for (const uint64_t lo : {kTop - 31, kTop - 1, kTop}) {
    EXPECT_EQ(__VeskRemoveFirstRangeTableEntry(table, lo, kTop), 0u);
    __VeskDestroyRangeTableSpan(table, lo, kTop, &start, &end);
    EXPECT_EQ(start, lo);
  }
  __VeskDestroyRangeTable(table);
}

TEST_F(Containers, NullIsAnAnswerToNull) {
  RedBlackTree* tree = __VeskCreateRedBlackTree(0, nullptr, nullptr, nullptr);
  uint64_t value = 5;
  EXPECT_EQ(__VeskGetRedBlackRangeStart(tree, 0, 9), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangeEnd(tree, 0), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangeStart(nullptr, 0, 9), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangeNext(tree->nil, 9), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangePrev(nullptr, 0), nullptr);
  EXPECT_EQ(__VeskGetRedBlackKey(tree->nil, &value) + __VeskGetRedBlackItem(nullptr, &value), 0);
  __VeskRemoveRedBlackEntry(tree->nil);
  __VeskRemoveRedBlackEntry(nullptr);
  __VeskInsertRedBlackEntry(nullptr, 1, 1);
  __VeskDestroyRedBlackRange(nullptr, 0, 9);
  __VeskDestroyRedBlackTree(nullptr);
  EXPECT_EQ(__VeskValidateRedBlack(nullptr), 0);
  EXPECT_EQ(value, 5u);
  EXPECT_EQ(tree->count, 0u);
  __VeskDestroyRedBlackTree(tree);
  __VeskInsertRangeTableEntry(nullptr, 1, 2, 9);
  __VeskDestroyRangeTable(nullptr);
  __VeskDestroyHashTable(nullptr, nullptr);
  CountedString* string = __VeskStrAlloc(0, 0, "");
  __VeskStrAppend(string, nullptr);
  __VeskStrAppend(nullptr, "x");
  EXPECT_STREQ(string->buffer, "");
  __VeskStrDestroy(string);
  __VeskStrDestroy(nullptr);
}

// Producers, consumers and searchers over a queue that runs empty all the time: nothing is lost, nothing comes twice, and each
// producer's values that come out in turn keep their order.
TEST_F(Containers, AQueueLosesNothingAmongManyThreads) {
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
