// Memory under pressure: the tool's collectors, the reserve, and the host engine's protocol.
#include "memory/memory.h"

#include <algorithm>
#include <limits>

#include <sys/sysinfo.h>

#include "runtime/once_guard.h"
#include "veskrt/log.h"
#include "veskrt/memory_collection.h"
#include "veskrt/runtime.h"

namespace vesk::memory {

namespace {

constexpr std::int32_t kMostFailuresProbed = 10;

// A reserve block holds the next one's address in its first word.
struct ReserveBlock {
  ReserveBlock* next;
};

// Slots fill in order; one that is counted may not be filled yet.
constinit VeskMemoryCollector collectors[VESK_MAX_MEMORY_COLLECTORS] = {};
constinit std::uint32_t collectorCount = 0;

constinit std::uint32_t collectionEnabled = 0;
constinit std::uint32_t releasingReserves = 0;

// Under the host-allocation lock.
constinit ReserveBlock* reserves = nullptr;
constinit std::uint32_t collectionLogged = 0; // in the current attempt at a host allocation
constinit std::uint64_t highestFreeSwap = 0;
constinit std::uint64_t lowestFreeSwap = std::numeric_limits<std::uint64_t>::max(); // since the highest

// Under the pre-allocation lock; `probeWaiting` is also read without it.
constinit std::int32_t engineFailures = 0;
constinit std::uint32_t probeWaiting = 0;

template <class... Arguments>
void note(const char* format, Arguments... arguments) {
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, format, arguments...);
}

void noteTotals(const char* format) {
  note(format, static_cast<unsigned long long>(totalAllocated()));
  listCategories("MemoryAllocated by %-25s:%15ld");
}

// Calls the collectors. Returns the bytes by which the statistics' total went down. Caller holds the
// host-allocation lock.
std::uint64_t collect() {
  if (collectionLogged == 0) {
    __VeskLogInternal(VESKLOG_SEVERITY_WARNING, VESKLOG_MSG_COLLECT_MEMORY, 0, nullptr);
    collectionLogged = 1;
  }
  const std::uint64_t before = totalAllocated();
  if (statisticsOn()) {
    countCollection();
    noteTotals("Start collecting memory: __veskTotalMemoryAllocated=%llu");
  }
  for (std::uint32_t i = 0; i < std::min(loadRelaxed(collectorCount), VESK_MAX_MEMORY_COLLECTORS); ++i) {
    const VeskMemoryCollector collector = loadAcquire(collectors[i]);
    if (collector != nullptr) collector();
  }
  if (statisticsOn()) noteTotals("Stop collecting memory: __veskTotalMemoryAllocated=%llu");
  return before - totalAllocated();
}

// Whole 64 KiB units for `bytes`, one to spare, less the 16 bytes that the allocator leaves off every slab.
std::uint32_t probeSize(std::uint32_t bytes) { return ((bytes + 0x1000F) & ~std::uint32_t{0xFFFF}) - 16; }

// Asks the host for the probe's size and keeps what is known of the logged collection over to the next
// attempt.
void* tryProbe(std::uint32_t size, std::uint32_t& logged) {
  ScopedSpinLock scope(hostAllocationLock);
  collectionLogged = logged;
  void* const block = hostAllocate(size);
  logged = collectionLogged;
  if (block != nullptr) collectionLogged = 0;
  return block;
}

void* tryProbeWithReserves(std::uint32_t size, std::uint32_t logged) {
  ScopedSpinLock scope(hostAllocationLock);
  void* const block = allocateFromReserves(size);
  collectionLogged = logged;
  return block;
}

// The host can give `size` bytes now, or reserves have been given back until it can, or it has been said that
// memory is tight. Caller holds the pre-allocation lock.
void probe(std::uint32_t size) {
  std::uint32_t logged = 0;
  void* block = tryProbe(size, logged);
  if (block == nullptr) {
    note("Memory collection %i failed.  Retrying after a few seconds...", 1);
    storeRelaxed(probeWaiting, 1);
    __VeskSleep(1);
    block = tryProbe(size, logged);
  }
  if (block == nullptr) block = tryProbeWithReserves(size, logged);
  if (block != nullptr) {
    hostFree(block);
  } else {
    reportMemoryIsTight();
  }
  storeRelaxed(probeWaiting, 0);
}

} // namespace

