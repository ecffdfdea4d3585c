/* Sets and multisets of unsigned 32-bit integers.
 *
 * Sparse bitmaps: a sorted chain of chunks, each of which holds the 64 elements e with the same e >> 6.
 * Choose them for identifiers that come in clusters (blocks of a program, lines, allocation sites) and for
 * whole-set questions: union, intersection, difference and comparison are one merge over two chains and treat
 * 64 elements at a time. Finding one element walks the chain from its head, so its cost grows with the number
 * of chunks; for single lookups among many scattered keys a hash table is the better choice. A multiset also
 * keeps how often each element was added; it costs 280 bytes a chunk instead of 24.
 *
 * The caller owns the headers and may keep them anywhere; the library owns the chunks. A header is an empty
 * set when its count is 0 and its chain is null:
 *
 *     Set live = {0, category, NULL};                  // category: of veskrt/memory.h
 *     __VeskAddAnElementToSet(&live, block);
 *     __VeskUnionSet(&live, &successors);
 *     if (__VeskIsAnElementOfSet(&live, other)) ...
 *     __VeskScanSet(&live, visit, context);
 *     __VeskDestroySet(&live);
 *
 * No operation takes a lock: the caller serialises all use of a header. No operation fails. `dst` is changed
 * in place and keeps its category; every other operand is only read, unless its function says otherwise.
 * Where two operands have the same type they may be the same header; each function says what then happens. */
#ifndef VESKRT_SET_H
#define VESKRT_SET_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_SET_MAX_COUNT 16777215u /* distinct elements that a header can count; not checked */

/* ---- Records ----
 *
 * Written by the operations alone. In every set, bases strictly ascend along the chain, no chunk is without
 * an element, and the count is that of the presence bits. */

/* The 64 elements from base * 64. Element e is bit e & 31 of presence word (e & 63) >> 5. */
typedef struct SetChunk {
  struct SetChunk* next; /* with the next higher base, or null */
  uint32_t base;         /* e >> 6 of its elements */
  uint32_t presence[2];  /* which of them the set has; never all clear */
} SetChunk;

typedef struct MultiSetChunk {
  struct MultiSetChunk* next;
  uint32_t base;
  uint32_t presence[2];        /* bit set exactly where the multiplicity is not 0 */
  uint32_t multiplicities[64]; /* of element base * 64 + index; wraps at 2^32, not checked */
} MultiSetChunk;

typedef struct Set {
  uint32_t count : 24;   /* distinct elements */
  uint32_t category : 8; /* memory category of chunks allocated for this set; chosen by the caller */
  SetChunk* chunks;      /* the chunk with the lowest base; null when the set is empty */
} Set;

typedef struct MultiSet {
  uint32_t count : 24;   /* distinct elements, not the sum of their multiplicities */
  uint32_t category : 8; /* as in a set */
  MultiSetChunk* chunks;
} MultiSet;

/* ---- One element ---- */

/* Adds the element: to a set if it is absent, to a multiset once more. */
VESK_API void __VeskAddAnElementToSet(Set* set, uint32_t element);
VESK_API void __VeskAddAnElementToMultiSet(MultiSet* set, uint32_t element);

/* Removes the element, from a multiset one instance or all of them. An absent element is left alone. A chunk
 * is freed when its last element goes. */
VESK_API void __VeskDeleteAnElementFromSet(Set* set, uint32_t element);
VESK_API void __VeskDeleteAnElementFromMultiSet(MultiSet* set, uint32_t element);
VESK_API void __VeskDeleteAllInstancesOfAnElementFromMultiSet(MultiSet* set, uint32_t element);

/* Not 0 when the element is present: its bit within its presence word. 0 when it is absent. */
VESK_API uint32_t __VeskIsAnElementOfSet(const Set* set, uint32_t element);

/* How often the element is in the multiset; 0 when it is absent. */
VESK_API uint32_t __VeskGetElementMultiplicity(const MultiSet* set, uint32_t element);

/* ---- A whole set ---- */

/* 1 when the multiset has no element, else 0. */
VESK_API int __VeskIsMultiSetEmpty(const MultiSet* set);

/* Frees every chunk. The header is an empty set afterwards and may be used again; Empty and Destroy do the
 * same. */
VESK_API void __VeskEmptySet(Set* set);
VESK_API void __VeskDestroySet(Set* set);
VESK_API void __VeskEmptyMultiSet(MultiSet* set);
VESK_API void __VeskDestroyMultiSet(MultiSet* set);

typedef void (*VeskScanSetProc)(uint32_t element, void* context);

/* Calls proc(element, context) for every element in ascending order. The procedure must not change the set.
 */
VESK_API void __VeskScanSet(const Set* set, VeskScanSetProc proc, void* context);

/* Do nothing. */
VESK_API void __VeskPrintOutSet(const Set* set);
VESK_API void __VeskPrintOutMultiSet(const MultiSet* set);

/* ---- Copies: with dst and src the same header, nothing happens ---- */

/* dst becomes a copy of src. The chunks that dst has are written over and only what is lacking is allocated,
 * so copying again and again into the same header costs no allocation. */
VESK_API void __VeskConstructSet(Set* dst, const Set* src);
VESK_API void __VeskConstructMultiSet(MultiSet* dst, const MultiSet* src);

/* dst frees its chunks and takes over those of src, whatever their category; src becomes empty. */
VESK_API void __VeskConstructSetAndDestroy(Set* dst, Set* src);
VESK_API void __VeskConstructMultiSetAndDestroy(MultiSet* dst, MultiSet* src);

/* ---- Comparisons ---- */

/* 1 when both have the same elements (and the same multiplicities), else 0. A header equals itself. */
VESK_API int __VeskAreSetsEqual(const Set* a, const Set* b);
VESK_API int __VeskAreMultiSetsEqual(const MultiSet* a, const MultiSet* b);

/* 0 when equal; the count of a minus that of b when the counts differ; else 1. Not an order: two different
 * sets of one size compare as 1 both ways. */
VESK_API int32_t __VeskCompareSets(const Set* a, const Set* b);

/* 1 when no element is in both, else 0. 0 for the same header, even of an empty set. */
VESK_API int __VeskAreSetsDisjoint(const Set* a, const Set* b);

/* 1 when every element of a is in b, else 0. */
VESK_API int __VeskIsASubsetOfSet(const Set* a, const Set* b);

/* ---- Set algebra ---- */

/* dst := dst union src; in a multiset the multiplicities add up. A set is not changed by a union with itself;
 * a multiset's multiplicities double. */
VESK_API void __VeskUnionSet(Set* dst, const Set* src);
VESK_API void __VeskUnionMultiSet(MultiSet* dst, const MultiSet* src);

/* Adds every element of src to dst once. */
VESK_API void __VeskUnionMultiSetSet(MultiSet* dst, const Set* src);

/* dst := a intersected with b; in a multiset with the smaller of the two multiplicities. What dst held before
 * is lost, its chunks are used again. dst may be a or b; with a and b the same header, dst becomes a copy of
 * it. */
VESK_API void __VeskIntersectSet(Set* dst, const Set* a, const Set* b);
VESK_API void __VeskIntersectMultiSet(MultiSet* dst, const MultiSet* a, const MultiSet* b);

/* Takes the elements of src out of dst; in a multiset as many instances of each as src has. A header less
 * itself is empty. */
VESK_API void __VeskDifferenceSet(Set* dst, const Set* src);
VESK_API void __VeskDifferenceMultiSet(MultiSet* dst, const MultiSet* src);

VESK_END_DECLS

#endif
