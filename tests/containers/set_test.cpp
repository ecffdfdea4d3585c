#include "veskrt/set.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <ranges>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "containers/live_chunks.h"
#include "support/test_host.h"

namespace {

using Model = std::map<uint32_t, uint32_t>; // element -> multiplicity, never 0

// What holds for sets, or for multisets.
template <class Header, class ForSets, class ForMultiSets>
auto pick(ForSets forSets, ForMultiSets forMultiSets) {
  if constexpr (std::is_same_v<Header, Set>)
    return forSets;
  else
    return forMultiSets;
}

uint32_t bit(const uint32_t (&presence)[2], uint32_t position) {
  return presence[position >> 5] >> (position & 31) & 1;
}
uint32_t stored(const SetChunk& chunk, uint32_t position) { return bit(chunk.presence, position); }
uint32_t stored(const MultiSetChunk& chunk, uint32_t position) { return chunk.multiplicities[position]; }

template <class Header>
auto chunksOf(const Header& set) {
  std::vector<decltype(set.chunks)> chunks;
  for (auto* chunk = set.chunks; chunk != nullptr; chunk = chunk->next) chunks.push_back(chunk);
  return chunks;
}

template <class Header>
void expectHolds(const Header& set, const Model& model, uint32_t category) {
  Model held;
  int64_t base = -1;
  for (const auto* chunk : chunksOf(set)) {
    EXPECT_LT(std::exchange(base, chunk->base), chunk->base);
    EXPECT_NE(chunk->presence[0] | chunk->presence[1], 0u);
    for (uint32_t p = 0; p < 64; ++p) {
      if (stored(*chunk, p) != 0) held[chunk->base * 64 + p] = stored(*chunk, p);
      EXPECT_EQ(stored(*chunk, p) != 0, bit(chunk->presence, p));
    }
  }
  EXPECT_EQ(held, model);
  EXPECT_EQ(set.count, model.size());
  EXPECT_EQ(set.category, category);
}

// The model's set algebra; a multiplicity is whatever `combined` makes of the two, one of which may be 0.
template <class Combine>
Model combine(const Model& a, const Model& b, Combine combined) {
  const auto in = [](const Model& m, uint32_t e) { return m.contains(e) ? m.at(e) : 0; };
  Model all = a, result;
  all.insert(b.begin(), b.end());
  for (const auto& [e, ignored] : all) {
    if (const uint32_t multiplicity = combined(in(a, e), in(b, e))) result[e] = multiplicity;
  }
  return result;
}

// Elements come from few chunks, at both ends of the range, so that chunks meet, fill and empty.
uint32_t anElement(std::mt19937& random) {
  constexpr uint32_t kBases[] = {0, 1, 2, 17, 18, 1u << 20, (1u << 26) - 2, (1u << 26) - 1};
  constexpr uint32_t kPositions[] = {0, 1, 30, 31, 32, 33, 62, 63};
  return kBases[random() % 8] * 64 + kPositions[random() % 8];
}

constexpr auto kSmaller = [](uint32_t a, uint32_t b) { return std::min(a, b); };

// What only one kind has, against the models.
void checkOwn(std::mt19937& random, Set& a, Model& inA, const Set& b, const Model& inB) {
  const Model shared = combine(inA, inB, kSmaller);
  const int32_t difference = static_cast<int32_t>(inA.size()) - static_cast<int32_t>(inB.size());
  EXPECT_EQ(__VeskCompareSets(&a, &b), difference != 0 ? difference : inA != inB);
  EXPECT_EQ(__VeskAreSetsDisjoint(&a, &b), &a != &b && shared.empty());
  EXPECT_EQ(__VeskIsASubsetOfSet(&a, &b), shared == inA);
  const uint32_t e = anElement(random);
  EXPECT_EQ(__VeskIsAnElementOfSet(&a, e), inA.contains(e) ? 1u << (e & 31) : 0);
  std::vector<uint32_t> visited;
  const auto visit = [](uint32_t x, void* list) { static_cast<decltype(visited)*>(list)->push_back(x); };
  __VeskScanSet(&a, visit, &visited);
  EXPECT_TRUE(std::ranges::equal(visited, std::views::keys(inA)));
}

void checkOwn(std::mt19937& random, MultiSet& a, Model& inA, const MultiSet&, const Model&) {
  EXPECT_EQ(__VeskIsMultiSetEmpty(&a), inA.empty());
  const uint32_t e = anElement(random);
  EXPECT_EQ(__VeskGetElementMultiplicity(&a, e), inA.contains(e) ? inA.at(e) : 0);
  __VeskDeleteAllInstancesOfAnElementFromMultiSet(&a, e);
  inA.erase(e);
  Set once = {};
  Model inOnce;
  for (uint32_t n = random() % 8; n != 0; --n)
    __VeskAddAnElementToSet(&once, inOnce.insert({anElement(random), 1}).first->first);
  __VeskUnionMultiSetSet(&a, &once);
  inA = combine(inA, inOnce, std::plus<uint32_t>());
  expectHolds(once, inOnce, 0);
  __VeskDestroySet(&once);
}

// Random operations on four headers, any of which may meet itself; everything is compared after every step.
template <class Header>
void compareWithModel() {
  const auto add = pick<Header>(__VeskAddAnElementToSet, __VeskAddAnElementToMultiSet);
  const auto remove = pick<Header>(__VeskDeleteAnElementFromSet, __VeskDeleteAnElementFromMultiSet);
  const auto empty = pick<Header>(__VeskEmptySet, __VeskEmptyMultiSet);
  const auto destroy = pick<Header>(__VeskDestroySet, __VeskDestroyMultiSet);
  const auto copy = pick<Header>(__VeskConstructSet, __VeskConstructMultiSet);
  const auto move = pick<Header>(__VeskConstructSetAndDestroy, __VeskConstructMultiSetAndDestroy);
  const auto unite = pick<Header>(__VeskUnionSet, __VeskUnionMultiSet);
  const auto subtract = pick<Header>(__VeskDifferenceSet, __VeskDifferenceMultiSet);
  const auto intersect = pick<Header>(__VeskIntersectSet, __VeskIntersectMultiSet);
  const auto equal = pick<Header>(__VeskAreSetsEqual, __VeskAreMultiSetsEqual);
  const uint32_t most = pick<Header>(1u, UINT32_MAX); // the highest multiplicity
  test::startRuntime();
  __VeskEnableMemoryStatisticsCollection();
  uint32_t categories[] = {0, 0, 0, 255};
  for (int i = 0; i < 3; ++i) categories[i] = __VeskRegisterMemoryCategory("sets");
  for (uint32_t seed = 0; seed < 60 && !testing::Test::HasFailure(); ++seed) {
    std::mt19937 random(seed);
    Header sets[4] = {};
    Model models[4];
    for (int i = 0; i < 4; ++i) sets[i].category = categories[i];
    for (int step = 0; step < 600 && !testing::Test::HasFailure(); ++step) {
      const uint32_t d = random() % 4, s = random() % 4, t = random() % 4, what = random() % 24;
      const uint32_t e = anElement(random);
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step << " operation " << what);
      Header &dst = sets[d], &src = sets[s];
      Model &to = models[d], &from = models[s];
      const auto before = chunksOf(dst), source = chunksOf(src);
      if (d != s && (what == 2 || what == 5 || what == 6)) dst.count = 0xFFFFFF; // they count anew
      if (what == 0) {
        empty(&dst), to.clear();
      } else if (what == 1) {
        copy(&dst, &src), to = from;
      } else if (what <= 3) {
        intersect(&dst, &src, &sets[t]), to = combine(from, models[t], kSmaller);
      } else if (what == 4) {
        move(&dst, &src);
        if (d != s) to = std::exchange(from, {});
        EXPECT_EQ(chunksOf(dst), source);
      } else if (what == 5) {
        unite(&dst, &src);
        to = combine(to, from, [&](uint32_t a, uint32_t b) { return std::min(most, a + b); });
      } else if (what == 6) {
        subtract(&dst, &src);
        to = combine(to, from, [](uint32_t a, uint32_t b) { return a - std::min(a, b); });
      } else if (what == 7) {
        checkOwn(random, dst, to, src, from);
      } else if (what <= 11) {
        remove(&dst, e);
        if (to.contains(e) && --to[e] == 0) to.erase(e);
      } else {
        add(&dst, e), to[e] = std::min(most, to[e] + 1);
      }
      if (what >= 1 && what <= 3) { // the chunks that dst had are used again
        const auto after = chunksOf(dst);
        const auto [left, added] = std::ranges::mismatch(before, after);
        EXPECT_TRUE(left == before.end() || added == after.end());
      }
      EXPECT_EQ(equal(&dst, &src), to == from);
      for (int i = 0; i < 4; ++i) expectHolds(sets[i], models[i], categories[i]);
    }
    for (int i = 0; i < 4; ++i) destroy(&sets[i]), expectHolds(sets[i], {}, categories[i]);
  }
  for (int i = 0; i < 3; ++i) EXPECT_EQ(test::liveChunks(categories[i], sizeof(*Header::chunks)), 0);
}

