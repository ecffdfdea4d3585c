/* The smallest collector: counts the blocks that a program takes from its heap, and says so when it ends.
 * Try: veskrun -collector ./libminimal_collector.so -- ls; cat minimal.log */
#include "veskrt/atomic.h"
#include "veskrt/host.h"
#include "veskrt/log.h"

static uint32_t blocks;

static void allocated(void* block, size_t bytes, VeskHeapFunction function, const void* caller) {
  __VeskInterlockedIncrement(&blocks);
}

static void ended(VeskProcessEnd how, int status) {
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "%u blocks, status %d", blocks, status);
  __VeskCloseLogger();
}

VESK_API int veskCollectorStart(uint32_t argc, const char* const* argv, VeskHostEvents* events) {
  events->allocated = allocated;
  events->processEnding = ended;
  return __VeskCreateLogger("minimal", "minimal.log", 0) == 1 ? 0 : 2;
}
