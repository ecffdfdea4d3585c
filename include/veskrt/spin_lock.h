/* A recursive spin lock, embedded in the caller's own record.
 *
 * For short sections, where waiting costs less than sleeping: a busy lock is re-read up to its spin count and
 * then the processor is yielded; on a one-processor machine every busy reading yields. There is no queue and
 * no fairness. The holder may take it again and must release it as often; release does not check who calls.
 *
 * Owners are told apart by the native thread id hook (veskrt/runtime.h). While no hook is installed every
 * caller has the identity 0 and the lock guards nothing, which is sound only while the process has one
 * thread.
 *
 *     VeskSpinLock lock;
 *     __VeskInitializeSpinLockAndSpinCount(&lock, 500);
 *     __VeskAcquireSpinLock(&lock);
 *     ...
 *     __VeskReleaseSpinLock(&lock);
 */
#ifndef VESKRT_SPIN_LOCK_H
#define VESKRT_SPIN_LOCK_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

typedef struct VeskSpinLock {
  uint64_t owner;          /* native thread id of the holder; 0 while free. Written by the holder. */
  uint32_t state;          /* 0 free, 1 held */
  uint32_t recursionCount; /* acquisitions by the holder not yet released. Written by the holder. */
  uint32_t spinCount;      /* busy readings before a yield; fixed at initialisation */
} VeskSpinLock;

/* A free lock; the spin count is 0 (yield at once) or as given. */
VESK_API void __VeskInitializeSpinLock(VeskSpinLock* lock);
VESK_API void __VeskInitializeSpinLockAndSpinCount(VeskSpinLock* lock, uint32_t spinCount);

/* Is it held by anybody; is it held by the caller? */
VESK_API int __VeskIsSpinLockInAcquiredState(const VeskSpinLock* lock);
VESK_API int __VeskIsSpinLockAcquiredByCallingThread(const VeskSpinLock* lock);

/* Returns once the caller holds the lock. */
VESK_API void __VeskAcquireSpinLock(VeskSpinLock* lock);

/* Returns 1 if the caller now holds the lock. Never yields. With `tries` 0, or on one processor, it makes a
 * single attempt; otherwise every busy reading and every failed attempt uses up one of `tries`. */
VESK_API int __VeskTryToAcquireSpinLock(VeskSpinLock* lock, uint32_t tries);

/* Gives one acquisition back. A free lock is left alone. */
VESK_API void __VeskReleaseSpinLock(VeskSpinLock* lock);

VESK_END_DECLS

#endif
