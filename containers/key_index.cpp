#include "containers/key_index.h"

#include <cstring>
#include <new>

#include "veskrt/memory.h"

namespace vesk::hash_table {

VeskHashTableBucket* KeyIndex::allocate(std::uint32_t category, std::int32_t bucketCount, bool withSlots) {
  const auto count = static_cast<std::uint64_t>(bucketCount);
  const std::uint64_t bucketBytes = count * sizeof(VeskHashTableBucket); // of 2^11 and more: whole lines
  const std::uint64_t leastBytes = (alignof(KeyIndex) - 1) + sizeof(KeyIndex) + bucketBytes;
  std::uint64_t slots = withSlots ? count + count / 2 : 0;
  if (leastBytes + slots * sizeof(Slot) > UINT32_MAX) slots = 0;
  void* const block =
      __VeskMalloc(category, static_cast<std::uint32_t>(leastBytes + slots * sizeof(Slot)), 0);
  const std::uintptr_t start =
      (reinterpret_cast<std::uintptr_t>(block) + alignof(KeyIndex) - 1) & ~(alignof(KeyIndex) - 1);
  auto* const index = new (reinterpret_cast<void*>(start)) KeyIndex;
  auto* const buckets = reinterpret_cast<VeskHashTableBucket*>(index + 1);
  index->first_ = reinterpret_cast<Slot*>(buckets + count);
  index->slots_ = slots;
  index->leftOut_ = 0;
  index->block_ = block;
  std::memset(static_cast<void*>(index->first_), 0, slots * sizeof(Slot));
  return buckets;
}

void KeyIndex::free() { __VeskFree(block_); }

void KeyIndex::add(std::uint64_t key, void* data) {
  if (data == nullptr) [[unlikely]] {
    ++leftOut_;
    return;
  }
  Slot* slot = homeOf(key);
  while (slot->data != nullptr) slot = next(slot);
  *slot = {key, data};
}

// What stands behind the slot up to the next free one moves up if its home is not behind the hole.
void KeyIndex::forget(Slot* slot) {
  if (slot == nullptr) [[unlikely]] {
    --leftOut_;
    return;
  }
  Slot* hole = slot;
  for (Slot* at = next(hole); at->data != nullptr; at = next(at)) {
    if (distance(homeOf(at->key), at) < distance(hole, at)) continue;
    *hole = *at;
    hole = at;
  }
  hole->data = nullptr;
}

void KeyIndex::addAllOf(const KeyIndex& smaller) {
  for (const Slot* slot = smaller.first_; slot != smaller.first_ + smaller.slots_; ++slot) {
    if (slot->data != nullptr) add(slot->key, slot->data);
  }
  leftOut_ = smaller.leftOut_;
}

} // namespace vesk::hash_table
