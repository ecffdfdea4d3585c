// The red-black tree.
//
// Entries hang on two structures: the tree, for searches, and a list in key order (prev, next), for walks.
// The sentinel ends both. It is an entry of its own, always black, so that fix-ups read colours and children
// without asking whether an entry is there; removal borrows its parent link.
//
// Left and right are one code: what a side does to the other is a template over the side. The order is
// another parameter: while the comparator is the default one, comparisons are inline and a descent takes its
// turns by conditional moves, since a branch on random keys is mispredicted every other time.
#include <cstdint>
#include <utility>

#include "veskrt/memory.h"
#include "veskrt/tree.h"

namespace vesk {
namespace {

using Tree = RedBlackTree;
using Entry = RedBlackEntry;

constexpr std::uint32_t kBlack = VESK_RED_BLACK_BLACK;
constexpr std::uint32_t kRed = VESK_RED_BLACK_RED;

// ---- Sides ----

enum class Side { kLeft, kRight };

constexpr Side opposite(Side side) { return side == Side::kLeft ? Side::kRight : Side::kLeft; }

template <Side side, class E>
[[gnu::always_inline]] inline auto& child(E* entry) {
  if constexpr (side == Side::kLeft)
    return entry->left;
  else
    return entry->right;
}

template <Side side, class E>
[[gnu::always_inline]] inline auto& neighbour(E* entry) {
  if constexpr (side == Side::kLeft)
    return entry->prev;
  else
    return entry->next;
}

bool isSentinel(const Entry* entry) { return entry->tree->nil == entry; }

// ---- Orders ----
//
// An order compares two keys once; the result answers how the first stands to the second.

struct UnsignedOrder {
  struct Compared {
    std::uint64_t a;
    std::uint64_t b;
    bool before() const { return a < b; }
    bool equal() const { return a == b; }
    bool after() const { return a > b; }
  };
  Compared operator()(std::uint64_t a, std::uint64_t b) const { return {a, b}; }
};

struct CallersOrder {
  struct Compared {
    std::int32_t result;
    bool before() const { return result < 0; }
    bool equal() const { return result == 0; }
    bool after() const { return result > 0; }
  };
  VeskRedBlackComparator compare;
  Compared operator()(std::uint64_t a, std::uint64_t b) const { return {compare(a, b)}; }
};

std::int32_t compareUnsigned(std::uint64_t a, std::uint64_t b) { return (a > b) - (a < b); }

template <class Body, class... Arguments>
[[gnu::noinline]] auto inCallersOrder(Body body, VeskRedBlackComparator compare, Arguments... arguments) {
  return body(CallersOrder{compare}, arguments...);
}

// body(order, arguments...) in the tree's order. `body` captures nothing: the arguments stay in registers.
template <class Body, class... Arguments>
[[gnu::always_inline]] inline auto inOrderOf(const Tree* tree, Body body, Arguments... arguments) {
  const VeskRedBlackComparator compare = tree->compare;
  if (compare != compareUnsigned) [[unlikely]]
    return inCallersOrder(body, compare, arguments...);
  return body(UnsignedOrder{}, arguments...);
}

// ---- Searches ----

// An entry lies in two cache lines mostly. The way down of an insertion asks for those of both children: the
// one that it leaves aside is looked at by the fix-up.
[[gnu::always_inline]] inline void prefetchColour(const Entry* entry) { __builtin_prefetch(&entry->colour); }

[[gnu::always_inline]] inline void prefetchWhole(const Entry* entry) {
  __builtin_prefetch(&entry->left);
  prefetchColour(entry);
}

// Where the key would be inserted: the last entry on the way down, and on which side of it. The tree is not
// empty.
struct Place {
  Entry* parent;
  Side side;
};

constexpr auto findPlace = [](auto order, const Tree* tree, std::uint64_t key) {
  const Entry* const nil = tree->nil;
  Entry* entry = tree->root;
  for (;;) {
    Entry* const left = entry->left;
    Entry* const right = entry->right;
    prefetchColour(left);
    prefetchColour(right);
    const bool before = order(key, entry->key).before();
    Entry* const below = before ? left : right;
    if (below == nil) return Place{entry, before ? Side::kLeft : Side::kRight};
    entry = below;
  }
};

// The outermost entry, on the given side, of the entries whose key equals that of `entry`. The entries above
// it had other keys: its equals are below it.
template <Side side, class Order>
[[gnu::always_inline]] inline Entry* outermostEqual(Order order, const Tree* tree, Entry* entry,
                                                    std::uint64_t key) {
  const Entry* const nil = tree->nil;
  Entry* below = child<side>(entry);
  if (below == nil || !order(key, neighbour<side>(entry)->key).equal()) [[likely]]
    return entry;
  while (below != nil) {
    if (order(key, below->key).equal()) {
      entry = below;
      below = child<side>(below);
    } else {
      below = child<opposite(side)>(below);
    }
  }
  return entry;
}

struct Edge {
  Entry* entry; // the sentinel when there is neither an equal nor a nearest one
  bool equal;
};

// The outermost entry, on the given side, whose key equals the given one; without one, the nearest entry on
// the other side of where it would be. The tree is not empty.
template <Side side, class Order>
[[gnu::always_inline]] inline Edge findEdge(Order order, const Tree* tree, std::uint64_t key) {
  const Entry* const nil = tree->nil;
  Entry* entry = tree->root;
  for (;;) {
    Entry* const left = entry->left;
    Entry* const right = entry->right;
    const auto compared = order(key, entry->key);
    if (compared.equal()) [[unlikely]]
      return {outermostEqual<side>(order, tree, entry, key), true};
    Entry* const below = compared.before() ? left : right;
    if (below == nil) [[unlikely]] {
      const bool beyond = side == Side::kLeft ? compared.before() : compared.after();
      return {beyond ? entry : neighbour<opposite(side)>(entry), false};
    }
    entry = below;
  }
}

constexpr auto rangeStart = [](auto order, const Tree* tree, std::uint64_t lo, std::uint64_t hi) -> Entry* {
  const Edge start = findEdge<Side::kLeft>(order, tree, lo);
  if (start.equal) return start.entry;
  return start.entry != tree->nil && order(hi, start.entry->key).after() ? start.entry : nullptr;
};

constexpr auto rangeEnd = [](auto order, const Tree* tree, std::uint64_t key) -> Entry* {
  Entry* const entry = findEdge<Side::kRight>(order, tree, key).entry;
  return entry != tree->nil ? entry : nullptr;
};

// A step of a walk to the given side reaches an entry: null if the bound shuts it out.
template <Side side>
constexpr auto admit = [](auto order, Entry* reached, std::uint64_t bound) -> Entry* {
  const auto compared = order(bound, reached->key);
  return (side == Side::kLeft ? compared.after() : compared.before()) ? nullptr : reached;
};

// Each entry's address is in the one before it, so that a walk alone would wait for memory at every step. The
// tree's links know what comes a few steps later: the parent, and the far part of the subtree that is about
// to be entered.
template <Side side>
[[gnu::always_inline]] inline Entry* step(Entry* entry, std::uint64_t bound) {
  if (entry == nullptr) return nullptr;
  const Tree* const tree = entry->tree;
  Entry* const reached = neighbour<side>(entry);
  if (entry == tree->nil || reached == tree->nil) return nullptr;
  prefetchWhole(reached->parent);
  prefetchWhole(child<side>(child<side>(reached)));
  return inOrderOf(tree, admit<side>, reached, bound);
}

// ---- Relinking ----

// `successor` takes the place of `entry` below its parent, or as the root. The children stay.
[[gnu::always_inline]] inline void takePlace(Tree* tree, Entry* entry, Entry* successor) {
  Entry* const parent = entry->parent;
  successor->parent = parent;
  if (parent == tree->nil) {
    tree->root = successor;
  } else {
    (parent->left == entry ? parent->left : parent->right) = successor;
  }
}

// Rotates `entry` down to the given side; its child on the other side comes up.
template <Side side>
void rotate(Tree* tree, Entry* entry) {
  constexpr Side other = opposite(side);
  Entry* const rising = child<other>(entry);
  Entry* const crossing = child<side>(rising);
  child<other>(entry) = crossing;
  if (crossing != tree->nil) crossing->parent = entry;
  takePlace(tree, entry, rising);
  child<side>(rising) = entry;
  entry->parent = rising;
}

// Links a new entry below its parent and beside it in the list. The neighbour on the far side is the sentinel
// at the end of the list: what is written there is never read.
template <Side side>
[[gnu::always_inline]] inline void attach(Entry* parent, Entry* entry) {
  child<side>(parent) = entry;
  Entry* const beyond = neighbour<side>(parent);
  neighbour<opposite(side)>(entry) = parent;
  neighbour<side>(entry) = beyond;
  neighbour<opposite(side)>(beyond) = entry;
  neighbour<side>(parent) = entry;
}

// `entry` and its parent are red, the parent stands on the given side of the grandparent. Returns the entry
// that may still have a red parent.
template <Side side>
[[gnu::always_inline]] inline Entry* separateReds(Tree* tree, Entry* entry) {
  constexpr Side other = opposite(side);
  Entry* parent = entry->parent;
  Entry* const grandparent = parent->parent;
  Entry* const uncle = child<other>(grandparent);
  if (uncle->colour == kRed) {
    parent->colour = kBlack;
    uncle->colour = kBlack;
    grandparent->colour = kRed;
    return grandparent;
  }
  if (child<other>(parent) == entry) {
    rotate<side>(tree, parent);
    std::swap(entry, parent);
  }
  parent->colour = kBlack;
  grandparent->colour = kRed;
  rotate<other>(tree, grandparent);
  return entry;
}

// The root's parent is the sentinel, which is black.
void restoreAfterInsertion(Tree* tree, Entry* entry) {
  while (entry->parent->colour == kRed) {
    const Entry* const parent = entry->parent;
    entry = parent == parent->parent->left ? separateReds<Side::kLeft>(tree, entry)
                                           : separateReds<Side::kRight>(tree, entry);
  }
  tree->root->colour = kBlack;
}

// Paths through `entry`, on the given side of its parent, lack one black entry. Returns the entry that lacks
// it now; the root when none does.
template <Side side>
[[gnu::always_inline]] inline Entry* supplyBlack(Tree* tree, Entry* entry) {
  constexpr Side other = opposite(side);
  Entry* const parent = entry->parent;
  Entry* sibling = child<other>(parent);
  if (sibling->colour == kRed) {
    sibling->colour = kBlack;
    parent->colour = kRed;
    rotate<side>(tree, parent);
    sibling = child<other>(parent);
  }
  if (child<side>(sibling)->colour == kBlack && child<other>(sibling)->colour == kBlack) {
    sibling->colour = kRed;
    return parent;
  }
  if (child<other>(sibling)->colour == kBlack) {
    child<side>(sibling)->colour = kBlack;
    sibling->colour = kRed;
    rotate<other>(tree, sibling);
    sibling = child<other>(parent);
  }
  sibling->colour = parent->colour;
  parent->colour = kBlack;
  child<other>(sibling)->colour = kBlack;
  rotate<side>(tree, parent);
  return tree->root;
}

void restoreAfterRemoval(Tree* tree, Entry* entry) {
  while (entry != tree->root && entry->colour == kBlack) {
    entry = entry == entry->parent->left ? supplyBlack<Side::kLeft>(tree, entry)
                                         : supplyBlack<Side::kRight>(tree, entry);
  }
  entry->colour = kBlack;
}

// Takes the entry out of tree and list and frees it.
void removeEntry(Entry* entry) {
  Tree* const tree = entry->tree;
  Entry* const nil = tree->nil;
  prefetchWhole(entry->next);
  prefetchWhole(entry->parent);
  prefetchColour(entry->left);
  prefetchColour(entry->right);
  entry->next->prev = entry->prev;
  entry->prev->next = entry->next;

  // What leaves its place has at most one child, which moves up: the entry itself, or the leftmost entry to
  // its right, which then replaces it. `orphan` may be the sentinel, whose parent link the fix-up follows
  // too.
  Entry* const leaving = entry->left == nil || entry->right == nil ? entry : entry->next;
  Entry* const orphan = leaving->left != nil ? leaving->left : leaving->right;
  const std::uint32_t lostColour = leaving->colour;
  takePlace(tree, leaving, orphan);
  if (leaving != entry) {
    leaving->colour = entry->colour;
    leaving->left = entry->left;
    leaving->right = entry->right;
    takePlace(tree, entry, leaving);
    leaving->left->parent = leaving;
    leaving->right->parent = leaving;
    if (orphan->parent == entry) orphan->parent = leaving;
  }
  if (lostColour == kBlack) restoreAfterRemoval(tree, orphan);
  --tree->count;
  __VeskFree(entry);
}

Entry* leftmost(const Tree* tree) {
  Entry* entry = tree->root;
  while (entry->left != tree->nil) entry = entry->left;
  return entry;
}

void destroyContents(const Tree* tree, std::uint64_t key, std::uint64_t item) {
  if (tree->destroyItem != nullptr) tree->destroyItem(item);
  if (tree->destroyKey != nullptr) tree->destroyKey(key);
}

// ---- Validation ----

// More entries than `count` can hold would be needed for a path with more blacks.
constexpr std::uint32_t kMostBlacks = 33;

// Red rule and black height of the whole tree. Damaged links may lead anywhere in the tree, in circles too,
// but no path can pass kMostBlacks blacks, nor a red entry without a black one after it.
bool coloursAreRight(const Tree* tree) {
  struct Pending {
    const Entry* entry;
    std::uint32_t blacksAbove;
    bool belowRed;
  };
  Pending pending[2 * kMostBlacks + 2];
  std::size_t depth = 0;
  std::uint32_t height = 0; // blacks on the leftmost path; 0 until it has been walked
  pending[depth++] = {tree->root, 0, false};
  while (depth != 0) {
    auto [entry, blacks, belowRed] = pending[--depth];
    for (; entry != tree->nil; entry = entry->left) {
      const bool red = entry->colour == kRed;
      if (red && belowRed) return false;
      if (!red && ++blacks > kMostBlacks) return false;
      belowRed = red;
      pending[depth++] = {entry->right, blacks, red};
    }
    ++blacks; // the sentinel
    if (height == 0) height = blacks;
    if (blacks != height) return false;
  }
  return true;
}

bool listIsRight(const Tree* tree) {
  if (tree->root == tree->nil) return tree->count == 0;
  std::uint32_t entries = 1;
  for (const Entry* entry = leftmost(tree); entry->next != tree->nil; entry = entry->next) {
    if (++entries > tree->count || tree->compare(entry->key, entry->next->key) > 0) return false;
  }
  return entries == tree->count;
}

} // namespace
} // namespace vesk

