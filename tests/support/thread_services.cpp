#include "support/thread_services.h"

#include <atomic>
#include <vector>

#include <ctime>
#include <pthread.h>
#include <unistd.h>

#include "veskrt/runtime.h"

namespace test {

namespace {

std::atomic<int> created{0};
std::atomic<int> ended{0};
bool delayed = false;

struct ExitCallback {
  VeskExitCallback callback;
  void* argument;
};
std::vector<ExitCallback> exitCallbacks;

struct Start {
  VeskThreadFunction function;
  void* argument;
};

void* runThread(void* argument) {
  const Start start = *static_cast<Start*>(argument);
  delete static_cast<Start*>(argument);
  start.function(start.argument);
  return nullptr;
}

int createThread(VeskThreadFunction function, void* argument, size_t, void** handle) {
  pthread_t thread;
  if (pthread_create(&thread, nullptr, runThread, new Start{function, argument}) != 0) return 0;
  ++created;
  if (delayed) usleep(20000);
  *handle = reinterpret_cast<void*>(thread);
  return 1;
}

void endThread(uint32_t exitCode) {
  ++ended;
  pthread_exit(reinterpret_cast<void*>(static_cast<uintptr_t>(exitCode)));
}

int waitForThread(void** handle, uint32_t milliseconds, uint32_t*) {
  timespec end;
  clock_gettime(CLOCK_REALTIME, &end);
  end.tv_sec += milliseconds / 1000;
  return pthread_timedjoin_np(reinterpret_cast<pthread_t>(*handle), nullptr, &end) == 0;
}

int addExitCallback(VeskExitCallback callback, void* argument) {
  exitCallbacks.push_back({callback, argument});
  return 1;
}

} // namespace

void installThreadServices(bool startDelayed) {
  delayed = startDelayed;
  __VeskSetThreadProcs(createThread, endThread, waitForThread, addExitCallback);
}

void runExitCallbacks() {
  for (const ExitCallback& each : exitCallbacks) each.callback(each.argument);
}

int threadsCreated() { return created; }
int threadsEnded() { return ended; }

} // namespace test
