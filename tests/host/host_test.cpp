// The static host: memory, thread identity, slots and services, as the library sees them.
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "support/child.h"
#include "veskhost.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

using test::runInChild;

constexpr std::uint64_t kSlab = 65536 - 16;

TEST(HostMemory, BlocksAreAlignedAndTheirOwn) {
  std::vector<std::pair<unsigned char*, std::uint64_t>> blocks;
  for (std::uint64_t bytes = 0; bytes < (3 << 20); bytes = bytes * 5 / 4 + 7) {
    auto* block = static_cast<unsigned char*>(veskHostAllocate(bytes));
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
    std::memset(block, static_cast<int>(blocks.size()), bytes);
    blocks.emplace_back(block, bytes);
  }
  EXPECT_EQ(veskHostMemoryInUse().blocks, blocks.size());
  std::uint64_t bytesHeld = 0;
  for (std::size_t n = 0; n < blocks.size(); ++n) {
    const auto [block, bytes] = blocks[n];
    for (std::uint64_t at = 0; at < bytes; ++at) ASSERT_EQ(block[at], static_cast<unsigned char>(n));
    bytesHeld += bytes;
  }
  EXPECT_EQ(veskHostMemoryInUse().bytes, bytesHeld);
  for (const auto& [block, bytes] : blocks) veskHostFree(block);
  EXPECT_EQ(veskHostMemoryInUse().blocks, 0u);
  EXPECT_EQ(veskHostMemoryInUse().bytes, 0u);
}

std::uint64_t mappedBytes() {
  std::uint64_t pages = 0;
  FILE* file = std::fopen("/proc/self/statm", "r");
  if (std::fscanf(file, "%lu", &pages) != 1) pages = 0;
  std::fclose(file);
  return pages * 4096;
}

TEST(HostMemory, ReusesSlabsAndReturnsBigBlocks) {
  std::set<void*> seen;
  for (int round = 0; round < 3; ++round) {
    std::vector<void*> slabs;
    for (int n = 0; n < 1000; ++n) slabs.push_back(veskHostAllocate(kSlab));
    seen.insert(slabs.begin(), slabs.end());
    for (void* slab : slabs) veskHostFree(slab);
  }
  EXPECT_EQ(seen.size(), 1000u);

  const std::uint64_t before = mappedBytes();
  void* big = veskHostAllocate(std::uint64_t{512} << 20);
  EXPECT_GE(mappedBytes(), before + (std::uint64_t{512} << 20));
  veskHostFree(big);
  EXPECT_LT(mappedBytes(), before + (std::uint64_t{1} << 20));
}

TEST(HostMemory, RefusesWithNull) {
  EXPECT_EQ(veskHostAllocate(UINT64_MAX), nullptr);
  EXPECT_EQ(veskHostAllocate(UINT64_MAX - 4096), nullptr);
  EXPECT_EQ(veskHostAllocate(std::uint64_t{1} << 60), nullptr);
  EXPECT_EQ(veskHostMemoryInUse().blocks, 0u);
  veskHostFree(nullptr);
}

TEST(HostMemory, ThreadsShareIt) {
  std::vector<std::thread> threads;
  for (unsigned index = 0; index < 4; ++index) {
    threads.emplace_back([index] {
      std::vector<std::uint64_t*> blocks(50, nullptr);
      for (unsigned n = 0; n < 4000; ++n) {
        auto*& block = blocks[n * 7 % blocks.size()];
        if (block != nullptr) {
          ASSERT_EQ(*block >> 32, index + 1);
          veskHostFree(block);
        }
        block = static_cast<std::uint64_t*>(veskHostAllocate(n % 3 == 0 ? kSlab : 8 + n));
        *block = std::uint64_t{index + 1} << 32 | n;
      }
      for (auto* block : blocks) veskHostFree(block);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(veskHostMemoryInUse().blocks, 0u);
}

TEST(HostThreads, IdsAreTheSystemsAlsoAfterFork) {
  veskHostInstall();
  EXPECT_EQ(__veskRtStarted, 1);
  EXPECT_EQ(__VeskGetNativeThreadId(), static_cast<std::uint32_t>(syscall(SYS_gettid)));
  EXPECT_EQ(__VeskGetCurrentThreadId(), __VeskGetNativeThreadId());
  EXPECT_EQ(__VeskGetPid(), getpid());
  std::uint32_t other = 0;
  std::thread([&other] { other = __VeskGetNativeThreadId(); }).join();
  EXPECT_NE(other, 0u);
  EXPECT_NE(other, __VeskGetNativeThreadId());
  const auto child = runInChild([] {
    const bool right =
        __VeskGetNativeThreadId() == static_cast<std::uint32_t>(getpid()) && __VeskGetPid() == getpid();
    _exit(right ? 9 : 1);
  });
  EXPECT_EQ(child.exitStatus, 9);
}

// The memory's lock is held by another thread at almost any moment; the child must find it free.
TEST(HostThreads, ForkWhileOthersAllocate) {
  veskHostInstall();
  std::atomic<bool> stop{false};
  std::thread other([&stop] {
    while (!stop) veskHostFree(veskHostAllocate(100));
  });
  for (int n = 0; n < 20; ++n) {
    const auto child = runInChild([] { veskHostFree(veskHostAllocate(100)); });
    EXPECT_EQ(child.exitStatus, 0);
  }
  stop = true;
  other.join();
}

TEST(HostThreads, SlotsBelongToThreadsAndReadNullWhenNew) {
  veskHostInstall();
  const std::uint32_t slot = __VeskTlsAlloc();
  ASSERT_NE(slot, VESK_INVALID_ID);
  EXPECT_EQ(__VeskTlsGetValue(slot), nullptr);
  int mine = 0;
  EXPECT_EQ(__VeskTlsSetValue(slot, &mine), 1);
  const std::uint64_t blocks = veskHostMemoryInUse().blocks;
  std::thread([slot] {
    EXPECT_EQ(__VeskTlsGetValue(slot), nullptr);
    int theirs = 0;
    EXPECT_EQ(__VeskTlsSetValue(slot, &theirs), 1);
    EXPECT_EQ(__VeskTlsGetValue(slot), &theirs);
  }).join();
  EXPECT_EQ(veskHostMemoryInUse().blocks, blocks); // a thread's table goes with it
  EXPECT_EQ(__VeskTlsGetValue(slot), &mine);

  EXPECT_EQ(__VeskTlsFree(slot), 1);
  EXPECT_EQ(__VeskTlsFree(slot), 0);
  EXPECT_EQ(__VeskTlsSetValue(slot, &mine), 0);
  EXPECT_EQ(__VeskTlsAlloc(), slot);
  EXPECT_EQ(__VeskTlsGetValue(slot), nullptr);

  while (__VeskTlsAlloc() != VESK_INVALID_ID) {
  }
  EXPECT_EQ(__VeskTlsFree(VESK_INVALID_ID), 0);
  EXPECT_EQ(__VeskTlsSetValue(VESK_INVALID_ID, &mine), 0);
  EXPECT_EQ(__VeskTlsFree(slot), 1);
  EXPECT_EQ(__VeskTlsAlloc(), slot);
}

} // namespace
