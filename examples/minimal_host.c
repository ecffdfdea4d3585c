/* The smallest host: gives the library memory, thread ids and an end, starts it, and counts words with it.
 * Try: minimal_host the cat and the dog; cat minimal_host.log */
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/runtime.h"
#include "veskrt/tree.h"

/* ---- What the library asks of a host ---- */

/* A mapping for each block: never the heap of the program, which may be what is analysed. The block begins 16
 * bytes into it, behind its size. */
static void* hostAllocate(uint64_t bytes) {
  uint64_t* mapping =
      mmap(NULL, bytes + 16, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapping == MAP_FAILED) return NULL;
  mapping[0] = bytes + 16;
  return mapping + 2;
}

static void hostFree(void* block) {
  uint64_t* mapping = (uint64_t*)block - 2;
  munmap(mapping, mapping[0]);
}

/* The identity under which locks record their owner. A real host keeps it in a thread-local variable. */
static uint32_t hostThreadId(void) { return (uint32_t)syscall(SYS_gettid); }

static int32_t hostProcessId(void) { return (int32_t)getpid(); }

static void hostExit(int32_t status) { exit(status); }

static void startLibrary(void) {
  __VeskSetGetNativeThreadIdProc(hostThreadId);
  __VeskSetGetPidProc(hostProcessId);
  __VeskSetExitHandler(hostExit);
  __VeskInitializeSubAllocator(hostAllocate, hostFree);
  __VeskEnableMemoryStatisticsCollection();
  __VeskRtStartup();
}

/* ---- What the library is for ---- */

/* FNV-1a: equal words have equal keys. */
static uint64_t keyOf(const char* word) {
  uint64_t key = 0xcbf29ce484222325u;
  for (; *word != '\0'; word++) key = (key ^ (unsigned char)*word) * 0x100000001b3u;
  return key;
}

int main(int argc, char** argv) {
  startLibrary();
  if (!__VeskCreateLogger("minimal_host", "minimal_host.log", 0)) return 1;

  uint32_t category = __VeskRegisterMemoryCategory("WORDS");
  RedBlackTree* words = __VeskCreateRedBlackTree(category, NULL, NULL, NULL);
  uint32_t different = 0;
  for (int i = 1; i < argc; i++) {
    uint64_t key = keyOf(argv[i]);
    if (__VeskGetRedBlackRangeStart(words, key, key) == NULL) different++;
    __VeskInsertRedBlackEntry(words, key, (uint64_t)i);
  }
  printf("%u words, %u different\n", words->count, different);

  VeskMemoryCategoryInfo memory;
  __VeskGetMemoryInfoByCategory(category, &memory);
  __VeskLogInternal(VESKLOG_SEVERITY_INFO, VESKLOG_MSG_COMMENT, 0, "%s: %lld bytes", memory.name,
                    (long long)memory.allocated);
  __VeskDestroyRedBlackTree(words);
  __VeskCloseLogger();
  return 0;
}
