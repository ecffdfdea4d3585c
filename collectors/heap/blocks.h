// The live blocks: for every address that the program holds, the site that it comes from and the bytes asked
// for.
//
// What is known of a block is packed into one word. The words of all blocks in 4 KiB of addresses lie side by
// side in a page, and the pages are found by a table: neighbours on the heap are neighbours here, and a block
// takes no entry and no allocation of its own. The pages are spread over 64 tables, each with a lock; 64 KiB
// of addresses share one, so that threads, whose blocks come from arenas far apart, seldom meet.
#pragma once

#include <cstdint>

namespace heap {

// A block as it is held; 0 is no block. Some bits are always 0: its holder may mark a word there, and takes the mark
// off before the word comes back.
using BlockWord = std::uint64_t;
inline constexpr std::uint32_t kStampShift = 56;
inline constexpr std::uint32_t kStampBits = 7;

struct Block {
  std::uint32_t site;
  std::uint64_t bytes;
};

inline constexpr std::uint32_t kSiteBits = 24;

// Before the first event.
void startBlocks(std::uint32_t category);

// Enters a block. Returns the word of the one that was there, whose release has not been told, or 0.
BlockWord putBlock(const void* address, Block block);

// Takes a block out; 0 when the address is not known. The word then belongs to the caller, who opens it or
// puts it back.
BlockWord takeBlock(const void* address);
void putBack(const void* address, BlockWord word);
Block openBlock(BlockWord word);
Block peekBlock(BlockWord word); // leaves it closed

// Forgets every block, while no event runs.
void forgetBlocks();

} // namespace heap
