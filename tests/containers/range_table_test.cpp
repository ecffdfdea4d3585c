#include "veskrt/range_table.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "veskrt/memory.h"

namespace {

struct Range {
  uint64_t end;
  uint64_t item;
  bool operator==(const Range&) const = default;
};
using Model = std::map<uint64_t, Range>;

std::vector<uint64_t> destroyed;
void destroyItem(uint64_t item) { destroyed.push_back(item); }

constexpr uint64_t kTop = ~uint64_t{0};

struct RangeTableTest : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

bool aligned(const RangeTable* table) { return (table->flags & VESK_RANGE_TABLE_ALIGNED) != 0; }

// Every block is stored once, for the ranges that it belongs to and for no others, and every range is
// covered.
void expectSound(const RangeTable* table, const Model& model) {
  std::map<const RangeTableEntry*, std::vector<std::pair<uint64_t, uint64_t>>> blocksOf;
  for (uint32_t level = table->minLevel; level <= table->maxLevel; ++level) {
    const VeskHashTable* blocks = table->levels[level - table->minLevel];
    if (blocks == nullptr) continue;
    const uint64_t size = uint64_t{2} << level;
    int32_t count = 0;
    for (int32_t i = 0; i < blocks->bucketCount; ++i) {
      for (auto* at = static_cast<VeskHashTableEntry*>(blocks->buckets[i].head); at != nullptr;
           at = at->next, ++count) {
        ASSERT_EQ(at->key % size, 0u);
        if (level == 4 && !aligned(table)) {
          for (auto* link = static_cast<RangeTableLink*>(at->data); link != nullptr; link = link->next) {
            blocksOf[link->entry].emplace_back(at->key, size);
          }
        } else {
          blocksOf[static_cast<RangeTableEntry*>(at->data)].emplace_back(at->key, size);
        }
      }
    }
    ASSERT_EQ(count, blocks->entryCount);
  }
  ASSERT_EQ(blocksOf.size(), model.size());
  for (auto& [entry, blocks] : blocksOf) {
    const auto known = model.find(entry->start);
    ASSERT_TRUE(known != model.end() && known->second == (Range{entry->end, entry->item}));
    ASSERT_EQ(entry->marker, kTop);
    ASSERT_EQ(entry->refCount, blocks.size());
    std::sort(blocks.begin(), blocks.end());
    uint64_t at = entry->start;
    for (const auto& [block, size] : blocks) {
      ASSERT_TRUE(block <= at && at - block < size); // no gap and no overlap
      ASSERT_TRUE(size == 32 || block == at);
      at = size - 1 > kTop - block ? kTop : block + (size - 1);
      if (at != kTop) ++at;
    }
    ASSERT_GE(at, entry->end);
    ASSERT_LE(at - entry->end, 31u);
  }
}

void expectLookUps(const RangeTable* table, const Model& model, const std::vector<uint64_t>& addresses) {
  for (const uint64_t address : addresses) {
    auto range = model.upper_bound(address);
    const bool found = range != model.begin() && address < (--range)->second.end;
    uint64_t start = 1;
    uint64_t end = 1;
    ASSERT_EQ(__VeskLookupRangeTable(table, address, &start, &end), found ? range->second.item : 0)
        << std::hex << address;
    ASSERT_EQ(start, found ? range->first : 0);
    ASSERT_EQ(end, found ? range->second.end : 0);
  }
}

// Ranges in a small window, which keeps them meeting each other, and in one that ends at the end of all
// addresses.
struct Window {
  uint64_t base;
  uint64_t size;
  uint64_t granule;
};

Model::iterator randomRange(Model& model, std::mt19937_64& random) {
  auto range = model.begin();
  std::advance(range, random() % model.size());
  return range;
}

void playAgainstModel(uint32_t category, uint64_t seed, const Window& window, uint64_t span, uint32_t flags) {
  std::mt19937_64 random(seed);
  RangeTable* table = __VeskCreateRangeTable(span, category, 2, flags, destroyItem);
  Model model;
  uint64_t nextItem = 1;
  const auto draw = [&](uint64_t below) { return random() % (below / window.granule) * window.granule; };
  for (int step = 0; step < 250; ++step) {
    destroyed.clear();
    std::vector<uint64_t> expectedDestroyed;
    const uint64_t action = random() % 10;
    const uint64_t start = window.base + draw(window.size);
    const uint64_t longest = random() % 4 == 0 ? window.size : std::max(window.granule, window.size / 20);
    const uint64_t length = std::min(window.granule + draw(longest), window.base + (window.size - 1) - start);
    const uint64_t end = start + length / window.granule * window.granule;
    if (action < 6) {
      auto after = model.lower_bound(end);
      const bool free = start < end && (after == model.begin() || std::prev(after)->second.end <= start);
      if (!free) continue;
      __VeskInsertRangeTableEntry(table, start, end, nextItem);
      model[start] = {end, nextItem++};
    } else if (action < 8 && !model.empty()) {
      const auto range = randomRange(model, random);
      if (action == 6) {
        __VeskRemoveRangeTableEntry(table, range->first, range->second.end);
      } else {
        __VeskDestroyRangeTableEntry(table, range->first, range->second.end);
        expectedDestroyed.push_back(range->second.item);
      }
      model.erase(range);
    } else if (action == 8 && start < end) {
      uint64_t covered[2] = {start, end};
      for (auto range = model.begin(); range != model.end();) {
        if (range->first < end && range->second.end > start) {
          covered[0] = std::min(covered[0], range->first);
          covered[1] = std::max(covered[1], range->second.end);
          expectedDestroyed.push_back(range->second.item);
          range = model.erase(range);
        } else {
          ++range;
        }
      }
      uint64_t told[2];
      __VeskDestroyRangeTableSpan(table, start, end - start, &told[0], &told[1]);
      ASSERT_EQ(told[0], covered[0]);
      ASSERT_EQ(told[1], covered[1]);
    } else if (action == 9 && random() % 4 == 0 && start < end) {
      // What lies inside is found; what is returned has to do with the interval.
      const auto inside = std::find_if(model.begin(), model.end(), [&](const auto& range) {
        return range.first >= start && range.second.end <= end;
      });
      const uint64_t item = __VeskRemoveFirstRangeTableEntry(table, start, end);
      ASSERT_TRUE(inside == model.end() || item != 0);
      const auto removed = std::find_if(model.begin(), model.end(),
                                        [&](const auto& range) { return range.second.item == item; });
      if (item != 0) {
        ASSERT_TRUE(removed != model.end() && removed->first < end && removed->second.end > start);
        ASSERT_TRUE(inside == model.end() || removed->first <= inside->first);
        model.erase(removed);
      }
    }
    std::sort(destroyed.begin(), destroyed.end());
    std::sort(expectedDestroyed.begin(), expectedDestroyed.end());
    ASSERT_EQ(destroyed, expectedDestroyed);
    expectSound(table, model);
    std::vector<uint64_t> addresses = {0, kTop, start, start - 1, end, end - 1};
    for (int i = 0; i < 20; ++i) addresses.push_back(window.base + random() % window.size);
    if (!model.empty()) {
      const auto range = randomRange(model, random);
      addresses.insert(addresses.end(), {range->first, range->second.end - 1, range->second.end});
    }
    expectLookUps(table, model, addresses);
    ASSERT_FALSE(testing::Test::HasFatalFailure());
  }
  destroyed.clear();
  __VeskScanAndEmptyRangeTable(table);
  EXPECT_EQ(destroyed.size(), model.size());
  expectSound(table, {});
  __VeskDestroyRangeTable(table);
}

} // namespace

