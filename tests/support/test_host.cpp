#include "support/test_host.h"

#include <cstdlib>
#include <unistd.h>

#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace test {

namespace {

constexpr std::size_t kHeader = 16;

} // namespace

Host& host() {
  static auto* instance = new Host; // lives to the end: the library never lets go of its memory
  return *instance;
}

void* hostAllocate(std::uint64_t bytes) {
  Host& h = host();
  h.lastRequest = bytes;
  if (h.allow && !h.allow(bytes)) return nullptr;
  auto* block = static_cast<std::uint64_t*>(std::aligned_alloc(16, (bytes + kHeader + 15) / 16 * 16));
  if (block == nullptr) return nullptr;
  block[0] = bytes;
  ++h.allocations;
  ++h.liveBlocks;
  h.liveBytes += static_cast<std::int64_t>(bytes);
  return block + 2;
}

void hostFree(void* pointer) {
  Host& h = host();
  auto* block = static_cast<std::uint64_t*>(pointer) - 2;
  const std::uint64_t bytes = block[0];
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

} // namespace test
