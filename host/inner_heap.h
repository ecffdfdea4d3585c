// The heap of what stands beside the program: what the C library, the loader and the unwinder allocate while
// they work for the collector, and what is allocated before the program's own heap functions are known.
//
// It lies in one range of addresses, so that a block is told from the program's in one comparison, and it has
// no locks: it works in a signal handler, in the child of a fork, and while another thread holds the locks of
// the program's heap.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace veskhost::inner {

inline constexpr std::size_t kRegion = std::size_t{16} << 20;

// Before there is a region, an address from which no block is less than a region away.
[[gnu::visibility("hidden")]] extern constinit std::atomic<std::uintptr_t> regionStart;

[[gnu::always_inline]] inline bool owns(const void* block) noexcept {
  return reinterpret_cast<std::uintptr_t>(block) - regionStart.load(std::memory_order_relaxed) < kRegion;
}

// A block aligned to `alignment`, a power of two, and to 16. Null when the region is used up or the request
// above 1 MiB.
void* allocate(std::size_t bytes, std::size_t alignment = 16) noexcept;

// For a block of this heap.
void release(void* block) noexcept;
std::size_t usableSize(const void* block) noexcept;

} // namespace veskhost::inner
