// The size-class sub-allocator.
//
// A request of n bytes takes a chunk of 16 x class bytes, the smallest multiple of 16 that holds the chunk's
// header word and n bytes. Chunks of one (category, class) come from slabs that its row keeps:
//
//   row    [ lock | head ] -> slab -> slab        the slabs with a free chunk, most recently touched first
//   slab   [ header, 48 bytes | chunk | chunk | ... ]
//   chunk  [ header word | the caller's bytes ]   header word: in use, the slab's address (even)
//                                                              free, the next free chunk | 1
//                                                              large block, 0xBEEF
//
// A slab leaves its row's list when its last chunk is taken and returns with the first that comes back. An
// entirely free slab goes back to the host, unless it is the only one that its row has. Taking or giving back
// a chunk is one lock and a few moves; everything else is out of line.
#include <cstddef>
#include <new>

#include "memory/memory.h"
#include "runtime/once_guard.h"
#include "veskrt/log.h"
#include "veskrt/runtime.h"

namespace vesk::memory {

constinit VeskHostAllocateProc hostAllocate = nullptr;
constinit VeskHostFreeProc hostFree = nullptr;
constinit std::uint32_t initializationGuard = 0;
constinit VeskSpinLock hostAllocationLock = {};
constinit VeskSpinLock preAllocationLock = {};

namespace {

constexpr std::uint32_t kUnit = 16; // chunk sizes and the slab header are multiples of it
constexpr std::uint32_t kClasses = 2046;
constexpr std::uint64_t kLargeMark = 0xBEEF;
constexpr std::uint16_t kSlabMagic = 0xBEEF;
constexpr std::uint64_t kFreeMark = 1;
constexpr std::size_t kCacheLine = 64;

struct Row;

struct Slab {
  Slab* next;
  Slab* previous;
  std::uint64_t* freeHead; // header word of the first free chunk
  std::uint32_t freeCount; // all of these but the last five: under the row's lock
  std::uint32_t sizeClass; // these never change
  std::uint32_t chunkTotal;
  std::uint16_t magic;
  std::uint8_t category;
  std::uint8_t shift;
  Row* row; // of its category and class: spares a release the way through the table
};
static_assert(sizeof(Slab) == 3 * kUnit);

// Rows of neighbouring classes are used by different threads at once: each has a cache line.
struct alignas(kCacheLine) Row {
  VeskSpinLock lock;
  Slab* head; // under `lock`
};

constexpr std::size_t kRows = std::size_t{VESK_MAX_MEMORY_CATEGORIES} * kClasses;

constinit Row* rows = nullptr;

std::uint64_t& headerOf(void* pointer) { return static_cast<std::uint64_t*>(pointer)[-1]; }

[[gnu::always_inline]] inline Row& rowOf(Row* table, std::uint32_t category, std::uint32_t sizeClass) {
  return table[category * kClasses + (sizeClass - 1)];
}

void push(Row& row, Slab* slab) {
  slab->previous = nullptr;
  slab->next = row.head;
  if (row.head != nullptr) row.head->previous = slab;
  row.head = slab;
}

void unlink(Row& row, Slab* slab) {
  if (slab->next != nullptr) slab->next->previous = slab->previous;
  (slab->previous != nullptr ? slab->previous->next : row.head) = slab->next;
}

// ---- What is done while the row is held ----

// The first free chunk of the row's head slab; null if the row has none.
constexpr auto takeChunk = [](Row* row) -> void* {
  Slab* const slab = row->head;
  if (slab == nullptr) [[unlikely]]
    return nullptr;
  std::uint64_t* const chunk = slab->freeHead;
  slab->freeHead = reinterpret_cast<std::uint64_t*>(*chunk ^ kFreeMark);
  storeRelaxed(*chunk, reinterpret_cast<std::uint64_t>(slab));
  if (--slab->freeCount == 0) [[unlikely]]
    unlink(*row, slab);
  return chunk + 1;
};

constexpr auto pushAndTakeChunk = [](Row* row, Slab* slab) {
  push(*row, slab);
  return takeChunk(row);
};

// Returns the slab if it is now entirely free and no longer in the row's list.
constexpr auto putChunk = [](Row* row, Slab* slab, std::uint64_t* chunk) -> Slab* {
  storeRelaxed(*chunk, reinterpret_cast<std::uint64_t>(slab->freeHead) | kFreeMark);
  slab->freeHead = chunk;
  const std::uint32_t freeCount = ++slab->freeCount;
  if (freeCount == slab->chunkTotal) [[unlikely]] {
    if (row->head == slab && slab->next == nullptr) return nullptr; // a row keeps its last slab
    unlink(*row, slab);
    return slab;
  }
  if (freeCount == 1) [[unlikely]]
    push(*row, slab); // it was full, and therefore in no list
  return nullptr;
};

// ---- Slabs and large blocks ----

// Memory from the host, or the end of the process.
void* allocateFromHost(std::uint64_t bytes) {
  acquire(hostAllocationLock);
  forgetLoggedCollection();
  checkPressure();
  void* block = hostAllocate(bytes);
  if (block == nullptr) block = allocateFromReserves(bytes);
  if (block == nullptr) {
    release(hostAllocationLock);
    reportOutOfMemory();
  }
  forgetLoggedCollection();
  release(hostAllocationLock);
  return block;
}

std::uint64_t nominalSlabSize(std::uint32_t shift) { return std::uint64_t{1} << (16 + shift); }

// A slab with every chunk on its free list, in address order.
Slab* makeSlab(Row& row, std::uint32_t category, std::uint32_t sizeClass, std::uint32_t shift) {
  const std::uint64_t request = nominalSlabSize(shift) - kUnit;
  auto* const slab = static_cast<Slab*>(allocateFromHost(request));
  const auto total = static_cast<std::uint32_t>((request / kUnit - sizeof(Slab) / kUnit) / sizeClass);
  auto* const first = reinterpret_cast<std::uint64_t*>(slab + 1);
  new (slab) Slab{.next = nullptr,
                  .previous = nullptr,
                  .freeHead = first,
                  .freeCount = total,
                  .sizeClass = sizeClass,
                  .chunkTotal = total,
                  .magic = kSlabMagic,
                  .category = static_cast<std::uint8_t>(category),
                  .shift = static_cast<std::uint8_t>(shift),
                  .row = &row};
  const std::size_t wordsPerChunk = std::size_t{sizeClass} * kUnit / sizeof(std::uint64_t);
  std::uint64_t* chunk = first;
  for (std::uint32_t i = 1; i < total; ++i, chunk += wordsPerChunk) {
    *chunk = reinterpret_cast<std::uint64_t>(chunk + wordsPerChunk) | kFreeMark;
  }
  *chunk = kFreeMark;
  return slab;
}

// The row has no free chunk. Another thread may give it a slab meanwhile: ours is still pushed, and used
// first.
[[gnu::noinline]] void* allocateFromNewSlab(Row& row, std::uint32_t category, std::uint32_t sizeClass,
                                            std::uint32_t shift) {
  Slab* const slab = makeSlab(row, category, sizeClass, shift);
  if (statisticsOn()) accountSlabAcquired(category, nominalSlabSize(shift));
  return briefly(row.lock, pushAndTakeChunk, &row, slab);
}

[[gnu::noinline]] void* allocateFromBusyRow(Row& row, std::uint32_t category, std::uint32_t sizeClass,
                                            std::uint32_t shift) {
  void* const pointer = briefly(row.lock, takeChunk, &row);
  return pointer != nullptr ? pointer : allocateFromNewSlab(row, category, sizeClass, shift);
}

[[gnu::noinline]] void* allocateLarge(std::uint32_t size) {
  const std::uint64_t bytes = (std::uint64_t{size} + 23) & ~std::uint64_t{kUnit - 1};
  auto* const block = static_cast<std::uint64_t*>(allocateFromHost(bytes));
  *block = kLargeMark;
  return block + 1;
}

// Without memory there is no log to write to.
[[noreturn, gnu::noinline]] void endWithoutMemory() { __VeskExitHandler(-1); }

// The host is called under the row's lock, and may come back to it.
[[gnu::noinline]] void releaseSlab(Row& row, Slab* slab) {
  ScopedSpinLock scope(row.lock);
  if (statisticsOn()) accountSlabReleased(slab->category, nominalSlabSize(slab->shift));
  hostFree(slab);
}

[[gnu::noinline]] void freeIntoBusyRow(Row& row, Slab* slab, std::uint64_t* chunk) {
  Slab* const emptied = briefly(row.lock, putChunk, &row, slab, chunk);
  if (emptied != nullptr) releaseSlab(row, emptied);
}

// The header is no slab's address: a large block, or a chunk that is free already.
[[gnu::noinline]] void freeMarked(void* pointer, std::uint64_t header) {
  if (header == kLargeMark) {
    hostFree(&headerOf(pointer));
  } else {
    __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0,
                      "Tried to free a memory chunk that has already been freed");
  }
}

} // namespace

} // namespace vesk::memory

