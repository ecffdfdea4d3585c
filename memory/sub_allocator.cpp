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
// a chunk is one lock and a few moves; everything else is out of line. Many at once (chunks.h) share the lock.
#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

#include "memory/chunks.h"
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

std::uint32_t sizeClassOf(std::uint32_t size) {
  return static_cast<std::uint32_t>((std::uint64_t{size} + 23) >> 4);
}

// A category that does not exist becomes one that does.
[[gnu::always_inline]] inline Row& rowOf(Row* table, std::uint32_t& category, std::uint32_t sizeClass) {
  category = category < VESK_MAX_MEMORY_CATEGORIES ? category : VESK_MEMORY_CATEGORY_MISC;
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

// takeChunk, up to `wanted` times. Returns how often: less only when the row ran empty.
constexpr auto takeChunks = [](Row* row, void** taken, std::size_t wanted) -> std::size_t {
  std::size_t count = 0;
  while (count < wanted && row->head != nullptr) {
    Slab* const slab = row->head;
    std::uint64_t* chunk = slab->freeHead;
    const std::size_t end = std::min<std::size_t>(wanted, count + slab->freeCount);
    slab->freeCount -= static_cast<std::uint32_t>(end - count);
    for (; count < end; ++count) {
      taken[count] = chunk + 1;
      auto* const next = reinterpret_cast<std::uint64_t*>(*chunk ^ kFreeMark);
      storeRelaxed(*chunk, reinterpret_cast<std::uint64_t>(slab));
      chunk = next;
    }
    slab->freeHead = chunk;
    if (slab->freeCount == 0) unlink(*row, slab);
  }
  return count;
};

// Puts back `count` chunks, from `first` to `last`, whose headers are those of a free list, but for the last one's.
// Returns the slab if it is now entirely free and no longer in the row's list.
constexpr auto putChunks = [](Row* row, Slab* slab, std::uint64_t* first, std::uint64_t* last,
                              std::uint32_t count) -> Slab* {
  storeRelaxed(*last, reinterpret_cast<std::uint64_t>(slab->freeHead) | kFreeMark);
  slab->freeHead = first;
  if (slab->freeCount == 0) [[unlikely]]
    push(*row, slab); // it was full, and therefore in no list
  slab->freeCount += count;
  if (slab->freeCount != slab->chunkTotal) [[likely]]
    return nullptr;
  if (row->head == slab && slab->next == nullptr) return nullptr; // a row keeps its last slab
  unlink(*row, slab);
  return slab;
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
  Slab* const emptied = briefly(row.lock, putChunks, &row, slab, chunk, chunk, 1u);
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

// ---- Many chunks going back ----

// Chunks of one slab on their way back. Their units sort them by address, which a chain that grew and shrank many
// times no longer is: one that is made of such chunks would miss the cache with each link.
struct Returned {
  static constexpr std::uint32_t kWords = 64;

  Slab* slab;
  std::uint32_t count;
  std::uint32_t missing;       // chunks of the slab that were in use when it was first met
  std::uint64_t touched;       // bit w is set where units[w] is not 0
  std::uint64_t units[kWords]; // bit u is set where a chunk begins u units behind the slab's first byte
};
static_assert(Returned::kWords * 64 * kUnit == 1 << 16); // a slab of shift 0

void giveBack(Returned& from) {
  Slab* const slab = from.slab;
  std::uint64_t first = 0;
  std::uint64_t* last = &first;
  for (; from.touched != 0; from.touched &= from.touched - 1) {
    const auto word = static_cast<std::size_t>(std::countr_zero(from.touched));
    for (std::uint64_t left = std::exchange(from.units[word], 0); left != 0; left &= left - 1) {
      const std::size_t unit = 64 * word + static_cast<std::size_t>(std::countr_zero(left));
      auto* const chunk = reinterpret_cast<std::uint64_t*>(slab) + unit * (kUnit / sizeof(std::uint64_t));
      storeRelaxed(*last, reinterpret_cast<std::uint64_t>(chunk) | kFreeMark);
      last = chunk;
    }
  }
  Row& row = *slab->row;
  auto* const head = reinterpret_cast<std::uint64_t*>(first ^ kFreeMark);
  Slab* const emptied = briefly(row.lock, putChunks, &row, slab, head, last, from.count);
  if (emptied != nullptr) releaseSlab(row, emptied);
}

void* nextOf(const void* chunk) {
  void* next;
  std::memcpy(&next, chunk, sizeof next);
  return next;
}

// To sort so few would cost more than it spares.
bool isShort(const void* chain) {
  for (int few = 0; few != 5 && chain != nullptr; ++few) chain = nextOf(chain);
  return chain == nullptr;
}

// Chunks of several slabs on their way back. Whether an entirely free slab stays depends on what else is in its
// row's list: all are given back as soon as one of the slabs is entirely free, that one last, and otherwise in the
// order in which they were met. To the row this looks as if each chunk had come back for itself.
class Return {
public:
  Return() noexcept = default; // and leaves alone what is not used
  Return(const Return&) = delete;
  Return& operator=(const Return&) = delete;
  ~Return() { giveAll(); }

  // Takes the chunks of this slab that the chain begins with; returns what is behind them.
  void* add(void* chain, Slab* slab) {
    Returned& to = find(slab);
    const auto header = reinterpret_cast<std::uint64_t>(slab);
    std::uint32_t count = to.count;
    std::uint64_t touched = to.touched;
    do {
      const std::size_t unit = (reinterpret_cast<std::uintptr_t>(&headerOf(chain)) - header) / kUnit;
      to.units[unit / 64] |= std::uint64_t{1} << unit % 64;
      touched |= std::uint64_t{1} << unit / 64;
      ++count;
      chain = nextOf(chain);
    } while (chain != nullptr && loadRelaxed(headerOf(chain)) == header);
    to.count = count;
    to.touched = touched;
    if (count == to.missing) giveAll(&to);
    return chain;
  }

  void giveAll(Returned* last = nullptr) {
    for (Returned* each = returned_; each != returned_ + used_; ++each) {
      if (each != last) giveBack(*each);
    }
    if (last != nullptr) giveBack(*last);
    used_ = 0;
  }

private:
  static constexpr std::uint32_t kSlabs = 4;

  Returned& find(Slab* slab) {
    for (Returned* each = returned_; each != returned_ + used_; ++each) {
      if (each->slab == slab) return *each;
    }
    if (used_ == kSlabs) giveAll();
    Returned& added = returned_[used_++];
    if (used_ > clean_) {
      clean_ = used_;
      added.touched = 0;
      for (std::uint64_t& word : added.units) word = 0;
    }
    added.slab = slab;
    added.count = 0;
    constexpr auto inUse = [](Slab* of) { return of->chunkTotal - of->freeCount; };
    added.missing = briefly(slab->row->lock, inUse, slab);
    return added;
  }

  std::uint32_t used_ = 0;
  std::uint32_t clean_ = 0;
  Returned returned_[kSlabs];
};

} // namespace

} // namespace vesk::memory

