/* The containers on one small job: what a heap collector has to remember. */
#include <inttypes.h>
#include <stdio.h>

#include "veskrt/counted_string.h"
#include "veskrt/hash_table.h"
#include "veskrt/host.h"
#include "veskrt/memory.h"
#include "veskrt/queue.h"
#include "veskrt/range_table.h"
#include "veskrt/set.h"
#include "veskrt/tree.h"
#include "veskrt/vector.h"

/* A place in the program that takes memory. */
struct Site {
  uint64_t caller;
  uint32_t id;
};

static uint32_t category;

/* Hash table: a record under an exact key, from any thread. */
static struct Site* findSite(VeskHashTable* sites, uint64_t caller) {
  struct Site* site = __VeskLookupHashTable(sites, caller);
  if (site != NULL) return site;
  struct Site* mine = __VeskMalloc(category, sizeof *mine, 0);
  mine->caller = caller;
  mine->id = (uint32_t)(caller & 0xff);
  site = __VeskInsertHashTableEntry(sites, caller, mine);
  if (site != mine) __VeskFree(mine); /* another thread was first */
  return site;
}

/* Range table: which block holds this address? */
static void rememberBlocks(void) {
  RangeTable* blocks = __VeskCreateRangeTable(1 << 20, category, 0, 0, NULL);
  __VeskInsertRangeTableEntry(blocks, 0x1000, 0x1400, 1);
  __VeskInsertRangeTableEntry(blocks, 0x2000, 0x2010, 2);
  uint64_t start, end;
  uint64_t block = __VeskLookupRangeTable(blocks, 0x13ff, &start, &end);
  printf("0x13ff is in block %" PRIu64 ", 0x%" PRIx64 " to 0x%" PRIx64 "\n", block, start, end);
  __VeskScanAndEmptyRangeTable(blocks);
  __VeskDestroyRangeTable(blocks);
}

/* Tree: in order, and by range. */
static void largestFirst(void) {
  RedBlackTree* bySize = __VeskCreateRedBlackTree(category, NULL, NULL, NULL);
  for (uint64_t size = 16; size <= 4096; size *= 4) __VeskInsertRedBlackEntry(bySize, size, size / 16);
  for (RedBlackEntry* entry = __VeskGetRedBlackRangeEnd(bySize, UINT64_MAX); entry != NULL;
       entry = __VeskGetRedBlackRangePrev(entry, 256)) {
    printf("%" PRIu64 " bytes\n", entry->key);
  }
  __VeskDestroyRedBlackTree(bySize);
}

/* Set: whole-set questions over identifiers; vector: a counter for each. */
static void printSite(uint32_t id, void* hits) {
  printf("site %u: %" PRIu64 " times\n", id, __VeskGetVectorElement(hits, id));
}

static void compareRuns(Vector* hits) {
  Set before = {0, category, NULL};
  Set after = {0, category, NULL};
  __VeskAddAnElementToSet(&before, 1);
  for (uint32_t id = 1; id <= 3; id++) __VeskAddAnElementToSet(&after, id);
  __VeskDifferenceSet(&after, &before);
  __VeskScanSet(&after, printSite, hits); /* sites that only the later run has */
  __VeskDestroySet(&before);
  __VeskDestroySet(&after);
}

/* Queue: values from many threads to one. */
static void handOver(Queue* events) {
  CountedString* line = __VeskStrAlloc(category, 32, "events:");
  while (!__VeskIsQueueEmpty(events)) {
    char number[24];
    snprintf(number, sizeof number, " %" PRIu64, __VeskDequeue(events));
    __VeskStrAppend(line, number);
  }
  puts(line->buffer);
  __VeskStrDestroy(line);
}

static uint32_t freeSite(void* site) {
  __VeskFree(site);
  return 1;
}

int main(void) {
  veskHostInstall();
  category = __VeskRegisterMemoryCategory("EXAMPLE");
  VeskHashTable* sites = __VeskCreateHashTable(0, NULL, 1, NULL, NULL, category, 0);
  Vector* hits = __VeskCreateVector(category);
  Queue* events = __VeskCreateQueue(VESK_QUEUE_THREAD_SAFE, category);
  const uint64_t callers[] = {0x401001, 0x401002, 0x401003, 0x401002};
  for (int i = 0; i < 4; i++) {
    const struct Site* site = findSite(sites, callers[i]);
    __VeskIncrementVectorElement(hits, site->id);
    __VeskEnqueue(events, site->id);
  }
  rememberBlocks();
  largestFirst();
  compareRuns(hits);
  handOver(events);
  __VeskDestroyQueue(events);
  __VeskFree(events);
  __VeskDestroyVector(hits);
  __VeskDestroyHashTable(sites, freeSite);
  return 0;
}
