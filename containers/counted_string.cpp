// Counted strings.
//
// Capacities are computed in 64 bits and held to what the 32-bit field can say; a text is held to what is
// then left of the longest string.
#include "veskrt/counted_string.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "veskrt/memory.h"

namespace vesk {
namespace {

constexpr std::uint64_t kMaxCapacity = std::uint64_t{VESK_COUNTED_STRING_MAX_LENGTH} + 1;

std::uint32_t measure(const char* text, std::uint32_t room) {
  return text != nullptr ? static_cast<std::uint32_t>(std::min<std::uint64_t>(std::strlen(text), room)) : 0;
}

// Twice `size`, and room for the terminator of an empty text.
std::uint32_t doubled(std::uint64_t size) {
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(2 * size, 1, kMaxCapacity));
}

std::uint32_t capacityFor(std::uint32_t length, std::uint32_t capacity) {
  return length < capacity ? capacity : doubled(length);
}

char* allocateBuffer(std::uint32_t category, std::uint32_t capacity) {
  return static_cast<char*>(__VeskMalloc(category, capacity, 0));
}

// Both ends of the bytes in a word each, which overlap in the middle; all is read before anything is written.
template <class Word>
[[gnu::always_inline]] inline void moveEnds(char* to, const char* from, std::uint32_t length) {
  Word first;
  Word last;
  std::memcpy(&first, from, sizeof first);
  std::memcpy(&last, from + length - sizeof last, sizeof last);
  std::memcpy(to, &first, sizeof first);
  std::memcpy(to + length - sizeof last, &last, sizeof last);
}

// Most pieces are short: moved sooner than called for.
[[gnu::always_inline]] inline void move(char* to, const char* from, std::uint32_t length) {
  if (length > 2 * sizeof(std::uint64_t)) {
    std::memmove(to, from, length);
  } else if (length >= sizeof(std::uint64_t)) {
    moveEnds<std::uint64_t>(to, from, length);
  } else if (length >= sizeof(std::uint32_t)) {
    moveEnds<std::uint32_t>(to, from, length);
  } else if (length >= sizeof(std::uint16_t)) {
    moveEnds<std::uint16_t>(to, from, length);
  } else if (length == 1) {
    *to = *from;
  }
}

// Puts the text at `offset`, where it fits. It may be part of the string itself.
void place(CountedString* string, std::uint32_t offset, const char* text, std::uint32_t length) {
  move(string->buffer + offset, text, length);
  string->length = offset + length;
  string->buffer[string->length] = '\0';
}

// The text may be in the buffer that is outgrown, which goes last.
[[gnu::noinline]] void growAndAppend(CountedString* string, const char* text, std::uint32_t length) {
  char* const outgrown = string->buffer;
  string->capacity = doubled(std::uint64_t{string->capacity} + length);
  string->buffer = allocateBuffer(string->category, string->capacity);
  std::memcpy(string->buffer, outgrown, string->length);
  place(string, string->length, text, length);
  __VeskFree(outgrown);
}

} // namespace
} // namespace vesk

using namespace vesk;

CountedString* __VeskStrAlloc(uint32_t category, uint32_t capacity, const char* text) {
  const std::uint32_t length = measure(text, VESK_COUNTED_STRING_MAX_LENGTH);
  auto* const string = static_cast<CountedString*>(__VeskMalloc(category, sizeof(CountedString), 0));
  string->capacity = capacityFor(length, capacity);
  string->category = category;
  string->buffer = allocateBuffer(category, string->capacity);
  place(string, 0, text, length);
  return string;
}

CountedString* __VeskStrSet(CountedString* string, const char* text) {
  if (string == nullptr) return nullptr;
  const std::uint32_t length = measure(text, VESK_COUNTED_STRING_MAX_LENGTH);
  // A part of the string itself always fits, and so is never released here before it is copied.
  if (length >= string->capacity) {
    __VeskFree(string->buffer);
    string->capacity = capacityFor(length, string->capacity);
    string->buffer = allocateBuffer(string->category, string->capacity);
  }
  place(string, 0, text, length);
  return string;
}

void __VeskStrAppend(CountedString* string, const char* text) {
  if (string == nullptr || text == nullptr) return;
  const std::uint32_t length = measure(text, VESK_COUNTED_STRING_MAX_LENGTH - string->length);
  if (length >= string->capacity - string->length) [[unlikely]]
    return growAndAppend(string, text, length);
  place(string, string->length, text, length);
}

void __VeskStrDestroy(CountedString* string) {
  if (string == nullptr) return;
  __VeskFree(string->buffer);
  __VeskFree(string);
}
