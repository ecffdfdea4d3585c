/* Atomic read-modify-write primitives and bit scans.
 *
 * Each primitive is one locked instruction and a full memory barrier. The public name forwards to the routine
 * whose name ends in "Internal", which is that instruction and a return; both are exported, for collectors
 * that generate calls.
 *
 * For counters and flags that several threads change; where more than one word changes at a time, take a spin
 * lock (veskrt/spin_lock.h).
 *
 *     static uint32_t calls, begun;
 *     __VeskInterlockedIncrement(&calls);
 *     if (__VeskInterlockedCompareExchange(&begun, 1, 0) == 0) begin();     // one thread alone gets here
 *
 * Mind the order of the compare-exchange: target, the value to store, the value expected. */
#ifndef VESKRT_ATOMIC_H
#define VESKRT_ATOMIC_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* Stores `exchange` if *target equals `comparand`. Returns what *target held before: `comparand` if it was
 * stored. */
VESK_API uint32_t __VeskInterlockedCompareExchange(volatile uint32_t* target, uint32_t exchange,
                                                   uint32_t comparand);
VESK_API uint32_t __VeskInterlockedCompareExchangeInternal(volatile uint32_t* target, uint32_t exchange,
                                                           uint32_t comparand);
VESK_API uint64_t __VeskInterlockedCompareExchange64(volatile uint64_t* target, uint64_t exchange,
                                                     uint64_t comparand);
VESK_API uint64_t __VeskInterlockedCompareExchange64Internal(volatile uint64_t* target, uint64_t exchange,
                                                             uint64_t comparand);

/* Add or subtract 1. Return the new value, signed. */
VESK_API int32_t __VeskInterlockedIncrement(volatile uint32_t* target);
VESK_API int32_t __VeskInterlockedIncrementInternal(volatile uint32_t* target);
VESK_API int32_t __VeskInterlockedDecrement(volatile uint32_t* target);
VESK_API int32_t __VeskInterlockedDecrementInternal(volatile uint32_t* target);

/* Adds. Returns the value held before. */
VESK_API uint32_t __VeskInterlockedExchangeAdd(volatile uint32_t* target, uint32_t addend);
VESK_API uint32_t __VeskInterlockedExchangeAddInternal(volatile uint32_t* target, uint32_t addend);

/* Index, 0 to 31, of the lowest or highest set bit; 0 for the value 0. */
VESK_API uint32_t __VeskGetLeastSignificantOneIndex(uint32_t value);
VESK_API uint32_t __VeskGetLeastSignificantOneIndexInternal(uint32_t value);
VESK_API uint32_t __VeskGetMostSignificantOneIndexInternal(uint32_t value);

/* Index, 0 to 63, of the highest set bit; 0 for the value 0. */
VESK_API uint32_t __VeskGetMostSignificantOneIndexLong(uint64_t value);

VESK_END_DECLS

#endif
