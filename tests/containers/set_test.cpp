// What the fuzz targets leave out: the chains' way through the memory manager.
#include "veskrt/set.h"

#include <atomic>
#include <mutex>
#include <random>
#include <set>
#include <utility>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/memory.h"

namespace {

constexpr int64_t kSlabBytes = 65536; // a row keeps its last slab

} // namespace

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
    std::set<uint32_t> models[kSets];
    for (uint32_t i = 0; i < kSets; ++i) whole[i].category = category, single[i].category = other;
    const auto add = [&](uint32_t i, uint32_t e) {
      if (models[i].insert(e).second) __VeskAddAnElementToMultiSet(&single[i], e);
    };
    const auto remove = [&](uint32_t i, uint32_t e) {
      if (models[i].erase(e) != 0) __VeskDeleteAnElementFromMultiSet(&single[i], e);
    };
    for (int step = 0; step < 200 && !HasFailure(); ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      const uint32_t i = random() % kSets, j = random() % kSets;
      const std::set<uint32_t> from = models[j], to = models[i];
      if (random() % 3 == 0) { // chunks of all sets mix
        for (uint32_t n = random() % 1000; n != 0; --n) {
          const uint32_t k = random() % kSets, e = random() % kChunks * 64;
          if (!models[k].contains(e)) __VeskAddAnElementToMultiSet(&whole[k], e);
          add(k, e);
        }
      } else if (to.empty()) {
        __VeskConstructMultiSet(&whole[i], &whole[j]);
        for (const uint32_t e : from) add(i, e);
      } else if (i != j) {
        __VeskDifferenceMultiSet(&whole[i], &whole[j]);
        for (const uint32_t e : from) remove(i, e);
      } else {
        __VeskDestroyMultiSet(&whole[i]);
        for (const uint32_t e : to) remove(i, e);
      }
      EXPECT_TRUE(__VeskAreMultiSetsEqual(&whole[i], &single[i]));
      EXPECT_EQ(test::bytesOfSlabs(category), test::bytesOfSlabs(other));
    }
    for (uint32_t i = 0; i < kSets; ++i) __VeskDestroyMultiSet(&whole[i]), __VeskDestroyMultiSet(&single[i]);
    EXPECT_LE(test::bytesOfSlabs(category), kSlabBytes);
  }
  MultiSet mixed = {0, category, nullptr}, rest = mixed;
  for (uint32_t n = 0; n != kSlab; ++n) __VeskAddAnElementToMultiSet(&mixed, n * 128); // fills a slab
  __VeskAddAnElementToMultiSet(&mixed, 64);
  for (uint32_t n = 1; n != kSlab; ++n) __VeskAddAnElementToMultiSet(&rest, n * 64); // and another
  __VeskDestroyMultiSet(&mixed); // while the first slab is emptied, there is room in the second
  EXPECT_EQ(test::bytesOfSlabs(category), kSlabBytes);
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
  test::runThreads(4, [&](int thread) {
    const auto t = static_cast<uint32_t>(thread);
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
  __VeskDestroySet(&passedOn);
  EXPECT_EQ(wrong, 0);
  EXPECT_LE(test::bytesOfSlabs(category), kSlabBytes);
}
