// None of a container's chunks may be left when it is gone.
#pragma once

#include <cstring>

#include "veskrt/memory.h"

namespace test {

// Chunks in use of a size, in a category that has no others and was counted from its first; -1 when in more
// than one slab.
inline int64_t liveChunks(uint32_t category, uint32_t size) {
  void* const probe = __VeskMalloc(category, size, 0);
  const char* slab; // the word in front of a chunk in use
  std::memcpy(&slab, static_cast<const char*>(probe) - 8, sizeof slab);
  uint32_t counts[3]; // in a slab's header: free chunks, size class, chunks in all
  std::memcpy(counts, slab + 24, sizeof counts);
  __VeskFree(probe);
  VeskMemoryCategoryInfo info = {};
  __VeskGetMemoryInfoByCategory(category, &info);
  return info.allocated == 65536 ? int64_t{counts[2]} - counts[0] - 1 : -1;
}

} // namespace test
