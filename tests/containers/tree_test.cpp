#include "veskrt/tree.h"

#include <map>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "support/test_host.h"
#include "veskrt/memory.h"

namespace {

struct TreeTest : testing::Test {
  void SetUp() override { test::startRuntime(); }
};

int32_t descending(uint64_t a, uint64_t b) { return a > b ? -7 : a < b ? 3 : 0; }

std::vector<uint64_t> destroyed;
void destroyItem(uint64_t item) { destroyed.push_back(item); }
void destroyKey(uint64_t key) { destroyed.push_back(~key); }

// What a plain sequence knows of the tree: key and item of every entry in order, and its handle.
struct Known {
  uint64_t key;
  uint64_t item;
  RedBlackEntry* entry;
};
using Model = std::vector<Known>;

// Links, colours and order, by the records: what the tree's own check says is compared with it elsewhere.
int blackHeight(const RedBlackTree* tree, const RedBlackEntry* entry, const RedBlackEntry* parent) {
  if (entry == tree->nil) return 1;
  EXPECT_EQ(entry->parent, parent);
  EXPECT_EQ(entry->tree, tree);
  if (entry->colour == VESK_RED_BLACK_RED) {
    EXPECT_EQ(entry->left->colour + entry->right->colour, 2 * VESK_RED_BLACK_BLACK);
  }
  const int left = blackHeight(tree, entry->left, entry);
  EXPECT_EQ(left, blackHeight(tree, entry->right, entry));
  return left + (entry->colour == VESK_RED_BLACK_BLACK);
}

void expectIs(RedBlackTree* tree, const Model& model) {
  ASSERT_EQ(__VeskValidateRedBlack(tree), 1);
  ASSERT_EQ(tree->count, model.size());
  blackHeight(tree, tree->root, tree->nil);
  for (size_t i = 0; i < model.size(); ++i) {
    RedBlackEntry* entry = model[i].entry;
    uint64_t key = 0;
    uint64_t item = 0;
    ASSERT_EQ(__VeskGetRedBlackKey(entry, &key) + __VeskGetRedBlackItem(entry, &item), 2);
    ASSERT_EQ(key, model[i].key);
    ASSERT_EQ(item, model[i].item);
    ASSERT_EQ(entry->next, i + 1 < model.size() ? model[i + 1].entry : tree->nil);
    ASSERT_EQ(entry->prev, i > 0 ? model[i - 1].entry : tree->nil);
  }
}

// Every range function against its rule, for bounds on, between and beyond the keys.
void expectWalks(RedBlackTree* tree, const Model& model, uint64_t lo, uint64_t hi) {
  const auto order = [&](uint64_t a, uint64_t b) { return tree->compare(a, b); };
  RedBlackEntry* start = nullptr;
  RedBlackEntry* end = nullptr;
  for (const Known& known : model) {
    if (start == nullptr && order(known.key, lo) >= 0) start = known.entry;
    if (order(known.key, lo) <= 0) end = known.entry;
  }
  if (start != nullptr && order(start->key, lo) != 0 && order(start->key, hi) >= 0) start = nullptr;
  ASSERT_EQ(__VeskGetRedBlackRangeStart(tree, lo, hi), start);
  ASSERT_EQ(__VeskGetRedBlackRangeEnd(tree, lo), end);
  for (size_t i = 0; i < model.size(); ++i) {
    RedBlackEntry* next =
        i + 1 < model.size() && order(model[i + 1].key, hi) <= 0 ? model[i + 1].entry : nullptr;
    RedBlackEntry* previous = i > 0 && order(model[i - 1].key, lo) >= 0 ? model[i - 1].entry : nullptr;
    ASSERT_EQ(__VeskGetRedBlackRangeNext(model[i].entry, hi), next);
    ASSERT_EQ(__VeskGetRedBlackRangePrev(model[i].entry, lo), previous);
  }
}

} // namespace

