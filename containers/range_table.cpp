// The range table.
//
//   levels   [ 4 | 5 | ... | maxLevel ]          one unlocked hash table for each size of blocks
//              |   |
//              |   block start -> entry           the range that the block belongs to
//              block start -> link -> link        at level 4: the ranges that touch the block (without
//              aligned mode)
//
// Insertion and removal visit the blocks of a range in one way, decompose(). A look-up goes from the largest
// blocks down, and its probes are inline: a hash, a bucket, a short chain.
#include "veskrt/range_table.h"

#include <algorithm>
#include <array>
#include <bit>
#include <limits>
#include <new>
#include <utility>

#include "containers/hash_table_leaf.h"
#include "containers/range_table_hash.h"
#include "containers/table_flags.h"
#include "veskrt/atomic.h"
#include "veskrt/memory.h"

namespace vesk::range_table {

namespace {

using hash_table::chainOf;

constexpr std::uint32_t kMinLevel = VESK_RANGE_TABLE_MIN_LEVEL;
constexpr std::uint32_t kMaxLevel = VESK_RANGE_TABLE_MAX_LEVEL;
constexpr std::uint64_t kLowestSize = 32;
constexpr std::uint64_t kTop = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kEntryMarker = kTop;

constexpr std::uint32_t kLevelTableFlags = 6; // unlocked

constexpr std::uint64_t sizeOf(std::uint32_t level) { return std::uint64_t{2} << level; }

std::uint32_t categoryOf(const RangeTable& table) { return vesk::categoryOf(table.flags); }
std::uint32_t shiftOf(const RangeTable& table) { return slabShiftOf(table.flags); }

template <class T>
T* allocate(const RangeTable& table, std::uint32_t shift, const T& value) {
  return new (__VeskMalloc(categoryOf(table), sizeof(T), shift)) T(value);
}

bool isUsable(const RangeTable* table) { return table != nullptr && table->levels != nullptr; }

// Does the level keep chains, several ranges to a block?
[[gnu::always_inline]] inline bool keepsChains(const RangeTable& table, std::uint32_t level) {
  return level == kMinLevel && (table.flags & VESK_RANGE_TABLE_ALIGNED) == 0;
}

// The level of the largest block that is not longer than `length`, which is at least 1.
std::uint32_t levelOf(const RangeTable& table, std::uint64_t length) {
  const std::uint32_t bit = __VeskGetMostSignificantOneIndexLong(length);
  return std::clamp(bit, kMinLevel + 1, table.maxLevel + 1) - 1;
}

// ---- Level tables ----

// A level table of that many buckets may be too large to be cached.
constexpr std::uint32_t kBitsBeyondCaches = 13;

constexpr std::uint64_t hashShifted(std::uint64_t key, std::uint32_t shift) {
  const auto shifted = static_cast<std::uint64_t>(static_cast<std::int64_t>(key) >> shift);
  return shifted ^ shifted >> shift;
}

template <std::uint32_t Shift>
std::uint64_t hashOfLevel(VeskHashTable*, std::uint64_t key) {
  return hashShifted(key, Shift);
}

// By relative level; shifts 1 to 27.
template <std::size_t... I>
constexpr std::array<VeskHashFunction, sizeof...(I)> hashFunctions(std::index_sequence<I...>) {
  return {hashOfLevel<static_cast<std::uint32_t>(I + 1)>...};
}
constexpr auto kHashFunctions = hashFunctions(std::make_index_sequence<27>());

// The record and, behind it, what look-ups skip levels by.
struct WholeTable {
  RangeTable record;
  std::uint32_t levelsMade; // bit L - 4: level L has a table
};

std::uint32_t& levelsMade(RangeTable& table) { return reinterpret_cast<WholeTable&>(table).levelsMade; }
std::uint32_t levelsMade(const RangeTable& table) {
  return reinterpret_cast<const WholeTable&>(table).levelsMade;
}

VeskHashTable*& levelTable(const RangeTable& table, std::uint32_t level) {
  return table.levels[level - kMinLevel];
}

VeskHashTable* levelTableFor(RangeTable& table, std::uint32_t level) {
  VeskHashTable*& slot = levelTable(table, level);
  if (slot == nullptr) {
    slot = __VeskCreateHashTable(kLevelTableFlags, &kHashFunctions[level - kMinLevel], 1, nullptr, nullptr,
                                 categoryOf(table), shiftOf(table));
    levelsMade(table) |= 1u << (level - kMinLevel);
  }
  return slot;
}

// The block is about to leave its bucket.
void prefetchBucket(const RangeTable& table, std::uint32_t level, std::uint64_t block) {
  const VeskHashTable* const blocks = levelTable(table, level);
  if (blocks == nullptr) return;
  __builtin_prefetch(&hash_table::bucketAt(*blocks, hashShifted(block, level - kMinLevel + 1)).head, 1);
}

// What is stored under a block, or null.
[[gnu::always_inline]] inline void* probe(const RangeTable& table, std::uint32_t level, std::uint64_t block) {
  if ((levelsMade(table) >> (level - kMinLevel) & 1) == 0) return nullptr;
  VeskHashTable& blocks = *levelTable(table, level);
  const hash_table::KeyIndex& index = hash_table::whole(blocks).index;
  return index.isThere() ? index.dataOf(block) : __VeskLookupHashTable(&blocks, block);
}

// Calls visit(level, block start, data) for everything stored.
template <class Visit>
void forEachBlock(const RangeTable& table, Visit visit) {
  for (std::uint32_t level = kMinLevel; level <= table.maxLevel; ++level) {
    const VeskHashTable* const blocks = levelTable(table, level);
    if (blocks == nullptr) continue;
    for (std::int32_t i = 0; i < blocks->bucketCount; ++i) {
      for (const VeskHashTableEntry* at = chainOf(blocks->buckets[i]); at != nullptr; at = at->next) {
        visit(level, at->key, at->data);
      }
    }
  }
}

std::uint64_t countBlocks(const RangeTable& table) {
  std::uint64_t count = 0;
  for (std::uint32_t level = kMinLevel; level <= table.maxLevel; ++level) {
    const VeskHashTable* const blocks = levelTable(table, level);
    if (blocks != nullptr) count += static_cast<std::uint64_t>(blocks->entryCount);
  }
  return count;
}

// ---- The blocks of a range ----

// Calls visit(level, block start) for the blocks that cover [start, end): each as large as its alignment and
// what is left of the range allow, but for the 32-byte blocks that it covers in part, at its ends.
template <class Visit>
void decompose(const RangeTable& table, std::uint64_t start, std::uint64_t end, const Visit& visit) {
  while (start < end) {
    const std::uint32_t level = levelOf(table, end - start);
    const std::uint64_t size = sizeOf(level);
    const std::uint64_t aligned = start & ~(size - 1);
    std::uint64_t at = start;
    if (aligned != start) {
      const std::uint64_t next = aligned + size; // 0 behind the last block of all
      const std::uint64_t bound = next == 0 ? end : std::min(next, end);
      if (level == kMinLevel) {
        visit(level, aligned);
      } else {
        decompose(table, start, bound, visit); // shorter than a block of this level
      }
      at = bound;
    }
    for (; end - at >= size; at += size) visit(level, at);
    if (level == kMinLevel) {
      if (at < end) visit(level, at);
      return;
    }
    start = at;
  }
}

void store(RangeTable& table, RangeTableEntry& entry, std::uint32_t level, std::uint64_t block) {
  ++entry.refCount;
  VeskHashTable* const blocks = levelTableFor(table, level);
  if (!keepsChains(table, level)) {
    __VeskInsertHashTableEntry(blocks, block, &entry);
    return;
  }
  RangeTableLink* const link = allocate(table, shiftOf(table), RangeTableLink{nullptr, &entry});
  auto* const head = static_cast<RangeTableLink*>(__VeskInsertHashTableEntry(blocks, block, link));
  if (head != link) {
    link->next = head->next;
    head->next = link;
  }
}

void release(RangeTableEntry* entry, bool destroying) {
  if (--entry->refCount != 0) return;
  if (destroying && entry->table->destroyItem != nullptr) entry->table->destroyItem(entry->item);
  __VeskFree(entry);
}

// Takes the range that begins at `start` out of the chain of a block.
void dropLink(const RangeTable& table, std::uint64_t block, RangeTableLink* head, std::uint64_t start,
              bool destroying) {
  RangeTableLink* previous = nullptr;
  RangeTableLink* link = head;
  while (link != nullptr && link->entry->start != start) previous = std::exchange(link, link->next);
  if (link == nullptr) return;
  release(link->entry, destroying);
  if (previous != nullptr) {
    previous->next = link->next;
  } else {
    VeskHashTable* const blocks = levelTable(table, kMinLevel);
    __VeskRemoveHashTableEntry(blocks, block);
    if (link->next != nullptr) __VeskInsertHashTableEntry(blocks, block, link->next);
  }
  __VeskFree(link);
}

void removeRange(const RangeTable& table, std::uint64_t start, std::uint64_t end, bool destroying) {
  decompose(table, start, end, [&](std::uint32_t level, std::uint64_t block) {
    prefetchBucket(table, level, block);
    void* const found = probe(table, level, block);
    if (found == nullptr) return;
    if (keepsChains(table, level)) {
      dropLink(table, block, static_cast<RangeTableLink*>(found), start, destroying);
    } else {
      release(static_cast<RangeTableEntry*>(found), destroying);
      __VeskRemoveHashTableEntry(levelTable(table, level), block);
    }
  });
}

// The range that holds an address, of those in the chain of its block.
const RangeTableEntry* entryAround(const RangeTableLink* link, std::uint64_t address) {
  while (link != nullptr && (address < link->entry->start || address >= link->entry->end)) link = link->next;
  return link != nullptr ? link->entry : nullptr;
}

std::uint64_t blockAround(std::uint64_t address, std::uint32_t level) {
  return address & ~(sizeOf(level) - 1);
}

std::uint32_t highestOf(std::uint32_t levels) {
  return static_cast<std::uint32_t>(std::bit_width(levels)) - 1 + kMinLevel;
}

// Which level has the block of an address is a matter of chance, and a probe that is in vain would keep the next
// one from waiting for its line of memory at the same time: all are asked for beforehand.
void prefetchBlocks(const RangeTable& table, std::uint64_t address) {
  for (std::uint32_t left = levelsMade(table); left != 0; left &= left - 1) {
    const std::uint32_t level = static_cast<std::uint32_t>(std::countr_zero(left)) + kMinLevel;
    const VeskHashTable& blocks = *levelTable(table, level);
    if (blocks.bucketBits >= kBitsBeyondCaches)
      hash_table::whole(blocks).index.prefetch(blockAround(address, level));
  }
}

const RangeTableEntry* lookUp(const RangeTable& table, std::uint64_t address) {
  prefetchBlocks(table, address);
  for (std::uint32_t left = levelsMade(table); left != 0;) {
    const std::uint32_t level = highestOf(left);
    left ^= 1u << (level - kMinLevel);
    void* const found = probe(table, level, blockAround(address, level));
    if (found == nullptr) continue;
    return keepsChains(table, level) ? entryAround(static_cast<const RangeTableLink*>(found), address)
                                     : static_cast<const RangeTableEntry*>(found);
  }
  return nullptr;
}

[[gnu::always_inline]] inline std::uint64_t report(const RangeTableEntry* entry, std::uint64_t* start,
                                                   std::uint64_t* end) {
  if (start != nullptr) *start = entry != nullptr ? entry->start : 0;
  if (end != nullptr) *end = entry != nullptr ? entry->end : 0;
  return entry != nullptr ? entry->item : 0;
}

[[gnu::noinline]] std::uint64_t lookUpGenerally(const RangeTable* table, std::uint64_t address,
                                                std::uint64_t* start, std::uint64_t* end) {
  return report(isUsable(table) ? lookUp(*table, address) : nullptr, start, end);
}

// ---- Walks over an interval ----

// A stored block that a walk came upon.
struct Hit {
  void* data = nullptr; // null: none
  std::uint32_t level = 0;
  std::uint64_t block = 0;
};

// The largest stored block around an address, of those that fit in what is left up to `limit`.
Hit hitAt(const RangeTable& table, std::uint64_t address, std::uint64_t limit) {
  for (std::uint32_t level = levelOf(table, limit - address); level >= kMinLevel; --level) {
    const std::uint64_t block = address & ~(sizeOf(level) - 1);
    if (void* const found = probe(table, level, block)) return {found, level, block};
  }
  return {};
}

// The first hit at `address` or a multiple of 32 bytes behind it, below `limit`. Where there is more empty
// space to step over than there are blocks, the blocks are looked through instead: an interval may be the
// whole address space.
Hit nextHit(const RangeTable& table, std::uint64_t address, std::uint64_t limit) {
  std::uint64_t patience = countBlocks(table);
  for (;; address += kLowestSize, --patience) {
    if (address >= limit) return {};
    if (const Hit hit = hitAt(table, address, limit); hit.data != nullptr) return hit;
    if (patience == 0 || limit - address <= kLowestSize) break;
  }
  std::uint64_t first = limit;
  forEachBlock(table, [&](std::uint32_t, std::uint64_t block, void*) {
    if (block > address && block < first && hitAt(table, block, limit).data != nullptr) first = block;
  });
  return first < limit ? hitAt(table, first, limit) : Hit{};
}

struct Bounds {
  std::uint64_t start;
  std::uint64_t end;
};

// Destroys the ranges inside [start, limit) one after the other.
void destroyStepping(const RangeTable& table, std::uint64_t start, std::uint64_t limit) {
  std::uint64_t at = start & ~(kLowestSize - 1);
  while (at < limit) {
    const Hit hit = nextHit(table, at, limit);
    if (hit.data == nullptr) return;
    if (keepsChains(table, hit.level)) {
      for (auto* link = static_cast<RangeTableLink*>(hit.data); link != nullptr;) {
        RangeTableLink* const next = link->next;
        const Bounds bounds = {link->entry->start, link->entry->end};
        if (start <= bounds.start && bounds.end <= limit) removeRange(table, bounds.start, bounds.end, true);
        link = next;
      }
      if (limit - hit.block <= kLowestSize) return;
      at = hit.block + kLowestSize;
    } else {
      const auto* const entry = static_cast<const RangeTableEntry*>(hit.data);
      const Bounds bounds = {entry->start, entry->end};
      // The block in which it ends may begin another range's: on from that block's start, lest its last part
      // be missed.
      at = bounds.end & ~(kLowestSize - 1);
      removeRange(table, bounds.start, bounds.end, true);
    }
  }
}

// Calls visit(entry, in a chain) once for each range: at the block in which it begins.
template <class Visit>
void forEachEntry(const RangeTable& table, Visit visit) {
  forEachBlock(table, [&](std::uint32_t level, std::uint64_t block, void* data) {
    const auto beginsHere = [&](const RangeTableEntry* entry) {
      return entry->start >= block && entry->start - block < sizeOf(level);
    };
    if (!keepsChains(table, level)) {
      const auto* const entry = static_cast<const RangeTableEntry*>(data);
      if (beginsHere(entry)) visit(entry, false);
      return;
    }
    for (const auto* link = static_cast<const RangeTableLink*>(data); link != nullptr; link = link->next) {
      if (beginsHere(link->entry)) visit(link->entry, true);
    }
  });
}

// The same where stepping would visit more empty places than there are blocks.
void destroyListed(const RangeTable& table, std::uint64_t start, std::uint64_t limit) {
  // One that begins at address 0 may have been missed at the span's start.
  const auto forEachInside = [&](auto visit) {
    forEachEntry(table, [&](const RangeTableEntry* entry, bool inChain) {
      const bool begins = start <= entry->start || (entry->start == 0 && !inChain && start < entry->end);
      if (begins && entry->end <= limit) visit(Bounds{entry->start, entry->end});
    });
  };
  std::uint32_t count = 0;
  forEachInside([&](Bounds) { ++count; });
  if (count == 0) return;
  auto* const list = static_cast<Bounds*>(
      __VeskMalloc(categoryOf(table), count * static_cast<std::uint32_t>(sizeof(Bounds)), 0));
  Bounds* end = list;
  forEachInside([&](Bounds bounds) { *end++ = bounds; });
  std::sort(list, end, [](const Bounds& left, const Bounds& right) { return left.start < right.start; });
  for (const Bounds* at = list; at != end; ++at) removeRange(table, at->start, at->end, true);
  __VeskFree(list);
}

// Destroys the range that holds an address and says what it was; a start of 0 is none.
Bounds destroyAround(const RangeTable& table, std::uint64_t address) {
  const RangeTableEntry* const entry = lookUp(table, address);
  if (entry == nullptr || entry->start == 0) return {0, 0};
  const Bounds bounds = {entry->start, entry->end};
  removeRange(table, bounds.start, bounds.end, true);
  return bounds;
}

} // namespace

bool isLevelHash(VeskHashFunction function) {
  return std::find(kHashFunctions.begin(), kHashFunctions.end(), function) != kHashFunctions.end();
}

} // namespace vesk::range_table

