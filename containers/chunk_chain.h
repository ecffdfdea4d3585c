// Sorted chains of chunks: what sets and multisets share.
//
//   header { count, category, chunks } -> { base 3 } -> { base 17 } -> { base 18 } -> null
//
// Everything here is a template over the kind of chunk. A kind names its records and says what happens inside
// one chunk:
//
//   Header, Chunk                   the records
//   clear(chunk)                    makes a new chunk empty
//   assign(chunk, from)             gives it what another chunk has
//   add(chunk, position)            puts an element in; says whether it was absent
//   count(chunk)                    the elements in a chunk
//   unite(chunk, from)              puts in what another chunk has
//   intersect(chunk, a, b)          gives it what two chunks share; either may be the chunk itself
//   subtract(chunk, from)           takes out what another chunk has
//   equal(a, b)                     do two chunks hold the same?
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "veskrt/memory.h"
#include "veskrt/set.h"

namespace vesk::chunk_chain {

inline constexpr std::uint32_t baseOf(std::uint32_t element) noexcept { return element >> 6; }
inline constexpr std::uint32_t positionOf(std::uint32_t element) noexcept { return element & 63; }

// The presence bitmap as one word; position p is bit p.
template <class Chunk>
inline std::uint64_t presence(const Chunk& chunk) noexcept {
  std::uint64_t bits;
  static_assert(sizeof bits == sizeof chunk.presence);
  std::memcpy(&bits, chunk.presence, sizeof bits);
  return bits;
}

template <class Chunk>
inline void setPresence(Chunk& chunk, std::uint64_t bits) noexcept {
  std::memcpy(chunk.presence, &bits, sizeof bits);
}

// In registers alone: the compiler's builtin is a call into a table on a processor that need not have the
// instruction.
inline std::uint32_t countBits(std::uint64_t bits) noexcept {
  bits -= bits >> 1 & 0x5555555555555555;
  bits = (bits & 0x3333333333333333) + (bits >> 2 & 0x3333333333333333);
  bits = (bits + (bits >> 4)) & 0x0F0F0F0F0F0F0F0F;
  return static_cast<std::uint32_t>(bits * 0x0101010101010101 >> 56);
}

// A place in a chain that may be changed there: in front of a chunk, or at the end.
template <class Chunk>
class Place {
public:
  explicit Place(Chunk*& head) noexcept : link_(&head), chunk_(head) {}

  Chunk* chunk() const noexcept { return chunk_; } // null at the end
  void pass() noexcept {
    link_ = &chunk_->next;
    chunk_ = *link_;
  }
  // Puts a chunk in here and stays behind it.
  void insert(Chunk& added) noexcept {
    added.next = chunk_;
    *link_ = &added;
    link_ = &added.next;
  }
  void free() noexcept {
    Chunk* const freed = chunk_;
    *link_ = chunk_ = freed->next;
    __VeskFree(freed);
  }
  // Frees everything from here on.
  void cut() noexcept {
    while (chunk_ != nullptr) free();
  }

private:
  Chunk** link_;
  Chunk* chunk_;
};

template <class Chunk>
class ReadOnlyPlace {
public:
  explicit ReadOnlyPlace(const Chunk* head) noexcept : chunk_(head) {}