TEST_F(TreeTest, AgreesWithASequence) {
  for (uint32_t seed = 0; seed < 40; ++seed) {
    std::mt19937 random(seed);
    const bool backwards = seed % 2 == 1;
    RedBlackTree* tree = __VeskCreateRedBlackTree(2, backwards ? descending : nullptr, destroyItem,
                                                  seed % 4 < 2 ? destroyKey : nullptr);
    const auto before = [&](uint64_t a, uint64_t b) { return backwards ? a > b : a < b; };
    const uint64_t keys = 1 + random() % 60; // few keys: many equal ones
    Model model;
    for (uint64_t step = 1; step < 300; ++step) {
      const uint64_t key = random() % keys * (seed % 3 == 0 ? 0x0400000000000001 : 1);
      if (model.empty() || random() % 9 < 5) {
        __VeskInsertRedBlackEntry(tree, key, step);
        auto at = model.begin();
        while (at != model.end() && !before(key, at->key)) ++at;
        RedBlackEntry* entry = __VeskGetRedBlackRangeEnd(tree, key);
        ASSERT_EQ(entry->item, step); // behind every equal key
        model.insert(at, {key, step, entry});
      } else if (random() % 12 != 0) {
        const auto at = model.begin() + static_cast<ptrdiff_t>(random() % model.size());
        __VeskRemoveRedBlackEntry(at->entry);
        model.erase(at);
      } else {
        const uint64_t hi = random() % keys;
        std::vector<uint64_t> expected;
        RedBlackEntry* first = __VeskGetRedBlackRangeStart(tree, key, hi);
        destroyed.clear();
        for (auto at = model.begin(); first != nullptr && at != model.end();) {
          const bool reached = !expected.empty() || at->entry == first;
          if (!reached || (at->entry != first && before(hi, at->key))) {
            if (reached) break;
            ++at;
            continue;
          }
          expected.push_back(at->item);
          if (seed % 4 < 2) expected.push_back(~at->key);
          at = model.erase(at);
        }
        __VeskDestroyRedBlackRange(tree, key, hi);
        ASSERT_EQ(destroyed, expected);
      }
      expectIs(tree, model);
      expectWalks(tree, model, random() % (keys + 2), random() % (keys + 2));
      ASSERT_FALSE(HasFatalFailure());
    }
    destroyed.clear();
    __VeskDestroyRedBlackTree(tree);
    std::vector<uint64_t> expected;
    for (const Known& known : model) {
      expected.push_back(known.item);
      if (seed % 4 < 2) expected.push_back(~known.key);
    }
    EXPECT_EQ(destroyed, expected);
  }
}

TEST_F(TreeTest, ValidationFindsWhatIsBroken) {
  RedBlackTree* tree = __VeskCreateRedBlackTree(0, nullptr, nullptr, nullptr);
  EXPECT_EQ(__VeskValidateRedBlack(tree), 1);
  for (uint64_t key = 0; key < 40; ++key) __VeskInsertRedBlackEntry(tree, key * 7 % 40, key);
  EXPECT_EQ(__VeskValidateRedBlack(tree), 1);
  for (RedBlackEntry* entry = __VeskGetRedBlackRangeStart(tree, 0, 40); entry != nullptr;
       entry = __VeskGetRedBlackRangeNext(entry, 40)) {
    entry->colour ^= 1; // breaks a height, or makes two reds meet
    if (entry != tree->root || (entry->left->colour | entry->right->colour) == 1) {
      EXPECT_EQ(__VeskValidateRedBlack(tree), 0) << entry->key;
    }
    entry->colour ^= 1;
    if (entry->next != tree->nil) { // equal keys would still be in order: swap two that differ
      std::swap(entry->key, entry->next->key);
      EXPECT_EQ(__VeskValidateRedBlack(tree), 0);
      std::swap(entry->key, entry->next->key);
    }
  }
  tree->count += 1;
  EXPECT_EQ(__VeskValidateRedBlack(tree), 0);
  tree->count -= 1;
  EXPECT_EQ(__VeskValidateRedBlack(tree), 1);
  __VeskDestroyRedBlackTree(tree);
}

TEST_F(TreeTest, NothingIsAnAnswerToNothing) {
  RedBlackTree* tree = __VeskCreateRedBlackTree(0, nullptr, nullptr, nullptr);
  uint64_t value = 5;
  EXPECT_EQ(__VeskGetRedBlackRangeStart(tree, 0, 9), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangeEnd(tree, 0), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangeStart(nullptr, 0, 9), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangeNext(tree->nil, 9), nullptr);
  EXPECT_EQ(__VeskGetRedBlackRangePrev(nullptr, 0), nullptr);
  EXPECT_EQ(__VeskGetRedBlackKey(tree->nil, &value) + __VeskGetRedBlackItem(nullptr, &value), 0);
  __VeskRemoveRedBlackEntry(tree->nil);
  __VeskRemoveRedBlackEntry(nullptr);
  __VeskInsertRedBlackEntry(nullptr, 1, 1);
  __VeskDestroyRedBlackRange(nullptr, 0, 9);
  __VeskDestroyRedBlackTree(nullptr);
  EXPECT_EQ(__VeskValidateRedBlack(nullptr), 0);
  EXPECT_EQ(value, 5u);
  EXPECT_EQ(tree->count, 0u);
  __VeskDestroyRedBlackTree(tree);
}

TEST_F(TreeTest, EverythingComesBackToItsCategory) {
  const uint32_t category = __VeskRegisterMemoryCategory("TREE");
  __VeskEnableMemoryStatisticsCollection();
  RedBlackTree* tree = __VeskCreateRedBlackTree(category, nullptr, nullptr, nullptr);
  for (uint64_t key = 0; key < 20000; ++key) __VeskInsertRedBlackEntry(tree, key * 0x9E3779B97F4A7C15, key);
  VeskMemoryCategoryInfo info;
  __VeskGetMemoryInfoByCategory(category, &info);
  EXPECT_GT(info.allocated, 20000 * 64);
  __VeskDestroyRedBlackTree(tree);
  __VeskGetMemoryInfoByCategory(category, &info);
  EXPECT_LE(info.allocated, 2 * 65536); // a last slab for records and one for entries
}