int64_t allocated(uint32_t category) {
  VeskMemoryCategoryInfo info = {};
  __VeskGetMemoryInfoByCategory(category, &info);
  return info.allocated;
}

} // namespace

TEST(Set, AgreesWithAModel) { compareWithModel<Set>(); }
TEST(MultiSet, AgreesWithAModel) { compareWithModel<MultiSet>(); }

// Whole chains come and go in batches. Slabs must not notice: they are taken from the host and given back as if
// every chunk had come and gone for itself.
TEST(MultiSet, SlabsComeAndGoAsForSingleChunks) {
  test::startRuntime();
  __VeskEnableMemoryStatisticsCollection();
  const uint32_t category = __VeskRegisterMemoryCategory("whole"),
                 other = __VeskRegisterMemoryCategory("single");
  constexpr uint32_t kSets = 8, kChunks = 300, kSlab = 227; // chunks of a slab
  for (uint32_t seed = 0; seed < 8 && !HasFailure(); ++seed) {
    std::mt19937 random(seed);
    MultiSet whole[kSets] = {}, single[kSets] = {};
    Model models[kSets];
    for (uint32_t i = 0; i < kSets; ++i) whole[i].category = category, single[i].category = other;
    const auto add = [&](uint32_t i, uint32_t e) {
      if (models[i].insert({e, 1}).second) __VeskAddAnElementToMultiSet(&single[i], e);
    };
    const auto remove = [&](uint32_t i, uint32_t e) {
      if (models[i].erase(e) != 0) __VeskDeleteAnElementFromMultiSet(&single[i], e);
    };
    for (int step = 0; step < 200 && !HasFailure(); ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      const uint32_t i = random() % kSets, j = random() % kSets;
      const Model from = models[j], to = models[i];
      if (random() % 3 == 0) { // chunks of all sets mix
        for (uint32_t n = random() % 1000; n != 0; --n) {
          const uint32_t k = random() % kSets, e = random() % kChunks * 64;
          if (!models[k].contains(e)) __VeskAddAnElementToMultiSet(&whole[k], e);
          add(k, e);
        }
      } else if (to.empty()) {
        __VeskConstructMultiSet(&whole[i], &whole[j]);
        for (const auto& [e, one] : from) add(i, e);
      } else if (i != j) {
        __VeskDifferenceMultiSet(&whole[i], &whole[j]);
        for (const auto& [e, one] : from) remove(i, e);
      } else {
        __VeskDestroyMultiSet(&whole[i]);
        for (const auto& [e, one] : to) remove(i, e);
      }
      EXPECT_TRUE(__VeskAreMultiSetsEqual(&whole[i], &single[i]));
      EXPECT_EQ(allocated(category), allocated(other));
    }
    for (uint32_t i = 0; i < kSets; ++i) __VeskDestroyMultiSet(&whole[i]), __VeskDestroyMultiSet(&single[i]);
    EXPECT_EQ(test::liveChunks(category, sizeof(MultiSetChunk)), 0);
  }
  MultiSet mixed = {0, category, nullptr}, rest = mixed;
  for (uint32_t n = 0; n != kSlab; ++n) __VeskAddAnElementToMultiSet(&mixed, n * 128); // fills a slab
  __VeskAddAnElementToMultiSet(&mixed, 64);
  for (uint32_t n = 1; n != kSlab; ++n) __VeskAddAnElementToMultiSet(&rest, n * 64); // and another
  __VeskDestroyMultiSet(&mixed); // while the first slab is emptied, there is room in the second
  EXPECT_EQ(allocated(category), 65536);
  __VeskDestroyMultiSet(&rest);
}