using namespace vesk::range_table;

RangeTable* __VeskCreateRangeTable(uint64_t span, uint32_t category, uint32_t shift, uint32_t flags,
                                   VeskRangeTableDestroyItem destroyItem) {
  auto* const whole =
      new (__VeskMalloc(category, sizeof(WholeTable), 0)) WholeTable{.record = {.flags = 0,
                                                                                .minLevel = kMinLevel,
                                                                                .maxLevel = kMaxLevel,
                                                                                .destroyItem = destroyItem,
                                                                                .levels = nullptr},
                                                                     .levelsMade = 0};
  RangeTable* const table = &whole->record;
  table->flags = vesk::tableFlags(flags, category, shift);
  table->maxLevel = levelOf(*table, span);
  const std::uint32_t levels = table->maxLevel - kMinLevel + 1;
  table->levels = static_cast<VeskHashTable**>(
      __VeskMalloc(category, levels * static_cast<std::uint32_t>(sizeof(VeskHashTable*)), 0));
  std::fill_n(table->levels, levels, nullptr);
  return table;
}

void __VeskDestroyRangeTable(RangeTable* table) {
  if (table == nullptr) return;
  for (std::uint32_t level = kMinLevel; level <= table->maxLevel; ++level) {
    __VeskDestroyHashTable(levelTable(*table, level), nullptr);
  }
  __VeskFree(table->levels);
  __VeskFree(table);
}

