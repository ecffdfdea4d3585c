/* Memory by category.
 *
 * The library takes no memory from the analysed program's heap. The host hands it one allocate and one free
 * procedure; on top of them stands an allocator for the whole process: requests of up to 32,728 bytes come
 * from slabs that are carved into equal chunks, one family of slabs for each memory category and size class,
 * larger ones straight from the host. Every allocation names a category, so that the slab memory of each
 * subsystem can be counted and reported.
 *
 *     __VeskInitializeSubAllocator(hostAllocate, hostFree);      // the host, once, before anything else
 *     __VeskEnableMemoryStatisticsCollection();
 *     uint32_t category = __VeskRegisterMemoryCategory("MY_SITES");
 *     struct Site* site = __VeskMalloc(category, sizeof *site, 0);
 *     __VeskFree(site);
 *
 * Memory is aligned to 8 bytes (and to no more), not cleared, and never null: when the host has nothing left,
 * reserve memory (veskrt/memory_collection.h) is given back, and at last the process ends with a
 * VESKLOG_MSG_OUT_OF_MEMORY record.
 *
 * Locks: each (category, size class) row has its own spin lock; a thread that needs a new slab or a large
 * block takes the host-allocation lock, never while it holds a row; the statistics lock comes last. All are
 * recursive and yield at once. */
#ifndef VESKRT_MEMORY_H
#define VESKRT_MEMORY_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* What the host hands over. Both may be called from any thread at any time; blocks must be 16-byte aligned.
 * The allocate procedure returns null when it has no memory. */
typedef void* (*VeskHostAllocateProc)(uint64_t bytes);
typedef void (*VeskHostFreeProc)(void* block);

/* Installs the pair and builds the table of size classes. Only the first call has an effect. If the host
 * cannot supply the table (about 8 MiB), the process ends. */
VESK_API void __VeskInitializeSubAllocator(VeskHostAllocateProc allocate, VeskHostFreeProc release);

/* A block of at least `size` usable bytes for `category` (0 to 63; a higher one counts as 0). Slabs that this
 * call creates have 1 << (16 + shift) bytes, shift 0 to 15 (its low four bits count); pass 0 unless a
 * container needs larger ones. Ends the process if the sub-allocator has not been initialised. */
VESK_API void* __VeskMalloc(uint32_t category, uint32_t size, uint32_t shift);

/* Gives a block of __VeskMalloc back, from any thread; null is ignored. Giving back a slab chunk a second
 * time is noticed, logged as a comment, and otherwise ignored. */
VESK_API void __VeskFree(void* pointer);

/* ---- Categories and statistics ---- */

#define VESK_MEMORY_CATEGORY_MISC 0u /* the library's own records */
#define VESK_MAX_MEMORY_CATEGORIES 64u
#define VESK_MEMORY_CATEGORY_NAME_SIZE 32u

/* The figures of one category. Slabs alone are counted, at their nominal size: no chunks, no large blocks. */
typedef struct VeskMemoryCategoryInfo {
  char name[VESK_MEMORY_CATEGORY_NAME_SIZE];
  int64_t allocated;       /* bytes of slabs now held for the category */
  int64_t allocatedAtPeak; /* the same when the process total last reached a new peak */
} VeskMemoryCategoryInfo;

/* A new category, 1 to 63, or VESK_INVALID_ID when the table is full or the name is null (which is logged).
 * The name is copied, 31 characters of it at most; the same name may be registered again and makes another
 * category. */
VESK_API uint32_t __VeskRegisterMemoryCategory(const char* name);

/* Categories so far, the built-in "VESK_MISC" included: 1 to 64. */
VESK_API uint32_t __VeskGetNumMemoryCategories(void);

/* Turns counting on, for good. Call it once, before the first allocation that is to be counted. */
VESK_API void __VeskEnableMemoryStatisticsCollection(void);

/* Fills `info` and returns 1; returns 0 for a null record or an id that is not registered. Takes no lock: the
 * figures are read as they stand. */
VESK_API int __VeskGetMemoryInfoByCategory(uint32_t category, VeskMemoryCategoryInfo* info);

/* The highest total of all categories, bytes; the total itself while no peak has been recorded. */
VESK_API uint64_t __VeskGetPeakTotalMemoryAllocated(void);

/* Memory collections made while counting was on. */
VESK_API uint64_t __VeskGetTotalTimesMemoryCollected(void);

VESK_END_DECLS

#endif
