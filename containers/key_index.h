// What a leaf whose keys are numbers is searched by instead of its chains.
//
// A search of the chains reads a bucket and entries: lines of memory out of some hundred bytes for each key,
// and each known only when the one before it is there. An index has 24 bytes for each bucket, and a search
// reads one line of it as a rule:
//
//   group -> four times [ key | data ], the free ones last; null data: free
//
// A key goes to the first group from its home on that has a free slot, so that a search may end at a group that
// is not full; a slot that is freed in a full group is filled from behind it. The home is the hash as a fraction
// of all groups: keys stand in the order of the hashes, almost, and one index is filled from another in one pass
// over both.
//
// The four keys of a group are compared without a branch. Which slot a key has is a matter of chance, and a
// branch that is guessed wrong would make every search wait for its own line of memory, where the processor can
// have several on their way. The same goes for how many slots of a group are in use.
//
// An entry whose data is null has no slot. It is counted as left out, and while there is such an entry the
// chains decide about keys that have no slot.
//
// Changed and searched under the leaf's lock, exclusive and shared.
#pragma once

#include <cstdint>

#include "runtime/atomic.h"

namespace vesk::hash_table {

class KeyIndex {
public:
  struct Slot {
    std::uint64_t key;
    void* data;
  };

  // Empty, with room for the keys of a leaf of so many buckets. Without it an index is not there.
  void allocate(std::uint32_t category, std::int32_t bucketCount);
  void free() const;

  [[gnu::always_inline]] bool isThere() const { return groups_ != 0; }

  // The data of a key; null if it has no slot.
  [[gnu::always_inline]] void* dataOf(std::uint64_t key) const {
    for (const Group* group = homeOf(key);; group = next(group)) {
      void* const data = group->dataOf(key);
      if (data != nullptr || !group->isFull()) [[likely]]
        return data;
    }
  }

  // Fetches what a search for the key will read. May be called without the lock: if the index is exchanged
  // meanwhile, the address means nothing, and fetching it does nothing.
  [[gnu::always_inline]] void prefetch(std::uint64_t key) const {
    __builtin_prefetch(homeOf(key, loadRelaxed(first_), loadRelaxed(groups_)));
  }

  // The slot of a key; null if it has none.
  Slot* find(std::uint64_t key) const;
  // A key that has no slot.
  void add(std::uint64_t key, void* data);
  // The entry of a key goes; null: it is one that was left out.
  void forget(Slot* slot);
  // Fills this index, which is empty, with what a smaller one holds.
  void addAllOf(const KeyIndex& smaller);
  // Frees this index and becomes the other one.
  void replaceBy(const KeyIndex& other);

  bool leavesOut() const { return leftOut_ != 0; }

private:
  struct alignas(64) Group {
    static constexpr std::uint32_t kSlots = 4;

    // A free slot adds nothing, whatever key it still has.
    [[gnu::always_inline]] void* dataOf(std::uint64_t key) const {
      std::uintptr_t data = 0;
#pragma GCC unroll 4
      for (std::uint32_t i = 0; i < kSlots; ++i) {
        const auto found = static_cast<std::uintptr_t>(slots[i].key == key);
        data |= reinterpret_cast<std::uintptr_t>(slots[i].data) & -found;
      }
      return reinterpret_cast<void*>(data);
    }
    // The slots in use are the first ones.
    [[gnu::always_inline]] bool isFull() const { return slots[kSlots - 1].data != nullptr; }
    [[gnu::always_inline]] std::uint32_t used() const {
      std::uint32_t count = 0;
#pragma GCC unroll 4
      for (const Slot& slot : slots) count += slot.data != nullptr ? 1 : 0;
      return count;
    }
    // One bit for each slot in use that has the key.
    [[gnu::always_inline]] std::uint32_t slotsWith(std::uint64_t key) const {
      std::uint32_t found = 0;
#pragma GCC unroll 4
      for (std::uint32_t i = 0; i < kSlots; ++i)
        found |= static_cast<std::uint32_t>(slots[i].key == key) << i;
      return found & ((1u << used()) - 1);
    }

    Slot slots[kSlots];
  };

  [[gnu::always_inline]] static Group* homeOf(std::uint64_t key, Group* first, std::uint64_t groups) {
    const auto product = static_cast<unsigned __int128>(key) * 0x9E3779B97F4A7C15u;
    const auto hash = static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    return first + static_cast<std::uint64_t>(static_cast<unsigned __int128>(hash) * groups >> 64);
  }
  [[gnu::always_inline]] Group* homeOf(std::uint64_t key) const { return homeOf(key, first_, groups_); }

  [[gnu::always_inline]] Group* next(const Group* group) const {
    return first_ + (group + 1 != first_ + groups_ ? group + 1 - first_ : 0);
  }

  // Steps from one group to another.
  std::uint64_t distance(const Group* from, const Group* to) const {
    const auto steps = static_cast<std::uint64_t>(to - from);
    return to >= from ? steps : steps + groups_;
  }

  Group* groupOf(const Slot* slot) const { return first_ + (slot - first_->slots) / Group::kSlots; }

  Slot* displacedFrom(const Group* full) const;

  Group* first_ = nullptr;
  std::uint64_t groups_ = 0;  // three for eight buckets; a leaf has one entry more than buckets at most
  std::uint64_t leftOut_ = 0; // entries without a slot
  void* block_ = nullptr;
};

} // namespace vesk::hash_table
