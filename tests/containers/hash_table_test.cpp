#include "veskrt/hash_table.h"

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/runtime.h"

namespace {

void* dataOf(uint64_t number) { return reinterpret_cast<void*>(number); }
uint64_t numberOf(void* data) { return reinterpret_cast<uint64_t>(data); }

struct HashTable : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

uint32_t selectEven(void* data, void* context) {
  ++*static_cast<uint32_t*>(context);
  return numberOf(data) % 2 == 0;
}

uint32_t hashCalls = 0;
uint64_t countingHash(VeskHashTable*, uint64_t key) {
  ++hashCalls;
  return key ^ key >> 32;
}

} // namespace

TEST_F(HashTable, StartsAndGrowsAsItsFlagsAndLevelsSay) {
  for (const auto& [flags, bits] : {std::pair{0u, 8u}, {8u, 9u}, {0x10u, 10u}, {0x18u, 9u}}) {
    VeskHashTable* table = __VeskCreateHashTable(flags | 0x40 | 0xABF00, nullptr, 1, nullptr, nullptr, 3, 2);
    EXPECT_EQ(table->bucketBits, bits);
    EXPECT_EQ(table->flags, flags | 0x40 | 0x20000 | 0x300);
    __VeskDestroyHashTable(table, nullptr);
  }
  for (const auto& [levels, level] : {std::pair{-1, 0}, {0, 0}, {3, 2}, {4, 2}}) {
    VeskHashTable* table = __VeskCreateHashTable(0, nullptr, levels, nullptr, nullptr, 0, 0);
    EXPECT_EQ(table->level, level);
    __VeskDestroyHashTable(table, nullptr);
  }
  for (const uint32_t mode : {0u, VESK_HASH_TABLE_UNLOCKED}) {
    const VeskHashFunction function = countingHash;
    VeskHashTable* table = __VeskCreateHashTable(mode, &function, 1, nullptr, nullptr, 0, 0);
    for (uint64_t key = 1; key <= 257; ++key) __VeskInsertHashTableEntry(table, key, dataOf(key));
    EXPECT_EQ(table->bucketCount, 256);
    __VeskInsertHashTableEntry(table, 1, dataOf(9)); // known: no growth
    EXPECT_EQ(table->bucketCount, 256);
    __VeskInsertHashTableEntry(table, 258, dataOf(258));
    EXPECT_EQ(table->bucketCount, 512);
    // A large table as well asks a hash function from outside once for each call.
    for (uint64_t key = 259; key <= 5000; ++key) __VeskInsertHashTableEntry(table, key, dataOf(key));
    hashCalls = 0;
    EXPECT_EQ(__VeskLookupHashTable(table, 77), dataOf(77));
    EXPECT_EQ(__VeskLookupHashTable(table, 5001), nullptr);
    EXPECT_EQ(hashCalls, 2u);
    __VeskDestroyHashTable(table, nullptr);
  }
}

// Such keys are in no index: the chains decide about them, and look-ups take them for missing.
TEST_F(HashTable, KeysWithoutData) {
  for (const uint32_t mode : {0u, VESK_HASH_TABLE_UNLOCKED}) {
    VeskHashTable* table = __VeskCreateHashTable(mode, nullptr, 1, nullptr, nullptr, 0, 0);
    for (uint64_t key = 0; key < 1000; ++key)
      __VeskInsertHashTableEntry(table, key, dataOf(key % 3 == 0 ? 0 : key));
    for (uint64_t key = 0; key < 1000; ++key) {
      void* const stored = dataOf(key % 3 == 0 ? 0 : key);
      EXPECT_EQ(__VeskInsertHashTableEntry(table, key, dataOf(7777)), stored);
      EXPECT_EQ(__VeskLookupHashTable(table, key), stored);
      void* acquired = dataOf(5);
      EXPECT_EQ(__VeskLookupAndAcquireHashTableDataItem(
                    table, key, [](void*) { return 9u; }, &acquired),
                9u);
      EXPECT_EQ(acquired, stored);
      if (key % 2 == 0) {
        EXPECT_EQ(__VeskRemoveHashTableEntry(table, key), stored);
      }
    }
    EXPECT_EQ(table->entryCount, 500);
    __VeskDestroyHashTable(table, nullptr);
  }
}

TEST_F(HashTable, SubTablesAppearWithTheFirstInsertion) {
  VeskHashTable* table = __VeskCreateHashTable(0, nullptr, 2, nullptr, nullptr, 0, 0);
  table->buckets[0x56].head = dataOf(1); // under creation by somebody: not there for these
  EXPECT_EQ(__VeskLookupHashTable(table, 0x5600), nullptr);
  EXPECT_EQ(__VeskRemoveHashTableEntry(table, 0x5600), nullptr);
  table->buckets[0x56].head = nullptr;
  __VeskInsertHashTableEntry(table, 0x1234, dataOf(1));
  __VeskInsertHashTableEntry(table, 0x12FF, dataOf(2));
  void* shared = table->buckets[0x12].head;
  EXPECT_EQ(static_cast<VeskHashTable*>(shared)->entryCount, 2);
  __VeskRemoveHashTableEntry(table, 0x1234);
  __VeskRemoveHashTableEntry(table, 0x12FF);
  EXPECT_EQ(table->buckets[0x12].head, shared); // stays when it becomes empty
  __VeskDestroyHashTable(table, nullptr);
}

