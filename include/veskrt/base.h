/* What every public header of VESKRT starts from: the export mark, the C linkage guards and the fixed-width
 * types.
 *
 * Every header of the library compiles alone as C99 and as C++20. Unless a function says otherwise:
 *   - a function that answers a question returns 1 for yes and 0 for no;
 *   - a function that hands out an identifier returns VESK_INVALID_ID when it could not;
 *   - strings are zero-terminated, sizes are bytes, and what a caller passes in stays the caller's. */
#ifndef VESKRT_BASE_H
#define VESKRT_BASE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define VESK_BEGIN_DECLS extern "C" {
#define VESK_END_DECLS }
#else
#define VESK_BEGIN_DECLS
#define VESK_END_DECLS
#endif

/* The interface, and nothing else, leaves the library. */
#define VESK_API __attribute__((visibility("default")))

/* Lets the compiler check a format string against its arguments: positions of the format and the first
 * argument. */
#define VESK_PRINTF(formatIndex, firstIndex) __attribute__((format(printf, formatIndex, firstIndex)))

/* No identifier could be handed out. */
#define VESK_INVALID_ID 0xFFFFFFFFu

#endif
