#include "collectors/heap/backtrace.h"

#define UNW_LOCAL_ONLY
#include <libunwind.h>

namespace heap {

void startBacktraces() {
  // With caches of their own threads take no lock inside the unwinder: one that waits there for the loader, while the thread
  // that holds the loader allocates, would wait for ever.
  unw_set_caching_policy(unw_local_addr_space, UNW_CACHE_PER_THREAD);
}

void captureBacktrace(Trace& trace, const void* caller, std::uint32_t depth) {
  const int limit = static_cast<int>(depth + Trace::kOwnFrames + 1);
  const int count = unw_backtrace(trace.buffer, limit);
  for (int first = 0; first < count && first <= static_cast<int>(Trace::kOwnFrames); ++first) {
    if (trace.buffer[first] != caller) continue;
    const auto found = static_cast<std::uint32_t>(count - first);
    trace.frames = trace.buffer + first;
    trace.cut = found > depth;
    trace.depth = trace.cut ? depth : found;
    return;
  }
  trace.buffer[0] = const_cast<void*>(caller);
  trace.frames = trace.buffer;
  trace.depth = 1;
  trace.cut = true;
}

void forgetCode(std::uint64_t start, std::uint64_t end) { unw_flush_cache(unw_local_addr_space, start, end); }

} // namespace heap
