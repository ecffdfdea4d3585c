#include "support/test_host.h"

#include <cstdlib>
#include <mutex>

#include <unistd.h>

#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace test {

namespace {

// In front of every block. The chain keeps what the library never gives back in sight of a leak checker.
struct alignas(16) Header {
  std::uint64_t bytes;
  Header* next;
  Header* previous;
};

std::mutex chainMutex;
Header chain = {0, &chain, &chain};

} // namespace

Host& host() {
  static auto* instance = new Host; // lives to the end: the library never lets go of its memory
  return *instance;
}

void* hostAllocate(std::uint64_t bytes) {
  Host& h = host();
  h.lastRequest = bytes;
  if (h.allow && !h.allow(bytes)) return nullptr;
  // Large blocks are zeros, as fresh pages of a host are: the allocator looks at its table before it writes there, which
  // memcheck would take for a fault.
  auto* block = static_cast<Header*>(bytes < (1 << 20) ? std::malloc(bytes + sizeof(Header))
                                                       : std::calloc(1, bytes + sizeof(Header)));
  if (block == nullptr) return nullptr;
  {
    const std::lock_guard scope(chainMutex);
    *block = {bytes, chain.next, &chain};
    block->next->previous = chain.next = block;
  }
  ++h.allocations;
  ++h.liveBlocks;
  h.liveBytes += static_cast<std::int64_t>(bytes);
  return block + 1;
}

void hostFree(void* pointer) {
  Host& h = host();
  auto* block = static_cast<Header*>(pointer) - 1;
  const std::uint64_t bytes = block->bytes;
  {
    const std::lock_guard scope(chainMutex);
    block->next->previous = block->previous;
    block->previous->next = block->next;
  }
  --h.liveBlocks;
  h.liveBytes -= static_cast<std::int64_t>(bytes);
  std::free(block);
  if (h.released) h.released(bytes);
}

std::uint32_t threadId() {
  static std::atomic<std::uint32_t> next{1};
  thread_local const std::uint32_t id = next++;
  return id;
}

void installHost() {
  __VeskSetGetNativeThreadIdProc(threadId);
  __VeskSetGetPidProc([] { return static_cast<std::int32_t>(getpid()); });
  __VeskInitializeSubAllocator(hostAllocate, hostFree);
}

void startRuntime() {
  installHost();
  __VeskRtStartup();
}

std::int64_t bytesOfSlabs(std::uint32_t category) {
  VeskMemoryCategoryInfo info = {};
  __VeskGetMemoryInfoByCategory(category, &info);
  return info.allocated;
}

} // namespace test