void __VeskInsertRangeTableEntry(RangeTable* table, uint64_t start, uint64_t end, uint64_t item) {
  if (!isUsable(table) || end <= start) return;
  RangeTableEntry* const entry = allocate(
      *table, shiftOf(*table),
      RangeTableEntry{
          .marker = kEntryMarker, .start = start, .end = end, .table = table, .item = item, .refCount = 0});
  decompose(*table, start, end,
            [&](std::uint32_t level, std::uint64_t block) { store(*table, *entry, level, block); });
}

uint64_t __VeskLookupRangeTable(const RangeTable* table, uint64_t address, uint64_t* start, uint64_t* end) {
  // Blocks of one size, not in chains: no register has to be saved on the way.
  if (isUsable(table) && levelsMade(*table) > 1 && (levelsMade(*table) & (levelsMade(*table) - 1)) == 0)
      [[likely]] {
    const std::uint32_t level = highestOf(levelsMade(*table));
    const vesk::hash_table::KeyIndex& index = vesk::hash_table::whole(*levelTable(*table, level)).index;
    if (index.isThere()) [[likely]]
      return report(static_cast<const RangeTableEntry*>(index.dataOf(blockAround(address, level))), start,
                    end);
  }
  return lookUpGenerally(table, address, start, end);
}

