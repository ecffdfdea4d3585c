// The live blocks of 4 KiB and more, by any address inside them: which block does a pointer point into that is no block's
// start?
#pragma once

#include <cstdint>

#include "collectors/heap/blocks.h"

namespace heap {

inline constexpr std::uint64_t kLeastLarge = 4096;

struct LargeBlock {
  std::uint64_t start;
  std::uint64_t bytes;
  std::uint32_t site;
};

// Before the first event.
void startLargeBlocks(std::uint32_t category);

// Blocks that are smaller are passed over.
void addLargeBlock(const void* address, Block block);
void removeLargeBlock(const void* address, std::uint64_t bytes);

// The block that holds the address; false when none does.
bool findLargeBlock(const void* address, LargeBlock& found);

// Forgets every block, while no event runs.
void forgetLargeBlocks();

} // namespace heap
