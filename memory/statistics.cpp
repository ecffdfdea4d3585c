// Memory categories: who owns slab memory, how much, and the two reports when there is none left.
#include "memory/memory.h"

#include <algorithm>
#include <cstring>

#include "veskrt/atomic.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"
#include "veskrt/text.h"

namespace vesk::memory {

namespace {

constexpr std::uint64_t kSlabsPerStatusDump = 100;
constexpr const char* kStatusFormat = "Allocation status for %-25s:%15ld";

// A row's name is read while it may still be being written; it travels in words.
constexpr std::size_t kNameWords = VESK_MEMORY_CATEGORY_NAME_SIZE / sizeof(std::uint64_t);

struct Category {
  std::uint64_t name[kNameWords];
  std::int64_t allocated;       // under statisticsLock
  std::int64_t allocatedAtPeak; // under statisticsLock
};

constinit Category categories[VESK_MAX_MEMORY_CATEGORIES] = {
    {{0x53494D5F4B534556, 'C', 0, 0}, 0, 0}, // "VESK_MISC"
};
constinit std::uint32_t categoryCount = 1;

constinit std::uint32_t statisticsFlag = 0;

// Guards the counters below and the figures of the categories; readers of single figures do without.
constinit VeskSpinLock statisticsLock = {};
constinit std::uint64_t total = 0;
constinit std::uint64_t peakTotal = 0;
constinit std::uint64_t slabsAcquired = 0;
constinit std::uint64_t collections = 0;

constinit std::uint32_t tightReportArmed = 1;

struct CategoryName {
  explicit CategoryName(const Category& category) {
    std::uint64_t words[kNameWords] = {};
    for (std::size_t i = 0; i < kNameWords; ++i) words[i] = loadRelaxed(category.name[i]);
    std::memcpy(text, words, sizeof text);
  }
  char text[VESK_MEMORY_CATEGORY_NAME_SIZE];
};

void note(const char* text) { __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, text); }

} // namespace

bool statisticsOn() noexcept { return loadRelaxed(statisticsFlag) != 0; }

std::uint64_t totalAllocated() noexcept { return loadRelaxed(total); }

void countCollection() noexcept {
  ScopedSpinLock scope(statisticsLock);
  storeRelaxed(collections, collections + 1);
}

void listCategories(const char* format) noexcept {
  for (std::uint32_t id = 0; id < __VeskGetNumMemoryCategories(); ++id) {
    const CategoryName name(categories[id]);
    __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, format, name.text,
                      static_cast<long>(loadRelaxed(categories[id].allocated)));
  }
}

void accountSlabAcquired(std::uint32_t category, std::uint64_t bytes) noexcept {
  ScopedSpinLock scope(statisticsLock);
  Category& row = categories[category];
  storeRelaxed(row.allocated, row.allocated + static_cast<std::int64_t>(bytes));
  storeRelaxed(total, total + bytes);
  if (peakTotal < total) {
    for (Category& each : categories) storeRelaxed(each.allocatedAtPeak, each.allocated);
    storeRelaxed(peakTotal, total);
  }
  if (++slabsAcquired % kSlabsPerStatusDump == 0) {
    note("Periodic allocation status dump");
    listCategories(kStatusFormat);
  }
}

void accountSlabReleased(std::uint32_t category, std::uint64_t bytes) noexcept {
  ScopedSpinLock scope(statisticsLock);
  Category& row = categories[category];
  storeRelaxed(total, total - bytes);
  storeRelaxed(row.allocated, row.allocated - static_cast<std::int64_t>(bytes));
}

void clearStatistics() noexcept {
  ScopedSpinLock scope(statisticsLock);
  storeRelaxed(total, 0);
  storeRelaxed(peakTotal, 0);
  storeRelaxed(collections, 0);
  for (Category& each : categories) {
    storeRelaxed(each.allocated, 0);
    storeRelaxed(each.allocatedAtPeak, 0);
  }
}

void reportOutOfMemory() noexcept {
  if (statisticsOn()) listCategories(kStatusFormat);
  __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_OUT_OF_MEMORY, 0, nullptr);
  __VeskFatalExit(-1);
}

void reportMemoryIsTight() noexcept {
  if (loadRelaxed(tightReportArmed) == 0) return;
  if (statisticsOn()) listCategories(kStatusFormat);
  __VeskLogInternal(VESKLOG_SEVERITY_WARNING, VESKLOG_MSG_MEMORY_IS_TIGHT, 0, nullptr);
  storeRelaxed(tightReportArmed, 0);
}

} // namespace vesk::memory

using namespace vesk;
using namespace vesk::memory;

uint32_t __VeskRegisterMemoryCategory(const char* name) {
  if (name == nullptr) {
    __VeskLogInternal(VESKLOG_SEVERITY_ERROR, VESKLOG_MSG_INTERNAL, 0,
                      "A name must be specified when registering memory categories");
    return VESK_INVALID_ID;
  }
  const std::uint32_t id = fetchAdd(categoryCount, 1);
  if (id >= VESK_MAX_MEMORY_CATEGORIES) {
    fetchAdd(categoryCount, static_cast<std::uint32_t>(-1));
    return VESK_INVALID_ID;
  }
  char text[VESK_MEMORY_CATEGORY_NAME_SIZE];
  __VeskStrncpy(text, name, sizeof text);
  std::uint64_t words[kNameWords];
  std::memcpy(words, text, sizeof words);
  for (std::size_t i = 0; i < kNameWords; ++i) storeRelaxed(categories[id].name[i], words[i]);
  return id;
}

uint32_t __VeskGetNumMemoryCategories() {
  // A registration that finds the table full raises the count for a moment.
  return std::min(loadRelaxed(categoryCount), VESK_MAX_MEMORY_CATEGORIES);
}

void __VeskEnableMemoryStatisticsCollection() { storeRelaxed(statisticsFlag, 1); }

int __VeskGetMemoryInfoByCategory(uint32_t category, VeskMemoryCategoryInfo* info) {
  if (info == nullptr || category >= __VeskGetNumMemoryCategories()) return 0;
  const Category& row = categories[category];
  __VeskStrncpy(info->name, CategoryName(row).text, sizeof info->name);
  info->allocated = loadRelaxed(row.allocated);
  info->allocatedAtPeak = loadRelaxed(row.allocatedAtPeak);
  return 1;
}

uint64_t __VeskGetPeakTotalMemoryAllocated() {
  const std::uint64_t peak = loadRelaxed(peakTotal);
  return peak != 0 ? peak : loadRelaxed(total);
}

uint64_t __VeskGetTotalTimesMemoryCollected() { return loadRelaxed(collections); }
