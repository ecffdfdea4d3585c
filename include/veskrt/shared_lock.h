/* A readers/writer spin lock, embedded in the caller's own record.
 *
 * For structures that are read far more often than changed. Any number of threads hold it shared, or one
 * holds it exclusive. The exclusive holder may take it exclusive again (and must release it as often) and may
 * take and release it shared, which then does nothing. A waiting writer keeps back the readers that have not
 * arrived yet; beyond that there is no fairness. There is no upgrade: a thread that holds it shared and asks
 * for it exclusive waits for itself forever.
 *
 * Threads are told apart by the native thread id hook (veskrt/runtime.h), as for the spin lock: while no hook
 * is installed it guards nothing.
 *
 *     static VeskSharedExclusiveLock lock;                     // all zero is a free lock of spin count 0
 *
 *     __VeskAcquireSharedLock(&lock);                          // any number of readers
 *     site = find(table, key);
 *     __VeskReleaseSharedLock(&lock);
 *     if (site == NULL) {
 *       __VeskAcquireExclusiveLock(&lock);
 *       site = findOrAdd(table, key);                          // look again: another thread may have been first
 *       __VeskReleaseExclusiveLock(&lock);
 *     } */
#ifndef VESKRT_SHARED_LOCK_H
#define VESKRT_SHARED_LOCK_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* `state` and `readerCount` are the halves of one naturally aligned 64-bit word, which changes as a whole. */
typedef struct VeskSharedExclusiveLock {
  uint32_t state __attribute__((aligned(8))); /* 0 free, 1 held shared, 2 held exclusive */
  uint32_t readerCount;                       /* threads that hold it shared or are on their way to it */
  uint64_t owner;         /* native thread id of the exclusive holder, else 0. Written by the holder. */
  uint32_t writerWaiting; /* 1 while an exclusive acquirer waits; cleared by the next exclusive acquisition */
  uint32_t recursionCount; /* exclusive acquisitions not yet released. Written by the holder. */
  uint32_t spinCount;      /* busy readings before a yield; fixed at initialisation */
} VeskSharedExclusiveLock;

/* A free lock; the spin count is 0 (yield at once) or as given. */
VESK_API void __VeskInitializeSharedExclusiveLock(VeskSharedExclusiveLock* lock);
VESK_API void __VeskInitializeSharedExclusiveLockAndSpinCount(VeskSharedExclusiveLock* lock,
                                                              uint32_t spinCount);

/* Acquire returns once the caller holds it shared: it waits while another thread holds it exclusive or waits
 * to. Release gives one such hold back. For the exclusive holder both do nothing. */
VESK_API void __VeskAcquireSharedLock(VeskSharedExclusiveLock* lock);
VESK_API void __VeskReleaseSharedLock(VeskSharedExclusiveLock* lock);

/* Acquire returns once the caller holds it exclusive: it waits for every reader and for another holder. Release
 * gives one acquisition back; a lock that is not held exclusive is left alone. */
VESK_API void __VeskAcquireExclusiveLock(VeskSharedExclusiveLock* lock);
VESK_API void __VeskReleaseExclusiveLock(VeskSharedExclusiveLock* lock);

/* Returns 1 if the caller now holds it exclusive. Never yields and never counts as a waiting writer. With
 * `tries` 0, or on one processor, it makes a single attempt; otherwise every busy reading and failed attempt
 * uses up one of `tries`. */
VESK_API int __VeskTryToAcquireExclusiveLock(VeskSharedExclusiveLock* lock, uint32_t tries);

/* Does the caller hold it exclusive? */
VESK_API int __VeskIsExclusiveLockAcquiredByCallingThread(const VeskSharedExclusiveLock* lock);

VESK_END_DECLS

#endif
