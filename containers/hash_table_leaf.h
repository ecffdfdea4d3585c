// The inside of the hash table: what its operations and scans share, and the probe for owners of unlocked
// tables that know their hash function.
#pragma once

#include <cstdint>

#include "containers/key_index.h"
#include "runtime/atomic.h"
#include "runtime/reader_slots.h"
#include "veskrt/hash_table.h"

namespace vesk::hash_table {

using Table = VeskHashTable;
using Bucket = VeskHashTableBucket;
using Entry = VeskHashTableEntry;

inline bool isUnlocked(const Table& table) { return (table.flags & VESK_HASH_TABLE_UNLOCKED) != 0; }
inline bool comparesKeys(const Table& table) { return (table.flags & VESK_HASH_TABLE_COMPARE_KEYS) != 0; }

// The default of level 0.
std::uint64_t hashByKey(Table* table, std::uint64_t key);

[[gnu::always_inline]] inline Bucket& bucketAt(const Table& table, std::uint64_t hash) {
  return table.buckets[hash & (static_cast<std::uint64_t>(table.bucketCount) - 1)];
}

[[gnu::always_inline]] inline Bucket& leafBucket(Table& leaf, std::uint64_t key) {
  const VeskHashFunction hash = leaf.hashFunctions[0];
  return bucketAt(leaf, hash == hashByKey ? key : hash(&leaf, key));
}

// The record and what the library keeps behind it.
struct WholeTable {
  // Over memory for the slots of its readers, or null.
  WholeTable(const Table& fields, void* slots) : record(fields), readers(slots) {}

  Table record;
  KeyIndex index;      // of a leaf whose keys are numbers
  ReaderSlots readers; // of a locked leaf whose keys are numbers; otherwise without slots
};

[[gnu::always_inline]] inline const WholeTable& whole(const Table& table) {
  return reinterpret_cast<const WholeTable&>(table);
}
[[gnu::always_inline]] inline WholeTable& whole(Table& table) { return reinterpret_cast<WholeTable&>(table); }

// The reserved head of a bucket whose sub-table is being created.
inline void* underCreation() { return reinterpret_cast<void*>(std::uintptr_t{1}); }

inline Table* publishedIn(const Bucket& bucket) {
  void* const head = loadAcquire(bucket.head);
  return head != underCreation() ? static_cast<Table*>(head) : nullptr;
}

[[gnu::always_inline]] inline Entry* chainOf(const Bucket& bucket) {
  return static_cast<Entry*>(bucket.head);
}

// The entry under a key that is compared as a number.
[[gnu::always_inline]] inline Entry* findByNumber(Entry* chain, std::uint64_t key) {
  while (chain != nullptr && chain->key != key) chain = chain->next;
  return chain;
}

// A link is the word that points to an entry: its predecessor's, or the bucket's head.
inline Entry*& firstLink(Bucket& bucket) {
  using Link [[gnu::may_alias]] = Entry*;
  return reinterpret_cast<Link&>(bucket.head);
}

// The link to the first entry that matches; the chain's last, null link if none does.
template <class Matches>
[[gnu::always_inline]] inline Entry*& findLink(Bucket& bucket, Matches matches) {
  Entry** link = &firstLink(bucket);
  while (*link != nullptr && !matches(**link)) link = &(*link)->next;
  return *link;
}

// Tells a scan that runs on this leaf that its chains have changed. Only the scan's own thread can get here
// then.
inline void noteChange(Table& leaf) {
  if (leaf.scanStamp != 0 && ++leaf.scanStamp == 0) leaf.scanStamp = 1;
}

// The key's entry leaves its chain.
inline void forgetInIndex(Table& leaf, std::uint64_t key) {
  KeyIndex& index = whole(leaf).index;
  if (index.isThere()) index.forget(index.find(key));
}

inline void releaseKey(const Table& table, std::uint64_t key) {
  if (comparesKeys(table) && table.keyRelease != nullptr) table.keyRelease(key);
}

inline void addToCount(Table& leaf, std::int32_t change) {
  storeRelaxed(leaf.entryCount, loadRelaxed(leaf.entryCount) + change);
}

} // namespace vesk::hash_table
