// What a large unlocked leaf is searched by instead of its chains.
//
// A search of the chains reads a bucket and entries: lines of memory out of some hundred bytes for each key,
// and each known only when the one before it is there. An index has 24 bytes for each bucket, and a search
// reads one line of it as a rule. It lies in the block of the bucket array:
//
//   [ index | bucket | bucket | ... | slot | slot | ... ]      slot: [ key | data ], null data: free
//
// A key goes to the first free slot from its home on, so that a search may end at a free slot; a slot that is
// freed is filled from behind it. The home is the hash as a fraction of all slots: slots stand in the order
// of the hashes, almost, and one index is filled from another in one pass over both.
//
// An entry whose data is null has no slot. It is counted as left out, and while there is such an entry the
// chains decide about keys that have no slot.
//
// A locked leaf has none: its searches have to go to the bucket's lock all the same.
#pragma once

#include <cstdint>

#include "veskrt/hash_table.h"

namespace vesk::hash_table {

class alignas(64) KeyIndex {
public:
  struct Slot {
    std::uint64_t key;
    void* data;
  };

  // An unlocked leaf's array of buckets has an index in front from this many bits on, which may be without
  // slots.
  static constexpr std::uint32_t kLeastBits = 11;

  [[gnu::always_inline]] static KeyIndex* of(VeskHashTableBucket* buckets) {
    return reinterpret_cast<KeyIndex*>(buckets) - 1;
  }

  // A block that holds an index and its array of buckets, with slots if wanted and possible. The buckets are
  // the caller's to initialise.
  static VeskHashTableBucket* allocate(std::uint32_t category, std::int32_t bucketCount, bool withSlots);
  void free();

  [[gnu::always_inline]] bool hasSlots() const { return slots_ != 0; }

  // The slot of a key; null if it has none.
  [[gnu::always_inline]] Slot* find(std::uint64_t key) const {
    for (Slot* slot = homeOf(key);; slot = next(slot)) {
      if (slot->data == nullptr) return nullptr;
      if (slot->key == key) return slot;
    }
  }

  // A key that has no slot.
  void add(std::uint64_t key, void* data);
  // The entry of a key goes; null: it is one that was left out.
  void forget(Slot* slot);
  // Fills this index, which is empty, with what a smaller one holds.
  void addAllOf(const KeyIndex& smaller);

  bool leavesOut() const { return leftOut_ != 0; }

private:
  [[gnu::always_inline]] Slot* homeOf(std::uint64_t key) const {
    const auto product = static_cast<unsigned __int128>(key) * 0x9E3779B97F4A7C15u;
    const auto hash = static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    return first_ + static_cast<std::uint64_t>(static_cast<unsigned __int128>(hash) * slots_ >> 64);
  }

  [[gnu::always_inline]] Slot* next(Slot* slot) const {
    return slot + 1 != first_ + slots_ ? slot + 1 : first_;
  }

  // Steps from one slot to another.
  std::uint64_t distance(const Slot* from, const Slot* to) const {
    const auto steps = static_cast<std::uint64_t>(to - from);
    return to >= from ? steps : steps + slots_;
  }

  Slot* first_;
  std::uint64_t
      slots_; // half as many again as buckets, or none; a leaf has one entry more than buckets at most
  std::uint64_t leftOut_; // entries without a slot
  void* block_;
};

} // namespace vesk::hash_table
