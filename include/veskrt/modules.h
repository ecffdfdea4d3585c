/* Where things lie in the address space: the process's mappings, the loaded modules, and symbols.
 *
 * Three services that do not depend on each other:
 *
 *   - the mapping that contains an address, read from the system's own map of the process: for the extent of
 *     a stack or of a mapped file, now and then, since every question reads the map anew;
 *   - the module map, which the collector fills as modules come and go: for the module that an address
 * belongs to, often, in logarithmic time;
 *   - loading a shared object and finding a symbol in it.
 *
 *     __VeskLoadModule(module->id, module->start, module->end);   // as the host reports it
 *     uint64_t id;
 *     uint64_t start = __VeskGetModuleForVariable(address, &id);
 *     if (start != 0) report(id, address - start);
 *     __VeskUnloadModule(module->id, module->start);
 */
#ifndef VESKRT_MODULES_H
#define VESKRT_MODULES_H

#include "veskrt/base.h"

VESK_BEGIN_DECLS

/* ---- Mappings of the process ----
 *
 * Need the pid hook. Readings take turns under a lock of their own, and allocate nothing from the library's
 * allocator. An address just past the end of a mapping still counts as inside it; so where two mappings
 * touch, the address between them belongs to the lower one. When the map cannot be read, no mapping contains
 * any address. */

/* Start of the mapping that contains the address; its end (the address just past it) goes to *end. Returns 0
 * and stores nothing when there is none, or when `end` is null. */
VESK_API uint64_t __VeskGetModuleAddressRange(uint64_t address, uint64_t* end);

/* Size, in bytes, of the mapping that contains the address, usually that of a local variable; its end, which
 * is the base of a stack that grows downward, goes to *base, which must not be null. Returns and stores 0
 * when there is none. */
VESK_API uint64_t __VeskGetThreadStackBaseAndSize(uint64_t address, uint64_t* base);

/* ---- The module map ----
 *
 * Takes no lock: while one thread registers or removes a module, no other may be in any of the three
 * functions. Lookups alone may run side by side. Memory comes from category 0. */

/* Registers the addresses from `start` up to but not including `end` under the collector's own handle. Ranges
 * must not overlap; `start` is the key, and a module that is there already under it stays as it is. Returns a
 * value that is only to be compared with null, and is null only when memory ran out; with an allocator that
 * ends the process then, as the library's does, never. */
VESK_API void* __VeskLoadModule(uint64_t moduleHandle, uint64_t start, uint64_t end);

/* Removes the module with this start, if there is one. The handle is not looked at. */
VESK_API void __VeskUnloadModule(uint64_t moduleHandle, uint64_t start);

/* Start of the module that contains the address; its handle goes to *moduleHandle, which must not be null.
 * Returns 0 and stores nothing when there is none. A module's first address does not count as inside it. */
VESK_API uint64_t __VeskGetModuleForVariable(uint64_t address, uint64_t* moduleHandle);

/* ---- The dynamic loader: what it says about failures is not logged ---- */

/* As dlopen with RTLD_NOW: a handle, or null. */
VESK_API void* __VeskRtLoadImage(const char* path);

/* Address of a symbol; null when the handle is null or has no such symbol. Null is also what a symbol at
 * address 0 gives. */
VESK_API void* __VeskRtGetSymbol(void* handle, const char* name);

VESK_END_DECLS

#endif
