/* A tool whose host runs out of memory, and goes on: a cache is dropped, then a reserve is spent. */
#include <stdio.h>

#include "veskrt/host.h"
#include "veskrt/log.h"
#include "veskrt/memory.h"
#include "veskrt/memory_collection.h"

enum { MEBIBYTE = 1 << 20 };

/* ---- A host with 64 MiB, beside the reserve ---- */

static uint64_t left = 64 * MEBIBYTE + VESK_RESERVE_BLOCK_SIZE;

static void* hostAllocate(uint64_t bytes) {
  if (bytes > left) __VeskAsynchronousCollectMemory(bytes); /* the tool's collectors run now */
  if (bytes > left) return NULL;
  uint64_t* block = veskHostAllocate(bytes + 16);
  if (block == NULL) return NULL;
  left -= bytes;
  block[0] = bytes;
  return block + 2;
}

static void hostFree(void* block) {
  uint64_t* whole = (uint64_t*)block - 2;
  left += whole[0];
  veskHostFree(whole);
}

/* ---- The tool: a cache that it can do without, and results that it cannot ---- */

static void* cache[32];
static int cached, dropped;

static void dropCache(void) {
  while (cached > 0) {
    __VeskFree(cache[--cached]);
    dropped++;
  }
}

int main(void) {
  __VeskInitializeSubAllocator(hostAllocate,
                               hostFree); /* the first pair stands: ours, not veskHostInstall's */
  veskHostInstall();
  __VeskCreateLogger("memory_pressure", "memory_pressure.log", 0);
  __VeskRegisterMemoryCollector(dropCache);
  __VeskInitializeMemoryCollectorAndReserveMemory(1);

  for (; cached < 32; cached++) cache[cached] = __VeskMalloc(0, MEBIBYTE, 0);
  for (int result = 1; result <= 70; result++) {
    const int droppedBefore = dropped;
    const uint64_t leftBefore = left;
    __VeskMalloc(0, MEBIBYTE, 0);
    if (dropped > droppedBefore) printf("result %d: %d blocks of the cache went\n", result, dropped);
    if (dropped == droppedBefore && left > leftBefore) printf("result %d: the reserve went\n", result);
  }
  __VeskCloseLogger();
  return 0;
}
