// Back-traces, cut to begin where the caller is interested.
#include "veskrt/backtrace.h"

#include <algorithm>

#include <execinfo.h>

uint16_t __VeskCaptureStackBackTrace(uint64_t, uint64_t, uint64_t, uint64_t startAddress, uint64_t,
                                     void** frames) {
  const int captured = backtrace(frames, VESK_MAX_BACKTRACE_FRAMES);
  void** const end = frames + captured;
  void** const start = std::find(frames, end, reinterpret_cast<void*>(startAddress));
  if (start != frames) std::copy(start, end, frames);
  return static_cast<uint16_t>(end - start);
}

char** __VeskGetStackBackTraceSymbols(void* const* frames, int count) {
  return backtrace_symbols(frames, count);
}

uint64_t __VeskGetImageOffsetFromPreferredAddress() { return 0; }