using namespace vesk;

RedBlackTree* __VeskCreateRedBlackTree(uint32_t category, VeskRedBlackComparator compare,
                                       VeskRedBlackDestructor destroyItem,
                                       VeskRedBlackDestructor destroyKey) {
  auto* const tree = static_cast<Tree*>(__VeskMalloc(category, sizeof(Tree), 0));
  auto* const nil = static_cast<Entry*>(__VeskMalloc(category, sizeof(Entry), 0));
  *nil = {.tree = tree,
          .left = nil,
          .right = nil,
          .parent = nil,
          .prev = nil,
          .next = nil,
          .key = 0,
          .item = 0,
          .colour = kBlack};
  *tree = {.root = nil,
           .nil = nil,
           .compare = compare != nullptr ? compare : compareUnsigned,
           .destroyItem = destroyItem,
           .destroyKey = destroyKey,
           .category = category,
           .count = 0};
  return tree;
}

void __VeskInsertRedBlackEntry(RedBlackTree* tree, uint64_t key, uint64_t item) {
  if (tree == nullptr) return;
  Entry* const nil = tree->nil;
  auto* const entry = static_cast<Entry*>(__VeskMalloc(tree->category, sizeof(Entry), 0));
  *entry = {.tree = tree,
            .left = nil,
            .right = nil,
            .parent = nil,
            .prev = nil,
            .next = nil,
            .key = key,
            .item = item,
            .colour = kRed};
  if (tree->root == nil) {
    tree->root = entry;
  } else {
    const Place place = inOrderOf(tree, findPlace, tree, key);
    entry->parent = place.parent;
    if (place.side == Side::kLeft) {
      attach<Side::kLeft>(place.parent, entry);
    } else {
      attach<Side::kRight>(place.parent, entry);
    }
  }
  restoreAfterInsertion(tree, entry);
  ++tree->count;
}

