// Trees against a sequence of their entries in order, with every handle kept, and the tree's own validation.
#include <algorithm>
#include <vector>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/tree.h"

namespace {

using fuzz::require;

struct Element {
  std::uint64_t key;
  std::uint64_t item;
  RedBlackEntry* entry;
};

using Model = std::vector<Element>;

int32_t inOrder(uint64_t a, uint64_t b) { return a < b ? -1 : a > b; }
int32_t reversed(uint64_t a, uint64_t b) { return a < b ? INT32_MAX : a > b ? INT32_MIN : 0; }
int32_t byHighBits(uint64_t a, uint64_t b) { return inOrder(a >> 4, b >> 4); }

std::vector<std::uint64_t> destroyed; // items and keys, as they come

void noteItem(uint64_t item) { destroyed.push_back(item); }
void noteKey(uint64_t key) { destroyed.push_back(~key); }

std::uint64_t takeKey(fuzz::Input& input) {
  switch (input.takeInRange(0, 2)) {
  case 0:
    return input.take<std::uint8_t>();
  case 1:
    return UINT64_MAX - input.takeInRange(0u, 40u);
  default:
    return input.take<std::uint64_t>();
  }
}

class Player {
public:
  explicit Player(VeskRedBlackComparator compare)
      : compare_(compare != nullptr ? compare : inOrder),
        tree_(__VeskCreateRedBlackTree(4, compare, noteItem, noteKey)) {}

  void insert(std::uint64_t key) {
    const std::uint64_t item = ++lastItem_;
    __VeskInsertRedBlackEntry(tree_, key, item);
    const auto place = std::find_if(model_.begin(), model_.end(),
                                    [&](const Element& each) { return compare_(key, each.key) < 0; });
    RedBlackEntry* const entry = __VeskGetRedBlackRangeEnd(tree_, key);
    model_.insert(place, {key, item, entry});
  }

  void remove(std::size_t index) {
    if (model_.empty()) return;
    const auto place = model_.begin() + static_cast<std::ptrdiff_t>(index % model_.size());
    __VeskRemoveRedBlackEntry(place->entry);
    model_.erase(place);
    require(destroyed.empty());
  }

  // As both range functions say it.
  std::size_t rangeStart(std::uint64_t lo, std::uint64_t hi) const {
    std::size_t i = 0;
    while (i < model_.size() && compare_(lo, model_[i].key) > 0) ++i;
    const bool inside =
        i < model_.size() && (compare_(lo, model_[i].key) == 0 || compare_(hi, model_[i].key) > 0);
    return inside ? i : model_.size();
  }

  std::size_t next(std::size_t i, std::uint64_t hi) const {
    return i + 1 < model_.size() && compare_(hi, model_[i + 1].key) >= 0 ? i + 1 : model_.size();
  }

  void walkForward(std::uint64_t lo, std::uint64_t hi) const {
    RedBlackEntry* entry = __VeskGetRedBlackRangeStart(tree_, lo, hi);
    for (std::size_t i = rangeStart(lo, hi); i < model_.size(); i = next(i, hi)) {
      require(entry == model_[i].entry);
      entry = __VeskGetRedBlackRangeNext(entry, hi);
    }
    require(entry == nullptr);
  }

  void walkBackward(std::uint64_t lo, std::uint64_t key) const {
    std::size_t i = model_.size();
    while (i > 0 && compare_(model_[i - 1].key, key) > 0) --i;
    RedBlackEntry* entry = __VeskGetRedBlackRangeEnd(tree_, key);
    if (i == 0) return require(entry == nullptr);
    for (;;) {
      require(entry == model_[--i].entry);
      entry = __VeskGetRedBlackRangePrev(entry, lo);
      if (i == 0 || compare_(lo, model_[i - 1].key) > 0) break;
    }
    require(entry == nullptr);
  }

  void destroyRange(std::uint64_t lo, std::uint64_t hi) {
    std::vector<std::uint64_t> expected;
    Model kept = model_;
    for (std::size_t i = rangeStart(lo, hi); i < model_.size(); i = next(i, hi)) {
      expected.push_back(model_[i].item);
      expected.push_back(~model_[i].key);
      std::erase_if(kept, [&](const Element& each) { return each.item == model_[i].item; });
    }
    __VeskDestroyRedBlackRange(tree_, lo, hi);
    require(destroyed == expected);
    destroyed.clear();
    model_ = kept;
  }

  // The tree is sound, and every handle still gives what was put in under it.
  void check() const {
    require(__VeskValidateRedBlack(tree_) == 1 && tree_->count == model_.size());
    require(tree_->nil->colour == VESK_RED_BLACK_BLACK && tree_->nil->left == tree_->nil);
    for (std::size_t i = 0; i < model_.size(); ++i) {
      const Element& each = model_[i];
      std::uint64_t key = 0;
      std::uint64_t item = 0;
      require(__VeskGetRedBlackKey(each.entry, &key) == 1 && key == each.key);
      require(__VeskGetRedBlackItem(each.entry, &item) == 1 && item == each.item);
      require(each.entry->next == (i + 1 < model_.size() ? model_[i + 1].entry : tree_->nil));
      require(each.entry->prev == (i > 0 ? model_[i - 1].entry : tree_->nil));
      RedBlackEntry* const parent = each.entry->parent;
      require(parent == tree_->nil ? tree_->root == each.entry
                                   : (parent->left == each.entry || parent->right == each.entry));
    }
  }

  void destroy() {
    std::vector<std::uint64_t> expected;
    for (const Element& each : model_) {
      expected.push_back(each.item);
      expected.push_back(~each.key);
    }
    __VeskDestroyRedBlackTree(tree_);
    require(destroyed == expected);
    destroyed.clear();
  }

private:
  VeskRedBlackComparator compare_;
  RedBlackTree* tree_;
  Model model_;
  std::uint64_t lastItem_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  Player player(input.pick<VeskRedBlackComparator>({nullptr, inOrder, reversed, byHighBits}));
  while (input.left() > 0) {
    const std::uint64_t key = takeKey(input);
    switch (input.takeInRange(0, 6)) {
    case 0:
    case 1:
    case 2:
      player.insert(key);
      break;
    case 3:
      player.remove(static_cast<std::size_t>(key));
      break;
    case 4:
      player.walkForward(key, takeKey(input));
      break;
    case 5:
      player.walkBackward(key, takeKey(input));
      break;
    default:
      player.destroyRange(key, takeKey(input));
      break;
    }
    player.check();
  }
  player.destroy();
  require(fuzz::liveBlocks() == before);
  return 0;
}
