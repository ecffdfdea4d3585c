#include "collectors/heap/large_blocks.h"

#include "collectors/heap/lock.h"
#include "veskrt/range_table.h"

namespace heap {

namespace {

constexpr std::uint64_t kUsualSpan = 1 << 20;

constinit Lock lock;
constinit RangeTable* blocks = nullptr; // block to site; under the lock

std::uint64_t numberOf(const void* address) { return reinterpret_cast<std::uint64_t>(address); }

// A block whose release was not told lies where a new one is.
void dropAround(std::uint64_t address) {
  std::uint64_t start;
  std::uint64_t end;
  __VeskLookupRangeTable(blocks, address, &start, &end);
  if (end != 0) __VeskRemoveRangeTableEntry(blocks, start, end);
}

} // namespace

void startLargeBlocks(std::uint32_t category) {
  blocks = __VeskCreateRangeTable(kUsualSpan, category, 0, 0, nullptr);
}

void addLargeBlock(const void* address, Block block) {
  if (block.bytes < kLeastLarge) [[likely]]
    return;
  const std::uint64_t start = numberOf(address);
  Holding hold(lock);
  dropAround(start);
  dropAround(start + block.bytes - 1);
  __VeskInsertRangeTableEntry(blocks, start, start + block.bytes, block.site);
}

void removeLargeBlock(const void* address, std::uint64_t bytes) {
  if (bytes < kLeastLarge) [[likely]]
    return;
  Holding hold(lock);
  std::uint64_t start;
  std::uint64_t end;
  __VeskLookupRangeTable(blocks, numberOf(address), &start, &end);
  if (start == numberOf(address) && end == start + bytes) __VeskRemoveRangeTableEntry(blocks, start, end);
}

bool findLargeBlock(const void* address, LargeBlock& found) {
  Holding hold(lock);
  std::uint64_t end;
  found.site =
      static_cast<std::uint32_t>(__VeskLookupRangeTable(blocks, numberOf(address), &found.start, &end));
  found.bytes = end - found.start;
  return end != 0;
}

void forgetLargeBlocks() {
  Holding hold(lock);
  __VeskScanAndEmptyRangeTable(blocks);
}

} // namespace heap
