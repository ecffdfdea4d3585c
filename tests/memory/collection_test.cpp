#include "veskrt/memory_collection.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include "support/child.h"
#include "support/test_host.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

uint64_t freeSwap = 0;
uint64_t totalSwap = 0;
std::atomic<uint64_t> yields{0};
std::vector<int> collected;

} // namespace

// In the place of the system's own, for the library as well: swap as the test wants it, and yields that cost
// nothing.
extern "C" int sysinfo(struct sysinfo* info) noexcept {
  *info = {};
  info->freeswap = freeSwap;
  info->totalswap = totalSwap;
  return totalSwap == 1 ? -1 : 0;
}
extern "C" int sched_yield() noexcept {
  ++yields;
  return 0;
}

namespace {

constexpr uint64_t kGiB = uint64_t{1} << 30;

using test::logged;

struct Collection : testing::Test {
  void SetUp() override { test::startRuntime(); }
  // A host allocation of the library.
  static void allocateFromHost() { __VeskFree(__VeskMalloc(0, 1 << 20, 0)); }
};

// The host gives nothing of more than a few pages, but for the first `grants` requests.
void refuseFrom(int grants) {
  test::host().allow = [grants](uint64_t bytes) mutable { return bytes < 65536 || grants-- > 0; };
}

} // namespace

TEST_F(Collection, RegistersSixteenAndCallsThemInOrder) {
  EXPECT_EQ(__VeskRegisterMemoryCollector(nullptr), VESK_INVALID_ID);
  EXPECT_EQ(logged("<!-- A valid memory collector hook must be specified to register it with VESKRT -->"),
            1u);
  EXPECT_EQ(__VeskRegisterMemoryCollector([] { collected.push_back(1); }), 0u);
  EXPECT_EQ(__VeskRegisterMemoryCollector([] { collected.push_back(2); }), 0u);
  for (int i = 2; i < 16; ++i) EXPECT_EQ(__VeskRegisterMemoryCollector([] { collected.push_back(3); }), 0u);
  EXPECT_EQ(__VeskRegisterMemoryCollector([] { collected.push_back(4); }), VESK_INVALID_ID);
  __VeskInitializeMemoryCollector();

  allocateFromHost(); // there is no swap
  allocateFromHost();
  totalSwap = 16 * kGiB;
  freeSwap = 10 * kGiB;
  allocateFromHost();
  freeSwap = 9 * kGiB; // exactly a sixteenth below
  allocateFromHost();
  EXPECT_TRUE(collected.empty());
  freeSwap -= 1;
  allocateFromHost();
  ASSERT_EQ(collected.size(), 16u);
  EXPECT_EQ(collected[0], 1);
  EXPECT_EQ(collected[1], 2);
  EXPECT_EQ(collected[15], 3);
  EXPECT_EQ(logged("<type>COLLECT_MEMORY</type>"), 1u);

  allocateFromHost(); // afresh from here
  freeSwap -= kGiB;
  allocateFromHost();
  EXPECT_EQ(collected.size(), 16u);
  totalSwap = 1; // the system does not answer
  freeSwap = 0;
  allocateFromHost();
  EXPECT_EQ(collected.size(), 16u);
}

TEST_F(Collection, SetUpHappensOnceAndClearsTheFigures) {
  __VeskEnableMemoryStatisticsCollection();
  void* before = __VeskMalloc(0, 30000, 0);
  int refuseThird = 0;
  test::host().allow = [&](uint64_t bytes) { return bytes != VESK_RESERVE_BLOCK_SIZE || ++refuseThird != 3; };
  const int64_t blocks = test::host().liveBlocks;
  __VeskInitializeMemoryCollectorAndReserveMemory(4);
  EXPECT_EQ(test::host().liveBlocks, blocks + 2);
  EXPECT_EQ(__VeskGetPeakTotalMemoryAllocated(), 0u);
  __VeskInitializeMemoryCollectorAndReserveMemory(9);
  EXPECT_EQ(test::host().liveBlocks, blocks + 2);
  __VeskFree(before);
}

TEST_F(Collection, HostCallsBackInTheMiddleOfAHostAllocation) {
  static void* cache;
  __VeskCreateLogger("test", "vesklog.log", 0);
  __VeskEnableMemoryStatisticsCollection();
  __VeskRegisterMemoryCollector([] {
    collected.push_back(1);
    __VeskFree(cache);      // a whole slab
    __VeskMalloc(7, 20, 0); // collectors may allocate, which is a host allocation inside the host allocation
    cache = nullptr;
  });
  test::host().allow = [](uint64_t bytes) {
    if (bytes > 65536) __VeskAsynchronousCollectMemory(12345);
    return true;
  };
  allocateFromHost();
  EXPECT_TRUE(collected.empty()); // not set up yet
  __VeskInitializeMemoryCollector();
  void* other = __VeskMalloc(1, 32728, 0);
  __VeskMalloc(1, 32728, 0);
  cache = __VeskMalloc(1, 32728, 0); // of a second slab, which goes back to the host with it
  __VeskFree(other);
  allocateFromHost();
  EXPECT_EQ(collected.size(), 1u);
  EXPECT_EQ(logged("<!-- Tarv requested at least 12345 bytes -->"), 1u);
  EXPECT_EQ(logged("<!-- Start collecting memory: __veskTotalMemoryAllocated=131072 -->"), 1u);
  EXPECT_EQ(logged("<!-- We freed 0 bytes -->"), 1u); // one slab given back, one taken
  EXPECT_EQ(__VeskGetTotalTimesMemoryCollected(), 1u);
}

