// The static host: memory, thread identity, slots and services, as the library sees them.
#include <atomic>
#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/core.h"
#include "support/child.h"
#include "veskrt/host.h"
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
  for (const std::uint64_t tooMuch : {UINT64_MAX, UINT64_MAX - 4096, std::uint64_t{1} << 60}) {
    EXPECT_EQ(veskHostAllocate(tooMuch), nullptr);
  }
  veskHostFree(nullptr);
  EXPECT_EQ(veskHostMemoryInUse().blocks, 0u);
  EXPECT_EQ(veskHostMemoryInUse().bytes, 0u);
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

  auto* big = static_cast<char*>(veskHostAllocate(std::uint64_t{512} << 20));
  void* page = big - reinterpret_cast<std::uintptr_t>(big) % 4096;
  EXPECT_EQ(msync(page, 4096, MS_ASYNC), 0);
  veskHostFree(big);
  EXPECT_NE(msync(page, 4096, MS_ASYNC), 0); // its addresses are free
}

// The memory's lock is held by some thread at almost any moment; a child must find it free.
TEST(HostMemory, ThreadsAndForksShareIt) {
  veskHostInstall();
  const std::uint64_t before = veskHostMemoryInUse().blocks;
  std::vector<std::thread> threads;
  for (unsigned index = 0; index < 3; ++index) {
    threads.emplace_back([index] {
      std::vector<std::uint64_t*> blocks(50, nullptr);
      for (unsigned n = 0; n < 20000; ++n) {
        auto*& block = blocks[n * 7 % blocks.size()];
        ASSERT_TRUE(block == nullptr || *block == index);
        veskHostFree(block);
        block = static_cast<std::uint64_t*>(veskHostAllocate(n % 50 == 0 ? kSlab : 8 + n % 3000));
        *block = index;
      }
      for (auto* block : blocks) veskHostFree(block);
    });
  }
  for (int n = 0; n < 10; ++n) {
    const auto child = runInChild([] {
      veskHostFree(veskHostAllocate(100));
      syscall(SYS_exit_group, 9); // past the thread sanitizer, which misses the parent's threads
    });
    EXPECT_EQ(child.exitStatus, 9);
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(veskHostMemoryInUse().blocks, before);
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

TEST(HostThreads, InternalThreadsBlockSignalsAndCanBeWaitedFor) {
  veskHostInstall();
  struct Shared {
    std::atomic<bool> go{false};
    std::atomic<int> blocked{0};
    std::uint64_t parent = 0;
  } shared;
  void* handle = nullptr;
  const auto run = [](void* argument) {
    auto& seen = *static_cast<Shared*>(argument);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    seen.blocked = sigismember(&mask, SIGTERM) + sigismember(&mask, SIGPROF);
    seen.parent = __VeskGetNativeParentThreadId();
    while (!seen.go) sched_yield();
    veskhost::endThread(17);
  };
  ASSERT_NE(veskhost::createThread(run, &shared, 0, &handle), 0);
  std::uint32_t exitCode = 0;
  EXPECT_EQ(veskhost::waitForThread(&handle, 20, &exitCode), 0);
  shared.go = true;
  EXPECT_NE(veskhost::waitForThread(&handle, 30000, &exitCode), 0);
  EXPECT_EQ(exitCode, 17u);
  EXPECT_EQ(shared.blocked, 2);
  EXPECT_EQ(shared.parent, __VeskGetNativeThreadId());
  sigset_t mine;
  pthread_sigmask(SIG_SETMASK, nullptr, &mine);
  EXPECT_EQ(sigismember(&mine, SIGTERM), 0);
}

TEST(HostProcess, ExitCallbacksRunLastFirstAndOnlyWhereTheyWereAdded) {
  const auto say = [](void* text) { std::printf("%s ", static_cast<const char*>(text)); };
  const auto body = [say] {
    veskHostInstall();
    veskhost::addExitCallback(say, const_cast<char*>("first"));
    veskhost::addExitCallback(say, const_cast<char*>("second"));
    const pid_t child = fork();
    if (child == 0) {
      veskhost::addExitCallback(say, const_cast<char*>("child's"));
      std::exit(0);
    }
    waitpid(child, nullptr, 0);
    __VeskExitHandler(5);
  };
  const auto outcome = runInChild(body);
  EXPECT_EQ(outcome.exitStatus, 5);
  EXPECT_EQ(outcome.output, "child's second first ");
}

} // namespace