  const Chunk* chunk() const noexcept { return chunk_; }
  void pass() noexcept { chunk_ = chunk_->next; }

private:
  const Chunk* chunk_;
};

// The place of the first chunk with this base or a larger one.
template <class At>
inline At seek(At at, std::uint32_t base) noexcept {
  while (at.chunk() != nullptr && at.chunk()->base < base) at.pass();
  return at;
}

template <class At>
inline bool isAt(const At& at, std::uint32_t base) noexcept {
  return at.chunk() != nullptr && at.chunk()->base == base;
}

// ---- The merge ----

// What becomes of the left chunk and of the merge once a base has been dealt with.
enum class Then { kGoOn, kFreeLeft, kStop };

// In place of a visitor for bases that do not matter. What is left of a chain of such when the other has
// ended is not read.
struct Skip {
  template <class... Args>
  Then operator()(Args&&...) const noexcept {
    return Then::kGoOn;
  }
};

// Goes through two chains in step and visits every base that either has, in ascending order: onlyLeft(chunk),
// onlyRight(place in the left chain, chunk) or both(chunk, chunk). Says whether it came to the end, no
// visitor having stopped it. This is the only loop over two chains; their ends are checked nowhere else.
template <class Left, class RightChunk, class OnlyLeft, class OnlyRight, class Both>
inline bool merge(Left left, const RightChunk* rightChain, OnlyLeft onlyLeft, OnlyRight onlyRight,
                  Both both) noexcept {
  ReadOnlyPlace<RightChunk> right(rightChain);
  while (left.chunk() != nullptr && right.chunk() != nullptr) {
    if (left.chunk()->base < right.chunk()->base) {
      if (onlyLeft(*left.chunk()) == Then::kStop) return false;
      left.pass();
    } else if (left.chunk()->base > right.chunk()->base) {
      if (onlyRight(left, *right.chunk()) == Then::kStop) return false;
      right.pass();
    } else {
      const Then then = both(*left.chunk(), *right.chunk());
      if (then == Then::kStop) return false;
      if constexpr (requires { left.free(); }) {
        if (then == Then::kFreeLeft)
          left.free();
        else
          left.pass();
      } else {
        left.pass();
      }
      right.pass();
    }
  }
  if constexpr (!std::is_same_v<OnlyLeft, Skip>) {
    for (; left.chunk() != nullptr; left.pass()) {
      if (onlyLeft(*left.chunk()) == Then::kStop) return false;
    }
  }
  if constexpr (!std::is_same_v<OnlyRight, Skip>) {
    for (; right.chunk() != nullptr; right.pass()) {
      if (onlyRight(left, *right.chunk()) == Then::kStop) return false;
    }
  }
  return true;
}

// ---- New chunks ----

// A chunk with its base alone. The caller gives it an element: no chain keeps an empty chunk.
template <class Kind>
inline typename Kind::Chunk& allocateChunk(const typename Kind::Header& set, std::uint32_t base) noexcept {
  auto& chunk =
      *static_cast<typename Kind::Chunk*>(__VeskMalloc(set.category, sizeof(typename Kind::Chunk), 0));
  chunk.base = base;
  return chunk;
}

// Writes a set anew over the chunks it has, in their order; allocates when they run short and frees what is
// left over. The set may be an operand that is being read, as long as writing does not overtake reading.
template <class Kind>
class Rewrite {
public:
  explicit Rewrite(typename Kind::Header& set) noexcept : set_(set), at_(set.chunks) {}