using namespace vesk;
using namespace vesk::memory;

// Both leave for the slow paths by jumps: nothing has to be kept in registers across a call, and what is not stored
// need not be waited for by the next locked instruction.

void* __VeskMalloc(uint32_t category, uint32_t size, uint32_t shift) {
  const std::uint32_t sizeClass = sizeClassOf(size);
  Row* const table = loadAcquire(rows);
  if (table == nullptr) [[unlikely]]
    endWithoutMemory();
  if (sizeClass > kClasses) [[unlikely]]
    return allocateLarge(size);
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
  if (!tryBriefly(row.lock, [&] { emptied = putChunks(&row, slab, chunk, chunk, 1); })) [[unlikely]]
    return freeIntoBusyRow(row, slab, chunk);
  if (emptied != nullptr) [[unlikely]]
    releaseSlab(row, emptied);
}

void vesk::memory::allocateChunks(std::uint32_t category, std::uint32_t size, void** chunks,
                                  std::size_t count) noexcept {
  if (count == 0) return;
  Row* const table = loadAcquire(rows);
  if (table == nullptr) endWithoutMemory();
  const std::uint32_t sizeClass = sizeClassOf(size);
  Row& row = rowOf(table, category, sizeClass);
  std::size_t taken = 0;
  while (taken != count) {
    taken += briefly(row.lock, takeChunks, &row, chunks + taken, count - taken);
    if (taken != count) chunks[taken++] = allocateFromNewSlab(row, category, sizeClass, 0);
  }
}

void vesk::memory::freeChunks(void* chain) noexcept {
  if (isShort(chain)) {
    while (chain != nullptr) __VeskFree(std::exchange(chain, nextOf(chain)));
    return;
  }
  Return back;
  while (chain != nullptr) {
    const std::uint64_t header = loadRelaxed(headerOf(chain));
    if ((header & kFreeMark) == 0 && reinterpret_cast<Slab*>(header)->shift == 0) {
      chain = back.add(chain, reinterpret_cast<Slab*>(header));
    } else {
      back.giveAll();
      __VeskFree(std::exchange(chain, nextOf(chain)));
    }
  }
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
