/* An ordered map from 64-bit keys to 64-bit items: a red-black tree whose entries also form a list in key order.
 *
 * Choose it when keys are asked for by range or walked in order, in either direction; choose the hash table
 * (veskrt/hash_table.h) when they are only looked up, or when many threads share the map. Equal keys are allowed and
 * stand in the order of their insertion.
 *
 *     RedBlackTree* tree = __VeskCreateRedBlackTree(category, NULL, NULL, NULL);
 *     __VeskInsertRedBlackEntry(tree, address, (uint64_t)site);
 *     for (RedBlackEntry* entry = __VeskGetRedBlackRangeStart(tree, first, last); entry != NULL;
 *          entry = __VeskGetRedBlackRangeNext(entry, last)) {
 *       uint64_t item;
 *       __VeskGetRedBlackItem(entry, &item);
 *     }
 *     __VeskDestroyRedBlackTree(tree);
 *
 * An entry's address is its handle. It stays valid until that very entry is removed: insertions and removals relink
 * entries and never move a key or an item to another one. Passing a handle after its removal is an error that is not
 * noticed.
 *
 * Insertion, removal and the searches take time logarithmic in the number of entries, a step of a walk constant time.
 *
 * Locks: none. The caller serialises every use of one tree, walks included. Callbacks run on the calling thread. */
#ifndef VESKRT_TREE_H
#define VESKRT_TREE_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* Negative when a orders before b, 0 when they are equal, positive when a orders after b. */
typedef int32_t (*VeskRedBlackComparator)(uint64_t a, uint64_t b);

/* Disposes of one key or one item. */
typedef void (*VeskRedBlackDestructor)(uint64_t value);

#define VESK_RED_BLACK_BLACK 0u
#define VESK_RED_BLACK_RED 1u

struct RedBlackTree;

/* One entry, or the tree's sentinel: the entry that stands for "none" in every link. Read what you like; only the tree
 * writes. The sentinel is the entry with entry->tree->nil == entry; its prev, next and parent mean nothing. */
typedef struct RedBlackEntry {
  struct RedBlackTree* tree; /* the tree that it belongs to */
  struct RedBlackEntry* left;
  struct RedBlackEntry* right;
  struct RedBlackEntry* parent;
  struct RedBlackEntry* prev; /* the entry before it in key order */
  struct RedBlackEntry* next; /* the entry after it */
  uint64_t key;
  uint64_t item;
  uint32_t colour; /* VESK_RED_BLACK_BLACK or VESK_RED_BLACK_RED */
} RedBlackEntry;

typedef struct RedBlackTree {
  RedBlackEntry* root;                /* the sentinel while the tree is empty */
  RedBlackEntry* nil;                 /* the sentinel */
  VeskRedBlackComparator compare;     /* never null */
  VeskRedBlackDestructor destroyItem; /* null, or called for an item that a destroy operation disposes of */
  VeskRedBlackDestructor destroyKey;  /* null, or called after destroyItem for the same entry's key */
  uint32_t category;                  /* memory category of the record, the sentinel and every entry */
  uint32_t count;                     /* entries, the sentinel not counted */
} RedBlackTree;

/* An empty tree. A null comparator orders keys as unsigned numbers, and faster than a comparator that does the same.
 * The destructors may be null; nothing but the two destroy functions calls them. They may not use the tree. */
VESK_API RedBlackTree* __VeskCreateRedBlackTree(uint32_t category, VeskRedBlackComparator compare,
                                                VeskRedBlackDestructor destroyItem,
                                                VeskRedBlackDestructor destroyKey);

/* Adds an entry behind every entry with an equal key. Nothing for a null tree. */
VESK_API void __VeskInsertRedBlackEntry(RedBlackTree* tree, uint64_t key, uint64_t item);

/* Takes the entry out and frees it, without calling a destructor: read key and item first if you need them. Nothing for
 * null or the sentinel. */
VESK_API void __VeskRemoveRedBlackEntry(RedBlackEntry* entry);

/* ---- Ranges ----
 *
 * Mind the bounds, which differ from function to function. All return null for a null tree or entry, an empty tree and
 * the sentinel. */

/* Where a forward walk begins: the first entry whose key equals `lo`, whatever `hi` is; if there is none, the first
 * entry after `lo`, unless its key equals `hi` or orders after it: then null. */
VESK_API RedBlackEntry* __VeskGetRedBlackRangeStart(RedBlackTree* tree, uint64_t lo, uint64_t hi);

/* Where a backward walk begins: the last entry whose key equals `key`; if there is none, the last entry that orders
 * before it, which the caller bounds below, as no bound is given here; null if every entry orders after `key`. */
VESK_API RedBlackEntry* __VeskGetRedBlackRangeEnd(RedBlackTree* tree, uint64_t key);

/* The entry after this one; null if there is none or its key orders after `hi`. A key equal to `hi` is in. */
VESK_API RedBlackEntry* __VeskGetRedBlackRangeNext(RedBlackEntry* entry, uint64_t hi);

/* The entry before this one; null if there is none or its key orders before `lo`. A key equal to `lo` is in. */
VESK_API RedBlackEntry* __VeskGetRedBlackRangePrev(RedBlackEntry* entry, uint64_t lo);

/* Store the entry's key or item and return 1. Return 0 and store nothing for a null entry, the sentinel and a null
 * result. */
VESK_API int __VeskGetRedBlackKey(const RedBlackEntry* entry, uint64_t* key);
VESK_API int __VeskGetRedBlackItem(const RedBlackEntry* entry, uint64_t* item);

/* ---- Disposal ---- */

/* Removes what __VeskGetRedBlackRangeStart(tree, lo, hi) and then __VeskGetRedBlackRangeNext(entry, hi) visit. Each entry
 * leaves the tree before its item and then its key are destroyed. So a key equal to `hi` is removed when the range has
 * an entry before it, or begins at `lo` = `hi`, and not when it would be the first. Nothing for a null tree. */
VESK_API void __VeskDestroyRedBlackRange(RedBlackTree* tree, uint64_t lo, uint64_t hi);

/* Destroys item, then key of every entry in key order, and frees entries, sentinel and tree. Nothing for null. */
VESK_API void __VeskDestroyRedBlackTree(RedBlackTree* tree);

/* ---- Self-check ---- */

/* Returns 1 if no red entry has a red child, every path down from the root passes the same number of black entries, the
 * list of entries is in order, and it is as long as `count` says; else, and for null, 0. Parent links are not looked
 * at. Linear time, no memory. */
VESK_API int __VeskValidateRedBlack(const RedBlackTree* tree);

VESK_END_DECLS

#endif
