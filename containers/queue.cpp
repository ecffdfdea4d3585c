// The two-lock queue.
//
//   dummy -> first -> ... -> last -> null        tail: the last node, the dummy while there is none
//
// A queue that runs empty again and again would allocate and free a node for every value: one node lies
// behind the record, in its memory. Whoever frees it links it to itself; producers take it back under the
// tail lock.
//
// A producer links a node behind the tail and then makes it the tail, under the tail lock. A consumer holds
// the head lock, and the tail lock too for what a producer may be linking behind at the same moment: the
// dummy and the last node. A node's link is therefore stored with release and loaded with acquire: it hands
// the node from a producer under one lock to a consumer under the other.
#include "veskrt/queue.h"

#include <cstdint>
#include <new>

#include "runtime/spin_lock.h"
#include "veskrt/memory.h"

namespace vesk {
namespace {

constexpr std::uint32_t kCategoryShift = 4;
constexpr std::uint32_t kCategoryMask = 0xFF0;

std::uint32_t categoryOf(std::uint32_t flags) { return (flags & kCategoryMask) >> kCategoryShift; }

bool isThreadSafe(const Queue* queue) { return (queue->flags & VESK_QUEUE_THREAD_SAFE) != 0; }

struct Record {
  Queue queue;
  QueueNode resident; // its next is itself while it is free
};

QueueNode* residentOf(Queue* queue) { return &reinterpret_cast<Record*>(queue)->resident; }

bool isFree(const QueueNode* resident) { return loadAcquire(resident->next) == resident; }

[[gnu::always_inline]] inline void append(Queue* queue, QueueNode* node) {
  storeRelease(loadRelaxed(queue->tail)->next, node);
  storeRelaxed(queue->tail, node);
}

QueueNode* allocateNode(const Queue* queue, std::uint64_t value) {
  return new (__VeskMalloc(categoryOf(queue->flags), sizeof(QueueNode), 0)) QueueNode{value, nullptr};
}

[[gnu::always_inline]] inline QueueNode* takeResident(Queue* queue, std::uint64_t value) {
  QueueNode* const resident = residentOf(queue);
  resident->value = value;
  storeRelaxed(resident->next, nullptr);
  return resident;
}

// The caller holds the tail lock. In an empty queue the node goes behind the dummy, whose link belongs to
// consumers: their lock is needed too, and comes before ours, so that it must not be waited for. Returns
// false if it is busy.
[[gnu::always_inline]] inline bool tryToAppend(Queue* queue, QueueNode* node) {
  if (loadRelaxed(queue->tail) == &queue->dummy) {
    return tryBriefly(queue->headLock, [=] { append(queue, node); });
  }
  append(queue, node);
  return true;
}

struct Attempt {
  QueueNode* node; // null if there was none to append
  bool appended;
};

// Without an allocated node it takes the resident one, if another producer has not been faster.
constexpr auto enqueueAtTail = [](Queue* queue, QueueNode* allocated, std::uint64_t value) {
  QueueNode* node = allocated;
  if (node == nullptr && isFree(residentOf(queue))) node = takeResident(queue, value);
  return Attempt{node, node != nullptr && tryToAppend(queue, node)};
};

// The consumers' lock was busy while the queue was empty.
[[gnu::noinline]] void appendInOrder(Queue* queue, QueueNode* node) {
  ScopedSpinLock head(queue->headLock);
  ScopedSpinLock tail(queue->tailLock);
  append(queue, node);
}

// The locks of a queue that one thread uses at a time: none.
struct Unlocked {
  template <class Section, class... Arguments>
  [[gnu::always_inline]] static auto briefly(VeskSpinLock&, Section section, Arguments... arguments) {
    return section(arguments...);
  }
  struct Scope {
    explicit Scope(VeskSpinLock&) {}
  };
};

struct Locked {
  template <class Section, class... Arguments>
  [[gnu::always_inline]] static auto briefly(VeskSpinLock& lock, Section section, Arguments... arguments) {
    return vesk::briefly(lock, section, arguments...);
  }
  using Scope = ScopedSpinLock;
};

// Gives back what `unlink` took out.
[[gnu::always_inline]] inline void dispose(Queue* queue, QueueNode* node) {
  if (node == residentOf(queue)) {
    storeRelease(node->next, node);
  } else {
    __VeskFree(node);
  }
}

// A producer may have linked a successor until the caller got the tail lock.
constexpr auto unlinkLast = [](Queue* queue, QueueNode* previous, QueueNode* node) {
  QueueNode* const next = loadAcquire(node->next);
  if (next == nullptr) storeRelaxed(queue->tail, previous);
  storeRelaxed(previous->next, next);
  return next;
};

// Takes `node`, which follows `previous`, out of the list. The caller holds the head lock.
//
// Whether the tail lock is needed is asked of the node's link, not of the tail: a node without a successor
// may be one that a producer has linked and is about to make the tail. Unlinked by then without the
// producer's lock, it would become the tail all the same, and what is queued behind it would be lost. Once a
// successor is linked, no producer comes back to the node.
template <class Locks>
[[gnu::always_inline]] inline void unlink(Queue* queue, QueueNode* previous, QueueNode* node) {
  if (QueueNode* const next = loadAcquire(node->next); next != nullptr) {
    storeRelaxed(previous->next, next);
  } else {
    Locks::briefly(queue->tailLock, unlinkLast, queue, previous, node);
  }
}

template <class Locks>
constexpr auto unlinkFirst = [](Queue* queue) {
  QueueNode* const first = loadAcquire(queue->dummy.next);
  if (first != nullptr) unlink<Locks>(queue, &queue->dummy, first);
  return first;
};

template <class Locks>
[[gnu::always_inline]] inline std::uint64_t dequeue(Queue* queue) {
  QueueNode* const first = Locks::briefly(queue->headLock, unlinkFirst<Locks>, queue);
  if (first == nullptr) return 0;
  const std::uint64_t value = first->value;
  dispose(queue, first);
  return value;
}

// The predicate is not ours: it runs under a lock that knows its holder.
template <class Locks>
std::uint64_t peek(Queue* queue, VeskQueuePredicate predicate, std::uint32_t argument1,
                   std::uint64_t argument2, bool remove) {
  QueueNode* node;
  std::uint64_t value;
  {
    typename Locks::Scope head(queue->headLock);
    QueueNode* previous = &queue->dummy;
    for (;;) {
      node = loadAcquire(previous->next);
      if (node == nullptr) return 0;
      value = node->value;
      if (predicate == nullptr || predicate(argument1, argument2, value) == 1) break;
      previous = node;
    }
    if (!remove) return value;
    unlink<Locks>(queue, previous, node);
  }
  dispose(queue, node);
  return value;
}

} // namespace
} // namespace vesk