TEST_F(Collection, ReservesGoBackOneAtATimeThenTheProcessEnds) {
  EXPECT_EQ(__VeskCreateLogger("test", "vesklog.log", 0), 1);
  __VeskEnableMemoryStatisticsCollection();
  __VeskInitializeMemoryCollectorAndReserveMemory(3);
  const int64_t blocks = test::host().liveBlocks;
  int attempts = 0;
  test::host().allow = [&](uint64_t bytes) { return bytes <= 65536 || ++attempts == 3; };
  test::host().released = [](uint64_t bytes) {
    if (bytes == VESK_RESERVE_BLOCK_SIZE) __VeskAsynchronousCollectMemory(1); // does nothing now
  };
  void* block = __VeskMalloc(0, 1 << 20, 0);
  EXPECT_EQ(logged("<type>FREEING_RESERVES</type>"), 2u);
  EXPECT_EQ(logged("<arg name='num_bytes'>33554416</arg>"), 2u);
  EXPECT_EQ(logged("COLLECT_MEMORY"), 0u);
  EXPECT_EQ(test::host().liveBlocks, blocks - 2 + 1);
  __VeskFree(block);

  const auto end = test::runInChild([] {
    test::host().allow = [](uint64_t) { return false; };
    __VeskSetExitHandler([](int32_t code) { std::exit(code == -1 ? 42 : 1); });
    __VeskMalloc(9, 100, 0);
  });
  EXPECT_EQ(end.exitStatus, 42);
  EXPECT_EQ(logged("<type>FREEING_RESERVES</type>"), 3u);
  const std::string log = test::readFile("vesklog.log");
  const size_t status = log.find("Allocation status for VESK_MISC");
  const size_t death = log.find("<type>OUT_OF_MEMORY</type>");
  const size_t last = log.find("<type>ABNORMAL_TERMINATE</type>");
  EXPECT_TRUE(status < death && death < last && last != std::string::npos) << log;
  EXPECT_EQ(log.substr(log.rfind('\n')), "\n\t</msg>"); // whole to its last record
}

TEST_F(Collection, ExhaustionWithoutALogStillEndsTheProcess) {
  const auto end = test::runInChild([] {
    test::host().allow = [](uint64_t) { return false; };
    __VeskMalloc(9, 100, 0);
  });
  EXPECT_EQ(end.exitStatus, 255);
}

TEST_F(Collection, ProbeAsksWaitsHandsBackAndComplainsOnce) {
  __VeskCreateLogger("test", "vesklog.log", 0);
  __VeskInitializeMemoryCollectorAndReserveMemory(1);
  const int64_t blocks = test::host().liveBlocks;
  for (const auto& [bytes, size] :
       {std::pair{0u, 65520u}, {65520u, 65520u}, {65521u, 131056u}, {0xFFFFFFFFu, 65520u}}) {
    __VeskPreVirtualAllocCheck(bytes);
    EXPECT_EQ(test::host().lastRequest, size) << bytes;
    EXPECT_EQ(test::host().liveBlocks, blocks);
  }
  __VeskAsynchronousCollectMemory(0x100000001); // outside a host allocation: a probe for the low 32 bits
  EXPECT_EQ(test::host().lastRequest, 65520u);

  refuseFrom(0);
  yields = 0;
  std::thread([&] { __VeskPreVirtualAllocCheck(70000); }).join();
  EXPECT_EQ(yields, 5000000u);
  EXPECT_EQ(logged("<!-- Memory collection 1 failed.  Retrying after a few seconds... -->"), 1u);
  EXPECT_EQ(logged("FREEING_RESERVES"), 1u);
  EXPECT_EQ(logged("MEMORY_IS_TIGHT"), 1u);
  __VeskPreVirtualAllocCheck(70000);
  EXPECT_EQ(logged("MEMORY_IS_TIGHT"), 1u);
  __VeskWaitForPreVirtualAllocThread();

  refuseFrom(-1);
  for (int i = 0; i < 11; ++i) __VeskPostVirtualAllocCheck(0);
  uint64_t requests = 0;
  test::host().allow = [&](uint64_t) { return ++requests != 0; };
  __VeskPreVirtualAllocCheck(100);
  EXPECT_EQ(requests, 0u);
  __VeskPostVirtualAllocCheck(1);
  __VeskPreVirtualAllocCheck(100);
  EXPECT_EQ(requests, 1u);
}

TEST_F(Collection, ProbeThatSucceedsOnlyWithAReserve) {
  __VeskInitializeMemoryCollectorAndReserveMemory(2);
  int attempts = 0;
  test::host().allow = [&](uint64_t bytes) { return bytes != 131056 || ++attempts == 3; };
  const int64_t blocks = test::host().liveBlocks;
  __VeskPreVirtualAllocCheck(70000);
  EXPECT_EQ(attempts, 3); // the first, the one after the wait, and the one that a reserve block made room for
  EXPECT_EQ(logged("FREEING_RESERVES"), 1u);
  EXPECT_EQ(logged("MEMORY_IS_TIGHT"), 0u);
  EXPECT_LE(test::host().liveBlocks, blocks + 1); // less a reserve block; the log took at most two
}
