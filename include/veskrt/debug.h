/* Debug messages by category, off until somebody asks for them.
 *
 * A map names the categories and gives each a mask; the text of a debug-dump option enables some of them; a
 * message comes out, as a comment in the log (veskrt/log.h), only if its category is enabled. A message of a
 * category that is not enabled costs a comparison: nothing is formatted. The library carries a map of 27
 * categories; a tool may install its own.
 *
 *     __VeskParseDbgDumpOption("API,MEM");                    // from the tool's command line
 *     __VeskDbgMessageDumpInternal(1, "read %d sites", n);    // <!-- [API ] [1234 ] read 7 sites -->
 *
 * Nothing here takes a lock but the log's. Messages may come from any thread, also while one thread parses
 * the option text. */
#ifndef VESKRT_DEBUG_H
#define VESKRT_DEBUG_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* One category. A map is an array of them that ends with an entry without a name. */
typedef struct DbgMapEntry {
  uint64_t mask;    /* what enables it; the low 32 bits count, and 0 stands for disabling all */
  const char* name; /* as the option text has it, in either case */
} DbgMapEntry;

#define VESK_MAX_DBG_MAP_ENTRIES 32u

/* The map that is active until a tool installs its own. An index is a category of
 * __VeskDbgMessageDumpInternal:
 *
 *     0 NONE      0x0           10 VESKCORE   0x1ff (1 to 9)         20 DOTNET_GC    0x20000
 *     1 API       0x1           11 TRC        0x200                  21 DOTNET_API   0x40000
 *     2 CAL       0x2           12 IMG        0x400                  22 DOTNET_MEM   0x80000
 *     3 MEM       0x4           13 RTN        0x800                  23 DOTNET_JIT   0x100000
 *     4 BUF       0x8           14 BBL        0x1000                 24 DOTNET_GEN   0x200000
 *     5 MOD       0x10          15 INS        0x2000                 25 DOTNET       0x3e0000 (20 to 24)
 *     6 CFG       0x20          16 THR        0x4000                 26 ALL          0x3fffff
 *     7 HUV       0x40          17 RTL        0x8000
 *     8 QEL       0x80          18 TRA        0x10000
 *     9 SCR       0x100         19 VESKET     0x1fe00 (11 to 18)
 *
 * Installs `map`, which the caller keeps alive, and counts its entries: those before the first without a
 * name, 32 at most. The enabled mask stays as it is. Returns 1; 0 for null, which changes nothing. Install it
 * before other threads use it. */
VESK_API int __VeskDbgRegisterDbgMap(const DbgMapEntry* map);

/* Changes the mask of what is enabled, 0 at load. Returns 1 if the whole text was understood, else 0. The
 * text is one of:
 *
 *   - "0x1f": hexadecimal. These bits are added; 0x0 disables all. Any other text that begins with '0' is
 *     refused.
 *   - "API,no-mem,...": a list of tokens, applied from left to right up to the first that is not understood.
 *     NAME adds the category's mask, or disables all if that is 0; no-NAME takes the category's bits away.
 *   - "" or null: changes nothing. 1 for the empty text, 0 for null.
 *
 * Case does not matter, and a leading part of a name will do: the first name in the map's order that begins
 * with it is meant, so "d" is DOTNET_GC and an empty token is the map's first entry. A comma at the end is no
 * further token. */
VESK_API int __VeskParseDbgDumpOption(const char* text);

/* Writes the message, of which 1,022 bytes are kept, as the comment "[category] [native thread id] text", if
 * the category (an index into the map, not a mask) is in the map and shares a bit with the enabled mask. */
VESK_API void __VeskDbgMessageDumpInternal(uint32_t category, const char* format, ...) VESK_PRINTF(2, 3);

VESK_END_DECLS

#endif
