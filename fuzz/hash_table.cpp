// Hash tables of every kind against std::map, with scans whose callbacks use the table meanwhile.
#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/hash_table.h"

namespace {

using fuzz::require;

constexpr std::uint64_t kClasses = 601; // in compare mode, keys are equal when they leave the same remainder
constexpr int kDeepest = 2;             // scans inside a scan's callbacks

uint64_t hashToOne(VeskHashTable*, uint64_t) { return 42; }
uint64_t hashMixed(VeskHashTable*, uint64_t key) { return key * 0x9E3779B97F4A7C15u >> 32; }
uint64_t hashClass(VeskHashTable*, uint64_t key) { return key % kClasses * 3; }
uint64_t hashClassAbove(VeskHashTable*, uint64_t key) { return key % kClasses % 5; }

struct Stored {
  std::uint64_t key;
  std::uint64_t data;
};

class Player {
public:
  explicit Player(fuzz::Input& input);
  void play();
  void finish();

private:
  void operate(int depth);
  void scan(int depth);
  void emptyAll();
  void checkLookup(std::uint64_t key);
  void insert(std::uint64_t key);
  void remove(std::uint64_t key);
  void insertOrRemoveMany();

  std::uint64_t takeKey();
  std::uint64_t identity(std::uint64_t key) const { return comparing_ ? key % kClasses : key; }
  std::map<std::uint64_t, Stored>::iterator findData(std::uint64_t data);
  void drop(std::map<std::uint64_t, Stored>::iterator place);

  static uint32_t visit(void* data, void* context);
  static uint32_t release(void* data);
  static void releaseKey(uint64_t key);
  static uint32_t acquire(void* data);

  // What the callbacks of the innermost scan go by.
  struct Scan {
    int depth;
    bool remove;
    bool hasRelease;
    std::uint32_t selectModulus;
    std::uint32_t keepModulus;
    std::uint32_t removed = 0;
    std::set<std::uint64_t> visited;
  };

  fuzz::Input& input_;
  VeskHashTable* table_ = nullptr;
  bool comparing_;
  bool meddling_ = false; // callbacks may change the table
  std::map<std::uint64_t, Stored> model_;
  std::unordered_map<std::uint64_t, std::uint64_t> identities_; // of what is stored, by the data
  std::uint64_t lastData_ = 0;
  std::size_t most_ = 7000;                    // keys
  std::multiset<std::uint64_t> keysToRelease_; // of entries that have gone, in compare mode
  Scan* scan_ = nullptr;
  std::uint64_t acquired_ = 0;

