// The heap functions in front of the program's own. By the mark of the calling thread a call
//
//   kProgram     goes to the program's function, and raises an event,
//   kCollector   gets memory from the inner heap: the program's heap and its locks stay untouched,
//   kAllocator   goes on to the program's function: another one of them has called.
//
// A block goes back to where it came from, whoever gives it back.
#include <bit>
#include <cerrno>
#include <cstring>

#include "host/inner_heap.h"
#include "host/modules.h"
#include "host/next.h"

using namespace veskhost;

namespace {

[[gnu::noinline]] void tellAllocated(void* block, std::size_t bytes, VeskHeapFunction function,
                                     const void* caller) {
  const bool loader = calledByLoader(caller);
  if (!hears(&VeskHostEvents::allocated) && !loader) return;
  Event event;
  if (loader) [[unlikely]]
    lookForModules(event);
  if (event->allocated != nullptr) event->allocated(block, bytes, function, caller);
}

[[gnu::noinline]] void tellReleasing(void* block, const void* caller) {
  const bool loader = calledByLoader(caller);
  if (!hears(&VeskHostEvents::releasing) && !loader) return;
  Event event;
  if (loader) [[unlikely]]
    lookForModules(event);
  if (event->releasing != nullptr) event->releasing(block, caller);
}

class ScopedAllocatorMark {
public:
  ScopedAllocatorMark() noexcept { self.mark = Mark::kAllocator; }
  ~ScopedAllocatorMark() { self.mark = Mark::kProgram; }
  ScopedAllocatorMark(const ScopedAllocatorMark&) = delete;
  ScopedAllocatorMark& operator=(const ScopedAllocatorMark&) = delete;
};

// `call` is the program's function. Memory of the inner heap may be stale; a calloc clears it.
template <class Call>
[[gnu::always_inline]] inline void* allocate(std::size_t bytes, std::size_t alignment,
                                             VeskHeapFunction function, const void* caller, Call call) {
  if (self.mark != Mark::kProgram) [[unlikely]] {
    void* block = self.mark == Mark::kCollector ? inner::allocate(bytes, alignment) : nullptr;
    if (block == nullptr) return call();
    return function == VESK_HEAP_CALLOC ? std::memset(block, 0, bytes) : block;
  }
  void* block;
  {
    ScopedAllocatorMark mark;
    block = call();
  }
  if (block != nullptr) tellAllocated(block, bytes, function, caller);
  return block;
}

constexpr std::size_t kUnit = alignof(std::max_align_t);
constexpr std::size_t kPage = 4096;

// A block of the inner heap moves to where its new owner's blocks come from.
[[gnu::noinline]] void* reallocateInner(void* old, std::size_t bytes, VeskHeapFunction function,
                                        const void* caller) {
  if (bytes == 0) {
    inner::release(old);
    return nullptr;
  }
  const std::size_t held = inner::usableSize(old);
  if (bytes <= held && self.mark == Mark::kCollector) return old;
  void* block = allocate(bytes, kUnit, function, caller, [bytes] { return nextFunctions.malloc(bytes); });
  if (block == nullptr) return nullptr;
  std::memcpy(block, old, bytes < held ? bytes : held);
  inner::release(old);
  return block;
}

// Whether a null result means that the block is gone: so it is in the C library for 0 bytes, but not in every
// allocator, and not when memory is short.
[[gnu::noinline]] void* reallocateBlock(void* old, std::size_t bytes, VeskHeapFunction function,
                                        const void* caller) {
  std::uint64_t token = 0;
  const bool loader = calledByLoader(caller);
  if (hears(&VeskHostEvents::reallocating) || loader) {
    Event event;
    if (loader) [[unlikely]]
      lookForModules(event);
    if (event->reallocating != nullptr) token = event->reallocating(old, caller);
  }
  const int errnoBefore = errno;
  errno = 0;
  void* block;
  {
    ScopedAllocatorMark mark;
    block = nextFunctions.realloc(old, bytes);
  }
  const int released = block == nullptr && bytes == 0 && errno == 0;
  if (errno == 0) errno = errnoBefore;
  if (hears(&VeskHostEvents::reallocated)) {
    Event event;
    if (event->reallocated != nullptr) {
      event->reallocated(token, old, block, bytes, released, function, caller);
    }
  }
  return block;
}

[[gnu::always_inline]] inline void* reallocate(void* old, std::size_t bytes, VeskHeapFunction function,
                                               const void* caller) {
  if (inner::owns(old)) [[unlikely]]
    return reallocateInner(old, bytes, function, caller);
  if (old == nullptr) {
    return allocate(bytes, kUnit, function, caller,
                    [bytes] { return nextFunctions.realloc(nullptr, bytes); });
  }
  return self.mark == Mark::kProgram ? reallocateBlock(old, bytes, function, caller)
                                     : nextFunctions.realloc(old, bytes);
}

[[gnu::noinline]] void* watchedMalloc(std::size_t bytes, const void* caller) {
  return allocate(bytes, kUnit, VESK_HEAP_MALLOC, caller, [bytes] { return nextFunctions.malloc(bytes); });
}

[[gnu::noinline]] void* watchedCalloc(std::size_t count, std::size_t size, const void* caller) {
  std::size_t bytes;
  if (__builtin_mul_overflow(count, size, &bytes)) return nextFunctions.calloc(count, size); // refuses
  return allocate(bytes, kUnit, VESK_HEAP_CALLOC, caller, [=] { return nextFunctions.calloc(count, size); });
}

[[gnu::noinline]] void watchedFree(void* block, const void* caller) {
  if (block == nullptr || self.mark != Mark::kProgram) return nextFunctions.free(block);
  tellReleasing(block, caller);
  ScopedAllocatorMark mark;
  nextFunctions.free(block);
}

} // namespace

