// The collector's bookkeeping against a plain model of it.
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include <alloca.h>
#include <gtest/gtest.h>
#define UNW_LOCAL_ONLY
#include <libunwind.h>

#include "collectors/heap/accounts.h"
#include "collectors/heap/backtrace.h"
#include "collectors/heap/blocks.h"
#include "support/test_host.h"
#include "veskrt/memory.h"

namespace {

using heap::Block;

const void* at(std::uint64_t address) { return reinterpret_cast<const void*>(address); }

TEST(HeapBlocks, HoldWhatAMapHolds) {
  test::startRuntime();
  heap::startBlocks(__VeskRegisterMemoryCategory("BLOCKS"));
  // Dense and sparse addresses, some between granules, small and huge sizes, pages that empty and fill again.
  std::mt19937_64 random(1);
  std::map<std::uint64_t, Block> model;
  for (int step = 0; step < 200'000; ++step) {
    const bool sparse = random() % 4 == 0;
    std::uint64_t address = 0x7f0000000000 + (sparse ? (random() % 300) << 20 : (random() % 3000) << 4);
    if (random() % 16 == 0) address += 8;
    const auto known = model.find(address);
    if (known != model.end()) {
      const heap::BlockWord word = heap::takeBlock(at(address));
      if (random() % 8 == 0) { // a failed realloc
        heap::putBack(at(address), word);
        continue;
      }
      const Block block = heap::openBlock(word);
      ASSERT_EQ(block.site, known->second.site);
      ASSERT_EQ(block.bytes, known->second.bytes);
      model.erase(known);
    } else {
      ASSERT_EQ(heap::takeBlock(at(address)), 0u);
      const int shift = static_cast<int>(random() % 64);
      const Block block = {static_cast<std::uint32_t>(random() % ((1u << heap::kSiteBits) - 1)) + 1,
                           random() >> shift};
      ASSERT_EQ(heap::putBlock(at(address), block), 0u);
      model.emplace(address, block);
    }
  }
  const auto [address, block] = *model.begin();
  const Block lost = heap::openBlock(heap::putBlock(at(address), {7, 7})); // its release was not told
  EXPECT_EQ(lost.bytes, block.bytes);
  EXPECT_EQ(heap::openBlock(heap::takeBlock(at(address))).bytes, 7u);
  heap::forgetBlocks();
  EXPECT_EQ(heap::takeBlock(at(std::prev(model.end())->first)), 0u);
}

TEST(HeapBlocks, ThreadsKeepTheirOwn) {
  test::startRuntime();
  heap::startBlocks(__VeskRegisterMemoryCategory("BLOCKS"));
  std::vector<std::thread> threads;
  std::atomic<std::uint32_t> wrong{0};
  for (std::uint32_t self = 1; self <= 4; ++self) {
    threads.emplace_back([self, &wrong] {
      for (std::uint64_t i = 0; i < 20'000; ++i) {
        const std::uint64_t address =
            0x500000000000 + (i % 700 * 4 + self) * 16; // interleaved with the others'
        heap::putBlock(at(address), {self, i});
        const Block block = heap::openBlock(heap::takeBlock(at(address)));
        if (block.site != self || block.bytes != i) ++wrong;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0u);
}

TEST(HeapAccounts, EverySiteKnowsItsShareOfThePeak) {
  test::startRuntime();
  heap::startAccounts(1, __VeskRegisterMemoryCategory("TIMELINE"));
  constexpr std::size_t kSites = 7;
  heap::Site sites[kSites] = {};
  std::uint64_t model[kSites] = {};
  std::uint64_t modelPeak[kSites] = {};
  std::uint64_t peak = 0;
  std::uint64_t live = 0;
  std::vector<std::pair<std::size_t, std::uint64_t>> blocks;
  std::mt19937 random(2);
  const auto release = [&](std::size_t index) {
    const auto block = blocks[index];
    blocks[index] = blocks.back();
    blocks.pop_back();
    model[block.first] -= block.second;
    live -= block.second;
    return block;
  };
  for (int step = 0; step < 20'000; ++step) {
    // Growth and decline in turn, so that peaks are closed and passed again.
    const bool growing = step / 500 % 2 == 0;
    const std::uint32_t choice = random() % 10;
    const std::size_t site = random() % kSites;
    const std::uint64_t bytes = random() % 5;
    if (!blocks.empty() && choice < (growing ? 3u : 7u)) {
      const auto [from, size] = release(random() % blocks.size());
      if (choice == 0) {
        heap::accountReallocation(&sites[from], size, false, sites[site], bytes, VESK_HEAP_REALLOC);
      } else {
        heap::accountRelease(sites[from], size, false);
        continue;
      }
    } else {
      heap::accountAllocation(sites[site], bytes, VESK_HEAP_MALLOC);
    }
    blocks.emplace_back(site, bytes);
    model[site] += bytes;
    live += bytes;
    if (live > peak) {
      peak = live;
      std::copy(std::begin(model), std::end(model), modelPeak);
    }
    if (step % 97 != 0) continue;
    heap::StillAccounts still;
    ASSERT_EQ(still.totals().peakBytes, peak);
    ASSERT_EQ(still.totals().liveBytes, live);
    for (std::size_t i = 0; i < kSites; ++i) ASSERT_EQ(still.peakBytes(sites[i]), modelPeak[i]) << step;
  }
}

// ---- Back-traces: every frame as libunwind, which knows all rules, has it ----

int compared = 0;

[[gnu::noinline]] void compareWithUnwinder() {
  const void* caller = __builtin_return_address(0);
  heap::Trace trace;
  heap::captureBacktrace(trace, caller, heap::kMaxDepth);
  unw_context_t context;
  unw_cursor_t cursor;
  unw_word_t ip = 0;
  unw_getcontext(&context);
  unw_init_local(&cursor, &context);
  do ASSERT_GT(unw_step(&cursor), 0);
  while (unw_get_reg(&cursor, UNW_REG_IP, &ip) == 0 && ip != reinterpret_cast<unw_word_t>(caller));
  for (std::uint32_t i = 0; i < trace.depth; ++i) {
    unw_get_reg(&cursor, UNW_REG_IP, &ip);
    ASSERT_EQ(trace.frames[i], reinterpret_cast<const void*>(ip)) << "frame " << i;
    if (i + 1 < trace.depth) {
      ASSERT_GT(unw_step(&cursor), 0);
    }
  }
  EXPECT_EQ(trace.cut, trace.depth == heap::kMaxDepth && unw_step(&cursor) > 0);
  ++compared;
}

int compareInSort(const void* left, const void* right) {
  compareWithUnwinder();
  return *static_cast<const int*>(left) - *static_cast<const int*>(right);
}

[[gnu::noinline]] void descend(int depth) {
  compareWithUnwinder();
  if (depth == 0) {
    int numbers[] = {3, 1, 2};
    std::qsort(numbers, 3, sizeof(int), compareInSort);
    std::raise(SIGUSR1);
    return;
  }
  if (depth % 3 == 0) { // a frame of a size that only the frame pointer knows
    auto* room = static_cast<volatile char*>(alloca(static_cast<std::size_t>(depth) * 40));
    room[0] = 1;
    descend(depth - 1);
    room[0] = 2;
  } else if (depth % 3 == 1) { // a frame that is aligned by hand
    alignas(256) volatile char room[256];
    room[0] = 1;
    descend(depth - room[0]);
  } else {
    descend(depth - 1);
  }
  compareWithUnwinder();
}

TEST(HeapBacktraces, AgreeWithAFullUnwinder) {
  std::signal(SIGUSR1, [](int) { compareWithUnwinder(); });
  descend(40);
  heap::forgetCode();
  std::thread([] { descend(10); }).join();
  EXPECT_GT(compared, 100);
}

} // namespace
