/* A first collector: counts the blocks that a program takes from its heap, and says so when it ends.
 * Try: veskrun -collector build/release/libfirst_collector.so -- ls */
#include "host/veskhost.h"
#include "veskrt/atomic.h"
#include "veskrt/log.h"

static uint32_t blocks;

static void allocated(void* block, size_t bytes, VeskHeapFunction function, const void* caller) {
  (void)block, (void)bytes, (void)function, (void)caller;
  __VeskInterlockedIncrement(&blocks);
}

static void ended(VeskProcessEnd how, int status) {
  (void)how;
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "%u blocks, status %d", blocks, status);
  __VeskCloseLogger();
}

VESK_API int veskCollectorStart(uint32_t argc, const char* const* argv, VeskHostEvents* events) {
  (void)argc, (void)argv;
  events->allocated = allocated;
  events->processEnding = ended;
  return __VeskCreateLogger("first", "first.log", 0) == 1 ? 0 : 2;
}