  // The next chunk, for the caller to fill.
  typename Kind::Chunk& next(std::uint32_t base) noexcept {
    if (typename Kind::Chunk* const reused = at_.chunk(); reused != nullptr) {
      at_.pass();
      reused->base = base;
      return *reused;
    }
    auto& added = allocateChunk<Kind>(set_, base);
    at_.insert(added);
    return added;
  }
  void finish(std::uint32_t count) noexcept {
    at_.cut();
    set_.count = count;
  }

private:
  typename Kind::Header& set_;
  Place<typename Kind::Chunk> at_;
};

// ---- One element ----

template <class Kind>
inline void add(typename Kind::Header& set, std::uint32_t element) noexcept {
  Place at = seek(Place(set.chunks), baseOf(element));
  typename Kind::Chunk* chunk = at.chunk();
  if (!isAt(at, baseOf(element))) {
    chunk = &allocateChunk<Kind>(set, baseOf(element));
    Kind::clear(*chunk);
    at.insert(*chunk);
  }
  if (Kind::add(*chunk, positionOf(element))) set.count = set.count + 1;
}

// takeOut(chunk, position) says whether the element was there and is no more.
template <class Kind, class TakeOut>
inline void remove(typename Kind::Header& set, std::uint32_t element, TakeOut takeOut) noexcept {
  Place at = seek(Place(set.chunks), baseOf(element));
  if (!isAt(at, baseOf(element)) || !takeOut(*at.chunk(), positionOf(element))) return;
  set.count = set.count - 1;
  if (presence(*at.chunk()) == 0) at.free();
}

// The chunk that would hold the element; null when there is none.
template <class Header>
inline auto find(const Header& set, std::uint32_t element) noexcept {
  const auto at = seek(ReadOnlyPlace(set.chunks), baseOf(element));
  return isAt(at, baseOf(element)) ? at.chunk() : nullptr;
}

// ---- Whole sets ----

template <class Header>
inline void empty(Header& set) noexcept {
  Place(set.chunks).cut();
  set.count = 0;
}

template <class Kind>
inline void copy(typename Kind::Header& dst, const typename Kind::Header& src) noexcept {
  if (&dst == &src) return;
  Rewrite<Kind> out(dst);
  for (ReadOnlyPlace from(src.chunks); from.chunk() != nullptr; from.pass()) {
    Kind::assign(out.next(from.chunk()->base), *from.chunk());
  }
  out.finish(src.count);
}

template <class Header>
inline void move(Header& dst, Header& src) noexcept {
  if (&dst == &src) return;
  empty(dst);
  dst.chunks = src.chunks;
  dst.count = src.count;
  src.chunks = nullptr;
  src.count = 0;
}

template <class Kind>
inline bool equal(const typename Kind::Header& a, const typename Kind::Header& b) noexcept {
  if (&a == &b) return true;
  if (a.count != b.count) return false;
  const auto stop = [](auto&&...) { return Then::kStop; };
  return merge(ReadOnlyPlace(a.chunks), b.chunks, stop, stop, [](const auto& chunk, const auto& other) {
    return Kind::equal(chunk, other) ? Then::kGoOn : Then::kStop;
  });
}

// src may be of another kind. The count is taken anew.
template <class Kind, class Source>
inline void unite(typename Kind::Header& dst, const Source& src) noexcept {
  std::uint32_t count = 0;
  merge(
      Place(dst.chunks), src.chunks,
      [&](const auto& chunk) {
        count += Kind::count(chunk);
        return Then::kGoOn;
      },
      [&](auto& at, const auto& from) {
        auto& added = allocateChunk<Kind>(dst, from.base);
        Kind::assign(added, from);
        at.insert(added);
        count += Kind::count(added);
        return Then::kGoOn;
      },
      [&](auto& chunk, const auto& from) {
        Kind::unite(chunk, from);
        count += Kind::count(chunk);
        return Then::kGoOn;
      });
  dst.count = count;
}

template <class Kind>
inline void intersect(typename Kind::Header& dst, const typename Kind::Header& a,
                      const typename Kind::Header& b) noexcept {
  if (&a == &b) return copy<Kind>(dst, a);
  std::uint32_t count = 0;
  Rewrite<Kind> out(dst);
  merge(ReadOnlyPlace(a.chunks), b.chunks, Skip{}, Skip{}, [&](const auto& chunk, const auto& other) {
    const std::uint64_t shared = presence(chunk) & presence(other);
    if (shared != 0) {
      Kind::intersect(out.next(chunk.base), chunk, other);
      count += countBits(shared);
    }
    return Then::kGoOn;
  });
  out.finish(count);
}

// The count is taken anew.
template <class Kind>
inline void subtract(typename Kind::Header& dst, const typename Kind::Header& src) noexcept {
  if (&dst == &src) return empty(dst);
  std::uint32_t count = 0;
  const auto keep = [&](const auto& chunk) {
    count += Kind::count(chunk);
    return Then::kGoOn;
  };
  merge(Place(dst.chunks), src.chunks, keep, Skip{}, [&](auto& chunk, const auto& from) {
    Kind::subtract(chunk, from);
    return presence(chunk) != 0 ? keep(chunk) : Then::kFreeLeft;
  });
  dst.count = count;
}

} // namespace vesk::chunk_chain