  static Player* current;
};

Player* Player::current;

Player::Player(fuzz::Input& input) : input_(input), comparing_(input.takeInRange(0, 3) == 0) {
  current = this;
  constexpr std::uint32_t kSizes[] = {0, VESK_HASH_TABLE_512_BUCKETS, VESK_HASH_TABLE_1024_BUCKETS};
  const std::uint32_t flags = (input.takeBool() ? VESK_HASH_TABLE_UNLOCKED : 0) |
                              (comparing_ ? VESK_HASH_TABLE_COMPARE_KEYS : 0) | input.pick(kSizes);
  constexpr std::int32_t kLevels[] = {1, 1, 1, 0, 2, 3, 4};
  const std::int32_t levels = input.pick(kLevels);
  const VeskHashFunction byClass[] = {hashClass, hashClassAbove, hashClassAbove};
  const VeskHashFunction leaf = input.pick<VeskHashFunction>({nullptr, nullptr, hashToOne, hashMixed});
  if (leaf == hashToOne) most_ = 600;
  const VeskHashFunction plain[] = {leaf, nullptr, nullptr};
  table_ = __VeskCreateHashTable(
      flags, comparing_ ? byClass : plain, levels,
      [](std::uint64_t a, std::uint64_t b) -> std::uint32_t { return a % kClasses == b % kClasses ? 4 : 0; },
      releaseKey, 3, 1);
}

std::uint64_t Player::takeKey() {
  switch (input_.takeInRange(0, 3)) {
  case 0:
    return input_.take<std::uint8_t>();
  case 1:
    return input_.take<std::uint8_t>() * std::uint64_t{256};
  case 2:
    return std::uint64_t{input_.take<std::uint8_t>()} << input_.takeInRange(0, 56);
  default:
    return input_.take<std::uint64_t>();
  }
}

std::map<std::uint64_t, Stored>::iterator Player::findData(std::uint64_t data) {
  const auto known = identities_.find(data);
  return known != identities_.end() ? model_.find(known->second) : model_.end();
}

// An entry has gone, or is about to.
void Player::drop(std::map<std::uint64_t, Stored>::iterator place) {
  if (comparing_) keysToRelease_.insert(place->second.key);
  identities_.erase(place->second.data);
  model_.erase(place);
}

void Player::releaseKey(uint64_t key) {
  const auto expected = current->keysToRelease_.find(key);
  require(expected != current->keysToRelease_.end());
  current->keysToRelease_.erase(expected);
}

void Player::insert(std::uint64_t key) {
  // Null is data like any other; but each is stored once, and visited once by a scan.
  const std::uint64_t data = scan_ == nullptr && !identities_.contains(0) ? 0 : ++lastData_;
  const auto [place, isNew] = model_.try_emplace(identity(key), Stored{key, data});
  if (isNew) identities_[data] = place->first;
  const std::uint64_t expected = place->second.data;
  require(reinterpret_cast<std::uint64_t>(
              __VeskInsertHashTableEntry(table_, key, reinterpret_cast<void*>(data))) == expected);
}

void Player::remove(std::uint64_t key) {
  const auto place = model_.find(identity(key));
  std::uint64_t expected = 0;
  if (place != model_.end()) {
    expected = place->second.data;
    drop(place);
  }
  require(reinterpret_cast<std::uint64_t>(__VeskRemoveHashTableEntry(table_, key)) == expected);
}

// Enough to make a leaf grow, and a large one thin.
void Player::insertOrRemoveMany() {
  constexpr std::uint64_t kSteps[] = {1, 256, (std::uint64_t{1} << 48) + 1, 0x9E3779B97F4A7C15};
  const std::uint64_t step = input_.pick(kSteps);
  const std::uint64_t start = input_.takeBool() ? 0 : takeKey();
  const std::uint64_t count = input_.takeInRange(1, 16) * std::uint64_t{200};
  const bool inserting = model_.size() + count < most_ && input_.takeInRange(0, 3) != 0;
  for (std::uint64_t i = 0; i < count; ++i) {
    if (inserting) {
      insert(start + i * step);
    } else {
      remove(start + i * 3 * step);
    }
  }
}

uint32_t Player::acquire(void* data) {
  current->acquired_ = reinterpret_cast<std::uint64_t>(data);
  return 77;
}

void Player::checkLookup(std::uint64_t key) {
  const auto place = model_.find(identity(key));
  const std::uint64_t expected = place != model_.end() ? place->second.data : 0;
  require(reinterpret_cast<std::uint64_t>(__VeskLookupHashTable(table_, key)) == expected);
  void* data = table_;
  acquired_ = 0;
  require(__VeskLookupAndAcquireHashTableDataItem(table_, key, acquire, &data) ==
          (place != model_.end() ? 77 : 1));
  require(reinterpret_cast<std::uint64_t>(data) == expected && acquired_ == expected);
}

// Every entry that is visited is there, and once.
uint32_t Player::visit(void* data, void* context) {
  Player& player = *static_cast<Player*>(context);
  Scan& scan = *player.scan_;
  const auto number = reinterpret_cast<std::uint64_t>(data);
  require(player.findData(number) != player.model_.end() && scan.visited.insert(number).second);
  if (player.meddling_) player.operate(scan.depth + 1);
  const bool selected = number % scan.selectModulus == 0;
  if (selected && scan.remove && !scan.hasRelease) {
    const auto place = player.findData(number);
    if (place != player.model_.end()) {
      player.drop(place);
      ++scan.removed;
    }
  }
  return selected ? 5 : 0;
}

uint32_t Player::release(void* data) {
  Player& player = *current;
  Scan& scan = *player.scan_;
  const auto number = reinterpret_cast<std::uint64_t>(data);
  if (player.meddling_) player.operate(scan.depth + 1);
  if (number % scan.keepModulus == 0) return 0;
  const auto place = player.findData(number);
  if (place != player.model_.end()) {
    player.drop(place);
    ++scan.removed;
  }
  return 9;
}

void Player::scan(int depth) {
  const bool remove = input_.takeBool();
  Scan scan = {.depth = depth,
               .remove = remove,
               .hasRelease = input_.takeBool(),
               .selectModulus = input_.takeInRange(1u, 4u),
               .keepModulus = input_.takeInRange(1u, 4u),
               .visited = {}};
  Scan* const outer = scan_;
  scan_ = &scan;
  const bool outermost = outer == nullptr;
  if (outermost) meddling_ = input_.takeBool();
  const std::size_t before = model_.size();
  std::uint32_t count = 0;
  const std::uint32_t removed =
      __VeskScanHashTable(table_, visit, this, remove ? 2 : 0, scan.hasRelease ? release : nullptr, &count);
  require(removed == scan.removed);
  if (outermost && !meddling_) {
    require(count == before && scan.visited.size() == before && model_.size() + removed == before);
    require(keysToRelease_.empty());
  }
  scan_ = outer;
  if (outermost) meddling_ = false;
}

void Player::emptyAll() {
  const std::size_t before = model_.size();
  Scan scan = {.depth = kDeepest,
               .remove = true,
               .hasRelease = true,
               .selectModulus = 1,
               .keepModulus = input_.takeInRange(1u, 4u),
               .visited = {}};
  const bool asking = input_.takeBool();
  scan_ = &scan;
  if (!asking) {
    while (!model_.empty()) drop(model_.begin());
  }
  std::uint32_t count = 0;
  const std::uint32_t removed = __VeskScanAndEmptyHashTable(table_, asking ? release : nullptr, &count);
  require(count == before && removed == (asking ? scan.removed : before));
  require(keysToRelease_.empty());
  scan_ = nullptr;
}

void Player::operate(int depth) {
  switch (input_.takeInRange(0, 7)) {
  case 0:
  case 1:
    insert(takeKey());
    break;
  case 2:
    insertOrRemoveMany();
    break;
  case 3:
    remove(takeKey());
    break;
  case 4:
    if (!model_.empty()) remove(model_.begin()->second.key);
    break;
  case 5:
    checkLookup(takeKey());
    break;
  case 6:
    if (depth < kDeepest) scan(depth);
    break;
  default:
    if (depth == 0) emptyAll();
    break;
  }
}

void Player::play() {
  for (int i = 0; i < 60 && input_.left() > 0; ++i) {
    operate(0);
    require(keysToRelease_.empty());
  }
  for (const auto& [identity, stored] : model_) checkLookup(stored.key);
  checkLookup(takeKey());
}

void Player::finish() {
  static std::multiset<std::uint64_t> left;
  left.clear();
  for (const auto& [identity, stored] : model_) left.insert(stored.data);
  while (!model_.empty()) drop(model_.begin());
  __VeskDestroyHashTable(table_, [](void* data) -> std::uint32_t {
    require(left.erase(reinterpret_cast<std::uint64_t>(data)) == 1);
    return 0;
  });
  require(left.empty() && keysToRelease_.empty());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::startRuntime();
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  Player player(input);
  player.play();
  player.finish();
  require(fuzz::liveBlocks() == before);
  return 0;
}