void forgetLoggedCollection() noexcept { collectionLogged = 0; }

void checkPressure() noexcept {
  if (loadRelaxed(collectionEnabled) == 0) return;
  struct sysinfo info;
  if (sysinfo(&info) != 0) return;
  const std::uint64_t freeSwap = info.freeswap;
  if (freeSwap > highestFreeSwap) {
    highestFreeSwap = freeSwap;
    lowestFreeSwap = freeSwap;
  } else if (freeSwap < lowestFreeSwap) {
    lowestFreeSwap = freeSwap;
  }
  if (lowestFreeSwap + info.totalswap / 16 < highestFreeSwap) {
    lowestFreeSwap = std::numeric_limits<std::uint64_t>::max();
    highestFreeSwap = 0;
    collect();
  }
}

void* allocateFromReserves(std::uint64_t bytes) noexcept {
  storeRelaxed(releasingReserves, 1);
  void* block = nullptr;
  while (block == nullptr && reserves != nullptr) {
    ReserveBlock* const reserve = reserves;
    reserves = reserve->next;
    hostFree(reserve);
    __VeskLogInternal(VESKLOG_SEVERITY_WARNING, VESKLOG_MSG_FREEING_RESERVES, 0, VESKLOG_ARG_INT,
                      static_cast<std::int32_t>(VESK_RESERVE_BLOCK_SIZE));
    block = hostAllocate(bytes);
  }
  storeRelaxed(releasingReserves, 0);
  return block;
}

} // namespace vesk::memory

using namespace vesk;
using namespace vesk::memory;

uint32_t __VeskRegisterMemoryCollector(VeskMemoryCollector collector) {
  if (collector == nullptr) {
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0,
                      "A valid memory collector hook must be specified to register it with VESKRT");
    return VESK_INVALID_ID;
  }
  const std::uint32_t slot = fetchAdd(collectorCount, 1);
  if (slot >= VESK_MAX_MEMORY_COLLECTORS) {
    fetchAdd(collectorCount, static_cast<std::uint32_t>(-1));
    return VESK_INVALID_ID;
  }
  storeRelease(collectors[slot], collector);
  return 0;
}

void __VeskInitializeMemoryCollector() { __VeskInitializeMemoryCollectorAndReserveMemory(0); }

void __VeskInitializeMemoryCollectorAndReserveMemory(uint32_t reserveBlocks) {
  ScopedOnceGuard guard(initializationGuard);
  if (loadRelaxed(collectionEnabled) != 0) return;
  clearStatistics();
  for (; reserveBlocks != 0; --reserveBlocks) {
    auto* const block = static_cast<ReserveBlock*>(hostAllocate(VESK_RESERVE_BLOCK_SIZE));
    if (block == nullptr) break;
    ScopedSpinLock scope(hostAllocationLock);
    block->next = reserves;
    reserves = block;
  }
  storeRelease(collectionEnabled, 1);
}

void __VeskPreVirtualAllocCheck(uint32_t bytes) {
  ScopedSpinLock scope(preAllocationLock);
  if (engineFailures <= kMostFailuresProbed) probe(probeSize(bytes));
}

void __VeskPostVirtualAllocCheck(uint32_t succeeded) {
  ScopedSpinLock scope(preAllocationLock);
  engineFailures = succeeded != 0 ? 0 : engineFailures + 1;
}

void __VeskAsynchronousCollectMemory(uint64_t bytes) {
  if (loadRelaxed(collectionEnabled) == 0 || loadRelaxed(releasingReserves) != 0) return;
  if (__VeskIsSpinLockAcquiredByCallingThread(&hostAllocationLock) != 0) {
    if (statisticsOn()) note("Tarv requested at least %llu bytes", static_cast<unsigned long long>(bytes));
    const std::uint64_t freed = collect();
    if (statisticsOn()) note("We freed %llu bytes", static_cast<unsigned long long>(freed));
  } else {
    __VeskPreVirtualAllocCheck(static_cast<std::uint32_t>(bytes));
  }
}

void __VeskWaitForPreVirtualAllocThread() {
  while (loadRelaxed(probeWaiting) != 0) __VeskYield();
}
