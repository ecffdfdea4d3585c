#include "veskrt/hash_table.h"

#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

void* dataOf(uint64_t number) { return reinterpret_cast<void*>(number); }
uint64_t numberOf(void* data) { return reinterpret_cast<uint64_t>(data); }

struct HashTable : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

// In compare mode only the low 48 bits of a key count.
uint32_t sameLowBits(uint64_t stored, uint64_t searched) { return (stored ^ searched) << 16 == 0 ? 7 : 0; }
uint64_t hashLowBits(VeskHashTable*, uint64_t key) { return (key << 16 >> 16) * 3; }
std::multiset<uint64_t> releasedKeys;
void releaseKey(uint64_t key) { releasedKeys.insert(key); }
std::vector<uint64_t> releasedData;
uint32_t releaseData(void* data) {
  releasedData.push_back(numberOf(data));
  return numberOf(data) % 5 != 0;
}
uint32_t selectEven(void* data, void* context) {
  ++*static_cast<uint32_t*>(context);
  return numberOf(data) % 2 == 0;
}

// Entries of every leaf, checked against the counts and the buckets that they should be in.
size_t countSound(VeskHashTable* table) {
  size_t total = 0;
  for (int32_t i = 0; i < table->bucketCount; ++i) {
    void* head = table->buckets[i].head;
    if (table->level > 0) {
      if (head != nullptr) total += countSound(static_cast<VeskHashTable*>(head));
      continue;
    }
    for (auto* entry = static_cast<VeskHashTableEntry*>(head); entry != nullptr;
         entry = entry->next, ++total) {
      EXPECT_EQ(table->hashFunctions[0](table, entry->key) & (table->bucketCount - 1),
                static_cast<uint64_t>(i));
    }
  }
  EXPECT_TRUE(table->level != 0 || static_cast<size_t>(table->entryCount) == total);
  EXPECT_EQ(1 << table->bucketBits, table->bucketCount);
  return total;
}

// The slabs of the category are free again but for one of each size.
void expectNothingLeft(uint32_t category, int64_t sizes) {
  VeskMemoryCategoryInfo info;
  __VeskGetMemoryInfoByCategory(category, &info);
  EXPECT_LE(info.allocated, sizes * 65536);
}

void playAgainstModel(uint32_t seed, uint32_t flags, int32_t levels, uint32_t category) {
  std::mt19937_64 random(seed);
  const bool compares = (flags & VESK_HASH_TABLE_COMPARE_KEYS) != 0;
  const VeskHashFunction functions[3] = {compares ? hashLowBits : nullptr, nullptr, nullptr};
  VeskHashTable* table = __VeskCreateHashTable(flags, functions, levels, compares ? sameLowBits : nullptr,
                                               compares ? releaseKey : nullptr, category, 0);
  std::unordered_map<uint64_t, std::pair<uint64_t, uint64_t>> model; // low bits: stored key, data
  std::multiset<uint64_t> expectedReleases;
  releasedKeys.clear();
  const uint64_t spread = uint64_t{1} << (random() % 2 == 0 ? 10 : 40);
  for (int step = 0; step < 3000; ++step) {
    const uint64_t low = random() % spread;
    const uint64_t key = compares ? low | random() << 48 : low;
    const uint64_t data = 1 + random() % 1000000;
    const auto known = model.find(low);
    switch (random() % 8) {
    case 0:
    case 1:
    case 2: {
      const uint64_t stored = numberOf(__VeskInsertHashTableEntry(table, key, dataOf(data)));
      ASSERT_EQ(stored, model.try_emplace(low, key, data).first->second.second);
      break;
    }
    case 3:
    case 4:
      ASSERT_EQ(numberOf(__VeskLookupHashTable(table, key)), known != model.end() ? known->second.second : 0);
      break;
    case 5: {
      void* found = dataOf(5);
      const uint32_t result = __VeskLookupAndAcquireHashTableDataItem(
          table, key, [](void* item) { return static_cast<uint32_t>(numberOf(item)) + 100; }, &found);
      ASSERT_EQ(numberOf(found), known != model.end() ? known->second.second : 0);
      ASSERT_EQ(result, known != model.end() ? known->second.second + 100 : 1);
      break;
    }
    default:
      ASSERT_EQ(numberOf(__VeskRemoveHashTableEntry(table, key)),
                known != model.end() ? known->second.second : 0);
      if (known == model.end()) break;
      if (compares) expectedReleases.insert(known->second.first);
      model.erase(known);
    }
  }
  ASSERT_EQ(countSound(table), model.size());
  ASSERT_EQ(releasedKeys, expectedReleases);

  uint32_t visited = 0;
  uint32_t entries = 0;
  EXPECT_EQ(__VeskScanHashTable(table, selectEven, &visited, 0, nullptr, &entries), 0u);
  EXPECT_EQ(visited, model.size());
  EXPECT_EQ(entries, model.size());
  visited = 0;
  releasedData.clear();
  const size_t before = model.size();
  size_t offered = 0;
  for (auto at = model.begin(); at != model.end();) {
    const bool even = at->second.second % 2 == 0;
    offered += even;
    if (even && at->second.second % 5 != 0) {
      if (compares) expectedReleases.insert(at->second.first);
      at = model.erase(at);
    } else {
      ++at;
    }
  }
  EXPECT_EQ(__VeskScanHashTable(table, selectEven, &visited, 1, releaseData, &entries),
            before - model.size());
  EXPECT_EQ(visited, before);
  EXPECT_EQ(entries, before);
  EXPECT_EQ(releasedData.size(), offered);
  EXPECT_EQ(releasedKeys, expectedReleases); // not those of entries that were kept
  EXPECT_EQ(countSound(table), model.size());
  for (const auto& [low, stored] : model)
    EXPECT_EQ(numberOf(__VeskLookupHashTable(table, low)), stored.second);

  releasedData.clear();
  if (seed % 2 == 0) {
    EXPECT_EQ(__VeskScanAndEmptyHashTable(table, nullptr, &entries), model.size());
    EXPECT_EQ(countSound(table), 0u);
  }
  __VeskDestroyHashTable(table, releaseData);
  EXPECT_EQ(releasedData.size(), seed % 2 == 0 ? 0 : model.size());
  EXPECT_EQ(releasedKeys.size(), compares ? expectedReleases.size() + model.size() : 0);
}

