#include "veskrt/vector.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <map>
#include <random>

#include <gtest/gtest.h>

#include "containers/live_chunks.h"
#include "support/test_host.h"

namespace {

struct Model {
  std::map<uint32_t, uint64_t> elements;
  std::bitset<VESK_VECTOR_PAGES> pages{1};
  uint32_t size = 0;

  uint64_t at(uint32_t index) const { return elements.contains(index) ? elements.at(index) : 0; }
  void write(uint32_t index, uint64_t value) {
    elements[index] = value;
    pages.set(index >> 8);
    size = std::max(size, index + 1);
  }
  void raise(const Model& src) {
    size = std::max(size, src.size);
    for (const auto& [index, value] : src.elements) elements[index] = std::max(at(index), value);
    for (uint32_t page = 0; page * 256 < size; ++page) pages[page] = pages[page] || src.pages[page];
    if (size % 256 == 0 && size / 256 < pages.size()) pages.set(size / 256);
  }
};

void expectHolds(const Vector& vector, const Model& model, uint32_t category) {
  EXPECT_EQ(vector.size, model.size);
  EXPECT_EQ(vector.category, category);
  EXPECT_EQ(vector.pages[0], vector.firstPage);
  for (uint32_t i = 0; i <= VESK_VECTOR_MAX_INDEX; i += model.pages[i >> 8] ? 1 : 256) {
    ASSERT_EQ(vector.pages[i >> 8] != nullptr, model.pages[i >> 8]) << i;
    ASSERT_EQ(model.pages[i >> 8] ? vector.pages[i >> 8][i & 255] : 0, model.at(i)) << i;
    ASSERT_EQ(__VeskGetVectorElement(&vector, i), model.at(i)) << i;
  }
}

} // namespace

TEST(Vector, AgreesWithAModel) {
  test::startRuntime();
  std::array<uint32_t, 3> categories;
  for (uint32_t& category : categories) category = __VeskRegisterMemoryCategory("vectors");
  // Elements at the ends of pages, so that sizes of every remainder meet.
  constexpr uint32_t kPages[] = {0, 1, 1, 2, 3, 510, 511};
  constexpr uint32_t kEntries[] = {0, 1, 5, 254, 255};
  for (uint32_t seed = 0; seed < 12 && !HasFailure(); ++seed) {
    std::mt19937_64 random(seed);
    std::array<Vector*, 3> vectors;
    std::array<Model, 3> models;
    std::ranges::transform(categories, vectors.begin(), __VeskCreateVector);
    for (int step = 0; step < 120 && !HasFailure(); ++step) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << " step " << step);
      const size_t d = random() % 3, s = random() % 3, what = random() % 8;
      const uint32_t index = kPages[random() % (seed % 2 == 0 ? 7 : 4)] * 256 + kEntries[random() % 5];
      Model& to = models[d];
      const Model from = models[s];
      if (what == 0) {
        __VeskMaxVector(vectors[d], vectors[s]), to.raise(from);
      } else if (what == 1) {
        __VeskCopyVector(vectors[d], vectors[s]);
        to = {from.elements, to.pages | from.pages, from.size};
      } else if (what == 2 && d != s) {
        __VeskDestroyVector(vectors[d]);
        vectors[d] = __VeskDuplicateVector(vectors[s], categories[d]), to = from;
      } else { // values above and below 2^63
        const uint64_t value = what <= 5 ? to.at(index) + 1 : random() >> random() % 64 | random() << 63;
        EXPECT_EQ(what <= 5 ? __VeskIncrementVectorElement(vectors[d], index)
                            : __VeskSetVectorElement(vectors[d], index, value),
                  to.at(index));
        to.write(index, value);
      }
      for (size_t i = 0; i < 3; ++i) expectHolds(*vectors[i], models[i], categories[i]);
    }
    std::ranges::for_each(vectors, __VeskDestroyVector);
  }
}

TEST(Vector, PagesAreInTheirCategoryUntilTheEnd) {
  test::startRuntime();
  __VeskEnableMemoryStatisticsCollection();
  const auto livePages = [](uint32_t category) { return test::liveChunks(category, 2048); };
  const uint32_t mine = __VeskRegisterMemoryCategory("mine"), other = __VeskRegisterMemoryCategory("other");
  Vector source, target; // records of ours, so that the categories hold pages alone
  EXPECT_EQ(__VeskInitializeVector(&source, mine), &source);
  __VeskSetVectorElement(&source, 255, UINT64_MAX);
  EXPECT_EQ(livePages(mine), 0);
  for (const uint32_t i : {256u, 512u, VESK_VECTOR_MAX_INDEX}) __VeskSetVectorElement(&source, i, 1);
  for (const uint32_t i : {VESK_VECTOR_MAX_INDEX + 1, UINT32_MAX}) {
    EXPECT_EQ(__VeskSetVectorElement(&source, i, 1), 0u);
    EXPECT_EQ(__VeskIncrementVectorElement(&source, i), 0u);
    EXPECT_EQ(__VeskGetVectorElement(&source, i), 0u);
  }
  EXPECT_EQ(__VeskIncrementVectorElement(&source, 255), UINT64_MAX);
  EXPECT_EQ(__VeskGetVectorElement(&source, 255), 0u);
  EXPECT_EQ(source.category, mine);
  EXPECT_EQ(source.size, VESK_VECTOR_MAX_INDEX + 1);

  __VeskCopyVector(__VeskInitializeVector(&target, other), &source);
  EXPECT_EQ(livePages(other), 3);
  // The copied pages are in the source's category, later ones in its own.
  Vector* const duplicate = __VeskDuplicateVector(&source, 0);
  __VeskSetVectorElement(duplicate, 1024, 1);
  EXPECT_EQ(livePages(mine), 6);
  __VeskDestroyVector(duplicate);
  EXPECT_EQ(livePages(mine), 3);
  for (Vector* v : {&source, &target}) std::for_each(v->pages + 1, std::end(v->pages), __VeskFree);
  EXPECT_EQ(livePages(mine) + livePages(other), 0);
}
