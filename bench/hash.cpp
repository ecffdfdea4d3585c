// The hash table beside concurrent ones, and without locks beside std::unordered_map. Keys are random: all hash them
// as they are.
#include <memory>
#include <mutex>
#include <unordered_map>

#include <libcuckoo/cuckoohash_map.hh>
#include <tbb/concurrent_hash_map.h>

#include "bench/bench.h"
#include "veskrt/hash_table.h"

namespace {

using namespace bench;

// Each contestant: insert, find (the value, 0 for none), erase.

template <uint32_t kFlags>
struct Ours {
  Ours() : table(__VeskCreateHashTable(kFlags, nullptr, 1, nullptr, nullptr, 0, 0)) {}
  ~Ours() { __VeskDestroyHashTable(table, nullptr); }
  void insert(uint64_t key) { __VeskInsertHashTableEntry(table, key, reinterpret_cast<void*>(key)); }
  uint64_t find(uint64_t key) { return reinterpret_cast<uint64_t>(__VeskLookupHashTable(table, key)); }
  void erase(uint64_t key) { __VeskRemoveHashTableEntry(table, key); }
  VeskHashTable* table;
};

struct Tbb {
  struct Compare {
    static size_t hash(uint64_t key) { return key; }
    static bool equal(uint64_t a, uint64_t b) { return a == b; }
  };
  using Map = tbb::concurrent_hash_map<uint64_t, uint64_t, Compare>;
  void insert(uint64_t key) { map.insert({key, key}); }
  uint64_t find(uint64_t key) {
    Map::const_accessor found;
    return map.find(found, key) ? found->second : 0;
  }
  void erase(uint64_t key) { map.erase(key); }
  Map map;
};

struct Cuckoo {
  void insert(uint64_t key) { map.insert(key, key); }
  uint64_t find(uint64_t key) {
    uint64_t value = 0;
    map.find(key, value);
    return value;
  }
  void erase(uint64_t key) { map.erase(key); }
  libcuckoo::cuckoohash_map<uint64_t, uint64_t> map{libcuckoo::DEFAULT_SIZE};
};

struct Unordered {
  void insert(uint64_t key) { map.emplace(key, key); }
  uint64_t find(uint64_t key) {
    const auto found = map.find(key);
    return found != map.end() ? found->second : 0;
  }
  void erase(uint64_t key) { map.erase(key); }
  std::unordered_map<uint64_t, uint64_t> map;
};

struct Guarded {
  void insert(uint64_t key) {
    std::lock_guard hold(mutex);
    inner.insert(key);
  }
  uint64_t find(uint64_t key) {
    std::lock_guard hold(mutex);
    return inner.find(key);
  }
  void erase(uint64_t key) {
    std::lock_guard hold(mutex);
    inner.erase(key);
  }
  std::mutex mutex;
  Unordered inner;
};

// A table that knows where every key is: no hash, no chain, no growth. What remains are the entry and its bucket,
// somewhere in memory, and, with locks, two holds shared: of the table and of the bucket. A holder that others may
// come to can neither arrive nor leave without a compare-and-swap.
template <bool kLocks>
struct Direct {
  struct Entry {
    uint64_t key;
    uint64_t value;
  };
  struct Bucket {
    std::atomic<uint64_t> readers{0};
    Entry* entry = nullptr;
  };
  explicit Direct(const std::vector<uint64_t>& keys)
      : buckets(new Bucket[keys.size()]), places(shuffled(indices(keys.size()), 45)) {
    for (size_t i = 0; i < keys.size(); ++i) entries.push_back({keys[i], keys[i]});
    for (size_t i = 0; i < keys.size(); ++i) buckets[places[i]].entry = &entries[i];
  }
  static std::vector<uint64_t> indices(size_t count) {
    std::vector<uint64_t> result(count);
    for (size_t i = 0; i < count; ++i) result[i] = i;
    return result;
  }
  static void enter(std::atomic<uint64_t>& readers) {
    benchmark::DoNotOptimize(__veskGetNativeThreadIdProc());
    uint64_t seen = readers.load(std::memory_order_relaxed);
    while (!readers.compare_exchange_weak(seen, seen + 1)) {
    }
  }
  static void leave(std::atomic<uint64_t>& readers) {
    uint64_t seen = readers.load(std::memory_order_relaxed);
    while (!readers.compare_exchange_weak(seen, seen - 1)) {
    }
  }
  uint64_t at(size_t place) {
    Bucket& bucket = buckets[place];
    if constexpr (kLocks) {
      enter(readers);
      enter(bucket.readers);
    }
    const uint64_t value = bucket.entry->value;
    if constexpr (kLocks) {
      leave(bucket.readers);
      leave(readers);
    }
    return value;
  }
  std::atomic<uint64_t> readers{0};
  std::unique_ptr<Bucket[]> buckets;
  std::vector<Entry> entries = {};
  std::vector<uint64_t> places;
};

// One contestant for all threads of a run; the first thread makes and drops it.
template <class Contestant>
void find(benchmark::State& state) {
  static std::unique_ptr<Contestant> contestant;
  const Keys& keys = sharedKeys<Keys>(kElements);
  if (state.thread_index() == 0) {
    contestant = std::make_unique<Contestant>();
    fill(*contestant, keys);
  }
  const size_t count = keys.again.size();
  constexpr size_t kBatch = 500; // of which there are a whole number
  const size_t batches = count / kBatch;
  size_t at =
      batches * static_cast<size_t>(state.thread_index()) / static_cast<size_t>(state.threads()) * kBatch;
  uint64_t sum = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < kBatch; ++i) sum += contestant->find(keys.again[at + i]) != 0;
    at = at + kBatch < count ? at + kBatch : 0;
  }
  if (sum != state.iterations() * kBatch) state.SkipWithError("a key was not found");
  countItems(state, kBatch);
  if (state.thread_index() == 0) contestant.reset();
}

