/* A map from 64-bit keys to pointers that many threads use at once.
 *
 * Choose it for state that is looked up far more often than it changes: look-ups, and removals and repeated
 * insertions in different buckets, run side by side; only new keys, growth and scans keep everybody else out
 * for a moment. For ordered walks take the tree (veskrt/tree.h), for "which range holds this address" the
 * range table (veskrt/range_table.h).
 *
 *     VeskHashTable* sites = __VeskCreateHashTable(0, NULL, 1, NULL, NULL, category, 0);
 *     struct Site* site = __VeskLookupHashTable(sites, address);
 *     if (site == NULL) {
 *       struct Site* mine = newSite(address);
 *       site = __VeskInsertHashTableEntry(sites, address, mine);   // another thread may have been first
 *       if (site != mine) freeSite(mine);
 *     }
 *
 * Levels. A table of one level is a leaf: an array of buckets, each a chain of entries. In a table of two or
 * three levels the buckets hold sub-tables, made when the first key reaches them and kept until the whole
 * table is destroyed; each level picks its bucket by a hash function of its own. A table over a large key
 * space is thereby spread over many small tables, each with its own lock. A leaf doubles its bucket array
 * when a new key comes and it holds more entries than buckets; it never shrinks.
 *
 * Keys are compared as numbers or, in compare mode, by the caller's function; then a key may point to
 * something that the caller owns until the key release function gets it.
 *
 * Locks are taken in the order table, bucket, entry, with a spin count of 0; the descent through sub-tables
 * takes none. Under the table's lock shared and the bucket's shared: look-ups. Under the table's shared and
 * the bucket's exclusive: an insertion that looks for its key, the removal of an entry. Under the table's
 * exclusive: an insertion that adds its key, growth, scans, the count that a removal takes off. Callbacks run
 * under the locks of their operation. Those of a scan run on the table's exclusive holder, and may use the
 * same table freely; any other must not, since it would wait for its own thread. Callbacks may use other
 * tables.
 *
 * A leaf that calls nothing from outside while it searches (keys compared as numbers, the default hash
 * function) does with less, and behaves the same: its readers hold the table's lock in words of their own, which
 * `lock` does not show, and wait for the holder of a bucket's lock without taking it; an entry leaves under the
 * table's lock exclusive. Who takes the lock of such a table by hand may find a look-up still on its way.
 *
 * An unlocked table takes no lock at all: the caller serialises all use of it.
 *
 * Leaves that call nothing from outside spend 24 bytes for each bucket on an index, and a look-up reads one line
 * of memory; locked ones spend another 1,100 bytes on their readers. Data of value null cannot be told from a
 * missing key. */
#ifndef VESKRT_HASH_TABLE_H
#define VESKRT_HASH_TABLE_H

#include "veskrt/base.h"
#include "veskrt/shared_lock.h"

VESK_BEGIN_DECLS

/* Creation flags. Other bits below bit 8 are stored and mean nothing. */
#define VESK_HASH_TABLE_UNLOCKED 0x2u      /* no lock is initialised or taken */
#define VESK_HASH_TABLE_512_BUCKETS 0x8u   /* buckets at first; 256 without either flag */
#define VESK_HASH_TABLE_1024_BUCKETS 0x10u /* counts only without the flag above */
#define VESK_HASH_TABLE_COMPARE_KEYS 0x80u /* compare mode */

#define VESK_HASH_TABLE_MAX_LEVELS 3

typedef struct VeskHashTable VeskHashTable;

/* The hash of a key at a table; its low bits, as many as the table's bucketBits, are the bucket's index. At a
 * leaf it runs under the table's lock. It must not depend on the table but through bucketBits. */
typedef uint64_t (*VeskHashFunction)(VeskHashTable* table, uint64_t key);
/* Compare mode: nonzero if the keys are equal. */
typedef uint32_t (*VeskHashKeyCompare)(uint64_t storedKey, uint64_t searchedKey);
/* Compare mode: an entry goes, and its key with it. */
typedef void (*VeskHashKeyRelease)(uint64_t key);
/* Makes an item safe from removal, say by counting a reference. */
typedef uint32_t (*VeskHashDataAcquire)(void* data);
/* An entry is about to go, and its data with it. In a scan, 0 keeps the entry after all. */
typedef uint32_t (*VeskHashDataRelease)(void* data);
/* Nonzero selects the entry. */
typedef uint32_t (*VeskHashVisit)(void* data, void* context);

typedef struct VeskHashTableEntry {
  struct VeskHashTableEntry* next; /* in the bucket's chain; under the bucket's lock, as are key and data */
  uint64_t key;                    /* fixed */
  void* data;                      /* fixed */
  VeskSharedExclusiveLock lock;    /* a scan's that is at the entry; not initialised in an unlocked table */
} VeskHashTableEntry;