using namespace vesk;

Queue* __VeskCreateQueue(uint32_t flags, uint32_t category) {
  void* const memory = __VeskMalloc(category, sizeof(Record), 0);
  auto* const record = new (memory) Record{};
  Queue* const queue = &record->queue;
  queue->head = &queue->dummy;
  queue->tail = &queue->dummy;
  queue->flags = (flags & ~kCategoryMask) | (category << kCategoryShift & kCategoryMask);
  record->resident.next = &record->resident;
  return queue;
}

void __VeskEnqueue(Queue* queue, uint64_t value) {
  QueueNode* const allocated = isFree(residentOf(queue)) ? nullptr : allocateNode(queue, value);
  if (!isThreadSafe(queue))
    return append(queue, allocated != nullptr ? allocated : takeResident(queue, value));
  const Attempt attempt = briefly(queue->tailLock, enqueueAtTail, queue, allocated, value);
  if (attempt.appended) [[likely]]
    return;
  if (attempt.node == nullptr) return __VeskEnqueue(queue, value);
  appendInOrder(queue, attempt.node);
}

uint64_t __VeskDequeue(Queue* queue) {
  return isThreadSafe(queue) ? dequeue<Locked>(queue) : dequeue<Unlocked>(queue);
}

uint64_t __VeskPeekQueue(Queue* queue, VeskQueuePredicate predicate, uint32_t argument1, uint64_t argument2,
                         uint32_t remove) {
  return isThreadSafe(queue) ? peek<Locked>(queue, predicate, argument1, argument2, remove != 0)
                             : peek<Unlocked>(queue, predicate, argument1, argument2, remove != 0);
}

int __VeskIsQueueEmpty(const Queue* queue) { return loadRelaxed(queue->dummy.next) == nullptr; }

void __VeskDestroyQueue(Queue* queue) {
  while (QueueNode* const first = queue->dummy.next) {
    queue->dummy.next = first->next;
    dispose(queue, first);
  }
  queue->tail = &queue->dummy;
}

void __VeskSetQueueFlag(Queue* queue, uint32_t value) { storeRelaxed(queue->queueFlag, value); }
