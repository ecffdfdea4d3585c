// Vectors against sparse maps with a size.
#include <algorithm>
#include <bitset>
#include <map>

#include "fuzz/input.h"
#include "fuzz/support.h"
#include "veskrt/memory.h"
#include "veskrt/vector.h"

namespace {

using fuzz::require;

struct Model {
  std::map<std::uint32_t, std::uint64_t> elements;
  std::bitset<VESK_VECTOR_PAGES> pages{1};
  std::uint32_t size = 0;

  std::uint64_t at(std::uint32_t index) const {
    const auto found = elements.find(index);
    return found != elements.end() ? found->second : 0;
  }
  std::uint64_t store(std::uint32_t index, std::uint64_t value) {
    const std::uint64_t old = at(index);
    if (index > VESK_VECTOR_MAX_INDEX) return 0;
    elements[index] = value;
    pages.set(index / VESK_VECTOR_PAGE_SIZE);
    size = std::max(size, index + 1);
    return old;
  }
  void raise(const Model& other) {
    size = std::max(size, other.size);
    for (const auto& [index, value] : other.elements) elements[index] = std::max(at(index), value);
    for (std::uint32_t page = 0; page * VESK_VECTOR_PAGE_SIZE < size; ++page)
      pages[page] = pages[page] || other.pages[page];
    // The page of the next element, if that is its first.
    if (size % VESK_VECTOR_PAGE_SIZE == 0 && size / VESK_VECTOR_PAGE_SIZE < VESK_VECTOR_PAGES)
      pages.set(size / VESK_VECTOR_PAGE_SIZE);
  }
};

std::uint32_t takeIndex(fuzz::Input& input) {
  switch (input.takeInRange(0, 3)) {
  case 0:
    return input.take<std::uint8_t>();
  case 1:
    return input.takeInRange(250u, 1030u);
  case 2:
    return input.takeInRange(VESK_VECTOR_MAX_INDEX - 300, VESK_VECTOR_MAX_INDEX + 2);
  default:
    return input.take<std::uint32_t>();
  }
}

void compare(const Vector& vector, const Model& model) {
  require(vector.size == model.size);
  for (std::uint32_t page = 0; page < VESK_VECTOR_PAGES; ++page) {
    require((vector.pages[page] != nullptr) == model.pages[page]);
    if (!model.pages[page]) continue;
    for (std::uint32_t i = 0; i < VESK_VECTOR_PAGE_SIZE; ++i)
      require(vector.pages[page][i] == model.at(page * VESK_VECTOR_PAGE_SIZE + i));
  }
  for (const auto& [index, value] : model.elements) require(__VeskGetVectorElement(&vector, index) == value);
  require(__VeskGetVectorElement(&vector, model.size) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr int kVectors = 3;
  const std::int64_t before = fuzz::liveBlocks();
  fuzz::Input input(data, size);
  Vector embedded;
  Vector* vectors[kVectors] = {__VeskCreateVector(1), __VeskCreateVector(2),
                               __VeskInitializeVector(&embedded, 3)};
  require(vectors[2] == &embedded);
  Model models[kVectors];
  while (input.left() > 0) {
    const auto i = input.takeInRange(0, kVectors - 1);
    const auto j = input.takeInRange(0, kVectors - 1);
    const std::uint32_t index = takeIndex(input);
    switch (input.takeInRange(0, 5)) {
    case 0: {
      const auto value = input.take<std::uint64_t>();
      require(__VeskSetVectorElement(vectors[i], index, value) == models[i].store(index, value));
      break;
    }
    case 1:
      require(__VeskIncrementVectorElement(vectors[i], index) ==
              models[i].store(index, models[i].at(index) + 1));
      break;
    case 2:
      require(__VeskGetVectorElement(vectors[i], index) == models[i].at(index));
      break;
    case 3:
      __VeskMaxVector(vectors[i], vectors[j]);
      models[i].raise(Model(models[j]));
      break;
    case 4:
      if (i == 2 || i == j) break; // not from __VeskCreateVector; gone by then
      {
        Vector* const copy = __VeskDuplicateVector(vectors[j], 7);
        require(copy->category == 7);
        __VeskDestroyVector(vectors[i]);
        vectors[i] = copy;
        models[i] = Model(models[j]);
      }
      break;
    default:
      __VeskCopyVector(vectors[i], vectors[j]);
      models[i] = {models[j].elements, models[i].pages | models[j].pages, models[j].size};
      break;
    }
    compare(*vectors[i], models[i]);
  }
  for (int i = 0; i < kVectors; ++i) compare(*vectors[i], models[i]);
  __VeskDestroyVector(vectors[0]);
  __VeskDestroyVector(vectors[1]);
  for (std::uint32_t page = 1; page < VESK_VECTOR_PAGES; ++page) __VeskFree(embedded.pages[page]);
  require(fuzz::liveBlocks() == before);
  return 0;
}