typedef struct VeskHashTableBucket {
  VeskSharedExclusiveLock lock; /* not initialised in an unlocked table */
  void* head; /* leaf: the chain's first VeskHashTableEntry. Above: the VeskHashTable of this bucket, fixed
                 once it is there; null before; 1 while a thread creates it */
} VeskHashTableBucket;

/* One table, or one sub-table. */
struct VeskHashTable {
  VeskSharedExclusiveLock lock;                               /* not initialised in an unlocked table */
  VeskHashFunction hashFunctions[VESK_HASH_TABLE_MAX_LEVELS]; /* by level; fixed */
  VeskHashKeyCompare compare;                                 /* fixed */
  VeskHashKeyRelease keyRelease;                              /* fixed */
  VeskHashTableBucket* buckets; /* this and the next two change when a leaf grows, under its lock */
  int32_t bucketCount;          /* a power of two */
  uint32_t bucketBits;          /* its logarithm */
  int32_t entryCount;           /* of a leaf; under its lock */
  int32_t level;                /* 0 at a leaf, one more in the table above; fixed */
  uint32_t flags;               /* bits 8 to 15: memory category, 16 to 19: slab-size shift; fixed */
  uint32_t scanStamp; /* changes with the table while a scan runs, 0 while none does; the library's own */
};

/* A new table of `levels` levels; below 1 counts as 1, above 3 as 3.
 *
 * `hashFunctions` has `levels` elements, element i for the tables of level i (the leaves' is element 0); a
 * null element, or a null array, leaves the default: the key itself at level 0, the key shifted right by the
 * table's bucket bits at level 1, by three times its bucket bits at level 2. `compare` must be given in
 * compare mode, and `keyRelease` may be; both are ignored without the flag. Tables and buckets come from
 * memory category `category`, entries too, from slabs of `shift` (0 to 15). */
VESK_API VeskHashTable* __VeskCreateHashTable(uint32_t flags, const VeskHashFunction* hashFunctions,
                                              int32_t levels, VeskHashKeyCompare compare,
                                              VeskHashKeyRelease keyRelease, uint32_t category,
                                              uint32_t shift);

/* Frees the table, its sub-tables and entries. For every entry `dataRelease`, which may be null, gets the
 * data (what it returns is ignored), then in compare mode the key release function the key. A null table is
 * ignored. Takes no lock: nothing else may use the table. */
VESK_API void __VeskDestroyHashTable(VeskHashTable* table, VeskHashDataRelease dataRelease);

/* The data under the key, or null. */
VESK_API void* __VeskLookupHashTable(VeskHashTable* table, uint64_t key);

/* Looks the key up and, while both locks are still held, so that no removal can come between, calls
 * acquire(data). Returns what that returned and stores the data; for a missing key, returns 1 and stores
 * null. */
VESK_API uint32_t __VeskLookupAndAcquireHashTableDataItem(VeskHashTable* table, uint64_t key,
                                                          VeskHashDataAcquire acquire, void** data);

/* Stores the data under the key unless the key is there already. Returns what is now stored under it: `data`
 * if the key was new (and the table owns the key from now on), otherwise the data that was there, and nothing
 * has changed. */
VESK_API void* __VeskInsertHashTableEntry(VeskHashTable* table, uint64_t key, void* data);

/* Takes the key out, releasing it in compare mode. Returns its data, or null if it was not there. */
VESK_API void* __VeskRemoveHashTableEntry(VeskHashTable* table, uint64_t key);

/* Calls visit(data, context) for every entry, leaf by leaf in the order of buckets and chains. A selected
 * entry is removed if `remove` is nonzero and `release`, which may be null, does not keep it; in compare mode
 * its key is released. Returns the number of entries removed, and stores the number that there were, skipped
 * ones included.
 *
 * Never waits. A leaf that is held by anyone, the caller's own scan included, is skipped whole, an entry
 * whose lock is held is skipped. An unlocked table has nothing to skip by.
 *
 * The callbacks may look up, insert and remove in the same table. What they insert may be visited or not; if
 * they make the leaf grow, or remove the visited entry and the one after it, the rest of its chain is not
 * visited. */
VESK_API uint32_t __VeskScanHashTable(VeskHashTable* table, VeskHashVisit visit, void* context,
                                      uint32_t remove, VeskHashDataRelease release, uint32_t* entryCount);

/* The same walk with every entry selected and to be removed. In compare mode the key is released before the
 * entry is unlinked. */
VESK_API uint32_t __VeskScanAndEmptyHashTable(VeskHashTable* table, VeskHashDataRelease release,
                                              uint32_t* entryCount);

VESK_END_DECLS

#endif
