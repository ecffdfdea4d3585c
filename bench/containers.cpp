// Cost of one operation at 10^3 to 10^6 elements: the containers beside the standard library's, in one run.
//
// Keys are random 64-bit numbers (ranges: random gaps between blocks of 4 KiB); look-ups and removals go in
// another random order than insertions. Every figure is for one operation: items_per_second is its
// reciprocal.
#include <algorithm>
#include <map>
#include <random>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>

#include "veskrt/hash_table.h"
#include "veskrt/host.h"
#include "veskrt/range_table.h"
#include "veskrt/tree.h"

namespace {

constexpr uint64_t kBlock = 4096;

struct Keys {
  std::vector<uint64_t> inserted;
  std::vector<uint64_t> shuffled;
};

// Random keys, or the starts of blocks that do not overlap.
Keys makeKeys(int64_t count, bool blocks) {
  std::mt19937_64 random(42);
  Keys keys;
  uint64_t start = 0x7F0000000000;
  for (int64_t i = 0; i < count; ++i) {
    start += kBlock * (1 + random() % 8);
    keys.inserted.push_back(blocks ? start : random());
  }
  std::shuffle(keys.inserted.begin(), keys.inserted.end(), random);
  keys.shuffled = keys.inserted;
  std::shuffle(keys.shuffled.begin(), keys.shuffled.end(), random);
  return keys;
}

// Each adapter: insert, find (says whether it was there), erase.

struct Hash {
  static constexpr bool kBlocks = false;
  explicit Hash(uint32_t flags = 0)
      : table(__VeskCreateHashTable(flags, nullptr, 1, nullptr, nullptr, 0, 0)) {}
  ~Hash() { __VeskDestroyHashTable(table, nullptr); }
  void insert(uint64_t key) { __VeskInsertHashTableEntry(table, key, reinterpret_cast<void*>(key | 1)); }
  bool find(uint64_t key) { return __VeskLookupHashTable(table, key) != nullptr; }
  void erase(uint64_t key) { __VeskRemoveHashTableEntry(table, key); }
  VeskHashTable* table;
};

struct UnlockedHash : Hash {
  UnlockedHash() : Hash(2) {}
};

struct Tree {
  static constexpr bool kBlocks = false;
  Tree() : tree(__VeskCreateRedBlackTree(0, nullptr, nullptr, nullptr)) {}
  ~Tree() { __VeskDestroyRedBlackTree(tree); }
  void insert(uint64_t key) { __VeskInsertRedBlackEntry(tree, key, key); }
  bool find(uint64_t key) { return __VeskGetRedBlackRangeStart(tree, key, key) != nullptr; }
  void erase(uint64_t key) { __VeskRemoveRedBlackEntry(__VeskGetRedBlackRangeStart(tree, key, key)); }
  RedBlackTree* tree;
};

struct Ranges {
  static constexpr bool kBlocks = true;
  Ranges() : table(__VeskCreateRangeTable(uint64_t{1} << 30, 0, 0, 0, nullptr)) {}
  ~Ranges() {
    __VeskScanAndEmptyRangeTable(table);
    __VeskDestroyRangeTable(table);
  }
  void insert(uint64_t key) { __VeskInsertRangeTableEntry(table, key, key + kBlock, key); }
  bool find(uint64_t key) { return __VeskLookupRangeTable(table, key + 100, nullptr, nullptr) != 0; }
  void erase(uint64_t key) { __VeskRemoveRangeTableEntry(table, key, key + kBlock); }
  RangeTable* table;
};

template <class Map>
struct Standard {
  static constexpr bool kBlocks = false;
  void insert(uint64_t key) { map.emplace(key, key); }
  bool find(uint64_t key) { return map.find(key) != map.end(); }
  void erase(uint64_t key) { map.erase(map.find(key)); }
  Map map;
};

using UnorderedMap = Standard<std::unordered_map<uint64_t, uint64_t>>;
using Multimap = Standard<std::multimap<uint64_t, uint64_t>>;

struct RangeMap {
  static constexpr bool kBlocks = true;
  void insert(uint64_t key) { map.emplace(key, key + kBlock); }
  bool find(uint64_t key) {
    const auto next = map.upper_bound(key + 100);
    return next != map.begin() && std::prev(next)->second > key + 100;
  }
  void erase(uint64_t key) { map.erase(key); }
  std::map<uint64_t, uint64_t> map;
};

template <class Adapter>
void lookUp(benchmark::State& state) {
  const Keys keys = makeKeys(state.range(0), Adapter::kBlocks);
  Adapter adapter;
  for (const uint64_t key : keys.inserted) adapter.insert(key);
  size_t found = 0;
  for (auto _ : state) {
    for (const uint64_t key : keys.shuffled) found += adapter.find(key);
  }
  if (found != state.iterations() * keys.shuffled.size()) state.SkipWithError("a key was not found");
  state.SetItemsProcessed(static_cast<int64_t>(found));
}

// Into an empty container, growth included; its destruction is not timed.
template <class Adapter>
void insertAll(benchmark::State& state) {
  const Keys keys = makeKeys(state.range(0), Adapter::kBlocks);
  for (auto _ : state) {
    Adapter adapter;
    for (const uint64_t key : keys.inserted) adapter.insert(key);
    state.PauseTiming();
    for (const uint64_t key : keys.shuffled) adapter.erase(key);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.inserted.size()));
}

// At a constant size: an element leaves and comes back.
template <class Adapter>
void eraseAndInsert(benchmark::State& state) {
  const Keys keys = makeKeys(state.range(0), Adapter::kBlocks);
  Adapter adapter;
  for (const uint64_t key : keys.inserted) adapter.insert(key);
  for (auto _ : state) {
    for (const uint64_t key : keys.shuffled) {
      adapter.erase(key);
      adapter.insert(key);
    }
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * keys.shuffled.size()));
}

} // namespace

#define VESK_BENCH_CONTAINER(adapter)                                                                        \
  BENCHMARK_TEMPLATE(lookUp, adapter)->RangeMultiplier(10)->Range(1000, 1000000);                            \
  BENCHMARK_TEMPLATE(insertAll, adapter)->RangeMultiplier(10)->Range(1000, 1000000);                         \
  BENCHMARK_TEMPLATE(eraseAndInsert, adapter)->RangeMultiplier(10)->Range(1000, 1000000)

VESK_BENCH_CONTAINER(Hash);
VESK_BENCH_CONTAINER(UnlockedHash);
VESK_BENCH_CONTAINER(UnorderedMap);
VESK_BENCH_CONTAINER(Tree);
VESK_BENCH_CONTAINER(Multimap);
VESK_BENCH_CONTAINER(Ranges);
VESK_BENCH_CONTAINER(RangeMap);

int main(int argc, char** argv) {
  veskHostInstall();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
}