void __VeskRemoveRangeTableEntry(RangeTable* table, uint64_t start, uint64_t end) {
  if (isUsable(table)) removeRange(*table, start, end, false);
}

void __VeskDestroyRangeTableEntry(RangeTable* table, uint64_t start, uint64_t end) {
  if (isUsable(table)) removeRange(*table, start, end, true);
}

void __VeskDestroyRangeTableSpan(RangeTable* table, uint64_t base, uint64_t size, uint64_t* start,
                                 uint64_t* end) {
  const std::uint64_t lo = base;
  const std::uint64_t hi = size > kTop - base ? kTop : base + size;
  *start = lo;
  *end = hi;
  if (!isUsable(table)) return;
  std::uint64_t at = lo;
  if (const Bounds first = destroyAround(*table, lo); first.start != 0) {
    *start = std::min(lo, first.start);
    *end = std::max(hi, first.end);
    at = first.end;
  }
  if (at >= hi) return;
  std::uint64_t top = hi;
  if (const Bounds last = destroyAround(*table, hi - 1); last.start != 0) {
    *end = std::max(hi, last.end);
    if (at >= last.start) return;
    top = last.start;
  }
  if ((top - at) / kLowestSize > countBlocks(*table)) {
    destroyListed(*table, at, top);
  } else {
    destroyStepping(*table, at, top);
  }
}

