// Multisets: a presence word and 64 multiplicities a chunk.
//
// Whole chunks are treated four multiplicities at a time.

#include <algorithm>
#include <iterator>

#include <emmintrin.h>

#include "containers/chunk_chain.h"

namespace {

using namespace vesk::chunk_chain;

struct MultiSetKind {
  using Header = MultiSet;
  using Chunk = MultiSetChunk;

  static void clear(MultiSetChunk& chunk) noexcept {
    setPresence(chunk, 0);
    std::memset(chunk.multiplicities, 0, sizeof chunk.multiplicities);
  }
  static void assign(MultiSetChunk& chunk, const MultiSetChunk& from) noexcept {
    setPresence(chunk, presence(from));
    std::memcpy(chunk.multiplicities, from.multiplicities, sizeof chunk.multiplicities);
  }
  static void assign(MultiSetChunk& chunk, const SetChunk& from) noexcept {
    clear(chunk);
    unite(chunk, from);
  }
  static bool add(MultiSetChunk& chunk, std::uint32_t position) noexcept {
    setPresence(chunk, presence(chunk) | std::uint64_t{1} << position);
    return ++chunk.multiplicities[position] == 1;
  }
  static bool takeOutAll(MultiSetChunk& chunk, std::uint32_t position) noexcept {
    if (chunk.multiplicities[position] == 0) return false;
    chunk.multiplicities[position] = 0;
    setPresence(chunk, presence(chunk) & ~(std::uint64_t{1} << position));
    return true;
  }
  static bool takeOutOne(MultiSetChunk& chunk, std::uint32_t position) noexcept {
    if (chunk.multiplicities[position] <= 1) return takeOutAll(chunk, position);
    --chunk.multiplicities[position];
    return false;
  }
  static std::uint32_t count(const MultiSetChunk& chunk) noexcept { return countBits(nonZero(chunk)); }
  static std::uint32_t count(const SetChunk& chunk) noexcept { return countBits(presence(chunk)); }
  static void unite(MultiSetChunk& chunk, const MultiSetChunk& from) noexcept {
    setPresence(chunk, presence(chunk) | presence(from));
    combine(chunk, chunk, from, [](std::uint32_t mine, std::uint32_t other) { return mine + other; });
  }
  static void unite(MultiSetChunk& chunk, const SetChunk& from) noexcept {
    setPresence(chunk, presence(chunk) | presence(from));
    for (std::uint64_t left = presence(from); left != 0; left &= left - 1) {
      ++chunk.multiplicities[std::countr_zero(left)];
    }
  }
  static void intersect(MultiSetChunk& chunk, const MultiSetChunk& a, const MultiSetChunk& b) noexcept {
    setPresence(chunk, presence(a) & presence(b));
    combine(chunk, a, b, [](std::uint32_t mine, std::uint32_t other) { return std::min(mine, other); });
  }
  static void subtract(MultiSetChunk& chunk, const MultiSetChunk& from) noexcept {
    combine(chunk, chunk, from,
            [](std::uint32_t mine, std::uint32_t other) { return mine - std::min(mine, other); });
    setPresence(chunk, presence(chunk) & nonZero(chunk));
  }
  static bool equal(const MultiSetChunk& a, const MultiSetChunk& b) noexcept {
    return presence(a) == presence(b) &&
           std::memcmp(a.multiplicities, b.multiplicities, sizeof a.multiplicities) == 0;
  }

private:
  // Every multiplicity of `to` from those of a and b, either of which may be `to` itself: no step reads what
  // another wrote.
  template <class Combine>
  static void combine(MultiSetChunk& to, const MultiSetChunk& a, const MultiSetChunk& b,
                      Combine combined) noexcept {
    for (std::size_t p = 0; p < std::size(to.multiplicities); ++p) {
      to.multiplicities[p] = combined(a.multiplicities[p], b.multiplicities[p]);
    }
  }

  // Bit p is set where the multiplicity of position p is not 0.
  static std::uint64_t nonZero(const MultiSetChunk& chunk) noexcept {
    const auto isZero = [&](std::size_t p) {
      const __m128i four = _mm_loadu_si128(reinterpret_cast<const __m128i*>(chunk.multiplicities + p));
      return _mm_cmpeq_epi32(four, _mm_setzero_si128());
    };
    std::uint64_t zero = 0;
    for (std::size_t p = 0; p < std::size(chunk.multiplicities); p += 16) {
      const __m128i low = _mm_packs_epi32(isZero(p), isZero(p + 4));
      const __m128i high = _mm_packs_epi32(isZero(p + 8), isZero(p + 12));
      zero |= std::uint64_t{static_cast<std::uint32_t>(_mm_movemask_epi8(_mm_packs_epi16(low, high)))} << p;
    }
    return ~zero;
  }
};

} // namespace

void __VeskAddAnElementToMultiSet(MultiSet* set, uint32_t element) { add<MultiSetKind>(*set, element); }

void __VeskDeleteAnElementFromMultiSet(MultiSet* set, uint32_t element) {
  remove<MultiSetKind>(*set, element, MultiSetKind::takeOutOne);
}
void __VeskDeleteAllInstancesOfAnElementFromMultiSet(MultiSet* set, uint32_t element) {
  remove<MultiSetKind>(*set, element, MultiSetKind::takeOutAll);
}

uint32_t __VeskGetElementMultiplicity(const MultiSet* set, uint32_t element) {
  const MultiSetChunk* const chunk = find(*set, element);
  return chunk != nullptr ? chunk->multiplicities[positionOf(element)] : 0;
}

int __VeskIsMultiSetEmpty(const MultiSet* set) { return set->count == 0; }

void __VeskEmptyMultiSet(MultiSet* set) { empty(*set); }
void __VeskDestroyMultiSet(MultiSet* set) { empty(*set); }

void __VeskPrintOutMultiSet(const MultiSet*) {}

void __VeskConstructMultiSet(MultiSet* dst, const MultiSet* src) { copy<MultiSetKind>(*dst, *src); }
void __VeskConstructMultiSetAndDestroy(MultiSet* dst, MultiSet* src) { move(*dst, *src); }

int __VeskAreMultiSetsEqual(const MultiSet* a, const MultiSet* b) { return equal<MultiSetKind>(*a, *b); }

void __VeskUnionMultiSet(MultiSet* dst, const MultiSet* src) {
  if (dst != src) return unite<MultiSetKind>(*dst, *src);
  for (Place at(dst->chunks); at.chunk() != nullptr; at.pass()) MultiSetKind::unite(*at.chunk(), *at.chunk());
}
void __VeskUnionMultiSetSet(MultiSet* dst, const Set* src) { unite<MultiSetKind>(*dst, *src); }
void __VeskIntersectMultiSet(MultiSet* dst, const MultiSet* a, const MultiSet* b) {
  intersect<MultiSetKind>(*dst, *a, *b);
}
void __VeskDifferenceMultiSet(MultiSet* dst, const MultiSet* src) { subtract<MultiSetKind>(*dst, *src); }