TEST_F(HashTable, ScansSkipWhatIsBusyAndNeverWait) {
  VeskHashTable* table = __VeskCreateHashTable(0, nullptr, 1, nullptr, nullptr, 0, 0);
  for (uint64_t key = 1; key <= 10; ++key) __VeskInsertHashTableEntry(table, key, dataOf(key));
  uint32_t visited = 0;
  uint32_t entries = 0;
  auto* held = static_cast<VeskHashTableEntry*>(table->buckets[4].head);
  std::thread([&] { __VeskAcquireExclusiveLock(&held->lock); }).join();
  EXPECT_EQ(__VeskScanHashTable(table, selectEven, &visited, 1, nullptr, &entries),
            4u); // all even ones but 4
  EXPECT_EQ(visited, 9u);
  EXPECT_EQ(entries, 10u);

  std::thread([&] { __VeskAcquireSharedLock(&table->lock); }).join();
  EXPECT_EQ(__VeskScanAndEmptyHashTable(table, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 6u);
  table->lock = {};
  __VeskAcquireExclusiveLock(&table->lock);
  EXPECT_EQ(__VeskScanAndEmptyHashTable(table, nullptr, &entries), 0u);
  EXPECT_EQ(entries, 6u);
  __VeskReleaseExclusiveLock(&table->lock);

  // A scan from within a scan does nothing; other uses of the table do what they always do.
  static VeskHashTable* scanned;
  scanned = table;
  const auto visit = [](void* data, void* removed) -> uint32_t {
    uint32_t inner = 0;
    EXPECT_EQ(__VeskScanAndEmptyHashTable(scanned, nullptr, &inner), 0u);
    if (numberOf(data) == 1)
      *static_cast<uint32_t*>(removed) += __VeskRemoveHashTableEntry(scanned, 3) == dataOf(3);
    __VeskInsertHashTableEntry(scanned, 5000 + numberOf(data) * 256, dataOf(5000));
    return 0;
  };
  uint32_t removedInside = 0;
  __VeskScanHashTable(table, visit, &removedInside, 0, nullptr, &entries);
  EXPECT_EQ(removedInside, 1u);
  EXPECT_EQ(__VeskLookupHashTable(table, 3), nullptr);
  __VeskDestroyHashTable(table, nullptr);
}

// Threads insert the same keys, look up and remove while the table grows: one insertion of a key wins, what
// was put in and not taken out is there, and nothing else is.
TEST_F(HashTable, ThreadsUnderGrowth) {
  for (int32_t levels = 1; levels <= 3; ++levels) {
    VeskHashTable* table = __VeskCreateHashTable(0, nullptr, levels, nullptr, nullptr, 0, 0);
    constexpr uint64_t kKeys = 3000;
    const auto keyOf = [](uint64_t i) { return i * 0x10305; };
    const auto nothing = [](void*, void*) { return 0u; };
    std::atomic<uint64_t> won{0};
    std::atomic<uint64_t> removed{0};
    std::atomic<int> wrong{0};
    uint32_t entries = 0;
    test::runThreads(6, [&](int thread) {
      const auto t = static_cast<uint64_t>(thread) + 1;
      uint32_t ignored;
      for (uint64_t i = 0; i < kKeys; ++i) {
        void* mine = dataOf(i * 16 + t);
        void* stored = __VeskInsertHashTableEntry(table, keyOf(i), mine);
        won += stored == mine;
        wrong += numberOf(stored) / 16 != i;
        void* found = __VeskLookupHashTable(table, keyOf(i / 2));
        wrong += found != nullptr && numberOf(found) / 16 != i / 2;
        if (i % 3 == t % 3) removed += __VeskRemoveHashTableEntry(table, keyOf(i / 3)) != nullptr;
        if (i % 500 == 0) __VeskScanHashTable(table, nothing, nullptr, 0, nullptr, &ignored);
      }
    });
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(won, kKeys);
    uint64_t found = 0;
    for (uint64_t i = 0; i < kKeys; ++i) found += __VeskLookupHashTable(table, keyOf(i)) != nullptr;
    uint32_t visited = 0;
    __VeskScanHashTable(table, selectEven, &visited, 0, nullptr, &entries);
    EXPECT_EQ(found, won - removed);
    EXPECT_EQ(visited, found);
    EXPECT_EQ(entries, found);
    __VeskDestroyHashTable(table, nullptr);
  }
}
