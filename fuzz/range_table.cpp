// Range tables against a map of their ranges; what the interval walks find is reckoned from the blocks of
// every range, step by step.
#include <algorithm>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/range_table.h"

namespace {

using fuzz::require;
using Wide = unsigned __int128;

struct Range {
  std::uint64_t end;
  std::uint64_t item;
};

using Block = std::pair<std::uint32_t, std::uint64_t>; // level and start

constexpr std::uint64_t kArena = 0x4000;

std::multiset<std::uint64_t> destroyedItems;

void noteItem(uint64_t item) { destroyedItems.insert(item); }

class Player {
public:
  explicit Player(fuzz::Input& input);
  void operate();
  void check() const;
  void finish();

private:
  using Model = std::map<std::uint64_t, Range>;

  std::uint64_t takeAddress();
  std::uint64_t takeLength();
  std::uint32_t levelOf(Wide length) const;
  void addBlocks(Wide start, Wide end, std::vector<Block>& blocks) const;
  bool meetsAny(std::uint64_t start, std::uint64_t end) const;

  void insert();
  void lookUp(std::uint64_t address) const;
  void checkBlock(const Block& block, std::uint64_t start, std::size_t count) const;
  void removeOne(bool destroying);
  void destroySpan();
  void removeFirst();

  fuzz::Input& input_;
  bool aligned_;
  std::uint32_t scale_; // every start and end is a multiple of 2^scale
  std::uint64_t arena_; // and below this
  std::uint64_t base_;  // of the addresses that are used
  RangeTable* table_;
  Model model_;
  std::uint64_t lastItem_ = 0;
};

Player::Player(fuzz::Input& input)
    : input_(input), aligned_(input.takeBool()), scale_(input.takeInRange(0, 3) == 0 ? 16 : 0),
      arena_(kArena << scale_) {
  constexpr std::uint64_t kBases[] = {0, 0x10000, 0x7FFFFFFFFFFFE000};
  base_ = input.pick(kBases);
  if (input.takeInRange(0, 3) == 0) base_ = UINT64_MAX - arena_ + 1;
  // Large ranges need large blocks, lest there be too many.
  const std::uint64_t span = scale_ != 0 ? arena_ : input.take<std::uint64_t>() >> input.takeInRange(0, 63);
  table_ = __VeskCreateRangeTable(span, 2, 1, aligned_ ? VESK_RANGE_TABLE_ALIGNED : 0, noteItem);
  const std::uint64_t largest = std::uint64_t{2} << table_->maxLevel;
  require(largest >= 32 && largest <= std::uint64_t{1} << 27);
  require(largest == 32 || largest <= span);
  require(largest == std::uint64_t{1} << 27 || 2 * largest > span);
}

// ---- The model ----

std::uint32_t Player::levelOf(Wide length) const {
  std::uint32_t level = VESK_RANGE_TABLE_MIN_LEVEL;
  while (level < table_->maxLevel && (Wide{4} << level) <= length) ++level;
  return level;
}

// The blocks of a range: as large as alignment and what is left allow, but for 32-byte ones covered in part.
void Player::addBlocks(Wide start, Wide end, std::vector<Block>& blocks) const {
  while (start < end) {
    std::uint32_t level = VESK_RANGE_TABLE_MIN_LEVEL;
    while (level < table_->maxLevel && start % (Wide{4} << level) == 0 && start + (Wide{4} << level) <= end)
      ++level;
    const Wide block = start & ~Wide{(Wide{2} << level) - 1};
    blocks.emplace_back(level, static_cast<std::uint64_t>(block));
    start = block + (Wide{2} << level);
  }
}

bool Player::meetsAny(std::uint64_t start, std::uint64_t end) const {
  return std::any_of(model_.begin(), model_.end(),
                     [&](const auto& each) { return each.first < end && start < each.second.end; });
}

// ---- Operations ----

std::uint64_t Player::takeAddress() {
  const std::uint64_t address = base_ + (input_.takeInRange<std::uint64_t>(0, kArena - 1) << scale_);
  return aligned_ ? address & ~std::uint64_t{31} : address;
}

std::uint64_t Player::takeLength() {
  const std::uint64_t units = input_.take<std::uint16_t>() >> input_.takeInRange(2, 15);
  const std::uint64_t length = units << scale_;
  return aligned_ ? (length + 31) & ~std::uint64_t{31} : length;
}

void Player::insert() {
  const std::uint64_t start = takeAddress();
  const std::uint64_t length = takeLength();
  const std::uint64_t end =
      length > UINT64_MAX - start ? aligned_ ? ~std::uint64_t{31} : UINT64_MAX : start + length;
  if (end > start && meetsAny(start, end)) return;
  __VeskInsertRangeTableEntry(table_, start, end, ++lastItem_);
  if (end > start) model_[start] = {end, lastItem_};
}

void Player::lookUp(std::uint64_t address) const {
  std::uint64_t start = 1;
  std::uint64_t end = 1;
  const std::uint64_t item = __VeskLookupRangeTable(table_, address, &start, &end);
  auto place = model_.upper_bound(address);
  if (place == model_.begin() || (--place)->second.end <= address)
    return require(item == 0 && start == 0 && end == 0);
  require(item == place->second.item && start == place->first && end == place->second.end);
}

void Player::removeOne(bool destroying) {
  if (model_.empty()) return;
  auto place = model_.begin();
  std::advance(place, input_.takeInRange<std::size_t>(0, model_.size() - 1));
  (destroying ? __VeskDestroyRangeTableEntry : __VeskRemoveRangeTableEntry)(table_, place->first,
                                                                            place->second.end);
  require(destroyedItems.size() == destroying && destroyedItems.count(place->second.item) == destroying);
  model_.erase(place);
}

void Player::destroySpan() {
  std::uint64_t base = takeAddress();
  std::uint64_t size = takeLength();
  if (input_.takeInRange(0, 7) == 0) { // far beyond what is stored
    base = input_.takeBool() ? 0 : base;
    size = input_.take<std::uint64_t>();
  }
  const std::uint64_t top = size > UINT64_MAX - base ? UINT64_MAX : base + size;
  if (model_.contains(0) && base < model_[0].end) return; // what begins at 0 is found or not
  std::uint64_t lowest = base;
  std::uint64_t highest = top;
  std::multiset<std::uint64_t> expected;
  std::erase_if(model_, [&](const auto& each) {
    const auto& [start, range] = each;
    // The range at the base goes even if the span is empty.
    const bool meets = (start < top && base < range.end) || (start <= base && base < range.end);
    if (!meets) return false;
    lowest = std::min(lowest, start);
    highest = std::max(highest, range.end);
    expected.insert(range.item);
    return true;
  });
  std::uint64_t start = 0;
  std::uint64_t end = 0;
  __VeskDestroyRangeTableSpan(table_, base, size, &start, &end);
  require(start == lowest && end == highest && destroyedItems == expected);
}

void Player::removeFirst() {
  const std::uint64_t lo = input_.takeInRange(0, 7) == 0 ? 0 : takeAddress();
  const std::uint64_t hi = input_.takeInRange(0, 7) == 0 ? UINT64_MAX : lo + takeLength();
  std::map<Block, std::vector<std::uint64_t>> blocks; // to the starts of the ranges that touch them
  for (const auto& [start, range] : model_) {
    std::vector<Block> own;
    addBlocks(start, range.end, own);
    for (const Block& block : own) blocks[block].push_back(start);
  }
  std::vector<std::uint64_t> acceptable; // starts
  const Wide begin = std::max(lo & ~std::uint64_t{31}, base_);
  const Wide limit = std::min<Wide>(hi, Wide{base_} + kArena + 0x10000);
  for (Wide at = begin; at < limit && acceptable.empty(); at += 32) {
    for (std::uint32_t level = levelOf(hi - at); level >= VESK_RANGE_TABLE_MIN_LEVEL; --level) {
      const auto hit = blocks.find({level, static_cast<std::uint64_t>(at & ~((Wide{2} << level) - 1))});
      if (hit == blocks.end()) continue;
      const bool isChain = level == VESK_RANGE_TABLE_MIN_LEVEL && !aligned_;
      for (const std::uint64_t start : hit->second) {
        if (!isChain || (lo <= start && model_[start].end <= hi)) acceptable.push_back(start);
      }
      break;
    }
  }
  const std::uint64_t item = __VeskRemoveFirstRangeTableEntry(table_, lo, hi);
  require((item == 0) == acceptable.empty() && destroyedItems.empty());
  if (item == 0) return;
  const auto removed = std::find_if(acceptable.begin(), acceptable.end(),
                                    [&](std::uint64_t start) { return model_[start].item == item; });
  require(removed != acceptable.end());
  model_.erase(*removed);
}

void Player::operate() {
  destroyedItems.clear();
  switch (input_.takeInRange(0, 9)) {
  case 0:
  case 1:
  case 2:
  case 3:
    return insert();
  case 4:
    return lookUp(takeAddress() + input_.takeInRange(0u, 31u));
  case 5:
    return lookUp(input_.take<std::uint64_t>());
  case 6:
    return removeOne(input_.takeBool());
  case 7:
    return destroySpan();
  case 8: // reckoned in steps of 32 bytes
    if (scale_ == 0) removeFirst();
    return;
  default:
    if (input_.takeInRange(0, 3) != 0) return;
    __VeskScanAndEmptyRangeTable(table_);
    require(destroyedItems.size() == model_.size());
    for (const auto& [start, range] : model_) require(destroyedItems.count(range.item) == 1);
    model_.clear();
  }
}

// The block is stored for the range that begins there, which has so many.
void Player::checkBlock(const Block& block, std::uint64_t start, std::size_t count) const {
  const auto& [level, address] = block;
  void* const stored = __VeskLookupHashTable(table_->levels[level - VESK_RANGE_TABLE_MIN_LEVEL], address);
  const auto* entry = static_cast<const RangeTableEntry*>(stored);
  if (level == VESK_RANGE_TABLE_MIN_LEVEL && !aligned_) {
    const auto* link = static_cast<const RangeTableLink*>(stored);
    while (link != nullptr && link->entry->start != start) link = link->next;
    entry = link != nullptr ? link->entry : nullptr;
  }
  require(entry != nullptr && entry->start == start && entry->marker == UINT64_MAX &&
          entry->refCount == count);
}

// Both ends of every range, from inside and outside, its blocks, and no block too many.
void Player::check() const {
  std::set<Block> blocks;
  for (const auto& [start, range] : model_) {
    lookUp(start);
    lookUp(range.end - 1);
    lookUp(start - 1);
    lookUp(range.end);
    std::vector<Block> own;
    addBlocks(start, range.end, own);
    for (const Block& block : own) checkBlock(block, start, own.size());
    blocks.insert(own.begin(), own.end());
  }
  for (std::uint32_t level = VESK_RANGE_TABLE_MIN_LEVEL; level <= table_->maxLevel; ++level) {
    const VeskHashTable* const stored = table_->levels[level - VESK_RANGE_TABLE_MIN_LEVEL];
    const auto expected =
        std::count_if(blocks.begin(), blocks.end(), [&](const Block& block) { return block.first == level; });
    require((stored != nullptr ? stored->entryCount : 0) == expected);
  }
}

void Player::finish() {
  __VeskScanAndEmptyRangeTable(table_);
  __VeskDestroyRangeTable(table_);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  Player player(input);
  for (int i = 0; i < 100 && input.left() > 0; ++i) {
    player.operate();
    player.check();
  }
  player.finish();
  require(fuzz::liveBlocks() == before);
  return 0;
}
