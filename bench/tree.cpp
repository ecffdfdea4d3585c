// The tree beside std::multimap.
#include <map>
#include <memory>

#include "bench/bench.h"
#include "veskrt/memory.h"
#include "veskrt/tree.h"

namespace {

using namespace bench;

struct Ours {
  Ours() : tree(__VeskCreateRedBlackTree(0, nullptr, nullptr, nullptr)) {}
  ~Ours() { __VeskDestroyRedBlackTree(tree); }
  void insert(uint64_t key) { __VeskInsertRedBlackEntry(tree, key, key); }
  bool find(uint64_t key) { return __VeskGetRedBlackRangeStart(tree, key, key) != nullptr; }
  void erase(uint64_t key) { __VeskRemoveRedBlackEntry(__VeskGetRedBlackRangeStart(tree, key, key)); }
  uint64_t walk() {
    uint64_t sum = 0;
    for (RedBlackEntry* entry = __VeskGetRedBlackRangeStart(tree, 0, UINT64_MAX); entry != nullptr;
         entry = __VeskGetRedBlackRangeNext(entry, UINT64_MAX)) {
      sum += entry->item;
    }
    return sum;
  }
  RedBlackTree* tree;
};

struct Multimap {
  void insert(uint64_t key) { map.emplace(key, key); }
  bool find(uint64_t key) { return map.find(key) != map.end(); }
  void erase(uint64_t key) { map.erase(map.find(key)); }
  uint64_t walk() {
    uint64_t sum = 0;
    for (const auto& [key, item] : map) sum += item;
    return sum;
  }
  std::multimap<uint64_t, uint64_t> map;
};

// A sorted array: the comparisons that an order needs, without a link to follow; an entry has its memory from the
// library's allocator.
struct Sorted {
  explicit Sorted(const Keys& from) : keys(from.inserted) { std::sort(keys.begin(), keys.end()); }
  bool find(uint64_t key) const { return *std::lower_bound(keys.begin(), keys.end(), key) == key; }
  std::vector<uint64_t> keys;
};

// Entries of the tree's size in the order of insertion, linked in the order of keys.
struct List {
  struct Entry {
    Entry* next;
    uint64_t item;
    uint64_t unread[7];
  };
  explicit List(const Keys& keys) {
    std::map<uint64_t, Entry*> order;
    for (const uint64_t key : keys.inserted) {
      order[key] = static_cast<Entry*>(__VeskMalloc(0, sizeof(Entry), 0));
      order[key]->item = key;
    }
    for (auto at = order.rbegin(); at != order.rend(); ++at) {
      at->second->next = first;
      first = at->second;
    }
  }
  ~List() {
    while (first != nullptr) __VeskFree(std::exchange(first, first->next));
  }
  uint64_t walk() const {
    uint64_t sum = 0;
    for (const Entry* entry = first; entry != nullptr; entry = entry->next) sum += entry->item;
    return sum;
  }
  Entry* first = nullptr;
};

template <class Contestant>
void find(benchmark::State& state) {
  const Keys& keys = sharedKeys<Keys>(static_cast<size_t>(state.range(0)));
  Contestant contestant;
  fill(contestant, keys);
  const auto wanted = asked(keys.again);
  size_t found = 0;
  for (auto _ : state) {
    for (const uint64_t key : wanted) found += contestant.find(key);
  }
  if (found != state.iterations() * wanted.size()) state.SkipWithError("a key was not found");
  countItems(state, wanted.size());
}

void findFloor(benchmark::State& state) {
  const Keys& keys = sharedKeys<Keys>(kElements);
  const Sorted sorted(keys);
  size_t found = 0;
  for (auto _ : state) {
    for (const uint64_t key : keys.again) found += sorted.find(key);
  }
  benchmark::DoNotOptimize(found);
  countItems(state, kElements);
}

// As many searches as the work takes, and the allocator.
template <int kSearches, bool kGiveBack>
void changeFloor(benchmark::State& state) {
  const Keys& keys = sharedKeys<Keys>(kElements);
  const Sorted sorted(keys);
  std::vector<void*> blocks(kElements);
  for (auto _ : state) {
    for (size_t i = 0; i < kElements; ++i) {
      for (int search = 0; search < kSearches; ++search) {
        bool found = sorted.find(keys.again[i]);
        benchmark::DoNotOptimize(found);
      }
      if constexpr (kGiveBack) __VeskFree(blocks[i]);
      blocks[i] = __VeskMalloc(0, sizeof(RedBlackEntry), 0);
    }
    if constexpr (!kGiveBack) {
      state.PauseTiming();
      for (void*& block : blocks) __VeskFree(std::exchange(block, nullptr));
      state.ResumeTiming();
    }
  }
  for (void* block : blocks) __VeskFree(block);
  countItems(state, kElements);
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

template <class Contestant>
void walk(benchmark::State& state) {
  Contestant contestant;
  fill(contestant, sharedKeys<Keys>(kElements));
  for (auto _ : state) benchmark::DoNotOptimize(contestant.walk());
  countItems(state, kElements);
}

void walkFloor(benchmark::State& state) {
  const List list(sharedKeys<Keys>(kElements));
  for (auto _ : state) benchmark::DoNotOptimize(list.walk());
  countItems(state, kElements);
}

template <class Contestant>
void addContestant(const char* name) {
  add("tree.find", name, find<Contestant>)->Arg(kElements);
  add("tree.insert", name, insertNew<Contestant>)->Arg(kElements);
  add("tree.replace", name, eraseAndInsert<Contestant>);
  add("tree.walk", name, walk<Contestant>);
  addGrowth("growth.tree.find", name, find<Contestant>);
  addGrowth("growth.tree.insert", name, insertNew<Contestant>);
}

} // namespace

void registerRows() {
  addContestant<Ours>("ours");
  addContestant<Multimap>("multimap");
  add("tree.find", "floor", findFloor);
  add("tree.insert", "floor", changeFloor<1, false>);
  add("tree.replace", "floor", changeFloor<2, true>);
  add("tree.walk", "floor", walkFloor);
}
