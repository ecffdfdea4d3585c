// Vectors. A missing page stands for 256 zeros; an index below the size whose page exists takes the short
// way. What a page stores at or beyond the size is 0.

#include "veskrt/vector.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "veskrt/memory.h"

namespace {

constexpr std::size_t kPageBytes = VESK_VECTOR_PAGE_SIZE * sizeof(std::uint64_t);

constexpr std::uint32_t pageOf(std::uint32_t index) { return index / VESK_VECTOR_PAGE_SIZE; }
constexpr std::uint32_t entryOf(std::uint32_t index) { return index % VESK_VECTOR_PAGE_SIZE; }

[[gnu::noinline]] std::uint64_t* allocatePage(Vector& vector, std::uint32_t page, std::uint32_t category) {
  return vector.pages[page] = static_cast<std::uint64_t*>(__VeskMalloc(category, kPageBytes, 0));
}

[[gnu::noinline]] std::uint64_t* allocateClearPage(Vector& vector, std::uint32_t page) {
  return static_cast<std::uint64_t*>(std::memset(allocatePage(vector, page, vector.category), 0, kPageBytes));
}

// Makes the element one that was written; returns its page, or null when the index is too high.
[[gnu::noinline]] std::uint64_t* reach(Vector& vector, std::uint32_t index) {
  if (index > VESK_VECTOR_MAX_INDEX) return nullptr;
  if (index >= vector.size) vector.size = index + 1;
  std::uint64_t* const page = vector.pages[pageOf(index)];
  return page != nullptr ? page : allocateClearPage(vector, pageOf(index));
}

// The element, about to be written; null when the index is too high.
inline std::uint64_t* elementToWrite(Vector& vector, std::uint32_t index) {
  std::uint64_t* page = index < vector.size ? vector.pages[pageOf(index)] : nullptr;
  if (page == nullptr) [[unlikely]] {
    page = reach(vector, index);
    if (page == nullptr) return nullptr;
  }
  return page + entryOf(index);
}

// Raises the first `elements` of a page to those of src's page.
void raisePage(Vector& dst, const Vector& src, std::uint32_t page, std::uint32_t elements) {
  const std::uint64_t* const from = src.pages[page];
  if (from == nullptr) return;
  std::uint64_t* const to = dst.pages[page] != nullptr ? dst.pages[page] : allocateClearPage(dst, page);
  for (std::uint32_t i = 0; i < elements; ++i) to[i] = std::max(to[i], from[i]);
}

} // namespace

Vector* __VeskInitializeVector(Vector* vector, uint32_t category) {
  *vector = {};
  vector->pages[0] = vector->firstPage;
  vector->category = category & 0xFF;
  return vector;
}

Vector* __VeskCreateVector(uint32_t category) {
  return __VeskInitializeVector(static_cast<Vector*>(__VeskMalloc(category, sizeof(Vector), 0)), category);
}

void __VeskDestroyVector(Vector* vector) {
  for (std::uint32_t page = 1; page < VESK_VECTOR_PAGES; ++page) {
    if (vector->pages[page] != nullptr) __VeskFree(vector->pages[page]);
  }
  __VeskFree(vector);
}

uint64_t __VeskGetVectorElement(const Vector* vector, uint32_t index) {
  if (index >= vector->size) return 0;
  const std::uint64_t* const page = vector->pages[pageOf(index)];
  return page != nullptr ? page[entryOf(index)] : 0;
}

uint64_t __VeskSetVectorElement(Vector* vector, uint32_t index, uint64_t value) {
  std::uint64_t* const element = elementToWrite(*vector, index);
  return element != nullptr ? std::exchange(*element, value) : 0;
}

uint64_t __VeskIncrementVectorElement(Vector* vector, uint32_t index) {
  std::uint64_t* const element = elementToWrite(*vector, index);
  return element != nullptr ? (*element)++ : 0;
}

void __VeskMaxVector(Vector* dst, const Vector* src) {
  if (src->size > dst->size) dst->size = src->size;
  const std::uint32_t last = pageOf(dst->size);
  for (std::uint32_t page = 0; page < last; ++page) raisePage(*dst, *src, page, VESK_VECTOR_PAGE_SIZE);
  if (last == VESK_VECTOR_PAGES) return;
  if (entryOf(dst->size) != 0) {
    raisePage(*dst, *src, last, entryOf(dst->size));
  } else if (dst->pages[last] == nullptr) {
    allocateClearPage(*dst, last);
  }
}

Vector* __VeskDuplicateVector(const Vector* src, uint32_t category) {
  Vector* const duplicate = __VeskCreateVector(category);
  std::memcpy(duplicate->firstPage, src->firstPage, kPageBytes);
  for (std::uint32_t page = 1; page < VESK_VECTOR_PAGES; ++page) {
    if (src->pages[page] == nullptr) continue;
    std::memcpy(allocatePage(*duplicate, page, src->category), src->pages[page], kPageBytes);
  }
  duplicate->size = src->size;
  return duplicate;
}

void __VeskCopyVector(Vector* dst, const Vector* src) {
  if (dst == src) return;
  for (std::uint32_t page = 0; page < VESK_VECTOR_PAGES; ++page) {
    std::uint64_t* to = dst->pages[page];
    if (src->pages[page] != nullptr) {
      if (to == nullptr) to = allocatePage(*dst, page, dst->category);
      std::memcpy(to, src->pages[page], kPageBytes);
    } else if (to != nullptr) {
      std::memset(to, 0, kPageBytes);
    }
  }
  dst->size = src->size;
}
