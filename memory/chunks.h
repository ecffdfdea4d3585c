// Many small blocks at once, for containers that build or drop whole chains of them: the work of __VeskMalloc and
// __VeskFree at a fraction of their cost, since the row's lock is held once for many. Every folder of the library
// may include this.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk::memory {

// Stores what `count` calls of __VeskMalloc(category, size, 0) would return, in their order. The size must not be
// that of a large block. Other threads wait for the row meanwhile: a caller with many to take does so in batches.
void allocateChunks(std::uint32_t category, std::uint32_t size, void** chunks, std::size_t count) noexcept;

// Gives back a chain of blocks, each of which holds the address of the next in its first word, the last one null.
// Slabs come and go as if __VeskFree were called for one block after the other. Within a slab the lowest address is
// the first to be taken again, so that blocks which are allocated one after another lie side by side.
void freeChunks(void* chain) noexcept;

} // namespace vesk::memory
