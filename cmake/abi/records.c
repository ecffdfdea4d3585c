/* The records that no exported function of the library takes or returns, for the dump of the ABI. */
#include "veskrt/command_handler.h"
#include "veskrt/hash_table.h"
#include "veskrt/host.h"
#include "veskrt/range_table.h"

VESK_API void records(VeskHostEvents* events, VeskHostModule* module, VeskHostMemory* memory,
                      VeskCommandLockFile* lockFile, VeskCommandSegment* segment,
                      VeskHashTableEntry* hashTableEntry, RangeTableEntry* rangeTableEntry,
                      RangeTableLink* rangeTableLink, VeskCollectorStart start);

void records(VeskHostEvents* events, VeskHostModule* module, VeskHostMemory* memory,
             VeskCommandLockFile* lockFile, VeskCommandSegment* segment, VeskHashTableEntry* hashTableEntry,
             RangeTableEntry* rangeTableEntry, RangeTableLink* rangeTableLink, VeskCollectorStart start) {
  (void)events, (void)module, (void)memory, (void)lockFile, (void)segment, (void)hashTableEntry;
  (void)rangeTableEntry, (void)rangeTableLink, (void)start;
}