uint32_t hashCalls = 0;
uint64_t countingHash(VeskHashTable*, uint64_t key) {
  ++hashCalls;
  return key ^ key >> 32;
}

} // namespace

TEST_F(HashTable, EveryModeAgreesWithAModel) {
  const uint32_t category = __VeskRegisterMemoryCategory("TABLES");
  __VeskEnableMemoryStatisticsCollection();
  for (uint32_t seed = 0; seed < 6; ++seed) {
    for (const uint32_t mode : {0u, VESK_HASH_TABLE_UNLOCKED, VESK_HASH_TABLE_COMPARE_KEYS,
                                VESK_HASH_TABLE_UNLOCKED | VESK_HASH_TABLE_COMPARE_KEYS}) {
      for (int32_t levels = 1; levels <= 3; ++levels) playAgainstModel(seed, mode, levels, category);
    }
  }
  expectNothingLeft(category, 8); // entries, two kinds of table records, small bucket arrays and indices
}

TEST_F(HashTable, RecordsFlagsAndGrowth) {
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
    VeskHashTable* table = __VeskCreateHashTable(mode, nullptr, 1, nullptr, nullptr, 0, 0);
    for (uint64_t key = 1; key <= 257; ++key) __VeskInsertHashTableEntry(table, key * 77, dataOf(key));
    EXPECT_EQ(table->bucketCount, 256);
    __VeskInsertHashTableEntry(table, 77, dataOf(9)); // known: no growth
    EXPECT_EQ(table->bucketCount, 256);
    __VeskInsertHashTableEntry(table, 258 * 77, dataOf(258));
    EXPECT_EQ(table->bucketCount, 512);
    for (uint64_t key = 1; key <= 258; ++key)
      EXPECT_EQ(numberOf(__VeskLookupHashTable(table, key * 77)), key);
    EXPECT_EQ(countSound(table), 258u);
    __VeskDestroyHashTable(table, nullptr);
  }
  __VeskDestroyHashTable(nullptr, nullptr);
}

TEST_F(HashTable, SubTablesAppearWithTheFirstInsertion) {
  VeskHashTable* table = __VeskCreateHashTable(0, nullptr, 2, nullptr, nullptr, 0, 0);
  EXPECT_EQ(__VeskLookupHashTable(table, 0x1234), nullptr);
  EXPECT_EQ(__VeskRemoveHashTableEntry(table, 0x1234), nullptr);
  EXPECT_EQ(table->buckets[0x12].head, nullptr);
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
  __VeskInsertHashTableEntry(table, 0x1334, dataOf(3));
  EXPECT_NE(table->buckets[0x13].head, nullptr);
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
  countSound(table);
  __VeskDestroyHashTable(table, nullptr);
}

