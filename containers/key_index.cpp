#include "containers/key_index.h"

#include <bit>
#include <cstring>

#include "veskrt/memory.h"

namespace vesk::hash_table {

void KeyIndex::allocate(std::uint32_t category, std::int32_t bucketCount) {
  const auto groups = static_cast<std::uint32_t>(bucketCount) / 8 * 3;
  const auto bytes = groups * static_cast<std::uint32_t>(sizeof(Group));
  block_ = __VeskMalloc(category, bytes + alignof(Group) - 1, 0);
  const auto address =
      (reinterpret_cast<std::uintptr_t>(block_) + alignof(Group) - 1) & ~(alignof(Group) - 1);
  std::memset(reinterpret_cast<void*>(address), 0, bytes);
  first_ = reinterpret_cast<Group*>(address);
  groups_ = groups;
  leftOut_ = 0;
}

void KeyIndex::free() const { __VeskFree(block_); }

KeyIndex::Slot* KeyIndex::find(std::uint64_t key) const {
  for (Group* group = homeOf(key);; group = next(group)) {
    const std::uint32_t found = group->slotsWith(key);
    if (found != 0) [[likely]]
      return &group->slots[std::countr_zero(found)];
    if (!group->isFull()) return nullptr;
  }
}

void KeyIndex::add(std::uint64_t key, void* data) {
  if (data == nullptr) [[unlikely]] {
    ++leftOut_;
    return;
  }
  Group* group = homeOf(key);
  while (group->isFull()) group = next(group);
  group->slots[group->used()] = {key, data};
}

// A key that stands in one of the groups behind `full` and may move up there: it found that group full, or one
// before it. Null if there is none.
KeyIndex::Slot* KeyIndex::displacedFrom(const Group* full) const {
  for (Group* group = next(full);; group = next(group)) {
    for (Slot& slot : group->slots) {
      if (slot.data == nullptr) return nullptr;
      if (distance(homeOf(slot.key), group) >= distance(full, group)) return &slot;
    }
  }
}

void KeyIndex::forget(Slot* slot) {
  if (slot == nullptr) [[unlikely]] {
    --leftOut_;
    return;
  }
  for (;;) {
    Group* const group = groupOf(slot);
    const std::uint32_t used = group->used();
    Slot* const last = &group->slots[used - 1];
    *slot = *last;
    last->data = nullptr;
    if (used < Group::kSlots) [[likely]]
      return;
    Slot* const displaced = displacedFrom(group);
    if (displaced == nullptr) return;
    *last = *displaced;
    slot = displaced;
  }
}

void KeyIndex::addAllOf(const KeyIndex& smaller) {
  for (const Group* group = smaller.first_; group != smaller.first_ + smaller.groups_; ++group) {
    for (const Slot& slot : group->slots) {
      if (slot.data == nullptr) break;
      add(slot.key, slot.data);
    }
  }
  leftOut_ = smaller.leftOut_;
}

void KeyIndex::replaceBy(const KeyIndex& other) {
  free();
  storeRelaxed(first_, other.first_); // these two are read ahead of the lock
  storeRelaxed(groups_, other.groups_);
  leftOut_ = other.leftOut_;
  block_ = other.block_;
}

} // namespace vesk::hash_table
