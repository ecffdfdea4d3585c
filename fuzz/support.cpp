// The memory manager's stand-in, and the host.
#include "fuzz/support.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "memory/chunks.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"

namespace {

std::int64_t blocks = 0;

fuzz::MemoryFile& logFile() {
  static fuzz::MemoryFile file;
  return file;
}

} // namespace

void* __VeskMalloc(uint32_t, uint32_t size, uint32_t) {
  void* const block = std::malloc(size);
  fuzz::require(block != nullptr);
  ++blocks;
  return block;
}

void __VeskFree(void* block) {
  if (block != nullptr) --blocks;
  std::free(block);
}

void vesk::memory::allocateChunks(std::uint32_t category, std::uint32_t size, void** chunks,
                                  std::size_t count) noexcept {
  for (std::size_t i = 0; i < count; ++i) chunks[i] = __VeskMalloc(category, size, 0);
}

void vesk::memory::freeChunks(void* chain) noexcept {
  while (chain != nullptr) {
    void* next;
    std::memcpy(&next, chain, sizeof next);
    __VeskFree(std::exchange(chain, next));
  }
}

namespace fuzz {

void refute(const char* file, int line) {
  std::fprintf(stderr, "ERROR: refuted: %s:%d\n", file, line);
  std::abort();
}

std::int64_t liveBlocks() { return blocks; }

void startRuntime() {
  static const bool started = [] {
    __VeskSetGetNativeThreadIdProc([] { return 1u; });
    __VeskSetGetPidProc([] { return static_cast<std::int32_t>(getpid()); });
    __VeskRtStartup();
    return __VeskCreateLogger("fuzz", logFile().path(), 0) == 1;
  }();
  require(started);
}

std::string takeLog() { return logFile().take(); }

MemoryFile::MemoryFile() : descriptor_(memfd_create("fuzz", MFD_CLOEXEC)), path_{} {
  require(descriptor_ != -1);
  std::snprintf(path_, sizeof path_, "/proc/self/fd/%d", descriptor_);
}

void MemoryFile::write(const std::string& content) {
  require(ftruncate(descriptor_, 0) == 0);
  require(pwrite(descriptor_, content.data(), content.size(), 0) == static_cast<ssize_t>(content.size()));
}

std::string MemoryFile::take() {
  struct stat status;
  require(fstat(descriptor_, &status) == 0);
  if (status.st_size <= taken_) return {};
  std::string content(static_cast<std::size_t>(status.st_size - taken_), '\0');
  require(pread(descriptor_, content.data(), content.size(), taken_) == static_cast<ssize_t>(content.size()));
  taken_ = status.st_size;
  // Whoever writes goes on behind the hole that this leaves.
  require(ftruncate(descriptor_, 0) == 0);
  return content;
}

} // namespace fuzz