// Threads insert the same keys, look up and remove while the table grows: one insertion of a key wins, what
// was put in and not taken out is there, and nothing else is.
TEST_F(HashTable, ThreadsUnderGrowth) {
  for (int32_t levels = 1; levels <= 3; ++levels) {
    VeskHashTable* table = __VeskCreateHashTable(0, nullptr, levels, nullptr, nullptr, 0, 0);
    constexpr uint64_t kKeys = 3000;
    const auto keyOf = [](uint64_t i) { return i * 0x10305; };
    std::atomic<uint64_t> won{0};
    std::atomic<uint64_t> removed{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t t = 1; t <= 6; ++t) {
      threads.emplace_back([&, t] {
        uint32_t entries;
        for (uint64_t i = 0; i < kKeys; ++i) {
          void* mine = dataOf(i * 16 + t);
          void* stored = __VeskInsertHashTableEntry(table, keyOf(i), mine);
          won += stored == mine;
          wrong += numberOf(stored) / 16 != i;
          void* found = __VeskLookupHashTable(table, keyOf(i / 2));
          wrong += found != nullptr && numberOf(found) / 16 != i / 2;
          if (i % 3 == t % 3) removed += __VeskRemoveHashTableEntry(table, keyOf(i / 3)) != nullptr;
          if (i % 500 == 0)
            __VeskScanHashTable(
                table, [](void*, void*) { return 0u; }, nullptr, 0, nullptr, &entries);
        }
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0);
    EXPECT_GE(won, kKeys);
    EXPECT_EQ(countSound(table), won - removed);
    __VeskDestroyHashTable(table, nullptr);
  }
}

// Large unlocked tables are searched by an index beside their chains: the two must not part, and a hash
// function from outside is called as in a small one.
TEST_F(HashTable, LargeUnlockedTablesKeepFindingWhatTheyHold) {
  for (uint32_t seed = 0; seed < 4; ++seed) {
    std::mt19937_64 random(seed);
    const VeskHashFunction function = seed == 3 ? countingHash : nullptr;
    VeskHashTable* table =
        __VeskCreateHashTable(VESK_HASH_TABLE_UNLOCKED, &function, 1, nullptr, nullptr, 0, 0);
    std::map<uint64_t, uint64_t> model;
    const uint64_t stride = std::vector<uint64_t>{1, 4096, (uint64_t{1} << 48) + 1, 0x9E3779B97F4A7C15}[seed];
    for (uint64_t step = 0; step < 40000; ++step) {
      const uint64_t key = random() % 12000 * stride, data = random() % 4; // 0 and 1 too
      const auto known = model.find(key);
      const int32_t bucketsBefore = table->bucketCount;
      hashCalls = 0;
      if (random() % 16 < (step % 20000 < 12000 ? 10 : 5)) {
        ASSERT_EQ(numberOf(__VeskInsertHashTableEntry(table, key, dataOf(data))),
                  known != model.end() ? known->second : data);
        model.emplace(key, data);
      } else {
        ASSERT_EQ(numberOf(__VeskRemoveHashTableEntry(table, key)), known != model.end() ? known->second : 0);
        if (known != model.end()) model.erase(known);
      }
      const uint64_t other = random() % 12000 * stride;
      ASSERT_EQ(numberOf(__VeskLookupHashTable(table, other)), model.contains(other) ? model[other] : 0);
      if (function != nullptr && table->entryCount > 0 && table->bucketCount == bucketsBefore) {
        ASSERT_EQ(hashCalls, 2u);
      }
      if (step % 20000 == 13000) {
        uint32_t visited = 0, entries = 0;
        size_t even = std::erase_if(model, [](const auto& entry) { return entry.second % 2 == 0; });
        ASSERT_EQ(__VeskScanHashTable(table, selectEven, &visited, 1, nullptr, &entries), even);
      }
    }
    EXPECT_EQ(countSound(table), model.size());
    EXPECT_GE(table->bucketCount, 8192);
    __VeskDestroyHashTable(table, nullptr);
  }
}