TEST_F(RangeTableTest, LevelsAndBlocksAsTheSpanHasThem) {
  for (const auto& [span, level] : std::vector<std::pair<uint64_t, uint32_t>>{{0, 4},
                                                                              {1, 4},
                                                                              {16, 4},
                                                                              {32, 4},
                                                                              {63, 4},
                                                                              {64, 5},
                                                                              {4096, 11},
                                                                              {1 << 27, 26},
                                                                              {1 << 28, 26},
                                                                              {kTop, 26}}) {
    RangeTable* table = __VeskCreateRangeTable(span, 5, 3, 0xFFFFFFFF & ~1u, nullptr);
    EXPECT_EQ(table->maxLevel, level) << span;
    EXPECT_EQ(table->flags, 0xFFF305FEu);
    __VeskDestroyRangeTable(table);
  }
  RangeTable* table = __VeskCreateRangeTable(1 << 20, 0, 0, 0, nullptr);
  const auto blocks = [&](uint64_t start, uint64_t end) {
    __VeskInsertRangeTableEntry(table, start, end, 1);
    std::vector<std::pair<uint32_t, uint64_t>> found;
    for (uint32_t level = 4; level <= table->maxLevel; ++level) {
      for (uint64_t at = 0; table->levels[level - 4] != nullptr && at < 0x20000; at += uint64_t{2} << level) {
        if (__VeskLookupHashTable(table->levels[level - 4], at) != nullptr) found.emplace_back(level, at);
      }
    }
    __VeskRemoveRangeTableEntry(table, start, end);
    return found;
  };
  using Blocks = std::vector<std::pair<uint32_t, uint64_t>>;
  EXPECT_EQ(blocks(0x1000, 0x3000), (Blocks{{11, 0x1000}, {11, 0x2000}}));
  EXPECT_EQ(blocks(0x1010, 0x1030), (Blocks{{4, 0x1000}, {4, 0x1020}}));
  EXPECT_EQ(blocks(0, 0x180), (Blocks{{6, 0x100}, {7, 0}}));
  EXPECT_EQ(blocks(0x10, 0x10010), (Blocks{{4, 0},
                                           {4, 0x20},
                                           {4, 0x10000},
                                           {5, 0x40},
                                           {6, 0x80},
                                           {7, 0x100},
                                           {8, 0x200},
                                           {9, 0x400},
                                           {10, 0x800},
                                           {11, 0x1000},
                                           {12, 0x2000},
                                           {13, 0x4000},
                                           {14, 0x8000}}));
}

