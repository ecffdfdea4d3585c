#include "veskrt/memory.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "support/child.h"
#include "support/test_host.h"
#include "support/threads.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"

namespace {

constexpr uint32_t kLargestSmall = 32728;

uint64_t allocationsOf(const std::function<void()>& body) {
  const uint64_t before = test::host().allocations;
  body();
  return test::host().allocations - before;
}

struct SubAllocator : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

} // namespace

TEST(SubAllocatorStart, FirstPairStaysAndNothingWorksBefore) {
  EXPECT_EQ(test::runInChild([] { __VeskMalloc(0, 8, 0); }).exitStatus, 255);
  EXPECT_EQ(test::runInChild([] {
              __VeskInitializeSubAllocator([](uint64_t) -> void* { return nullptr; }, [](void*) {});
            }).exitStatus,
            255);
  test::installHost();
  __VeskInitializeSubAllocator([](uint64_t) -> void* { return nullptr; }, [](void*) {});
  EXPECT_NE(__VeskMalloc(0, 8, 0), nullptr);
  EXPECT_EQ(test::host().liveBlocks, 2); // the table and one slab
}

TEST_F(SubAllocator, ClassesFromTheSmallestToTheLargest) {
  // Chunks of a fresh slab follow each other: their distance is the chunk size.
  const std::pair<uint32_t, uint32_t> chunkSizes[] = {
      {8, 16}, {9, 32}, {24, 32}, {25, 48}, {kLargestSmall, 32736}};
  for (const auto& [size, chunkSize] : chunkSizes) {
    auto* first = static_cast<char*>(__VeskMalloc(1, size, 0));
    auto* second = static_cast<char*>(__VeskMalloc(1, size, 0));
    EXPECT_EQ(second - first, static_cast<ptrdiff_t>(chunkSize)) << size;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(first) % 16, 8u);
    std::memset(first, 0xAA, size);
    std::memset(second, 0xBB, size);
  }
  EXPECT_EQ(test::host().lastRequest, 65520u);
  EXPECT_NE(__VeskMalloc(2, 0, 0), nullptr);

  for (const uint32_t size : {kLargestSmall + 1, 1u << 20, 0xFFFFFFFFu}) {
    const int64_t before = test::host().liveBytes;
    void* large = __VeskMalloc(5, size, 3);
    EXPECT_EQ(test::host().lastRequest, (uint64_t{size} + 8 + 15) / 16 * 16);
    __VeskFree(large);
    EXPECT_EQ(test::host().liveBytes, before);
  }
  __VeskFree(nullptr);
  EXPECT_EQ(allocationsOf([] { __VeskMalloc(64, 100, 0), __VeskMalloc(0, 100, 0); }), 1u); // 64 counts as 0
}

TEST_F(SubAllocator, SlabsHoldAsManyChunksAsTheirSizeAllows) {
  EXPECT_EQ(allocationsOf([] {
              for (int i = 0; i < 4092; ++i) __VeskMalloc(3, 1, 0);
            }),
            1u);
  EXPECT_EQ(allocationsOf([] { __VeskMalloc(3, 1, 0); }), 1u);
  for (uint32_t shift = 0; shift <= 15; ++shift) {
    const uint64_t request = (uint64_t{1} << (16 + shift)) - 16;
    const uint64_t chunks = (request / 16 - 3) / 2046;
    EXPECT_EQ(allocationsOf([&] {
                for (uint64_t i = 0; i < chunks; ++i) __VeskMalloc(4 + shift, kLargestSmall, shift);
              }),
              1u);
    EXPECT_EQ(test::host().lastRequest, request);
    EXPECT_EQ(allocationsOf([&] { __VeskMalloc(4 + shift, kLargestSmall, 0); }), 1u)
        << "slab of shift " << shift;
  }
}

