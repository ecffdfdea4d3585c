// The live blocks: for every address that the program holds, the site that it comes from and the bytes asked for.
//
// The addresses are spread over 64 tables, each with a lock of its own. Neighbours on the heap share a table, so that one
// thread's blocks stay close together in memory; threads, whose blocks come from arenas far apart, seldom meet. What is
// known of a block is packed into the word that the table keeps anyway: nothing is allocated for it beside the entry.
#pragma once

#include <cstdint>

namespace heap {

// A block as its table holds it; 0 is no block.
using BlockWord = std::uint64_t;

struct Block {
  std::uint32_t site;
  std::uint64_t bytes;
};

inline constexpr std::uint32_t kSiteBits = 24;

// Before the first event.
void startBlocks(std::uint32_t category);

// Enters a block. Returns the word of the one that was there, whose release has not been told, or 0.
BlockWord putBlock(const void* address, Block block);

// Takes a block out; 0 when the address is not known. The word then belongs to the caller, who opens it or puts it back.
BlockWord takeBlock(const void* address);
void putBack(const void* address, BlockWord word);
Block openBlock(BlockWord word);

// Forgets every block, while no event runs.
void forgetBlocks();

} // namespace heap