// For the growth table.
template <class Contestant>
void findAll(benchmark::State& state) {
  const Keys& keys = sharedKeys<Keys>(static_cast<size_t>(state.range(0)));
  Contestant contestant;
  fill(contestant, keys);
  const auto wanted = asked(keys.again);
  uint64_t found = 0;
  for (auto _ : state) {
    for (const uint64_t key : wanted) found += contestant.find(key) != 0;
  }
  if (found != state.iterations() * wanted.size()) state.SkipWithError("a key was not found");
  countItems(state, wanted.size());
}

template <bool kLocks>
void findDirectly(benchmark::State& state) {
  static std::unique_ptr<Direct<kLocks>> direct;
  const Keys& keys = sharedKeys<Keys>(kElements);
  if (state.thread_index() == 0) direct = std::make_unique<Direct<kLocks>>(keys.inserted);
  size_t at = kElements / static_cast<size_t>(state.threads()) * static_cast<size_t>(state.thread_index());
  constexpr size_t kBatch = 500;
  uint64_t sum = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < kBatch; ++i) sum += direct->at(direct->places[at + i]);
    at = at + kBatch < kElements ? at + kBatch : 0;
  }
  benchmark::DoNotOptimize(sum);
  countItems(state, kBatch);
  if (state.thread_index() == 0) direct.reset();
}

template <class Contestant>
void eraseAndInsert(benchmark::State& state) {
  const Keys& keys = sharedKeys<Keys>(kElements);
  Contestant contestant;
  fill(contestant, keys);
  for (auto _ : state) {
    for (const uint64_t key : keys.again) {
      contestant.erase(key);
      contestant.insert(key);
    }
  }
  countItems(state, kElements);
}

// To erase and to insert alike: the table shared and the bucket exclusive; then the table exclusive, for the count or the
// new entry; and the allocator's hold.
void eraseAndInsertFloor(benchmark::State& state) {
  Direct<true> direct(sharedKeys<Keys>(kElements).inserted);
  FloorLock table;
  FloorLock row;
  for (auto _ : state) {
    for (const uint64_t place : direct.places) {
      auto& bucket = direct.buckets[place];
      for (int half = 0; half < 2; ++half) {
        Direct<true>::enter(direct.readers);
        uint64_t seen = 0;
        bucket.readers.compare_exchange_strong(seen, 1);
        benchmark::DoNotOptimize(bucket.entry);
        bucket.readers.store(0, std::memory_order_release);
        Direct<true>::leave(direct.readers);
        table.hold();
        table.drop();
        row.hold();
        row.drop();
      }
      bucket.entry->value = place;
    }
  }
  countItems(state, kElements);
}

// Every entry is written once, somewhere in memory that was not touched before, under one exclusive hold and the
// allocator's.
void insertNewFloor(benchmark::State& state) {
  const Keys& keys = sharedKeys<Keys>(kElements);
  const auto places = shuffled(Direct<true>::indices(kElements), 46);
  using Entry = Direct<true>::Entry;
  for (auto _ : state) {
    state.PauseTiming();
    std::unique_ptr<Entry[]> entries(new Entry[kElements]);
    std::unique_ptr<Entry*[]> buckets(new Entry* [kElements] {});
    FloorLock table;
    FloorLock row;
    state.ResumeTiming();
    for (size_t i = 0; i < kElements; ++i) {
      row.hold();
      row.drop();
      table.hold();
      entries[i] = {keys.inserted[i], keys.inserted[i]};
      buckets[places[i]] = &entries[i];
      table.drop();
    }
  }
  countItems(state, kElements);
}

template <class Contestant>
void addConcurrent(const char* name) {
  add("hash.find", name, find<Contestant>);
  add("hash.find2", name, find<Contestant>)->Threads(2)->UseRealTime();
  add("hash.replace", name, eraseAndInsert<Contestant>);
  add("hash.insert", name, insertNew<Contestant>)->Arg(kElements);
  addGrowth("growth.hash.find", name, findAll<Contestant>);
  addGrowth("growth.hash.insert", name, insertNew<Contestant>);
  add("growth.hash.threads", name, find<Contestant>)->ThreadRange(1, 16)->UseRealTime();
}

} // namespace

void registerRows() {
  addConcurrent<Ours<0>>("ours");
  addConcurrent<Tbb>("TBB");
  addConcurrent<Cuckoo>("libcuckoo");
  addConcurrent<Guarded>("mutex + unordered_map");
  add("hash.find", "floor", findDirectly<true>);
  add("hash.find2", "floor", findDirectly<true>)->Threads(2)->UseRealTime();
  add("hash.replace", "floor", eraseAndInsertFloor);
  add("hash.insert", "floor", insertNewFloor);
  add("hash.unlocked", "ours", find<Ours<VESK_HASH_TABLE_UNLOCKED>>);
  add("hash.unlocked", "floor", findDirectly<false>);
  add("hash.unlocked", "unordered_map", find<Unordered>);
}
