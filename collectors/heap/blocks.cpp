#include "collectors/heap/blocks.h"

#include <cstring>

#include "collectors/heap/lock.h"
#include "veskrt/hash_table.h"
#include "veskrt/memory.h"

namespace heap {

namespace {

constexpr std::uint32_t kShardBits = 6;
constexpr std::uint32_t kPageBits = 12;
constexpr std::uint32_t kGranuleBits = 4; // what allocators align to, with few exceptions
constexpr std::uint32_t kGranules = 1u << (kPageBits - kGranuleBits);

// bit 63 clear:  bytes << 24 | site          (below 4 GiB)
// bit 63 set:    address of a HugeBlock
constexpr std::uint64_t kHuge = std::uint64_t{1} << 63;
constexpr std::uint64_t kPackedBytesEnd = std::uint64_t{1} << (kStampShift - kSiteBits);
static_assert(kStampShift + kStampBits == 63);

using HugeBlock = Block;

struct Page {
  std::uint64_t number; // address / 4 KiB
  std::uint64_t blocks; // words that are not 0
  BlockWord words[kGranules];
};

// Each under its lock.
struct alignas(64) Shard {
  Lock lock;
  Page* last = nullptr;           // the page of the last call, or null
  Page* empty = nullptr;          // the page that lost its blocks last, kept for those that may come; or null
  VeskHashTable* pages = nullptr; // page number to page; made when the first block arrives
  VeskHashTable* odd = nullptr;   // address to word, of blocks that lie between two granules; seldom made
};

constinit Shard shards[1u << kShardBits];
constinit std::uint32_t category = 0;

constexpr std::uint64_t kScatter = 0x9E3779B97F4A7C15u; // 2^64 / golden ratio

Shard& shardOf(std::uint64_t address) { return shards[(address >> 16) * kScatter >> (64 - kShardBits)]; }

// The pages of a shard come in runs of 16.
std::uint64_t scatteredHash(VeskHashTable* /*table*/, std::uint64_t key) {
  return key ^ ((key >> 4) * kScatter >> 32);
}

[[gnu::noinline]] VeskHashTable* makeTable() {
  const VeskHashFunction functions[] = {scatteredHash};
  return __VeskCreateHashTable(VESK_HASH_TABLE_UNLOCKED, functions, 1, nullptr, nullptr, category, 0);
}

// ---- Pages ----

[[gnu::noinline]] Page* findPage(Shard& shard, std::uint64_t number) {
  if (shard.pages == nullptr) return nullptr;
  auto* page = static_cast<Page*>(__VeskLookupHashTable(shard.pages, number));
  if (page != nullptr) shard.last = page;
  return page;
}

Page* pageOf(Shard& shard, std::uint64_t address) {
  const std::uint64_t number = address >> kPageBits;
  Page* last = shard.last;
  return last != nullptr && last->number == number ? last : findPage(shard, number);
}

[[gnu::noinline]] Page* makePage(Shard& shard, std::uint64_t number) {
  if (shard.pages == nullptr) shard.pages = makeTable();
  auto* page = static_cast<Page*>(__VeskMalloc(category, sizeof(Page), 0));
  std::memset(page, 0, sizeof(Page));
  page->number = number;
  __VeskInsertHashTableEntry(shard.pages, number, page);
  shard.last = page;
  return page;
}

// A page that is filled and emptied again and again is the one kept; the one kept before goes, if it is still
// empty.
[[gnu::noinline]] void keepEmpty(Shard& shard, Page* page) {
  Page* before = shard.empty;
  shard.empty = page;
  if (before == nullptr || before == page || before->blocks != 0) return;
  __VeskRemoveHashTableEntry(shard.pages, before->number);
  __VeskFree(before);
}

BlockWord& wordIn(Page& page, std::uint64_t address) {
  return page.words[address >> kGranuleBits & (kGranules - 1)];
}

// ---- Blocks between granules ----

bool isOdd(std::uint64_t address) { return (address & ((1u << kGranuleBits) - 1)) != 0; }

[[gnu::noinline]] BlockWord exchangeOdd(Shard& shard, std::uint64_t address, BlockWord word) {
  if (shard.odd == nullptr) {
    if (word == 0) return 0;
    shard.odd = makeTable();
  }
  auto before = reinterpret_cast<BlockWord>(__VeskRemoveHashTableEntry(shard.odd, address));
  if (word != 0) __VeskInsertHashTableEntry(shard.odd, address, reinterpret_cast<void*>(word));
  return before;
}

// ---- Words ----

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
  if (block.bytes >= kPackedBytesEnd) [[unlikely]]
    return packHuge(block);
  return block.bytes << kSiteBits | block.site;
}

BlockWord put(std::uint64_t address, BlockWord word) {
  Shard& shard = shardOf(address);
  Holding hold(shard.lock);
  if (isOdd(address)) [[unlikely]]
    return exchangeOdd(shard, address, word);
  Page* page = pageOf(shard, address);
  if (page == nullptr) page = makePage(shard, address >> kPageBits);
  BlockWord& held = wordIn(*page, address);
  const BlockWord before = held;
  held = word;
  page->blocks += before == 0;
  return before;
}

} // namespace

BlockWord putBlock(const void* address, Block block) {
  return put(reinterpret_cast<std::uint64_t>(address), pack(block));
}

void putBack(const void* address, BlockWord word) { put(reinterpret_cast<std::uint64_t>(address), word); }

BlockWord takeBlock(const void* block) {
  const auto address = reinterpret_cast<std::uint64_t>(block);
  Shard& shard = shardOf(address);
  Holding hold(shard.lock);
  if (isOdd(address)) [[unlikely]]
    return exchangeOdd(shard, address, 0);
  Page* page = pageOf(shard, address);
  if (page == nullptr) return 0;
  BlockWord& held = wordIn(*page, address);
  const BlockWord before = held;
  if (before == 0) return 0;
  held = 0;
  if (--page->blocks == 0) keepEmpty(shard, page);
  return before;
}

Block peekBlock(BlockWord word) {
  if ((word & kHuge) != 0) [[unlikely]]
    return *reinterpret_cast<const HugeBlock*>(word & ~kHuge);
  return {static_cast<std::uint32_t>(word & ((1u << kSiteBits) - 1)), word >> kSiteBits};
}

Block openBlock(BlockWord word) { return (word & kHuge) != 0 ? openHuge(word) : peekBlock(word); }

void startBlocks(std::uint32_t blockCategory) { category = blockCategory; }

void forgetBlocks() {
  for (Shard& shard : shards) {
    const auto freePage = [](void* value) -> std::uint32_t {
      for (const BlockWord word : static_cast<Page*>(value)->words) openBlock(word);
      __VeskFree(value);
      return 1;
    };
    const auto freeOdd = [](void* word) -> std::uint32_t {
      openBlock(reinterpret_cast<BlockWord>(word));
      return 1;
    };
    __VeskDestroyHashTable(shard.pages, freePage);
    __VeskDestroyHashTable(shard.odd, freeOdd);
    shard.last = nullptr;
    shard.empty = nullptr;
    shard.pages = nullptr;
    shard.odd = nullptr;
  }
}

} // namespace heap
