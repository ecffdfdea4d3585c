/* The reference host engine: what the library asks of a host, over plain Linux, and the events it gives a
 * collector.
 *
 * It comes as a static library with one call, veskHostInstall(), for tests, benchmarks and examples; and as
 * libveskhost.so, preloaded by veskrun into a program, where it also watches the program and tells a
 * collector what happens in it. What the C library allocates for the collector then comes from a heap of the
 * host's, not from the program's.
 *
 * A collector for libveskhost.so is a shared object that exports veskCollectorStart(). */
#ifndef VESKRT_HOST_H
#define VESKRT_HOST_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* Installs memory, thread ids, TLS slots, pid, thread services and exit handler in the library and starts it.
 * Only the first call has an effect. */
VESK_API void veskHostInstall(void);

/* ---- Memory for the library, over mappings of its own ---- */

/* The pair that veskHostInstall() gives the library. A block is aligned to 16 bytes; null when the system has
 * no memory. Any thread may call them, under a lock of their own. */
VESK_API void* veskHostAllocate(uint64_t bytes);
VESK_API void veskHostFree(void* block);

/* Bytes that the library holds from the host now, and the blocks they are in. */
typedef struct VeskHostMemory {
  uint64_t bytes;
  uint64_t blocks;
} VeskHostMemory;
VESK_API VeskHostMemory veskHostMemoryInUse(void);

/* ---- Events ---- */

/* Which of the C library's functions handed a block out. (C++'s operator new calls malloc.) */
typedef enum VeskHeapFunction {
  VESK_HEAP_MALLOC,
  VESK_HEAP_CALLOC,
  VESK_HEAP_REALLOC,
  VESK_HEAP_REALLOCARRAY,
  VESK_HEAP_FREE,
  VESK_HEAP_POSIX_MEMALIGN,
  VESK_HEAP_ALIGNED_ALLOC,
  VESK_HEAP_MEMALIGN,
  VESK_HEAP_VALLOC,
  VESK_HEAP_PVALLOC
} VeskHeapFunction;

/* A module (the program itself, a shared object, the loader, the vdso) as the dynamic loader has it. */
typedef struct VeskHostModule {
  const char* path;       /* absolute where it can be had; "[vdso]" for the vdso */
  uint64_t base;          /* what is added to the module's own addresses */
  uint64_t start;         /* lowest mapped address */
  uint64_t end;           /* one past the highest */
  const uint8_t* buildId; /* null when it has none */
  uint32_t buildIdSize;   /* bytes; 0 when it has none */
} VeskHostModule;

/* How the program ends. */
typedef enum VeskProcessEnd {
  VESK_END_EXIT,  /* exit(), or return from main */
  VESK_END_QUICK, /* _exit(), _Exit(), quick_exit() */
  VESK_END_EXEC,  /* an exec is about to replace the program; if it fails, the program goes on */
  VESK_END_FATAL  /* the library's fatal path */
} VeskProcessEnd;

/* What a collector wants to hear. Null callbacks are skipped. Every callback runs on the thread that caused
 * it, marked as "inside the collector": its own heap calls, and the library's, raise no events. No callback
 * runs before veskCollectorStart has returned. */
typedef struct VeskHostEvents {
  /* A heap function has handed out `block` of `bytes` requested bytes. `caller` is the return address into
   * the program's code that called it: a back-trace of the program begins there. */
  void (*allocated)(void* block, size_t bytes, VeskHeapFunction function, const void* caller);
  /* `block`, which is never null, is about to be given back; told before the program's allocator can hand it
   * out anew. */
  void (*releasing)(void* block, const void* caller);
  /* realloc of a live block (of null it is an allocation): told before and after. `newBlock` is null when it
   * failed and `oldBlock` lives on (or when `bytes` is 0 and the block was given back: then `released` is 1).
   * The token is what the first returned. */
  uint64_t (*reallocating)(void* oldBlock, const void* caller);
  void (*reallocated)(uint64_t token, void* oldBlock, void* newBlock, size_t bytes, int released,
                      VeskHeapFunction function, const void* caller);

  /* Modules: each one that is there at start, then as they come and go. */
  void (*moduleLoaded)(const VeskHostModule* module);
  void (*moduleUnloaded)(const VeskHostModule* module);

  /* Threads that the program starts, on the thread itself: first and last thing it does. Not for the first
   * thread. */
  void (*threadStarted)(uint32_t threadId);
  void (*threadEnded)(uint32_t threadId);

  /* In the child of a fork, when children are followed; otherwise the child raises no events at all. */
  void (*forkedInChild)(void);

  /* The program is about to end: once, on the thread that ends it, after the program's own exit handlers and
   * the exit callbacks of internal threads; no other callback runs any more. A death by signal is not told.
   * VESK_END_EXEC is told before each exec, with everything going on, since it may fail. When a signal
   * handler ends the program in the middle of a callback, this runs on an internal thread and has two
   * seconds. */
  void (*processEnding)(VeskProcessEnd how, int status);

  /* The exec that processEnding has told of has failed: the program goes on. */
  void (*execFailed)(void);
} VeskHostEvents;

/* The collector's entry, called before the program's own code: the library is started, options are argv[0] to
 * argv[argc - 1] as the library's parser takes them. Returns 0 with `events` filled in; or, when it cannot
 * start, tells why on standard error and returns the exit status with which the process then ends (-help:
 * writes the help to standard output, returns VESK_COLLECTOR_DONE, and the process ends with status 0). */
#define VESK_COLLECTOR_DONE (-1)
typedef int (*VeskCollectorStart)(uint32_t argc, const char* const* argv, VeskHostEvents* events);
#define VESK_COLLECTOR_START_NAME "veskCollectorStart"

/* ---- For the collector, while it runs: in libveskhost.so alone ---- */

/* The path of the analysed program, absolute where it can be had. It stays valid. */
VESK_API const char* veskHostProgramPath(void);

/* Whether children of the program are followed: those that it forks and what it executes, but not what the C
 * library starts for it in system() and popen(). */
VESK_API int veskHostFollowsChildren(void);
VESK_API void veskHostSetFollowChildren(int follow);

/* A thread of the collector's own (the command thread, veskrt/command_handler.h) encloses its work on what
 * the events work on: a fork and the end of the program then wait for it, two seconds at most, as they do for
 * a callback, and it waits while a fork is under way. Returns 1; 0 when the program is ending: then the work
 * is not to be done and not to be ended. */
VESK_API int veskHostBeginWork(void);
VESK_API void veskHostEndWork(void);

/* During such work: holds every event back. Returns 1 once no other thread is inside a callback; 0, with the
 * events going on, when that takes longer than `milliseconds`. A realloc may be between its two events. */
VESK_API int veskHostHoldEvents(uint32_t milliseconds);
VESK_API void veskHostReleaseEvents(void);

VESK_END_DECLS

#endif
