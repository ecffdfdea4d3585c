// Threads that the program starts go through a function of the host, which tells their start and passes on to
// the program's in a tail call: no frame of the host stays on the thread's stack. Their end is told by the
// destructor of the host's key.
#include <cerrno>

#include "host/inner_heap.h"
#include "host/modules.h"
#include "host/next.h"

using namespace veskhost;

namespace {

template <class Function>
struct Start {
  Function* function;
  void* argument;
  std::uint32_t parentId;
};

void tellStart(std::uint32_t parentId) noexcept {
  self.parentId = parentId;
  self.tellEnd = true;
  watchThreadEnd();
  if (!hears(&VeskHostEvents::threadStarted)) return;
  Event event;
  lookForModules(event);
  if (event->threadStarted != nullptr) event->threadStarted(threadId());
}

void tellEnd() noexcept {
  if (!hears(&VeskHostEvents::threadEnded)) return;
  Event event;
  if (event->threadEnded != nullptr) event->threadEnded(threadId());
}

template <class Function>
Function* takeStart(void* record, void*& argument) noexcept {
  const auto start = *static_cast<Start<Function>*>(record);
  inner::release(record);
  argument = start.argument;
  tellStart(start.parentId);
  return start.function;
}

void* startPosix(void* record) {
  auto* function = takeStart<void*(void*)>(record, record);
  return function(record);
}

int startStandard(void* record) {
  auto* function = takeStart<int(void*)>(record, record);
  return function(record);
}

// The record for a new thread; null when the thread is not the program's, or there is no room: then it goes
// untold.
template <class Function>
Start<Function>* makeStart(Function* function, void* argument) noexcept {
  if (!watching() || self.mark == Mark::kCollector) return nullptr;
  threadEndHook = tellEnd;
  auto* start = static_cast<Start<Function>*>(inner::allocate(sizeof(Start<Function>)));
  if (start != nullptr) *start = {function, argument, threadId()};
  return start;
}

} // namespace

extern "C" {

VESK_API int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                            void* argument) noexcept {
  auto* create = next().pthreadCreate;
  auto* start = makeStart(function, argument);
  if (start == nullptr) return create(thread, attributes, function, argument);
  const int error = create(thread, attributes, startPosix, start);
  if (error != 0) inner::release(start);
  return error;
}

VESK_API int thrd_create(thrd_t* thread, thrd_start_t function, void* argument) {
  auto* create = next().thrdCreate;
  auto* start = makeStart(function, argument);
  if (start == nullptr) return create(thread, function, argument);
  const int result = create(thread, startStandard, start);
  if (result != thrd_success) inner::release(start);
  return result;
}

VESK_API int pthread_cancel(pthread_t thread) {
  allowCancellation();
  return next().pthreadCancel(thread);
}

VESK_API int dlclose(void* handle) noexcept {
  lookForModules();
  const int result = next().dlclose(handle);
  lookForModules();
  return result;
}

} // extern "C"