TEST_F(SubAllocator, RowKeepsItsLastSlabAndGivesOthersBack) {
  void* a[2] = {__VeskMalloc(1, kLargestSmall, 0),
                __VeskMalloc(1, kLargestSmall, 0)}; // two chunks: a whole slab
  void* b[2] = {__VeskMalloc(1, kLargestSmall, 0), __VeskMalloc(1, kLargestSmall, 0)};
  const int64_t both = test::host().liveBlocks;
  __VeskFree(a[1]);
  __VeskFree(a[0]); // all of it free, and the only one in the list, since the other is full
  EXPECT_EQ(test::host().liveBlocks, both);
  EXPECT_EQ(__VeskMalloc(1, kLargestSmall, 0), a[0]); // last in, first out
  __VeskFree(b[0]);                                   // comes back into the list as its head
  EXPECT_EQ(__VeskMalloc(1, kLargestSmall, 0), b[0]);
  __VeskFree(b[0]);
  __VeskFree(a[0]);
  EXPECT_EQ(test::host().liveBlocks, both - 1); // behind another slab: given back
  __VeskFree(b[1]);
  EXPECT_EQ(test::host().liveBlocks, both - 1); // the last one stays
  EXPECT_EQ(allocationsOf([] { __VeskMalloc(1, kLargestSmall, 0); }), 0u);
}

TEST_F(SubAllocator, DoubleFreeIsLoggedAndHarmless) {
  void* chunk = __VeskMalloc(0, 100, 0);
  void* other = __VeskMalloc(0, 100, 0);
  __VeskFree(chunk);
  __VeskFree(chunk);
  __VeskFree(chunk);
  EXPECT_EQ(test::logged("<!-- Tried to free a memory chunk that has already been freed -->"), 2u);
  EXPECT_EQ(__VeskMalloc(0, 100, 0), chunk);
  void* third = __VeskMalloc(0, 100, 0);
  EXPECT_NE(third, chunk);
  EXPECT_NE(third, other);
}

TEST_F(SubAllocator, BlocksNeverOverlapAndEverythingComesBack) {
  std::mt19937 random(7);
  for (int round = 0; round < 3; ++round) {
    std::map<unsigned char*, std::pair<uint32_t, unsigned char>> live;
    std::set<std::pair<uint32_t, uint32_t>> rows;
    const auto giveBack = [&](auto block) {
      const auto [size, fill] = block->second;
      const auto* bytes = block->first;
      EXPECT_TRUE(std::all_of(bytes, bytes + size, [fill = fill](unsigned char c) { return c == fill; }));
      __VeskFree(block->first);
      live.erase(block);
    };
    for (int i = 0; i < 20000; ++i) {
      if (live.empty() || random() % 5 < 3) {
        const uint32_t size = random() % (random() % 8 == 0 ? 40000 : 700);
        const uint32_t category = random() % 3;
        auto* block = static_cast<unsigned char*>(__VeskMalloc(category, size, random() % 2));
        const auto fill = static_cast<unsigned char>(random());
        std::memset(block, fill, size);
        ASSERT_TRUE(live.emplace(block, std::pair{size, fill}).second);
        if (size <= kLargestSmall) rows.emplace(category, (size + 23) / 16);
      } else {
        auto block = live.lower_bound(reinterpret_cast<unsigned char*>(uintptr_t{random()} << 20));
        giveBack(block != live.end() ? block : live.begin());
      }
    }
    while (!live.empty()) giveBack(live.begin());
    if (round == 0) { // one slab for each row that was used, and the table
      EXPECT_EQ(test::host().liveBlocks, static_cast<int64_t>(rows.size()) + 1);
    }
  }
}

TEST_F(SubAllocator, ThreadsFreeWhatOthersAllocated) {
  const int64_t blocks = test::host().liveBlocks;
  std::vector<std::atomic<uint64_t*>> mailboxes(64);
  std::atomic<int> damaged{0};
  test::runThreads(6, [&](int t) {
    std::mt19937 random(t);
    for (int i = 0; i < 15000; ++i) {
      const uint32_t size = 8 + random() % 4 * 3000;
      auto* block = static_cast<uint64_t*>(__VeskMalloc(random() % 2, size, 0));
      block[0] = reinterpret_cast<uintptr_t>(block);
      uint64_t* taken = mailboxes[random() % mailboxes.size()].exchange(block);
      if (taken == nullptr) continue;
      damaged += taken[0] != reinterpret_cast<uintptr_t>(taken);
      __VeskFree(taken);
    }
  });
  for (auto& mailbox : mailboxes) __VeskFree(mailbox.load());
  EXPECT_EQ(damaged, 0);
  EXPECT_LE(test::host().liveBlocks, blocks + 8); // a last slab for each of the eight rows
}
