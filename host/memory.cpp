// Memory for the library, over mappings of its own.
//
//   a block:  | piece, bytes | what the caller gets ...
//             ^ 16 bytes in front of a 16-byte aligned block
//
// Blocks of up to 1 MiB are pieces of 4 MiB mappings, in two sizes for every power of two, and go back to a
// list of their size; the 64 KiB less 16 bytes that a slab of the library takes is a piece of exactly 64 KiB.
// Larger blocks are mappings of their own, and their address space goes back to the system.
#include <atomic>
#include <bit>
#include <new>

#include <sys/mman.h>

#include "host/core.h"
#include "host/spin.h"

namespace veskhost {

namespace {

struct Header {
  std::uint64_t piece; // bytes from the header on
  std::uint64_t bytes; // as asked for
};

struct FreePiece {
  FreePiece* next;
};

constexpr std::uint64_t kSmallestPiece = 64;
constexpr std::uint64_t kLargestPiece = 1 << 20;
constexpr std::uint64_t kMapping = 4 << 20;
constexpr std::uint64_t kMappingGranule = 4096;
constexpr std::uint64_t kHugePage = 2 << 20;
constexpr unsigned kPieceSizes = 2 * (std::countr_zero(kLargestPiece) - std::countr_zero(kSmallestPiece)) + 1;

constinit SpinLock lock;
// Under the lock: the free pieces by size, and what is left of the mapping that pieces are cut from.
constinit FreePiece* freePieces[kPieceSizes] = {};
constinit char* uncut = nullptr;
constinit std::uint64_t uncutBytes = 0;

constinit std::atomic<std::uint64_t> bytesInUse{0};
constinit std::atomic<std::uint64_t> blocksInUse{0};

// The smallest piece that holds `bytes`: a power of two or three quarters of one.
constexpr std::uint64_t pieceFor(std::uint64_t bytes) {
  const std::uint64_t power = std::bit_ceil(bytes < kSmallestPiece ? kSmallestPiece : bytes);
  const std::uint64_t threeQuarters = power / 4 * 3;
  return bytes <= threeQuarters && threeQuarters > kSmallestPiece ? threeQuarters : power;
}

constexpr unsigned sizeIndex(std::uint64_t piece) {
  const unsigned power = 2 * (std::bit_width(piece) - std::bit_width(kSmallestPiece));
  return std::has_single_bit(piece) ? power : power + 1;
}

static_assert(sizeIndex(kLargestPiece) + 1 == kPieceSizes);
static_assert(pieceFor(65536) == 65536 && pieceFor(65537) == 98304 &&
              sizeIndex(98304) == sizeIndex(65536) + 1);

void* map(std::uint64_t bytes) noexcept {
  void* start =
      mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return start == MAP_FAILED ? nullptr : start;
}

void keep(void* piece, std::uint64_t size) noexcept {
  FreePiece*& first = freePieces[sizeIndex(size)];
  first = ::new (piece) FreePiece{first};
}

// Maps room to cut pieces from; the rest of the last mapping becomes pieces of the largest sizes that it
// holds.
[[gnu::noinline]] bool mapMore() noexcept {
  void* start = map(kMapping);
  if (start == nullptr) return false;
  while (uncutBytes >= kSmallestPiece) {
    const std::uint64_t power = std::bit_floor(uncutBytes);
    const std::uint64_t size = power < kLargestPiece ? power : kLargestPiece;
    keep(uncut, size);
    uncut += size;
    uncutBytes -= size;
  }
  uncut = static_cast<char*>(start);
  uncutBytes = kMapping;
  return true;
}

void* takePiece(std::uint64_t size) noexcept {
  ScopedLock hold(lock);
  FreePiece*& first = freePieces[sizeIndex(size)];
  if (first != nullptr) {
    FreePiece* piece = first;
    first = piece->next;
    return piece;
  }
  if (uncutBytes < size && !mapMore()) return nullptr;
  char* piece = uncut;
  uncut += size;
  uncutBytes -= size;
  return piece;
}

} // namespace

bool lockMemoryForFork() noexcept { return lock.lockWithin(kForkPatience); }
void unlockMemory() noexcept { lock.unlock(); }

} // namespace veskhost

using namespace veskhost;

void* veskHostAllocate(uint64_t bytes) {
  if (bytes > UINT64_MAX - sizeof(Header) - kMappingGranule) return nullptr;
  const std::uint64_t needed = bytes + sizeof(Header);
  const bool own = needed > kLargestPiece;
  const std::uint64_t size = own ? (needed + kMappingGranule - 1) & ~(kMappingGranule - 1) : pieceFor(needed);
  void* piece = own ? map(size) : takePiece(size);
  if (piece == nullptr) return nullptr;
  // A block that holds a huge page is an array that grows: fewer faults, and fewer lines lost to the page tables.
  if (own && size >= kHugePage) madvise(piece, size, MADV_HUGEPAGE);
  bytesInUse.fetch_add(bytes, std::memory_order_relaxed);
  blocksInUse.fetch_add(1, std::memory_order_relaxed);
  auto* header = static_cast<Header*>(piece);
  *header = {size, bytes};
  return header + 1;
}

void veskHostFree(void* block) {
  if (block == nullptr) return;
  auto* header = static_cast<Header*>(block) - 1;
  const std::uint64_t size = header->piece;
  bytesInUse.fetch_sub(header->bytes, std::memory_order_relaxed);
  blocksInUse.fetch_sub(1, std::memory_order_relaxed);
  if (size > kLargestPiece) {
    munmap(header, size);
    return;
  }
  ScopedLock hold(lock);
  keep(header, size);
}

VeskHostMemory veskHostMemoryInUse() {
  return {bytesInUse.load(std::memory_order_relaxed), blocksInUse.load(std::memory_order_relaxed)};
}
