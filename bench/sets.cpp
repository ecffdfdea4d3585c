// Sets beside roaring bitmaps, the way a collector uses them: identifiers that come in clusters.
#include <iterator>
#include <optional>

#include <roaring/roaring.h>

#include "bench/bench.h"
#include "veskrt/set.h"

namespace {

using namespace bench;

constexpr size_t kSetElements = 20000;

// Clusters of up to 64 identifiers of which three in four are taken, `gap` identifiers apart on average.
std::vector<uint32_t> makeClusters(size_t count, uint32_t gap, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<uint32_t> elements;
  uint32_t next = 0;
  while (elements.size() < count) {
    next += 1 + static_cast<uint32_t>(random() % (2 * gap));
    for (uint32_t left = 16 + static_cast<uint32_t>(random() % 49); left > 0; --left, ++next) {
      if (random() % 4 != 0) elements.push_back(next);
    }
  }
  elements.resize(count);
  return elements;
}

// Half of each set's clusters lie in the other's, too.
struct Operands {
  explicit Operands(uint32_t gap) {
    const auto shared = makeClusters(kSetElements / 2, 2 * gap, 1);
    for (auto [elements, seed] : {std::pair(&a, 2u), std::pair(&b, 3u)}) {
      const auto own = makeClusters(kSetElements / 2, 2 * gap, seed);
      std::set_union(shared.begin(), shared.end(), own.begin(), own.end(), std::back_inserter(*elements));
    }
  }
  std::vector<uint32_t> a;
  std::vector<uint32_t> b;
};

template <uint32_t kGap>
const Operands& operands() {
  static const Operands made(kGap);
  return made;
}

// ---- Contestants: unite, intersect and subtract put a result of two sets into a third one, whose memory they may use
// again, as the analysis of a program does, which comes to the same block many times. The size is returned. ----

void fill(Set& set, const uint32_t* first, const uint32_t* last) {
  if (last - first <= 1024) {
    for (; first != last; ++first) __VeskAddAnElementToSet(&set, *first);
    return;
  }
  const uint32_t* const middle = first + (last - first) / 2;
  fill(set, first, middle);
  Set upper = {};
  fill(upper, middle, last);
  __VeskUnionSet(&set, &upper);
  __VeskDestroySet(&upper);
}

struct Ours {
  Ours() = default;
  explicit Ours(const std::vector<uint32_t>& elements) {
    fill(set, elements.data(), elements.data() + elements.size());
  }
  ~Ours() { __VeskDestroySet(&set); }
  uint32_t unite(const Ours& a, const Ours& b) {
    __VeskConstructSet(&set, &a.set);
    __VeskUnionSet(&set, &b.set);
    return set.count;
  }
  uint32_t intersect(const Ours& a, const Ours& b) {
    __VeskIntersectSet(&set, &a.set, &b.set);
    return set.count;
  }
  uint32_t subtract(const Ours& a, const Ours& b) {
    __VeskConstructSet(&set, &a.set);
    __VeskDifferenceSet(&set, &b.set);
    return set.count;
  }
  bool contains(uint32_t element) const { return __VeskIsAnElementOfSet(&set, element) != 0; }
  Set set = {};
};

// Either copies into the old result and combines in place, or makes a new one: whichever is faster is the peer.
template <bool kRuns, bool kInPlace>
struct Roaring {
  Roaring() : set(roaring_bitmap_create()) {}
  explicit Roaring(const std::vector<uint32_t>& elements)
      : set(roaring_bitmap_of_ptr(elements.size(), elements.data())) {
    if (kRuns) roaring_bitmap_run_optimize(set);
  }
  ~Roaring() { roaring_bitmap_free(set); }
  template <class InPlace, class New>
  uint32_t combine(const Roaring& a, const Roaring& b, InPlace inPlace, New makeNew) {
    if constexpr (kInPlace) {
      roaring_bitmap_overwrite(set, a.set);
      inPlace(set, b.set);
    } else {
      roaring_bitmap_free(set);
      set = makeNew(a.set, b.set);
    }
    return static_cast<uint32_t>(roaring_bitmap_get_cardinality(set));
  }
  uint32_t unite(const Roaring& a, const Roaring& b) {
    return combine(a, b, roaring_bitmap_or_inplace, roaring_bitmap_or);
  }
  uint32_t intersect(const Roaring& a, const Roaring& b) {
    return combine(a, b, roaring_bitmap_and_inplace, roaring_bitmap_and);
  }
  uint32_t subtract(const Roaring& a, const Roaring& b) {
    return combine(a, b, roaring_bitmap_andnot_inplace, roaring_bitmap_andnot);
  }
  bool contains(uint32_t element) const { return roaring_bitmap_contains(set, element); }
  roaring_bitmap_t* set;
};

// The same 64 elements at a time, in two arrays and into a third that is there already: no link, no allocation.
struct Floor {
  struct Chunk {
    uint32_t base;
    uint64_t bits;
  };
  using Chunks = std::vector<Chunk>;
  Floor() : chunks(2 * kSetElements) {}
  explicit Floor(const std::vector<uint32_t>& elements) : sorted(elements) {
    for (const uint32_t element : elements) {
      if (chunks.empty() || chunks.back().base != element >> 6) chunks.push_back({element >> 6, 0});
      chunks.back().bits |= uint64_t{1} << (element & 63);
    }
  }
  template <bool kOnlyA, bool kOnlyB, class Both>
  uint32_t merge(const Chunks& a, const Chunks& b, Both both) {
    Chunk* out = chunks.data();
    uint32_t count = 0;
    const auto put = [&](Chunk chunk) {
      count += static_cast<uint32_t>(__builtin_popcountll(chunk.bits));
      *out++ = chunk;
    };
    auto left = a.begin();
    auto right = b.begin();
    while (left != a.end() && right != b.end()) {
      if (left->base < right->base) {
        if (kOnlyA) put(*left);
        ++left;
      } else if (left->base > right->base) {
        if (kOnlyB) put(*right);
        ++right;
      } else {
        if (const uint64_t bits = both(left->bits, right->bits); bits != 0) put({left->base, bits});
        ++left;
        ++right;
      }
    }
    if (kOnlyA) std::for_each(left, a.end(), put);
    if (kOnlyB) std::for_each(right, b.end(), put);
    benchmark::DoNotOptimize(chunks.data());
    return count;
  }
  uint32_t unite(const Floor& a, const Floor& b) {
    return merge<true, true>(a.chunks, b.chunks, [](uint64_t x, uint64_t y) { return x | y; });
  }
  uint32_t intersect(const Floor& a, const Floor& b) {
    return merge<false, false>(a.chunks, b.chunks, [](uint64_t x, uint64_t y) { return x & y; });
  }
  uint32_t subtract(const Floor& a, const Floor& b) {
    return merge<true, false>(a.chunks, b.chunks, [](uint64_t x, uint64_t y) { return x & ~y; });
  }
  bool contains(uint32_t element) const { return std::binary_search(sorted.begin(), sorted.end(), element); }
  Chunks chunks;
  std::vector<uint32_t> sorted;
};

// What the standard library's algorithms say the result's size is.
template <class Algorithm>
size_t expected(const Operands& from, Algorithm algorithm) {
  std::vector<uint32_t> result;
  algorithm(from.a.begin(), from.a.end(), from.b.begin(), from.b.end(), std::back_inserter(result));
  return result.size();
}

template <class Contestant, class Operation>
void combine(benchmark::State& state, const Operands& from, size_t size, Operation operation) {
  const Contestant a(from.a);
  const Contestant b(from.b);
  Contestant result;
  for (auto _ : state) {
    if ((result.*operation)(a, b) != size) state.SkipWithError("a wrong result");
  }
  countItems(state, 1);
}

template <class Contestant>
void contains(benchmark::State& state) {
  const Operands& from = operands<1024>();
  const Contestant set(from.a);
  const auto asked = shuffled(from.a, 5);
  size_t found = 0;
  constexpr size_t kBatch = 200;
  size_t at = 0;
  for (auto _ : state) {
    for (size_t i = 0; i < kBatch; ++i) found += set.contains(asked[at + i]);
    at = at + 2 * kBatch <= asked.size() ? at + kBatch : 0;
  }
  if (found != state.iterations() * kBatch) state.SkipWithError("an element was not found");
  countItems(state, kBatch);
}

// A union of two sets that interleave, by the number of elements in each.
void growth(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  const auto elements = makeClusters(count, 1024 < 4000000000 / count ? 1024 : 64, 6);
  Set set = {};
  Set other = {};
  fill(set, elements.data(), elements.data() + count / 2);
  fill(other, elements.data() + count / 2, elements.data() + count);
  for (auto _ : state) {
    Set result = {};
    __VeskConstructSet(&result, &set);
    __VeskUnionSet(&result, &other);
    benchmark::DoNotOptimize(result.chunks);
    __VeskDestroySet(&result);
  }
  __VeskDestroySet(&set);
  __VeskDestroySet(&other);
  countItems(state, count);
}

template <class Contestant>
void addContestant(const char* name) {
  const auto addCombination = [&](const char* row, const Operands& from, auto algorithm, auto operation) {
    add(row, name, [&from, size = expected(from, algorithm), operation](benchmark::State& state) {
      combine<Contestant>(state, from, size, operation);
    });
  };
  constexpr auto unite = [](auto... args) { return std::set_union(args...); };
  constexpr auto intersect = [](auto... args) { return std::set_intersection(args...); };
  constexpr auto subtract = [](auto... args) { return std::set_difference(args...); };
  addCombination("sets.union", operands<1024>(), unite, &Contestant::unite);
  addCombination("sets.intersection", operands<1024>(), intersect, &Contestant::intersect);
  addCombination("sets.difference", operands<1024>(), subtract, &Contestant::subtract);
  addCombination("sets.dense", operands<64>(), unite, &Contestant::unite);
  add("sets.contains", name, contains<Contestant>);
}

} // namespace

void registerRows() {
  addContestant<Ours>("ours");
  addContestant<Floor>("floor");
  addContestant<Roaring<false, false>>("roaring");
  addContestant<Roaring<true, false>>("roaring, runs");
  addContestant<Roaring<false, true>>("roaring, in place");
  addContestant<Roaring<true, true>>("roaring, runs, in place");
  addGrowth("growth.sets.union", "ours", growth);
}
