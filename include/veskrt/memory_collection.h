/* What happens when memory runs short.
 *
 * Three things help: memory collectors (callbacks of the tool that give memory back), reserve blocks that
 * were taken from the host at start and are handed back one at a time, and a record in the log that memory is
 * tight. Before each of its host allocations the allocator looks at the system's free swap, and collects once
 * that has fallen by more than a sixteenth of the total swap below its highest reading. The host engine, for
 * its own allocations, probes first, reports afterwards, and may call back when its allocator needs room.
 *
 *     __VeskRegisterMemoryCollector(dropMyCaches);                   // the tool, at start
 *     __VeskInitializeMemoryCollectorAndReserveMemory(4);            // 4 x 32 MiB to give back later
 *
 * Collectors run under the host-allocation lock on whichever thread ran short. They may allocate, free and
 * log, and must not wait for another thread that allocates. Lock order: pre-allocation lock, host-allocation
 * lock, then what memory.h says. */
#ifndef VESKRT_MEMORY_COLLECTION_H
#define VESKRT_MEMORY_COLLECTION_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_RESERVE_BLOCK_SIZE 33554416u /* 32 MiB - 16 */
#define VESK_MAX_MEMORY_COLLECTORS 16u

typedef void (*VeskMemoryCollector)(void);

/* Registers a collector, called in the order of registration. Returns 0; VESK_INVALID_ID for a null procedure
 * (which is logged) and for the seventeenth. May be called while collections run: a collection calls only
 * slots that are filled. */
VESK_API uint32_t __VeskRegisterMemoryCollector(VeskMemoryCollector collector);

/* Clears the memory statistics, takes up to `reserveBlocks` reserve blocks (as many as the host gives) and
 * enables collection. Only the first call of either function has an effect. The host pair must be there by
 * then. */
VESK_API void __VeskInitializeMemoryCollectorAndReserveMemory(uint32_t reserveBlocks);
VESK_API void __VeskInitializeMemoryCollector(void); /* the same with no reserve */

/* The engine is about to allocate `bytes` itself: probes whether the host can give that much, and if it
 * cannot, waits, retries and hands back reserves. Does not probe after more than 10 failures in a row were
 * reported. */
VESK_API void __VeskPreVirtualAllocCheck(uint32_t bytes);

/* The engine's allocation succeeded (nonzero) or failed (0). */
VESK_API void __VeskPostVirtualAllocCheck(uint32_t succeeded);

/* The host's allocator needs `bytes`. Called from inside one of our host allocations it collects; otherwise
 * it probes. Does nothing before collection is enabled, or while reserves are being handed back. */
VESK_API void __VeskAsynchronousCollectMemory(uint64_t bytes);

/* Returns once no probe is in its retry phase. */
VESK_API void __VeskWaitForPreVirtualAllocThread(void);

VESK_END_DECLS

#endif
