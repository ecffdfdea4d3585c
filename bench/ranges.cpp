// The range table beside std::map, which finds the range that holds an address with upper_bound. Ranges are blocks of
// 4 KiB with random gaps, unless they are a heap's.
#include <map>
#include <memory>

#include "bench/bench.h"
#include "veskrt/memory.h"
#include "veskrt/range_table.h"

namespace {

using namespace bench;

constexpr uint64_t kInside = 100;

struct Ours {
  explicit Ours(uint64_t span = kBlock) : table(__VeskCreateRangeTable(span, 0, 0, 0, nullptr)) {}
  ~Ours() {
    __VeskScanAndEmptyRangeTable(table);
    __VeskDestroyRangeTable(table);
  }
  void insert(uint64_t start, uint64_t size = kBlock) {
    __VeskInsertRangeTableEntry(table, start, start + size, start);
  }
  uint64_t find(uint64_t address) {
    uint64_t start;
    uint64_t end;
    return __VeskLookupRangeTable(table, address, &start, &end);
  }
  void erase(uint64_t start) { __VeskRemoveRangeTableEntry(table, start, start + kBlock); }
  RangeTable* table;
};

struct Map {
  void insert(uint64_t start, uint64_t size = kBlock) { map.emplace(start, start + size); }
  uint64_t find(uint64_t address) {
    const auto next = map.upper_bound(address);
    if (next == map.begin()) return 0;
    const auto range = std::prev(next);
    return address < range->second ? range->first : 0;
  }
  void erase(uint64_t start) { map.erase(start); }
  std::map<uint64_t, uint64_t> map;
};

// A table that knows where the range of an address is: a bucket that leads to an entry with the bounds.
struct Direct {
  struct Entry {
    uint64_t start;
    uint64_t end;
  };
  explicit Direct(const Blocks& blocks) {
    entries.reserve(blocks.inserted.size());
    for (const uint64_t start : blocks.inserted) {
      entries.push_back({start, start + kBlock});
      buckets.push_back(&entries.back());
    }
    buckets = shuffled(buckets, 47);
  }
  std::vector<Entry> entries;
  std::vector<Entry*> buckets;
};

template <class Contestant>
void find(benchmark::State& state) {
  const Blocks& blocks = sharedKeys<Blocks>(static_cast<size_t>(state.range(0)));
  Contestant contestant;
  fill(contestant, blocks);
  const auto wanted = asked(blocks.again);
  size_t found = 0;
  for (auto _ : state) {
    for (const uint64_t start : wanted) found += contestant.find(start + kInside) == start;
  }
  if (found != state.iterations() * wanted.size()) state.SkipWithError("a range was not found");
  countItems(state, wanted.size());
}

void findFloor(benchmark::State& state) {
  const Blocks& blocks = sharedKeys<Blocks>(static_cast<size_t>(state.range(0)));
  const Direct direct(blocks);
  std::vector<uint32_t> places(blocks.inserted.size());
  for (uint32_t i = 0; i < places.size(); ++i) places[i] = i;
  places = shuffled(places, 48);
  size_t found = 0;
  for (auto _ : state) {
    for (const uint32_t place : places) {
      const Direct::Entry* const entry = direct.buckets[place];
      found += entry->start + kInside < entry->end;
    }
  }
  benchmark::DoNotOptimize(found);
  countItems(state, places.size());
}

struct OursForHeap : Ours {
  OursForHeap() : Ours(1 << 20) {}
};

// Ranges as a heap has them: 16 to 4,096 bytes, at multiples of 16. An address in the middle is asked for.
template <class Contestant>
void findInHeap(benchmark::State& state) {
  std::mt19937_64 random(49);
  std::vector<std::pair<uint64_t, uint64_t>> ranges;
  uint64_t start = 0x7F0000000000;
  for (size_t i = 0; i < kElements; ++i) {
    const uint64_t size = 16 * (1 + random() % 256);
    ranges.emplace_back(start, size);
    start += size + 16 * (1 + random() % 4);
  }
  Contestant contestant;
  for (const auto& [first, size] : shuffled(ranges, 50)) contestant.insert(first, size);
  ranges = shuffled(ranges, 51);
  size_t found = 0;
  for (auto _ : state) {
    for (const auto& [first, size] : ranges) found += contestant.find(first + size / 2) == first;
  }
  if (found != state.iterations() * ranges.size()) state.SkipWithError("a range was not found");
  countItems(state, ranges.size());
}

template <class Contestant>
void eraseAndInsert(benchmark::State& state) {
  const Blocks& blocks = sharedKeys<Blocks>(kElements);
  Contestant contestant;
  fill(contestant, blocks);
  for (auto _ : state) {
    for (const uint64_t start : blocks.again) {
      contestant.erase(start);
      contestant.insert(start);
    }
  }
  countItems(state, kElements);
}

// A record for the range and one for its place in a table leave and come.
void eraseAndInsertFloor(benchmark::State& state) {
  Direct direct(sharedKeys<Blocks>(kElements));
  std::vector<std::pair<void*, void*>> records(kElements);
  for (auto _ : state) {
    for (size_t i = 0; i < kElements; ++i) {
      auto& [range, place] = records[i];
      __VeskFree(place);
      __VeskFree(range);
      range = __VeskMalloc(0, sizeof(RangeTableEntry), 0);
      place = __VeskMalloc(0, sizeof(VeskHashTableEntry), 0);
      benchmark::DoNotOptimize(direct.buckets[i]->end);
    }
  }
  for (const auto& [range, place] : records) {
    __VeskFree(place);
    __VeskFree(range);
  }
  countItems(state, kElements);
}

template <class Contestant>
void addContestant(const char* name) {
  add("ranges.find", name, find<Contestant>)->Arg(kElements);
  add("ranges.find.few", name, find<Contestant>)->Arg(1000);
  add("ranges.find.many", name, find<Contestant>)->Arg(1000000);
  add("ranges.replace", name, eraseAndInsert<Contestant>);
  addGrowth("growth.ranges.find", name, find<Contestant>);
  addGrowth("growth.ranges.insert", name, insertNew<Contestant, Blocks>);
}

} // namespace

void registerRows() {
  addContestant<Ours>("ours");
  addContestant<Map>("map");
  add("ranges.find", "floor", findFloor)->Arg(kElements);
  add("ranges.find.few", "floor", findFloor)->Arg(1000);
  add("ranges.find.many", "floor", findFloor)->Arg(1000000);
  add("ranges.replace", "floor", eraseAndInsertFloor);
  add("ranges.heap", "ours", findInHeap<OursForHeap>);
  add("ranges.heap", "floor", findFloor)->Arg(kElements);
  add("ranges.heap", "map", findInHeap<Map>);
}