uint64_t __VeskRemoveFirstRangeTableEntry(RangeTable* table, uint64_t lo, uint64_t hi) {
  if (!isUsable(table)) return 0;
  std::uint64_t at = lo & ~(kLowestSize - 1);
  while (at < hi) {
    const Hit hit = nextHit(*table, at, hi);
    if (hit.data == nullptr) return 0;
    const RangeTableEntry* entry = nullptr;
    if (keepsChains(*table, hit.level)) {
      const auto* link = static_cast<const RangeTableLink*>(hit.data);
      while (link != nullptr && (link->entry->start < lo || link->entry->end > hi)) link = link->next;
      if (link != nullptr) entry = link->entry;
    } else {
      entry = static_cast<const RangeTableEntry*>(hit.data);
    }
    if (entry != nullptr) {
      const std::uint64_t item = entry->item;
      removeRange(*table, entry->start, entry->end, false);
      return item;
    }
    if (hi - hit.block <= kLowestSize) return 0;
    at = hit.block + kLowestSize;
  }
  return 0;
}

void __VeskScanAndEmptyRangeTable(RangeTable* table) {
  if (!isUsable(table)) return;
  const auto dropEntry = [](void* data) -> std::uint32_t {
    release(static_cast<RangeTableEntry*>(data), true);
    return 1;
  };
  const auto dropChain = [](void* data) -> std::uint32_t {
    for (auto* link = static_cast<RangeTableLink*>(data); link != nullptr;) {
      RangeTableLink* const next = link->next;
      release(link->entry, true);
      __VeskFree(link);
      link = next;
    }
    return 1;
  };
  for (std::uint32_t level = kMinLevel; level <= table->maxLevel; ++level) {
    VeskHashTable* const blocks = levelTable(*table, level);
    if (blocks == nullptr) continue;
    std::uint32_t ignored = 0;
    __VeskScanAndEmptyHashTable(blocks, keepsChains(*table, level) ? dropChain : dropEntry, &ignored);
  }
}
