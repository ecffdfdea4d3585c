// Looking the program's functions up may allocate; the calls that come in meanwhile get their memory from the
// inner heap.
#include "host/next.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "host/inner_heap.h"

// As the C library exports them beside the usual names.
extern "C" int __close(int descriptor);
extern "C" int __dup2(int from, int to) noexcept;

namespace veskhost {

namespace {

void* firstMalloc(std::size_t bytes) {
  return findNext() ? nextFunctions.malloc(bytes) : inner::allocate(bytes);
}

void* firstCalloc(std::size_t count, std::size_t size) {
  if (findNext()) return nextFunctions.calloc(count, size);
  std::size_t bytes;
  void* block = __builtin_mul_overflow(count, size, &bytes) ? nullptr : inner::allocate(bytes);
  return block != nullptr ? std::memset(block, 0, bytes) : nullptr;
}

// Blocks of the inner heap do not come here, and while the functions are being looked up there are no others.
void* firstRealloc(void* block, std::size_t bytes) {
  return findNext() ? nextFunctions.realloc(block, bytes) : inner::allocate(bytes);
}
void firstFree(void* block) {
  if (findNext()) nextFunctions.free(block);
}
std::size_t firstUsableSize(void* block) { return findNext() ? nextFunctions.usableSize(block) : 0; }

int firstPosixMemalign(void** block, std::size_t alignment, std::size_t bytes) {
  return findNext() ? nextFunctions.posixMemalign(block, alignment, bytes) : ENOMEM;
}
void* firstAlignedAlloc(std::size_t alignment, std::size_t bytes) {
  return findNext() ? nextFunctions.alignedAlloc(alignment, bytes) : inner::allocate(bytes, alignment);
}
void* firstMemalign(std::size_t alignment, std::size_t bytes) {
  return findNext() ? nextFunctions.memalign(alignment, bytes) : inner::allocate(bytes, alignment);
}
void* firstValloc(std::size_t bytes) {
  return findNext() ? nextFunctions.valloc(bytes) : inner::allocate(bytes, 4096);
}
void* firstPvalloc(std::size_t bytes) {
  return findNext() ? nextFunctions.pvalloc(bytes) : inner::allocate(bytes, 4096);
}

int firstCloseRange(unsigned first, unsigned last, int flags) {
  return static_cast<int>(syscall(SYS_close_range, first, last, flags));
}
int firstDup3(int from, int to, int flags) { return static_cast<int>(syscall(SYS_dup3, from, to, flags)); }

template <class Function>
void find(Function*& function, const char* name) noexcept {
  function = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

enum class Search : std::uint32_t { kNotYet, kGoingOn, kDone };
constinit std::atomic<Search> search{Search::kNotYet};

} // namespace

constinit Next nextFunctions = {.malloc = firstMalloc,
                                .calloc = firstCalloc,
                                .realloc = firstRealloc,
                                .free = firstFree,
                                .posixMemalign = firstPosixMemalign,
                                .alignedAlloc = firstAlignedAlloc,
                                .memalign = firstMemalign,
                                .valloc = firstValloc,
                                .pvalloc = firstPvalloc,
                                .usableSize = firstUsableSize,
                                .close = __close,
                                .closeRange = firstCloseRange,
                                .dup2 = __dup2,
                                .dup3 = firstDup3};

bool findNext() noexcept {
  Search seen = Search::kNotYet;
  if (!search.compare_exchange_strong(seen, Search::kGoingOn)) return seen == Search::kDone;
  Next found = {};
  find(found.malloc, "malloc");
  find(found.calloc, "calloc");
  find(found.realloc, "realloc");
  find(found.free, "free");
  find(found.posixMemalign, "posix_memalign");
  find(found.alignedAlloc, "aligned_alloc");
  find(found.memalign, "memalign");
  find(found.valloc, "valloc");
  find(found.pvalloc, "pvalloc");
  find(found.usableSize, "malloc_usable_size");
  find(found.close, "close");
  find(found.closeRange, "close_range");
  if (found.closeRange == nullptr) found.closeRange = firstCloseRange;
  find(found.dup2, "dup2");
  find(found.dup3, "dup3");
  find(found.pthreadCreate, "pthread_create");
  find(found.pthreadCancel, "pthread_cancel");
  find(found.thrdCreate, "thrd_create");
  find(found.dlclose, "dlclose");
  find(found.fork, "_Fork");
  find(found.exit, "_exit");
  find(found.quickExit, "quick_exit");
  find(found.execve, "execve");
  find(found.execvpe, "execvpe");
  find(found.execveat, "execveat");
  find(found.fexecve, "fexecve");
  find(found.posixSpawn, "posix_spawn");
  find(found.posixSpawnp, "posix_spawnp");
  nextFunctions = found;
  search.store(Search::kDone, std::memory_order_release);
  return true;
}

} // namespace veskhost
