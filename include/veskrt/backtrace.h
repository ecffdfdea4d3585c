/* Back-traces of the calling thread, on top of the C library's backtrace().
 *
 * The first trace of a process may make the C library load a helper library and take memory from its own
 * heap; take one early where that would disturb. Nothing here takes a lock of the library or keeps any state.
 *
 *     void* frames[VESK_MAX_BACKTRACE_FRAMES];
 *     uint16_t count = __VeskCaptureStackBackTrace(0, 0, 0, returnAddressOfInterest, 0, frames);
 *     char** names = __VeskGetStackBackTraceSymbols(frames, count);
 *     ...
 *     free(names);
 */
#ifndef VESKRT_BACKTRACE_H
#define VESKRT_BACKTRACE_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

#define VESK_MAX_BACKTRACE_FRAMES 25u

/* Fills `frames`, which has room for VESK_MAX_BACKTRACE_FRAMES, with return addresses, innermost first,
 * beginning with `startAddress`. Returns how many there are: 0 when that address is not among the innermost
 * VESK_MAX_BACKTRACE_FRAMES, of which the very first lies in this function itself. What the array holds
 * beyond the count is unspecified. The arguments named unused are not looked at. */
VESK_API uint16_t __VeskCaptureStackBackTrace(uint64_t unused1, uint64_t unused2, uint64_t unused3,
                                              uint64_t startAddress, uint64_t unused5, void** frames);

/* A printable string for each of `count` return addresses, as backtrace_symbols: one block from the C
 * library's heap, which the caller gives back whole with free(). Null on failure. */
VESK_API char** __VeskGetStackBackTraceSymbols(void* const* frames, int count);

/* How far the image was moved from its preferred address: 0 on this platform. */
VESK_API uint64_t __VeskGetImageOffsetFromPreferredAddress(void);

VESK_END_DECLS

#endif
