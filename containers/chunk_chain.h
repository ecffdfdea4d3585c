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
//   count(chunk)                    the elements in a chunk, or in one of another kind that unite takes
//   unite(chunk, from)              puts in what another chunk has
//   intersect(chunk, a, b)          gives it what two chunks share; either may be the chunk itself
//   subtract(chunk, from)           takes out what another chunk has
//   equal(a, b)                     do two chunks hold the same?
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "memory/chunks.h"
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
  // Takes the chunk out of the chain.
  Chunk& takeOut() noexcept {
    Chunk* const out = chunk_;
    *link_ = chunk_ = out->next;
    return *out;
  }
  // Frees everything from here on.
  void cut() noexcept {
    *link_ = nullptr;
    memory::freeChunks(std::exchange(chunk_, nullptr));
  }
  // For a chunk that is put in here later: the word that will point to it.
  Chunk*& link() const noexcept { return *link_; }
  // Goes behind what has been put in here since.
  void catchUp() noexcept {
    while (*link_ != chunk_) link_ = &(*link_)->next;
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

// What becomes of the merge once a base has been dealt with.
enum class Then { kGoOn, kGoOnWithoutLeft, kStop }; // in the second case the left chunk has been taken out

// In place of a visitor for bases that do not matter. What is left of a chain of such when the other has
// ended is not read.
struct Skip {
  template <class... Args>
  Then operator()(Args&&...) const noexcept {
    return Then::kGoOn;
  }
};

// Goes through two chains in step and visits every base that either has, in ascending order: onlyLeft(chunk),
// onlyRight(place in the left chain, chunk) or both(place in the left chain, chunk). Says whether it came to the
// end, no visitor having stopped it. This is the only loop that compares the bases of two chains.
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
      const Then then = both(left, *right.chunk());
      if (then == Then::kStop) return false;
      if (then == Then::kGoOn) left.pass();
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

// Chunks are allocated in batches of this size; larger ones were no faster.
inline constexpr std::size_t kBatch = 16;

// A chunk with its base alone. The caller gives it an element: no chain keeps an empty chunk.
template <class Kind>
inline typename Kind::Chunk& allocateChunk(const typename Kind::Header& set, std::uint32_t base) noexcept {
  auto& chunk =
      *static_cast<typename Kind::Chunk*>(__VeskMalloc(set.category, sizeof(typename Kind::Chunk), 0));
  chunk.base = base;
  return chunk;
}

// Chunks that a chain will get, allocated and put in a batch at a time. No chunk is taken in advance that may turn
// out not to be needed: other threads might go short of it.
template <class Kind, class Source>
class Insertions {
public:
  using Chunk = typename Kind::Chunk;

  explicit Insertions(std::uint32_t category) noexcept : category_(category) {}

  // A chunk with what `from` has, in front of where this place is now.
  void add(Place<Chunk>& at, const Source& from) noexcept {
    if (count_ == kBatch) {
      flush();
      at.catchUp();
    }
    wanted_[count_++] = {&at.link(), &from};
  }
  void flush() noexcept {
    void* added[kBatch];
    memory::allocateChunks(category_, sizeof(Chunk), added, count_);
    // From the last one on: of several for one place, the later ones are behind the earlier ones.
    while (count_ != 0) {
      const auto [link, from] = wanted_[--count_];
      auto& chunk = *static_cast<Chunk*>(added[count_]);
      chunk.base = from->base;
      Kind::assign(chunk, *from);
      chunk.next = *link;
      *link = &chunk;
    }
  }

private:
  struct Wanted {
    Chunk** link;
    const Source* from;
  };

  std::uint32_t category_;
  std::size_t count_ = 0;
  Wanted wanted_[kBatch];
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
  if (presence(*at.chunk()) == 0) __VeskFree(&at.takeOut());
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

// Writes over the chunks that dst has, in their order.
template <class Kind>
inline void copy(typename Kind::Header& dst, const typename Kind::Header& src) noexcept {
  if (&dst == &src) return;
  using Chunk = typename Kind::Chunk;
  Place to(dst.chunks);
  ReadOnlyPlace from(src.chunks);
  const auto write = [&](Chunk& chunk) {
    chunk.base = from.chunk()->base;
    Kind::assign(chunk, *from.chunk());
    from.pass();
  };
  for (; to.chunk() != nullptr && from.chunk() != nullptr; to.pass()) write(*to.chunk());
  to.cut();
  while (from.chunk() != nullptr) {
    std::size_t count = 0;
    for (ReadOnlyPlace ahead = from; ahead.chunk() != nullptr && count != kBatch; ahead.pass()) ++count;
    void* added[kBatch];
    memory::allocateChunks(dst.category, sizeof(Chunk), added, count);
    for (std::size_t i = 0; i != count; ++i) {
      auto& chunk = *static_cast<Chunk*>(added[i]);
      write(chunk);
      to.insert(chunk);
    }
  }
  dst.count = src.count;
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
  return merge(ReadOnlyPlace(a.chunks), b.chunks, stop, stop, [](const auto& at, const auto& other) {
    return Kind::equal(*at.chunk(), other) ? Then::kGoOn : Then::kStop;
  });
}

// src may be of another kind. The count is taken anew.
template <class Kind, class Source>
inline void unite(typename Kind::Header& dst, const Source& src) noexcept {
  using SourceChunk = std::remove_pointer_t<decltype(src.chunks)>;
  std::uint32_t count = 0;
  Insertions<Kind, SourceChunk> insertions(dst.category);
  const auto keep = [&](const auto& chunk) {
    count += Kind::count(chunk);
    return Then::kGoOn;
  };
  merge(
      Place(dst.chunks), src.chunks, keep,
      [&](auto& at, const SourceChunk& from) {
        insertions.add(at, from);
        count += Kind::count(from);
        return Then::kGoOn;
      },
      [&](auto& at, const SourceChunk& from) {
        Kind::unite(*at.chunk(), from);
        return keep(*at.chunk());
      });
  insertions.flush();
  dst.count = count;
}

// Writes over the chunks that dst has, in their order. dst may be a or b: writing does not overtake reading.
template <class Kind>
inline void intersect(typename Kind::Header& dst, const typename Kind::Header& a,
                      const typename Kind::Header& b) noexcept {
  if (&a == &b) return copy<Kind>(dst, a);
  std::uint32_t count = 0;
  Place to(dst.chunks);
  merge(ReadOnlyPlace(a.chunks), b.chunks, Skip{}, Skip{}, [&](const auto& at, const auto& other) {
    const std::uint64_t shared = presence(*at.chunk()) & presence(other);
    if (shared == 0) return Then::kGoOn;
    const std::uint32_t base = other.base;
    typename Kind::Chunk* result = to.chunk();
    if (result != nullptr) {
      to.pass();
      result->base = base;
    } else {
      result = &allocateChunk<Kind>(dst, base);
      to.insert(*result);
    }
    Kind::intersect(*result, *at.chunk(), other);
    count += countBits(shared);
    return Then::kGoOn;
  });
  to.cut();
  dst.count = count;
}

// The count is taken anew.
template <class Kind>
inline void subtract(typename Kind::Header& dst, const typename Kind::Header& src) noexcept {
  if (&dst == &src) return empty(dst);
  std::uint32_t count = 0;
  typename Kind::Chunk* emptied;
  typename Kind::Chunk** lastLink = &emptied;
  const auto keep = [&](const auto& chunk) {
    count += Kind::count(chunk);
    return Then::kGoOn;
  };
  merge(Place(dst.chunks), src.chunks, keep, Skip{}, [&](auto& at, const auto& from) {
    Kind::subtract(*at.chunk(), from);
    if (presence(*at.chunk()) != 0) return keep(*at.chunk());
    *lastLink = &at.takeOut();
    lastLink = &(*lastLink)->next;
    return Then::kGoOnWithoutLeft;
  });
  *lastLink = nullptr;
  memory::freeChunks(emptied);
  dst.count = count;
}

} // namespace vesk::chunk_chain
