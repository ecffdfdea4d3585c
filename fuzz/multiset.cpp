// Multisets against maps from element to multiplicity, and their unions with sets.
#include <map>
#include <utility>

#include "fuzz/chunks.h"
#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/set.h"

namespace {

using fuzz::require;
using Model = std::map<std::uint32_t, std::uint32_t>; // no multiplicity is 0

constexpr int kSets = 3;
constexpr std::uint32_t kMany = 1u << 30; // beyond which doubling would wrap

std::uint32_t takeElement(fuzz::Input& input) {
  switch (input.takeInRange(0, 2)) {
  case 0:
    return input.take<std::uint8_t>();
  case 1:
    return UINT32_MAX - input.take<std::uint8_t>();
  default:
    return input.take<std::uint32_t>();
  }
}

void compare(const MultiSet& set, const Model& model, std::uint32_t category) {
  require(set.count == model.size() && set.category == category);
  require(__VeskIsMultiSetEmpty(&set) == model.empty());
  auto expected = model.begin();
  for (const MultiSetChunk* chunk = set.chunks; chunk != nullptr; chunk = chunk->next) {
    require(chunk->next == nullptr || chunk->base < chunk->next->base);
    require((chunk->presence[0] | chunk->presence[1]) != 0);
    for (std::uint32_t i = 0; i < 64; ++i) {
      require((chunk->presence[i / 32] >> i % 32 & 1) == (chunk->multiplicities[i] != 0));
      if (chunk->multiplicities[i] == 0) continue;
      require(expected != model.end() && expected->first == chunk->base * 64 + i);
      require(expected++->second == chunk->multiplicities[i]);
    }
  }
  require(expected == model.end());
}

std::uint32_t multiplicity(const Model& model, std::uint32_t element) {
  const auto found = model.find(element);
  return found != model.end() ? found->second : 0;
}

void store(Model& model, std::uint32_t element, std::uint32_t count) {
  if (count != 0) {
    model[element] = count;
  } else {
    model.erase(element);
  }
}

bool hasMany(const Model& model) {
  for (const auto& [element, count] : model) {
    if (count > kMany) return true;
  }
  return false;
}

void uniteWithSet(MultiSet& multiset, Model& model, fuzz::Input& input) {
  Set set = {0, 9, nullptr};
  for (auto left = input.takeInRange(0, 6); left > 0; --left) {
    const std::uint32_t element = takeElement(input);
    if (__VeskIsAnElementOfSet(&set, element) == 0) ++model[element];
    __VeskAddAnElementToSet(&set, element);
  }
  __VeskUnionMultiSetSet(&multiset, &set);
  __VeskDestroySet(&set);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  MultiSet sets[kSets] = {{0, 1, nullptr}, {0, 2, nullptr}, {0, 3, nullptr}};
  Model models[kSets];
  while (input.left() > 0) {
    const auto i = input.takeInRange(0, kSets - 1);
    const auto j = input.takeInRange(0, kSets - 1);
    const auto k = input.takeInRange(0, kSets - 1);
    const std::uint32_t element = takeElement(input);
    switch (input.takeInRange(0, 11)) {
    case 0:
    case 1:
    case 2:
      __VeskAddAnElementToMultiSet(&sets[i], element);
      ++models[i][element];
      break;
    case 3:
      __VeskDeleteAnElementFromMultiSet(&sets[i], element);
      store(models[i], element, std::max(multiplicity(models[i], element), 1u) - 1);
      break;
    case 4:
      __VeskDeleteAllInstancesOfAnElementFromMultiSet(&sets[i], element);
      models[i].erase(element);
      break;
    case 5:
      require(__VeskGetElementMultiplicity(&sets[i], element) == multiplicity(models[i], element));
      break;
    case 6:
      (input.takeBool() ? __VeskEmptyMultiSet : __VeskDestroyMultiSet)(&sets[i]);
      models[i].clear();
      break;
    case 7:
      fuzz::expectChunksUsedAgain(sets[i], [&] { __VeskConstructMultiSet(&sets[i], &sets[j]); });
      models[i] = Model(models[j]);
      break;
    case 8:
      __VeskConstructMultiSetAndDestroy(&sets[i], &sets[j]);
      if (i != j) models[i] = std::exchange(models[j], {});
      break;
    case 9:
      if (hasMany(models[i]) || hasMany(models[j])) break;
      if (i != j) sets[i].count = 0xFFFFFF;
      __VeskUnionMultiSet(&sets[i], &sets[j]);
      for (const auto& [each, count] : Model(models[j])) models[i][each] += count;
      break;
    case 10: {
      if (i != j && i != k) sets[i].count = 0xFFFFFF; // counted anew
      fuzz::expectChunksUsedAgain(sets[i], [&] { __VeskIntersectMultiSet(&sets[i], &sets[j], &sets[k]); });
      Model result;
      for (const auto& [each, count] : models[j])
        store(result, each, std::min(count, multiplicity(models[k], each)));
      models[i] = result;
      break;
    }
    default:
      if (input.takeBool()) {
        uniteWithSet(sets[i], models[i], input);
        break;
      }
      if (i != j) sets[i].count = 0xFFFFFF;
      __VeskDifferenceMultiSet(&sets[i], &sets[j]);
      for (const auto& [each, count] : Model(models[j])) {
        const std::uint32_t had = multiplicity(models[i], each);
        store(models[i], each, had > count ? had - count : 0);
      }
      break;
    }
    for (int each = 0; each < kSets; ++each)
      compare(sets[each], models[each], static_cast<std::uint32_t>(each + 1));
    require(__VeskAreMultiSetsEqual(&sets[i], &sets[j]) == (models[i] == models[j]));
  }
  for (MultiSet& set : sets) __VeskDestroyMultiSet(&set);
  require(fuzz::liveBlocks() == before);
  return 0;
}
