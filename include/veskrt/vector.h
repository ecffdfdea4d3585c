/* A sparse array of 131,072 unsigned 64-bit elements, for counters and values under small dense identifiers.
 *
 * Storage comes in pages of 256 elements, each allocated when one of its elements is first written; an
 * element that was never written reads as 0. The first page is part of the record, so a vector whose indexes
 * stay below 256 allocates nothing. Where identifiers are larger or scattered, choose a hash table.
 *
 *     Vector* hits = __VeskCreateVector(category);     // category: of veskrt/memory.h
 *     __VeskIncrementVectorElement(hits, site);
 *     for (uint32_t i = 0; i < hits->size; i++) use(__VeskGetVectorElement(hits, i));
 *     __VeskDestroyVector(hits);
 *
 * No operation takes a lock: the caller serialises all use of a vector. No operation fails. */
#ifndef VESKRT_VECTOR_H
#define VESKRT_VECTOR_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_VECTOR_PAGES 512u
#define VESK_VECTOR_PAGE_SIZE 256u /* elements */
#define VESK_VECTOR_MAX_INDEX (VESK_VECTOR_PAGES * VESK_VECTOR_PAGE_SIZE - 1u)

/* Element i is entry i & 255 of page i >> 8. Written by the operations alone. The record holds a pointer into
 * itself: it must not be moved or copied as bytes. */
typedef struct Vector {
  uint64_t* pages[VESK_VECTOR_PAGES];        /* null for a page never written; slot 0 is always firstPage */
  uint64_t firstPage[VESK_VECTOR_PAGE_SIZE]; /* elements 0 to 255 */
  uint32_t size : 24;    /* one more than the highest index written, or as copied; 0 when none */
  uint32_t category : 8; /* memory category of the pages that this vector allocates */
} Vector;

/* Makes a record of the caller's an empty vector, and returns it. Its pages from 1 on, if any come to be
 * written, are the caller's to give back with __VeskFree. */
VESK_API Vector* __VeskInitializeVector(Vector* vector, uint32_t category);

/* A new empty vector, the record in `category` as well. */
VESK_API Vector* __VeskCreateVector(uint32_t category);

/* Frees the pages and the record of a vector from __VeskCreateVector or __VeskDuplicateVector. */
VESK_API void __VeskDestroyVector(Vector* vector);

/* The element; 0 when it was never written or the index is too high. */
VESK_API uint64_t __VeskGetVectorElement(const Vector* vector, uint32_t index);

/* Store the value, or add 1 (wrapping at 2^64), and return what the element was before. With an index above
 * VESK_VECTOR_MAX_INDEX they change nothing and return 0. The increment is not atomic. */
VESK_API uint64_t __VeskSetVectorElement(Vector* vector, uint32_t index, uint64_t value);
VESK_API uint64_t __VeskIncrementVectorElement(Vector* vector, uint32_t index);

/* Every element of dst becomes the larger of dst's and src's, the size the larger of the sizes. Pages that
 * dst lacks are allocated in dst's category. When the new size is a multiple of 256, the page after the last
 * element is allocated too, all 0, if there is such a page and dst lacks it. */
VESK_API void __VeskMaxVector(Vector* dst, const Vector* src);

/* A new vector equal to src. The record, and pages that the new vector allocates later, are in `category`;
 * the copied pages are in src's. */
VESK_API Vector* __VeskDuplicateVector(const Vector* src, uint32_t category);

/* dst becomes equal to src, its size too, and keeps its category. Pages of dst that src lacks are cleared,
 * not freed. */
VESK_API void __VeskCopyVector(Vector* dst, const Vector* src);

VESK_END_DECLS

#endif