extern "C" {

VESK_API void* malloc(size_t bytes) noexcept {
  if (!watching()) return nextFunctions.malloc(bytes);
  return watchedMalloc(bytes, __builtin_return_address(0));
}

VESK_API void* calloc(size_t count, size_t size) noexcept {
  if (!watching()) return nextFunctions.calloc(count, size);
  return watchedCalloc(count, size, __builtin_return_address(0));
}

VESK_API void free(void* block) noexcept {
  if (inner::owns(block)) [[unlikely]]
    return inner::release(block);
  if (!watching()) return nextFunctions.free(block);
  watchedFree(block, __builtin_return_address(0));
}

VESK_API void* realloc(void* old, size_t bytes) noexcept {
  if (!watching() && !inner::owns(old)) return nextFunctions.realloc(old, bytes);
  return reallocate(old, bytes, VESK_HEAP_REALLOC, __builtin_return_address(0));
}

// Not the program's own function: that calls realloc, which would be heard a second time.
VESK_API void* reallocarray(void* old, size_t count, size_t size) noexcept {
  size_t bytes;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    errno = ENOMEM;
    return nullptr;
  }
  if (!watching() && !inner::owns(old)) return nextFunctions.realloc(old, bytes);
  return reallocate(old, bytes, VESK_HEAP_REALLOCARRAY, __builtin_return_address(0));
}

VESK_API int posix_memalign(void** place, size_t alignment, size_t bytes) noexcept {
  // An alignment that is refused is the program's function's to refuse.
  const bool valid = std::has_single_bit(alignment) && alignment % sizeof(void*) == 0;
  if (!watching() || !valid) return nextFunctions.posixMemalign(place, alignment, bytes);
  int error = 0;
  void* block = allocate(bytes, alignment, VESK_HEAP_POSIX_MEMALIGN, __builtin_return_address(0), [&] {
    void* made = nullptr;
    error = nextFunctions.posixMemalign(&made, alignment, bytes);
    return error == 0 ? made : nullptr;
  });
  if (error == 0) *place = block;
  return error;
}

VESK_API void* aligned_alloc(size_t alignment, size_t bytes) noexcept {
  if (!watching()) return nextFunctions.alignedAlloc(alignment, bytes);
  return allocate(bytes, std::bit_ceil(alignment), VESK_HEAP_ALIGNED_ALLOC, __builtin_return_address(0),
                  [=] { return nextFunctions.alignedAlloc(alignment, bytes); });
}

VESK_API void* memalign(size_t alignment, size_t bytes) noexcept {
  if (!watching()) return nextFunctions.memalign(alignment, bytes);
  return allocate(bytes, std::bit_ceil(alignment), VESK_HEAP_MEMALIGN, __builtin_return_address(0),
                  [=] { return nextFunctions.memalign(alignment, bytes); });
}

VESK_API void* valloc(size_t bytes) noexcept {
  if (!watching()) return nextFunctions.valloc(bytes);
  return allocate(bytes, kPage, VESK_HEAP_VALLOC, __builtin_return_address(0),
                  [bytes] { return nextFunctions.valloc(bytes); });
}

VESK_API void* pvalloc(size_t bytes) noexcept {
  if (!watching()) return nextFunctions.pvalloc(bytes);
  return allocate(bytes, kPage, VESK_HEAP_PVALLOC, __builtin_return_address(0),
                  [bytes] { return nextFunctions.pvalloc(bytes); });
}

VESK_API size_t malloc_usable_size(void* block) noexcept {
  return inner::owns(block) ? inner::usableSize(block) : nextFunctions.usableSize(block);
}

} // extern "C"
