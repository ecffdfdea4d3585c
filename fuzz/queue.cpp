// Queues of either mode, on one thread, against std::deque.
#include <algorithm>
#include <deque>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/memory.h"
#include "veskrt/queue.h"

namespace {

using fuzz::require;

// Only a result of exactly 1 selects.
int32_t residueIs(uint32_t modulus, uint64_t residue, uint64_t value) {
  if (value % modulus != residue) return value % 2 == 0 ? 0 : 2;
  return value == 13 ? -1 : 1;
}

void compare(const Queue& queue, const std::deque<std::uint64_t>& model) {
  require(__VeskIsQueueEmpty(&queue) == model.empty());
  const QueueNode* node = &queue.dummy;
  for (const std::uint64_t value : model) {
    node = node->next;
    require(node != nullptr && node->value == value);
  }
  require(node->next == nullptr && queue.tail == node && queue.head == &queue.dummy);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::startRuntime();
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  Queue* const queue = __VeskCreateQueue(input.takeBool() ? VESK_QUEUE_THREAD_SAFE : 0, 5);
  std::deque<std::uint64_t> model;
  std::uint32_t flag = 0;
  while (input.left() > 0) {
    switch (input.takeInRange(0, 6)) {
    case 0:
    case 1:
    case 2: {
      const std::uint64_t value = input.takeInRange(0, 40);
      __VeskEnqueue(queue, value);
      model.push_back(value);
      break;
    }
    case 3: {
      const std::uint64_t first = model.empty() ? 0 : model.front();
      require(__VeskDequeue(queue) == first);
      if (!model.empty()) model.pop_front();
      break;
    }
    case 4:
    case 5: {
      const bool remove = input.takeBool();
      const bool any = input.takeBool();
      const auto modulus = input.takeInRange(1u, 8u);
      const auto residue = input.takeInRange<std::uint64_t>(0, 8);
      const auto found = std::find_if(model.begin(), model.end(), [&](std::uint64_t value) {
        return any || residueIs(modulus, residue, value) == 1;
      });
      require(__VeskPeekQueue(queue, any ? nullptr : residueIs, modulus, residue, remove ? 4 : 0) ==
              (found != model.end() ? *found : 0));
      if (remove && found != model.end()) model.erase(found);
      break;
    }
    default:
      if (input.takeBool()) {
        __VeskDestroyQueue(queue);
        model.clear();
      }
      __VeskSetQueueFlag(queue, flag = input.take<std::uint8_t>());
      break;
    }
    compare(*queue, model);
    require(queue->queueFlag == flag);
    require(__VeskIsSpinLockInAcquiredState(&queue->headLock) == 0);
    require(__VeskIsSpinLockInAcquiredState(&queue->tailLock) == 0);
  }
  __VeskDestroyQueue(queue);
  __VeskFree(queue);
  require(fuzz::liveBlocks() == before);
  return 0;
}
