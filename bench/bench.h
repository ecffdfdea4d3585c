// What every family of the suite shares.
//
// A benchmark is named ROW/CONTESTANT: "hash.find/ours", "hash.find/floor", "hash.find/TBB". bench/report.py knows
// the rows; here stand the contestants, which do the same work on the same keys in the same order. "floor" is what
// nobody who does that work can avoid. Every figure is for one item: a pair, a key, a record.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "veskrt/runtime.h"
#include "veskrt/spin_lock.h"

namespace bench {

inline constexpr size_t kElements = 100000;
inline constexpr uint64_t kBlock = 4096;

template <class T>
std::vector<T> shuffled(std::vector<T> values, unsigned seed) {
  std::shuffle(values.begin(), values.end(), std::mt19937_64(seed));
  return values;
}

// Random keys, and the same in another order.
struct Keys {
  explicit Keys(size_t count) {
    std::mt19937_64 random(42);
    for (size_t i = 0; i < count; ++i) inserted.push_back(random() | 1);
    again = shuffled(inserted, 43);
  }
  std::vector<uint64_t> inserted;
  std::vector<uint64_t> again;
};

// Starts of blocks of kBlock bytes that do not overlap, in random order.
struct Blocks {
  explicit Blocks(size_t count) {
    std::mt19937_64 random(42);
    uint64_t start = 0x7F0000000000;
    for (size_t i = 0; i < count; ++i) inserted.push_back(start += kBlock * (1 + random() % 8));
    inserted = shuffled(inserted, 43);
    again = shuffled(inserted, 44);
  }
  std::vector<uint64_t> inserted;
  std::vector<uint64_t> again;
};

// Made once for each size: a repetition must not begin with a cache full of fresh keys.
template <class Kind>
const Kind& sharedKeys(size_t count) {
  static std::map<size_t, Kind> made;
  return made.try_emplace(count, count).first->second;
}

// The keys that are looked up: a million of them are enough.
inline std::span<const uint64_t> asked(const std::vector<uint64_t>& again) {
  return {again.data(), std::min<size_t>(again.size(), 1000000)};
}

template <class Function>
auto* add(const std::string& row, const std::string& contestant, Function function) {
  return benchmark::RegisterBenchmark((row + "/" + contestant).c_str(), function);
}

// A row of the growth table: 10^3 to 10^7 items, each size with iterations enough for a million items. They are given
// beforehand, since to find them out would mean to build the largest containers several times.
template <class Function>
void addGrowth(const std::string& row, const std::string& contestant, Function function,
               int64_t largest = 10000000) {
  for (int64_t size = 1000; size <= largest; size *= 10) {
    add(row, contestant, function)->Arg(size)->Iterations(std::max<int64_t>(1, 1000000 / size));
  }
}

// Says how many items were worked on, all iterations together.
inline void countItems(benchmark::State& state, size_t itemsOfIteration) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * itemsOfIteration));
}

// ---- What every container is asked for ----

template <class Contestant, class Kind>
void fill(Contestant& contestant, const Kind& keys) {
  for (const uint64_t key : keys.inserted) contestant.insert(key);
}

// Into an empty contestant that grows; its end is not timed.
template <class Contestant, class Kind = Keys>
void insertNew(benchmark::State& state) {
  const Kind& keys = sharedKeys<Kind>(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    auto contestant = std::make_unique<Contestant>();
    state.ResumeTiming();
    fill(*contestant, keys);
    state.PauseTiming();
    contestant.reset();
    state.ResumeTiming();
  }
  countItems(state, keys.inserted.size());
}

// ---- The lock of the floors: the cheapest that an interface with recursive locks can promise ----

// One uncontended hold: who am I (through the host's hook, as the library must ask), one compare-and-swap, one store.
struct FloorLock {
  std::atomic<uint32_t> state{0};
  uint64_t owner = 0;

  [[gnu::always_inline]] void hold() {
    const uint64_t self = __veskGetNativeThreadIdProc();
    uint32_t expected = 0;
    while (!state.compare_exchange_weak(expected, 1, std::memory_order_acquire)) expected = 0;
    owner = self;
    benchmark::ClobberMemory();
  }
  [[gnu::always_inline]] void drop() {
    owner = 0;
    state.store(0, std::memory_order_release);
  }
};

} // namespace bench
