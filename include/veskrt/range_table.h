/* A map from address ranges to items: which range holds this address?
 *
 * Choose it for ranges that do not overlap (live blocks, modules, mappings) when they are asked for by any
 * address inside them: a look-up probes at most 23 small hash tables, however many ranges there are. For keys
 * that are asked for exactly, take the hash table (veskrt/hash_table.h); for ordered walks, the tree
 * (veskrt/tree.h).
 *
 *     RangeTable* blocks = __VeskCreateRangeTable(1 << 20, category, 0, 0, NULL);
 *     __VeskInsertRangeTableEntry(blocks, start, start + size, (uint64_t)site);
 *     uint64_t from, to;
 *     uint64_t site = __VeskLookupRangeTable(blocks, address, &from, &to);    // to == 0: no range holds it
 *     __VeskRemoveRangeTableEntry(blocks, start, start + size);
 *
 * Every range is cut into aligned blocks of a power of two, 32 bytes to 128 MiB, and each block is kept in
 * the hash table of its size, its level: a range costs two blocks for each level at most, and a row of the
 * largest. Only a 32-byte block may belong to several ranges, at whose ends it lies; ranges that all begin
 * and end at multiples of 32 spare the chains that this takes (VESK_RANGE_TABLE_ALIGNED).
 *
 * Ranges are half open, [start, end), and must not overlap; nothing checks that. The last address that a
 * range can hold is 2^64 - 2.
 *
 * Locks: none. The caller serialises every use of one table; destroyItem runs on the calling thread and must
 * not use the table. Memory comes from the table's category. */
#ifndef VESKRT_RANGE_TABLE_H
#define VESKRT_RANGE_TABLE_H

#include "veskrt/base.h"
#include "veskrt/hash_table.h"

VESK_BEGIN_DECLS

#define VESK_RANGE_TABLE_ALIGNED 1u /* creation flag: every start and end is a multiple of 32 */

#define VESK_RANGE_TABLE_MIN_LEVEL 4u /* blocks of level L have 2^(L+1) bytes */
#define VESK_RANGE_TABLE_MAX_LEVEL 26u

/* Disposes of an item whose range the table destroys. */
typedef void (*VeskRangeTableDestroyItem)(uint64_t item);

typedef struct RangeTable {
  uint32_t flags;      /* creation flags; bits 8 to 15: category, 16 to 19: slab shift; fixed */
  uint32_t minLevel;   /* 4 */
  uint32_t maxLevel;   /* 4 to 26; fixed */
  uint32_t levelsMade; /* bit L - 4: element L - 4 below is not null; the library's own */
  VeskRangeTableDestroyItem destroyItem; /* or null; fixed */

  /* Element L - 4: from a block's start to its entry (at level 4 perhaps a chain); null until level L has its
   * first block. */
  VeskHashTable** levels;
} RangeTable;

/* A range that is in a table. */
typedef struct RangeTableEntry {
  uint64_t marker; /* all ones: no link begins so */
  uint64_t start;
  uint64_t end;
  RangeTable* table;
  uint64_t item;
  uint32_t refCount; /* blocks that are stored for it */
} RangeTableEntry;

/* One of the ranges that touch a 32-byte block; not in aligned mode. */
typedef struct RangeTableLink {
  struct RangeTableLink* next;
  RangeTableEntry* entry;
} RangeTableLink;

/* An empty table. Its largest blocks are the largest power of two not above `span`, between 32 bytes and 128
 * MiB: give the usual length of a long range; a span of 0 counts as 1. Entries come from slabs of `shift` (0
 * to 15). `destroyItem` may be null. */
VESK_API RangeTable* __VeskCreateRangeTable(uint64_t span, uint32_t category, uint32_t shift, uint32_t flags,
                                            VeskRangeTableDestroyItem destroyItem);

/* Frees an empty table; what is still in it leaks. Null is ignored. */
VESK_API void __VeskDestroyRangeTable(RangeTable* table);

/* Adds [start, end). An empty or inverted range, and a null table, change nothing. */
VESK_API void __VeskInsertRangeTableEntry(RangeTable* table, uint64_t start, uint64_t end, uint64_t item);

/* The item of the range that holds the address, whose bounds go to *start and *end (either may be null); 0,
 * with both bounds 0, if there is none. */
VESK_API uint64_t __VeskLookupRangeTable(const RangeTable* table, uint64_t address, uint64_t* start,
                                         uint64_t* end);

/* Take out the range with exactly these bounds; the second one destroys its item. */
VESK_API void __VeskRemoveRangeTableEntry(RangeTable* table, uint64_t start, uint64_t end);
VESK_API void __VeskDestroyRangeTableEntry(RangeTable* table, uint64_t start, uint64_t end);

/* Destroys every range that meets [base, base + size), in ascending order but for the first and the last,
 * which reach over its ends and go first. *start and *end receive the bounds of what span and destroyed
 * ranges cover together. A range that begins at address 0 and reaches into the span from below is not found.
 * A span that would reach beyond the end of the address space ends at 2^64 - 1. */
VESK_API void __VeskDestroyRangeTableSpan(RangeTable* table, uint64_t base, uint64_t size, uint64_t* start,
                                          uint64_t* end);

/* Removes the first range found from `lo` upward in [lo, hi) and returns its item; 0 if none is found. Found
 * are ranges that lie inside, and ranges of which an aligned block of 64 bytes or more (32 in aligned mode)
 * does. */
VESK_API uint64_t __VeskRemoveFirstRangeTableEntry(RangeTable* table, uint64_t lo, uint64_t hi);

/* Destroys every range. The table stays usable. */
VESK_API void __VeskScanAndEmptyRangeTable(RangeTable* table);

VESK_END_DECLS

#endif