void __VeskRemoveRedBlackEntry(RedBlackEntry* entry) {
  if (entry != nullptr && !isSentinel(entry)) removeEntry(entry);
}

RedBlackEntry* __VeskGetRedBlackRangeStart(RedBlackTree* tree, uint64_t lo, uint64_t hi) {
  if (tree == nullptr || tree->root == tree->nil) return nullptr;
  return inOrderOf(tree, rangeStart, tree, lo, hi);
}

RedBlackEntry* __VeskGetRedBlackRangeEnd(RedBlackTree* tree, uint64_t key) {
  if (tree == nullptr || tree->root == tree->nil) return nullptr;
  return inOrderOf(tree, rangeEnd, tree, key);
}

RedBlackEntry* __VeskGetRedBlackRangeNext(RedBlackEntry* entry, uint64_t hi) {
  return step<Side::kRight>(entry, hi);
}

RedBlackEntry* __VeskGetRedBlackRangePrev(RedBlackEntry* entry, uint64_t lo) {
  return step<Side::kLeft>(entry, lo);
}

int __VeskGetRedBlackKey(const RedBlackEntry* entry, uint64_t* key) {
  if (entry == nullptr || key == nullptr || isSentinel(entry)) return 0;
  *key = entry->key;
  return 1;
}

int __VeskGetRedBlackItem(const RedBlackEntry* entry, uint64_t* item) {
  if (entry == nullptr || item == nullptr || isSentinel(entry)) return 0;
  *item = entry->item;
  return 1;
}

void __VeskDestroyRedBlackRange(RedBlackTree* tree, uint64_t lo, uint64_t hi) {
  Entry* entry = __VeskGetRedBlackRangeStart(tree, lo, hi);
  while (entry != nullptr) {
    Entry* const next = step<Side::kRight>(entry, hi);
    const std::uint64_t key = entry->key;
    const std::uint64_t item = entry->item;
    removeEntry(entry);
    destroyContents(tree, key, item);
    entry = next;
  }
}

void __VeskDestroyRedBlackTree(RedBlackTree* tree) {
  if (tree == nullptr) return;
  Entry* const nil = tree->nil;
  for (Entry* entry = leftmost(tree); entry != nil;) {
    Entry* const next = entry->next;
    destroyContents(tree, entry->key, entry->item);
    __VeskFree(entry);
    entry = next;
  }
  __VeskFree(nil);
  __VeskFree(tree);
}

int __VeskValidateRedBlack(const RedBlackTree* tree) {
  return tree != nullptr && coloursAreRight(tree) && listIsRight(tree);
}
