/* A first-in first-out queue of 64-bit values, safe for many producers and consumers at once if asked to be.
 *
 * Producers work at one end under the tail lock, consumers at the other under the head lock; they meet only while the
 * queue holds at most one value. Besides taking the first value, a consumer can look for the first one that a predicate
 * accepts, and read it or take it out.
 *
 *     Queue* queue = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, category);
 *     __VeskEnqueue(queue, (uint64_t)event);                         // any thread
 *     struct Event* event = (struct Event*)__VeskDequeue(queue);     // any thread; null when there is none
 *     __VeskDestroyQueue(queue);                                     // no other thread uses it any more
 *     __VeskFree(queue);
 *
 * Values are the caller's: the queue never disposes of them. The value 0 may be queued, but looks like an empty queue to
 * who takes it out.
 *
 * Locks: with VESK_QUEUE_THREAD_SAFE, those named at each function; where both are held, head before tail. Without it
 * none, and the caller serialises every use. */
#ifndef VESKRT_QUEUE_H
#define VESKRT_QUEUE_H

#include "veskrt/base.h"
#include "veskrt/spin_lock.h"

VESK_BEGIN_DECLS

#define VESK_QUEUE_THREAD_SAFE 2u

typedef struct QueueNode {
  uint64_t value;         /* the caller's; fixed */
  struct QueueNode* next; /* null in the last node; a producer's under the tail lock, else the head lock's */
} QueueNode;

typedef struct Queue {
  QueueNode* head;       /* always the dummy node below */
  QueueNode* tail;       /* the last node; the dummy node while the queue is empty; under the tail lock */
  QueueNode dummy;       /* its next is the first node; its value means nothing; under the head lock */
  VeskSpinLock headLock; /* held by consumers; spin count 0 */
  VeskSpinLock tailLock; /* held by producers; spin count 0 */
  uint32_t flags;     /* those given at creation, with the memory category in bits 4 to 11; never changes */
  uint32_t queueFlag; /* the caller's own, 0 at first; nothing here reads it */
} Queue;

/* Returns exactly 1 for a value to be selected, anything else for another. Runs under the head lock and may not use the
 * queue. */
typedef int32_t (*VeskQueuePredicate)(uint32_t argument1, uint64_t argument2, uint64_t value);

/* An empty queue. Its record and nodes come from the memory category, 0 to 63, which replaces bits 4 to 11 of `flags`;
 * flags other than VESK_QUEUE_THREAD_SAFE are kept and have no effect. Release it with __VeskDestroyQueue, then
 * __VeskFree. */
VESK_API Queue* __VeskCreateQueue(uint32_t flags, uint32_t category);

/* Appends the value. Takes the tail lock; while the queue is empty both. */
VESK_API void __VeskEnqueue(Queue* queue, uint64_t value);

/* Takes the first value out and returns it; 0 if the queue is empty. Takes the head lock; for the last value both. */
VESK_API uint64_t __VeskDequeue(Queue* queue);

/* The first value that `predicate(argument1, argument2, value)` selects, or with a null predicate the first value; 0 if
 * there is none. A nonzero `remove` takes it out. Takes the head lock; to take the last value out both. */
VESK_API uint64_t __VeskPeekQueue(Queue* queue, VeskQueuePredicate predicate, uint32_t argument1,
                                  uint64_t argument2, uint32_t remove);

/* 1 while no value is queued. Takes no lock: another thread may change it at once. */
VESK_API int __VeskIsQueueEmpty(const Queue* queue);

/* Frees every node and leaves an empty queue that may be used again. Takes no lock: no other thread may use the queue
 * meanwhile. The record is not freed. */
VESK_API void __VeskDestroyQueue(Queue* queue);

/* Stores `value` in the record's queueFlag. Takes no lock. */
VESK_API void __VeskSetQueueFlag(Queue* queue, uint32_t value);

VESK_END_DECLS

#endif