TEST_F(RangeTableTest, AgreesWithAModelEverywhere) {
  const uint32_t category = __VeskRegisterMemoryCategory("RANGES");
  __VeskEnableMemoryStatisticsCollection();
  for (uint64_t seed = 0; seed < 12; ++seed) {
    for (const uint64_t span : {uint64_t{32}, uint64_t{512}, uint64_t{1} << 30}) {
      playAgainstModel(category, seed, {0x10000 + seed, 4000, 1}, span, 0);
      playAgainstModel(category, seed, {uint64_t{0} - 1600, 1600, 1}, span, 0);
      playAgainstModel(category, seed, {0x7F00000, 1 << 14, 32}, span, VESK_RANGE_TABLE_ALIGNED);
    }
    playAgainstModel(category, seed, {uint64_t{1} << 40, uint64_t{1} << 32, 4096}, uint64_t{1} << 30, 0);
  }
  VeskMemoryCategoryInfo info;
  __VeskGetMemoryInfoByCategory(category, &info);
  // A last slab of each size: entries, links and hash entries in slabs of 256 KiB, records, arrays and lists in others. The
  // ranges that came and went would fill several times as much.
  EXPECT_LE(info.allocated, 3 * 4 * 65536 + 12 * 65536);
}

// Intervals of the whole address space over a few ranges end soon, and find what there is.
TEST_F(RangeTableTest, HugeIntervalsAndTheEndOfAllAddresses) {
  RangeTable* table = __VeskCreateRangeTable(1 << 20, 0, 0, 0, destroyItem);
  const auto fill = [&] {
    __VeskInsertRangeTableEntry(table, 0x1001, 0x1009, 1);
    __VeskInsertRangeTableEntry(table, uint64_t{1} << 46, (uint64_t{1} << 46) + 5000, 2);
    __VeskInsertRangeTableEntry(table, kTop - 20, kTop, 3);
  };
  fill();
  EXPECT_EQ(__VeskLookupRangeTable(table, kTop - 1, nullptr, nullptr), 3u);
  EXPECT_EQ(__VeskLookupRangeTable(table, kTop, nullptr, nullptr), 0u);
  for (const uint64_t item : {1, 2, 3, 0})
    EXPECT_EQ(__VeskRemoveFirstRangeTableEntry(table, 0x100, kTop), item);
  fill();
  uint64_t start;
  uint64_t end;
  __VeskDestroyRangeTableSpan(table, 0x1004, kTop, &start, &end);
  EXPECT_EQ(start, 0x1001u);
  EXPECT_EQ(end, kTop);
  EXPECT_EQ(destroyed, (std::vector<uint64_t>{1, 3, 2}));
  for (const uint64_t lo : {kTop - 31, kTop - 1, kTop}) {
    EXPECT_EQ(__VeskRemoveFirstRangeTableEntry(table, lo, kTop), 0u);
    __VeskDestroyRangeTableSpan(table, lo, kTop, &start, &end);
    EXPECT_EQ(start, lo);
  }
  __VeskInsertRangeTableEntry(table, 8, 8, 9); // empty, inverted, and no table
  __VeskInsertRangeTableEntry(table, 9, 8, 9);
  __VeskInsertRangeTableEntry(nullptr, 1, 2, 9);
  expectSound(table, {});
  __VeskDestroyRangeTable(table);
  __VeskDestroyRangeTable(nullptr);
}
