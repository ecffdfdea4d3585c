// The allocator beside three others. mimalloc is loaded, not linked: it would replace malloc in the whole process.
#include <cstdlib>
#include <new>

#include <dlfcn.h>
#include <tbb/scalable_allocator.h>

#include "bench/bench.h"
#include "veskrt/memory.h"

namespace {

using namespace bench;

void* (*mimallocMalloc)(size_t);
void (*mimallocFree)(void*);

void loadMimalloc() {
  void* const library = dlopen(MIMALLOC_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) throw std::runtime_error(dlerror());
  mimallocMalloc = reinterpret_cast<void* (*)(size_t)>(dlsym(library, "mi_malloc"));
  mimallocFree = reinterpret_cast<void (*)(void*)>(dlsym(library, "mi_free"));
}

struct Ours {
  static void* take(size_t size) { return __VeskMalloc(0, static_cast<uint32_t>(size), 0); }
  static void give(void* block) { __VeskFree(block); }
};
struct Glibc {
  static void* take(size_t size) { return std::malloc(size); }
  static void give(void* block) { std::free(block); }
};
struct Mimalloc {
  static void* take(size_t size) { return mimallocMalloc(size); }
  static void give(void* block) { mimallocFree(block); }
};
struct Tbb {
  static void* take(size_t size) { return scalable_malloc(size); }
  static void give(void* block) { scalable_free(block); }
};
// Two holds of a lock that belongs to the size: what is left of an allocator for many threads, of which none keeps
// memory of its own, when the allocator has been taken out.
struct Floor {
  struct alignas(64) Row {
    FloorLock lock;
  };
  static Row& rowOf(size_t size) {
    static Row rows[64];
    return rows[size / 16 % 64];
  }
  static void* take(size_t size) {
    Row& row = rowOf(size);
    row.lock.hold();
    row.lock.drop();
    return &row;
  }
  static void give(void* block) {
    auto* const row = static_cast<Row*>(block);
    row->lock.hold();
    row->lock.drop();
  }
};

// Each thread has a size of its own, as threads with different work have, unless they are to meet.
template <class Allocator, bool kMeet>
void pair(benchmark::State& state) {
  const size_t size = 48 + (kMeet ? 0 : 32 * static_cast<size_t>(state.thread_index()));
  for (auto _ : state) {
    void* const block = Allocator::take(size);
    benchmark::DoNotOptimize(block);
    Allocator::give(block);
  }
  countItems(state, 1);
}

// Among 4,096 live blocks of 16 to 512 bytes one is replaced, at random.
template <class Allocator>
void liveBlocks(benchmark::State& state) {
  constexpr size_t kLive = 4096;
  std::mt19937 random(7);
  std::vector<uint32_t> places(1 << 16);
  std::vector<uint32_t> sizes(places.size());
  for (size_t i = 0; i < places.size(); ++i) {
    places[i] = static_cast<uint32_t>(random() % kLive);
    sizes[i] = static_cast<uint32_t>(16 + random() % 497);
  }
  std::vector<void*> blocks;
  for (size_t i = 0; i < kLive; ++i) blocks.push_back(Allocator::take(sizes[i]));
  for (auto _ : state) {
    for (size_t i = 0; i < places.size(); ++i) {
      void*& block = blocks[places[i]];
      Allocator::give(block);
      block = Allocator::take(sizes[i]);
    }
  }
  for (void* block : blocks) Allocator::give(block);
  countItems(state, places.size());
}

// Live blocks by number, for the growth table.
template <class Allocator>
void fill(benchmark::State& state) {
  std::vector<void*> blocks(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    for (void*& block : blocks) block = Allocator::take(48);
    for (void* block : blocks) Allocator::give(block);
  }
  countItems(state, blocks.size());
}

// Unit u.
void unit(benchmark::State& state) {
  FloorLock lock;
  for (auto _ : state) {
    uint32_t expected = 0;
    lock.state.compare_exchange_strong(expected, 1);
    benchmark::DoNotOptimize(expected);
    lock.state.store(0, std::memory_order_release);
  }
  countItems(state, 1);
}

template <class Allocator>
void addAllocator(const char* name) {
  add("memory.pair", name, pair<Allocator, false>);
  add("memory.live", name, liveBlocks<Allocator>);
  add("memory.threads", name, pair<Allocator, false>)->Threads(2)->UseRealTime();
  addGrowth("growth.memory.fill", name, fill<Allocator>);
  add("growth.memory.apart", name, pair<Allocator, false>)->ThreadRange(1, 16)->UseRealTime();
  add("growth.memory.meeting", name, pair<Allocator, true>)->ThreadRange(1, 16)->UseRealTime();
}

} // namespace

void registerRows() {
  loadMimalloc();
  add("u", "floor", unit);
  addAllocator<Ours>("ours");
  addAllocator<Floor>("floor");
  addAllocator<Glibc>("glibc");
  addAllocator<Mimalloc>("mimalloc");
  addAllocator<Tbb>("TBB malloc");
  add("memory.threads", "alone", pair<Ours, false>)->UseRealTime();
}