using namespace vesk;
using namespace vesk::memory;

// Both leave for the slow paths by jumps: nothing has to be kept in registers across a call, and what is not stored
// need not be waited for by the next locked instruction.

void* __VeskMalloc(uint32_t category, uint32_t size, uint32_t shift) {
  const auto sizeClass = static_cast<std::uint32_t>((std::uint64_t{size} + 23) >> 4);
  Row* const table = loadAcquire(rows);
  if (table == nullptr) [[unlikely]]
    endWithoutMemory();
  if (sizeClass > kClasses) [[unlikely]]
    return allocateLarge(size);
  category = category < VESK_MAX_MEMORY_CATEGORIES ? category : VESK_MEMORY_CATEGORY_MISC;
  Row& row = rowOf(table, category, sizeClass);
  void* pointer;
  if (!tryBriefly(row.lock, [&] { pointer = takeChunk(&row); })) [[unlikely]]
    return allocateFromBusyRow(row, category, sizeClass, shift & 15);
  if (pointer == nullptr) [[unlikely]]
    return allocateFromNewSlab(row, category, sizeClass, shift & 15);
  return pointer;
}

void __VeskFree(void* pointer) {
  if (pointer == nullptr) [[unlikely]]
    return;
  std::uint64_t* const chunk = &headerOf(pointer);
  const std::uint64_t header = loadRelaxed(*chunk);
  if ((header & kFreeMark) != 0) [[unlikely]]
    return freeMarked(pointer, header);

  auto* const slab = reinterpret_cast<Slab*>(header);
  Row& row = *slab->row;
  Slab* emptied;
  if (!tryBriefly(row.lock, [&] { emptied = putChunk(&row, slab, chunk); })) [[unlikely]]
    return freeIntoBusyRow(row, slab, chunk);
  if (emptied != nullptr) [[unlikely]]
    releaseSlab(row, emptied);
}

void __VeskInitializeSubAllocator(VeskHostAllocateProc allocate, VeskHostFreeProc release) {
  ScopedOnceGuard guard(initializationGuard);
  if (loadRelaxed(rows) != nullptr) return;
  hostAllocate = allocate;
  hostFree = release;
  // Room to align the rows: the host aligns to 16.
  const std::uint64_t bytes = sizeof(Row) * kRows + kCacheLine - kUnit;
  void* const table = allocate(bytes);
  if (table == nullptr) endWithoutMemory();
  const auto address = (reinterpret_cast<std::uintptr_t>(table) + kCacheLine - 1) & ~(kCacheLine - 1);
  auto* const first = reinterpret_cast<Row*>(address);
  for (Row* row = first; row != first + kRows; ++row) {
    // A free lock and an empty list are all zeros. Fresh pages are so already, and stay untouched.
    const auto* const words = reinterpret_cast<const std::uint64_t*>(row);
    if ((words[0] | words[1] | words[2] | words[3]) != 0) *row = Row{};
  }
  storeRelease(rows, first);
}
