// The region is a row of 64 KiB pages that are taken from its front and never given back. Blocks are powers
// of two: up to half a page many to a page, larger ones a run of pages; each is aligned to its size. A byte
// for each page holds the size, so that blocks have no headers.
//
// Free blocks of a size are a stack, popped and pushed by compare-and-swap. Its head is the first block's
// number and a count of changes, against a head that was away and has come back; the next block's number is
// the block's first word.
#include "host/inner_heap.h"

#include <bit>

#include <sys/mman.h>

namespace veskhost::inner {

constinit std::atomic<std::uintptr_t> regionStart{std::uintptr_t{1} << 63};

namespace {

constexpr unsigned kUnitShift = 4;
constexpr unsigned kPageShift = 16;
constexpr unsigned kLargestShift = 20;
constexpr std::size_t kPages = kRegion >> kPageShift;

constinit std::atomic<std::size_t> pagesTaken{0};
constinit std::atomic<std::uint8_t> pageShift[kPages] = {};
constinit std::atomic<std::uint64_t> freeHead[kLargestShift + 1] = {};

// A block's number: its distance from the region's start in units, plus 1; 0 is no block.
using Number = std::uint32_t;

std::atomic<Number>& link(Number block) noexcept {
  const std::size_t offset = std::size_t{block - 1} << kUnitShift;
  return *reinterpret_cast<std::atomic<Number>*>(regionStart.load(std::memory_order_relaxed) + offset);
}

Number numberOf(std::uintptr_t address) noexcept {
  return static_cast<Number>((address - regionStart.load(std::memory_order_relaxed)) >> kUnitShift) + 1;
}

// Pushes a chain of blocks whose inner links are set.
void push(unsigned shift, Number first, Number last) noexcept {
  std::uint64_t seen = freeHead[shift].load(std::memory_order_relaxed);
  std::uint64_t wanted;
  do {
    link(last).store(static_cast<Number>(seen), std::memory_order_relaxed);
    wanted = (((seen >> 32) + 1) << 32) | first;
  } while (!freeHead[shift].compare_exchange_weak(seen, wanted, std::memory_order_release,
                                                  std::memory_order_relaxed));
}

// A block that another thread pops meanwhile may be read here while it is in use: its memory stays mapped,
// and what was read is dropped, since the count has changed.
Number pop(unsigned shift) noexcept {
  std::uint64_t seen = freeHead[shift].load(std::memory_order_acquire);
  std::uint64_t wanted;
  do {
    if (static_cast<Number>(seen) == 0) return 0;
    wanted = (((seen >> 32) + 1) << 32) | link(static_cast<Number>(seen)).load(std::memory_order_relaxed);
  } while (!freeHead[shift].compare_exchange_weak(seen, wanted, std::memory_order_acquire));
  return static_cast<Number>(seen);
}

bool reserveRegion() noexcept {
  std::uintptr_t none = std::uintptr_t{1} << 63;
  if (regionStart.load(std::memory_order_relaxed) != none) return true;
  // The start is aligned to the largest block, so that a block's place in the region aligns it in memory.
  constexpr std::size_t kLargest = std::size_t{1} << kLargestShift;
  void* mapped =
      mmap(nullptr, kRegion + kLargest, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapped == MAP_FAILED) return false;
  const auto start = reinterpret_cast<std::uintptr_t>(mapped);
  const std::uintptr_t aligned = (start + kLargest - 1) & ~(kLargest - 1);
  if (!regionStart.compare_exchange_strong(none, aligned)) munmap(mapped, kRegion + kLargest);
  return true;
}

// Takes pages for one block, or for the blocks that fit into one page, and returns the first block.
[[gnu::noinline]] void* cut(unsigned shift) noexcept {
  if (!reserveRegion()) return nullptr;
  const std::size_t pages = shift <= kPageShift ? 1 : std::size_t{1} << (shift - kPageShift);
  std::size_t taken = pagesTaken.load(std::memory_order_relaxed);
  std::size_t first;
  do {
    first = (taken + pages - 1) & ~(pages - 1);
    if (first + pages > kPages) return nullptr;
  } while (!pagesTaken.compare_exchange_weak(taken, first + pages, std::memory_order_relaxed));

  const std::uintptr_t start = regionStart.load(std::memory_order_relaxed) + (first << kPageShift);
  if (mprotect(reinterpret_cast<void*>(start), pages << kPageShift, PROT_READ | PROT_WRITE) != 0)
    return nullptr;
  pageShift[first].store(static_cast<std::uint8_t>(shift), std::memory_order_relaxed);
  if (shift < kPageShift) {
    const std::uintptr_t end = start + (std::uintptr_t{1} << kPageShift);
    const std::uintptr_t step = std::uintptr_t{1} << shift;
    for (std::uintptr_t block = start + step; block + step < end; block += step) {
      link(numberOf(block)).store(numberOf(block + step), std::memory_order_relaxed);
    }
    push(shift, numberOf(start + step), numberOf(end - step));
  }
  return reinterpret_cast<void*>(start);
}

unsigned shiftOf(const void* block) noexcept {
  const std::size_t offset =
      reinterpret_cast<std::uintptr_t>(block) - regionStart.load(std::memory_order_relaxed);
  return pageShift[offset >> kPageShift].load(std::memory_order_relaxed);
}

} // namespace

void* allocate(std::size_t bytes, std::size_t alignment) noexcept {
  const std::size_t needed = bytes > alignment ? bytes : alignment;
  if (needed > std::size_t{1} << kLargestShift) return nullptr;
  constexpr std::size_t kSmallest = std::size_t{1} << kUnitShift;
  const auto shift = static_cast<unsigned>(std::bit_width((needed < kSmallest ? kSmallest : needed) - 1));
  const Number block = pop(shift);
  return block != 0 ? &link(block) : cut(shift);
}

void release(void* block) noexcept {
  const Number number = numberOf(reinterpret_cast<std::uintptr_t>(block));
  push(shiftOf(block), number, number);
}

std::size_t usableSize(const void* block) noexcept { return std::size_t{1} << shiftOf(block); }

} // namespace veskhost::inner
