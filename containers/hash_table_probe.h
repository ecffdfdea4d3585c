// A leaf's bucket and chain, for the table itself and for owners of unlocked tables that know their hash
// function.
#pragma once

#include <cstdint>

#include "veskrt/hash_table.h"

namespace vesk::hash_table {

[[gnu::always_inline]] inline VeskHashTableBucket& bucketAt(const VeskHashTable& table, std::uint64_t hash) {
  return table.buckets[hash & (static_cast<std::uint64_t>(table.bucketCount) - 1)];
}

[[gnu::always_inline]] inline VeskHashTableEntry* chainOf(const VeskHashTableBucket& bucket) {
  return static_cast<VeskHashTableEntry*>(bucket.head);
}

// The entry under a key that is compared as a number.
[[gnu::always_inline]] inline VeskHashTableEntry* findByNumber(VeskHashTableEntry* chain, std::uint64_t key) {
  while (chain != nullptr && chain->key != key) chain = chain->next;
  return chain;
}

} // namespace vesk::hash_table
