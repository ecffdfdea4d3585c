/* A collector for tests: keeps a line for each event and writes them all to the file that its first argument
 * names, when the program ends or is about to execute another one. A second argument "-follow" has children
 * followed; each writes to FILE.PID. An option "-refuse" refuses to start.
 *
 *   malloc 24 0x5566 program      what, bytes, block, who called: the program itself or something else
 *   free 0x5566 program
 *   realloc 0x5566 0x7788 48 0 program    old, new, bytes, released
 *   module+ PATH BUILDIDSIZE, module- PATH, thread+ ID, thread- ID, fork, end HOW STATUS */
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "veskrt/host.h"

static const char* const functions[] = {"malloc", "calloc",         "realloc",       "reallocarray",
                                        "free",   "posix_memalign", "aligned_alloc", "memalign",
                                        "valloc", "pvalloc"};

static const size_t limit = (size_t)256 << 20;
static char path[512];
static char* text;
static size_t length;
static uint64_t programStart, programEnd;

/* Takes no lock: a signal handler may end the program in the middle of it. */
static void note(const char* format, ...) {
  char line[1024];
  va_list arguments;
  va_start(arguments, format);
  const size_t size = (size_t)vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  const size_t at = __atomic_fetch_add(&length, size, __ATOMIC_RELAXED);
  if (at + size <= limit) memcpy(text + at, line, size);
  errno = EXDEV; /* which the program must never see */
}

static const char* who(const void* caller) {
  return (uint64_t)caller - programStart < programEnd - programStart ? "program" : "other";
}

static void allocated(void* block, size_t bytes, VeskHeapFunction function, const void* caller) {
  note("%s %zu %p %s\n", functions[function], bytes, block, who(caller));
}

static void releasing(void* block, const void* caller) { note("free %p %s\n", block, who(caller)); }

static uint64_t reallocating(void* block, const void* caller) { return (uint64_t)block ^ (uint64_t)caller; }

static void reallocated(uint64_t token, void* old, void* block, size_t bytes, int released,
                        VeskHeapFunction function, const void* caller) {
  if (token != ((uint64_t)old ^ (uint64_t)caller)) abort();
  note("%s %p %p %zu %d %s\n", functions[function], old, block, bytes, released, who(caller));
}

static void moduleLoaded(const VeskHostModule* module) {
  if (strcmp(module->path, veskHostProgramPath()) == 0) {
    programStart = module->start;
    programEnd = module->end;
  }
  if (module->buildIdSize > 0 && module->buildId[0] + module->buildId[module->buildIdSize - 1] == -1) abort();
  note("module+ %s %u\n", module->path, module->buildIdSize);
}

static void moduleUnloaded(const VeskHostModule* module) { note("module- %s\n", module->path); }
static void threadStarted(uint32_t id) { note("thread+ %u\n", id); }
static void threadEnded(uint32_t id) { note("thread- %u\n", id); }

static void forkedInChild(void) {
  length = 0;
  snprintf(path + strlen(path), 16, ".%d", (int)getpid());
  note("fork\n");
}

static void processEnding(VeskProcessEnd how, int status) {
  static const char* const names[] = {"exit", "quick", "exec", "fatal"};
  FILE* file = fopen(path, "w");
  note("\nend %s %d\n", names[how], status);
  if (file == NULL) return;
  fwrite(text, 1, length < limit ? length : limit, file);
  fclose(file);
}

VESK_API int veskCollectorStart(uint32_t argc, const char* const* argv, VeskHostEvents* events) {
  const char* out = NULL;
  uint32_t n;
  for (n = 0; n < argc; ++n) {
    if (strcmp(argv[n], "-follow") == 0) veskHostSetFollowChildren(1);
    if (strcmp(argv[n], "-refuse") == 0) return 4;
    if (strcmp(argv[n], "-help") == 0) {
      printf("collector's help\n");
      return VESK_COLLECTOR_DONE;
    }
    if (strcmp(argv[n], "-out") == 0 && n + 1 < argc) out = argv[++n];
  }
  if (out == NULL) return 3;
  snprintf(path, sizeof path, "%s", out);

  n = (uint32_t)open(path, O_CREAT | O_EXCL, 0600); /* the first process has the name */
  if ((int)n < 0) snprintf(path + strlen(path), 16, ".%d", (int)getpid());
  close((int)n);
  text = mmap(NULL, limit, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  events->allocated = allocated;
  events->releasing = releasing;
  events->reallocating = reallocating;
  events->reallocated = reallocated;
  events->moduleLoaded = moduleLoaded;
  events->moduleUnloaded = moduleUnloaded;
  events->threadStarted = threadStarted;
  events->threadEnded = threadEnded;
  events->forkedInChild = forkedInChild;
  events->processEnding = processEnding;
  return text != MAP_FAILED ? 0 : 1;
}
