// Sets: one presence word a chunk.

#include "containers/chunk_chain.h"

namespace {

using namespace vesk::chunk_chain;

struct SetKind {
  using Header = Set;
  using Chunk = SetChunk;

  static std::uint32_t& word(SetChunk& chunk, std::uint32_t position) noexcept {
    return chunk.presence[position >> 5];
  }
  static std::uint32_t bit(std::uint32_t position) noexcept { return std::uint32_t{1} << (position & 31); }

  static void clear(SetChunk& chunk) noexcept { setPresence(chunk, 0); }
  static void assign(SetChunk& chunk, const SetChunk& from) noexcept { setPresence(chunk, presence(from)); }
  static bool add(SetChunk& chunk, std::uint32_t position) noexcept {
    const bool absent = (word(chunk, position) & bit(position)) == 0;
    word(chunk, position) |= bit(position);
    return absent;
  }
  static bool takeOut(SetChunk& chunk, std::uint32_t position) noexcept {
    const bool present = (word(chunk, position) & bit(position)) != 0;
    word(chunk, position) &= ~bit(position);
    return present;
  }
  static std::uint32_t count(const SetChunk& chunk) noexcept { return countBits(presence(chunk)); }
  static void unite(SetChunk& chunk, const SetChunk& from) noexcept {
    setPresence(chunk, presence(chunk) | presence(from));
  }
  static void intersect(SetChunk& chunk, const SetChunk& a, const SetChunk& b) noexcept {
    setPresence(chunk, presence(a) & presence(b));
  }
  static void subtract(SetChunk& chunk, const SetChunk& from) noexcept {
    setPresence(chunk, presence(chunk) & ~presence(from));
  }
  static bool equal(const SetChunk& a, const SetChunk& b) noexcept { return presence(a) == presence(b); }
};

} // namespace

void __VeskAddAnElementToSet(Set* set, uint32_t element) { add<SetKind>(*set, element); }

void __VeskDeleteAnElementFromSet(Set* set, uint32_t element) {
  remove<SetKind>(*set, element, SetKind::takeOut);
}

uint32_t __VeskIsAnElementOfSet(const Set* set, uint32_t element) {
  const SetChunk* const chunk = find(*set, element);
  if (chunk == nullptr) return 0;
  return chunk->presence[positionOf(element) >> 5] & SetKind::bit(positionOf(element));
}

void __VeskEmptySet(Set* set) { empty(*set); }
void __VeskDestroySet(Set* set) { empty(*set); }

void __VeskScanSet(const Set* set, VeskScanSetProc proc, void* context) {
  for (ReadOnlyPlace at(set->chunks); at.chunk() != nullptr; at.pass()) {
    const std::uint32_t first = at.chunk()->base << 6;
    for (std::uint64_t left = presence(*at.chunk()); left != 0; left &= left - 1) {
      proc(first + static_cast<std::uint32_t>(std::countr_zero(left)), context);
    }
  }
}

void __VeskPrintOutSet(const Set*) {}

void __VeskConstructSet(Set* dst, const Set* src) { copy<SetKind>(*dst, *src); }
void __VeskConstructSetAndDestroy(Set* dst, Set* src) { move(*dst, *src); }

int __VeskAreSetsEqual(const Set* a, const Set* b) { return equal<SetKind>(*a, *b); }

int32_t __VeskCompareSets(const Set* a, const Set* b) {
  if (a->count != b->count) return static_cast<int32_t>(a->count) - static_cast<int32_t>(b->count);
  return equal<SetKind>(*a, *b) ? 0 : 1;
}

int __VeskAreSetsDisjoint(const Set* a, const Set* b) {
  if (a == b) return 0;
  return merge(ReadOnlyPlace(a->chunks), b->chunks, Skip{}, Skip{},
               [](const auto& at, const SetChunk& other) {
                 return (presence(*at.chunk()) & presence(other)) == 0 ? Then::kGoOn : Then::kStop;
               });
}

int __VeskIsASubsetOfSet(const Set* a, const Set* b) {
  return merge(
      ReadOnlyPlace(a->chunks), b->chunks, [](const SetChunk&) { return Then::kStop; }, Skip{},
      [](const auto& at, const SetChunk& other) {
        return (presence(*at.chunk()) & ~presence(other)) == 0 ? Then::kGoOn : Then::kStop;
      });
}

void __VeskUnionSet(Set* dst, const Set* src) {
  if (dst != src) unite<SetKind>(*dst, *src);
}
void __VeskIntersectSet(Set* dst, const Set* a, const Set* b) { intersect<SetKind>(*dst, *a, *b); }
void __VeskDifferenceSet(Set* dst, const Set* src) { subtract<SetKind>(*dst, *src); }