// Each thread works on sets of its own; all chunks are of one category, and a set's chunks pass on to other threads.
TEST(Set, ThreadsShareACategory) {
  test::startRuntime();
  __VeskEnableMemoryStatisticsCollection();
  const uint32_t category = __VeskRegisterMemoryCategory("shared");
  constexpr uint32_t kChunks = 700;
  std::mutex mutex;
  Set passedOn = {0, category, nullptr}; // guarded by the mutex
  std::atomic<int> wrong = 0;
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      std::mt19937 random(t);
      Set all = {0, category, nullptr}, some = all, result = all;
      for (uint32_t e = kChunks; e-- != 0;) {
        __VeskAddAnElementToSet(&all, e * 64);
        if (random() % 2 != 0) __VeskAddAnElementToSet(&some, e * 64 + t);
      }
      for (int round = 0; round < 300; ++round) {
        {
          const std::lock_guard lock(mutex);
          std::swap(result, passedOn);
        }
        __VeskConstructSet(&result, &some);
        __VeskUnionSet(&result, &all);
        wrong += __VeskIsASubsetOfSet(&all, &result) == 0 || __VeskIsASubsetOfSet(&some, &result) == 0;
        __VeskDifferenceSet(&result, round % 2 != 0 ? &some : &all);
        wrong += result.count != (round % 2 != 0 ? all : some).count - (t == 0 ? some.count : 0);
      }
      for (Set* set : {&all, &some, &result}) __VeskDestroySet(set);
    });
  }
  for (auto& thread : threads) thread.join();
  __VeskDestroySet(&passedOn);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(test::liveChunks(category, sizeof(SetChunk)), 0);
}
