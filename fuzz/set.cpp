// Sets and the set algebra against std::set.
#include <algorithm>
#include <iterator>
#include <set>
#include <utility>
#include <vector>

#include "fuzz/chunks.h"
#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/set.h"

namespace {

using fuzz::require;
using Model = std::set<std::uint32_t>;

constexpr int kSets = 3;

std::uint32_t takeElement(fuzz::Input& input) {
  switch (input.takeInRange(0, 3)) {
  case 0:
    return input.take<std::uint8_t>();
  case 1:
    return input.takeInRange(0u, 15u) * 64 + input.takeInRange(0u, 1u) * 63;
  case 2:
    return UINT32_MAX - input.take<std::uint8_t>();
  default:
    return input.take<std::uint32_t>();
  }
}

// The chain is what the header says of it, element for element.
void compare(const Set& set, const Model& model, std::uint32_t category) {
  require(set.count == model.size() && set.category == category);
  auto expected = model.begin();
  for (const SetChunk* chunk = set.chunks; chunk != nullptr; chunk = chunk->next) {
    require(chunk->next == nullptr || chunk->base < chunk->next->base);
    require((chunk->presence[0] | chunk->presence[1]) != 0);
    for (std::uint32_t i = 0; i < 64; ++i) {
      if ((chunk->presence[i / 32] >> i % 32 & 1) == 0) continue;
      require(expected != model.end() && *expected++ == chunk->base * 64 + i);
    }
  }
  require(expected == model.end());
}

template <class Algorithm>
Model combine(Algorithm algorithm, const Model& a, const Model& b) {
  Model result;
  algorithm(a.begin(), a.end(), b.begin(), b.end(), std::inserter(result, result.end()));
  return result;
}

constexpr auto kUnion = [](auto... arguments) { std::set_union(arguments...); };
constexpr auto kIntersection = [](auto... arguments) { std::set_intersection(arguments...); };
constexpr auto kDifference = [](auto... arguments) { std::set_difference(arguments...); };

void compareBoth(const Set& a, const Set& b, const Model& ma, const Model& mb) {
  const bool same = &a == &b;
  const auto difference = static_cast<std::int32_t>(ma.size()) - static_cast<std::int32_t>(mb.size());
  require(__VeskAreSetsEqual(&a, &b) == (ma == mb));
  require(__VeskCompareSets(&a, &b) == (ma == mb ? 0 : difference != 0 ? difference : 1));
  require(__VeskAreSetsDisjoint(&a, &b) == (!same && combine(kIntersection, ma, mb).empty()));
  require(__VeskIsASubsetOfSet(&a, &b) == std::includes(mb.begin(), mb.end(), ma.begin(), ma.end()));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  Set sets[kSets] = {{0, 1, nullptr}, {0, 2, nullptr}, {0, 3, nullptr}};
  Model models[kSets];
  while (input.left() > 0) {
    const auto i = input.takeInRange(0, kSets - 1);
    const auto j = input.takeInRange(0, kSets - 1);
    const auto k = input.takeInRange(0, kSets - 1);
    const std::uint32_t element = takeElement(input);
    switch (input.takeInRange(0, 10)) {
    case 0:
    case 1:
    case 2:
      __VeskAddAnElementToSet(&sets[i], element);
      models[i].insert(element);
      break;
    case 3:
      __VeskDeleteAnElementFromSet(&sets[i], element);
      models[i].erase(element);
      break;
    case 4:
      require(__VeskIsAnElementOfSet(&sets[i], element) ==
              (models[i].contains(element) ? 1u << (element & 31) : 0));
      break;
    case 5:
      (input.takeBool() ? __VeskEmptySet : __VeskDestroySet)(&sets[i]);
      models[i].clear();
      break;
    case 6:
      fuzz::expectChunksUsedAgain(sets[i], [&] { __VeskConstructSet(&sets[i], &sets[j]); });
      models[i] = Model(models[j]);
      break;
    case 7:
      __VeskConstructSetAndDestroy(&sets[i], &sets[j]);
      if (i != j) models[i] = std::exchange(models[j], {});
      break;
    case 8:
      if (i != j) sets[i].count = 0xFFFFFF;
      __VeskUnionSet(&sets[i], &sets[j]);
      models[i] = combine(kUnion, models[i], models[j]);
      break;
    case 9:
      if (i != j && i != k) sets[i].count = 0xFFFFFF; // counted anew
      fuzz::expectChunksUsedAgain(sets[i], [&] { __VeskIntersectSet(&sets[i], &sets[j], &sets[k]); });
      models[i] = combine(kIntersection, models[j], models[k]);
      break;
    default:
      if (i != j) sets[i].count = 0xFFFFFF;
      __VeskDifferenceSet(&sets[i], &sets[j]);
      models[i] = combine(kDifference, models[i], models[j]);
      break;
    }
    for (int each = 0; each < kSets; ++each)
      compare(sets[each], models[each], static_cast<std::uint32_t>(each + 1));
    compareBoth(sets[i], sets[j], models[i], models[j]);
  }
  for (int i = 0; i < kSets; ++i) {
    std::vector<std::uint32_t> scanned;
    const auto collect = [](std::uint32_t element, void* context) {
      static_cast<std::vector<std::uint32_t>*>(context)->push_back(element);
    };
    __VeskScanSet(&sets[i], collect, &scanned);
    require(std::equal(scanned.begin(), scanned.end(), models[i].begin(), models[i].end()));
    __VeskDestroySet(&sets[i]);
  }
  require(fuzz::liveBlocks() == before);
  return 0;
}
