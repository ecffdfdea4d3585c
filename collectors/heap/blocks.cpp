#include "collectors/heap/blocks.h"

#include "collectors/heap/lock.h"
#include "veskrt/hash_table.h"
#include "veskrt/memory.h"

namespace heap {

namespace {

constexpr std::uint32_t kShardBits = 6;
constexpr std::uint32_t kUnlocked = VESK_HASH_TABLE_UNLOCKED;

// bit 63 clear:  bytes << 24 | site          (below 512 GiB)
// bit 63 set:    address of a HugeBlock
constexpr std::uint64_t kHuge = std::uint64_t{1} << 63;
constexpr std::uint64_t kPackedBytesEnd = std::uint64_t{1} << (63 - kSiteBits);

using HugeBlock = Block;

struct alignas(64) Shard {
  Lock lock;
  VeskHashTable* table = nullptr; // made when the first block arrives
};

constinit Shard shards[1u << kShardBits];
constinit std::uint32_t category = 0;

constexpr std::uint64_t kScatter = 0x9E3779B97F4A7C15u; // 2^64 / golden ratio

// 64 KiB of addresses lie in one shard.
Shard& shardOf(std::uint64_t address) { return shards[(address >> 16) * kScatter >> (64 - kShardBits)]; }

// Blocks are 16 bytes apart or more. Inside its 64 KiB a block keeps its place, so that blocks handed out in a row lie in
// buckets in a row; what is above is scattered over it, or equal strides would meet in the same buckets.
std::uint64_t bucketHash(VeskHashTable* /*table*/, std::uint64_t address) {
  return (address >> 4) ^ ((address >> 16) * kScatter >> 32);
}

VeskHashTable* tableOf(Shard& shard) {
  if (shard.table == nullptr) [[unlikely]] {
    const VeskHashFunction functions[] = {bucketHash};
    shard.table = __VeskCreateHashTable(kUnlocked, functions, 1, nullptr, nullptr, category, 0);
  }
  return shard.table;
}

[[gnu::noinline]] BlockWord packHuge(Block block) {
  auto* huge = static_cast<HugeBlock*>(__VeskMalloc(category, sizeof(HugeBlock), 0));
  *huge = block;
  return reinterpret_cast<std::uint64_t>(huge) | kHuge;
}

[[gnu::noinline]] Block openHuge(BlockWord word) {
  auto* huge = reinterpret_cast<HugeBlock*>(word & ~kHuge);
  const Block block = *huge;
  __VeskFree(huge);
  return block;
}

BlockWord pack(Block block) {
  if (block.bytes >= kPackedBytesEnd) [[unlikely]] return packHuge(block);
  return block.bytes << kSiteBits | block.site;
}

void* asData(BlockWord word) { return reinterpret_cast<void*>(word); }
BlockWord asWord(void* data) { return reinterpret_cast<BlockWord>(data); }

} // namespace

BlockWord putBlock(const void* address, Block block) {
  const auto key = reinterpret_cast<std::uint64_t>(address);
  Shard& shard = shardOf(key);
  Holding hold(shard.lock);
  const BlockWord word = pack(block);
  VeskHashTable* table = tableOf(shard);
  const std::int32_t count = table->entryCount;
  const BlockWord held = asWord(__VeskInsertHashTableEntry(table, key, asData(word)));
  if (table->entryCount != count) [[likely]] return 0;
  __VeskRemoveHashTableEntry(table, key);
  __VeskInsertHashTableEntry(table, key, asData(word));
  return held;
}

BlockWord takeBlock(const void* address) {
  const auto key = reinterpret_cast<std::uint64_t>(address);
  Shard& shard = shardOf(key);
  Holding hold(shard.lock);
  return shard.table == nullptr ? 0 : asWord(__VeskRemoveHashTableEntry(shard.table, key));
}

void putBack(const void* address, BlockWord word) {
  const auto key = reinterpret_cast<std::uint64_t>(address);
  Shard& shard = shardOf(key);
  Holding hold(shard.lock);
  __VeskInsertHashTableEntry(tableOf(shard), key, asData(word));
}

Block openBlock(BlockWord word) {
  if ((word & kHuge) != 0) [[unlikely]] return openHuge(word);
  return {static_cast<std::uint32_t>(word & ((1u << kSiteBits) - 1)), word >> kSiteBits};
}

void startBlocks(std::uint32_t blockCategory) { category = blockCategory; }

void forgetBlocks() {
  for (Shard& shard : shards) {
    __VeskDestroyHashTable(shard.table, nullptr);
    shard.table = nullptr;
  }
}

} // namespace heap
