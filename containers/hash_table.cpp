// The concurrent hash table.
//
//   root, level 2        sub-tables, level 1      leaves, level 0
//   [bucket] ----------> [bucket] --------------> [bucket] -> entry -> entry
//   [ null ]             [  1   ] being created   [ null ]
//
// An operation descends to its leaf without a lock: a bucket's head above the leaves goes from null to 1 to
// the sub-table's address and stays. Only the leaf's locks count from there on.
//
// What a thread that holds a leaf shared may rely on: no key is added, the bucket array stays, chains only
// lose entries, and a chain whose bucket it holds does not change. A thread that did not find its key and
// turns its shared hold into an exclusive one without letting go therefore need not search again.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <new>

#include "containers/hash_table_leaf.h"
#include "containers/range_table_hash.h"
#include "containers/table_flags.h"
#include "runtime/backoff.h"
#include "runtime/shared_lock.h"
#include "veskrt/memory.h"

namespace vesk::hash_table {

std::uint64_t hashByKey(Table*, std::uint64_t key) { return key; }

namespace {

// The largest array of which __VeskMalloc can be asked for; a leaf that is there grows no more.
constexpr std::uint32_t kMaxBucketBits = 26;
static_assert((sizeof(Bucket) << kMaxBucketBits) <= UINT32_MAX);

std::uint64_t hashByNextBits(Table* table, std::uint64_t key) { return key >> table->bucketBits; }
std::uint64_t hashByHighBits(Table* table, std::uint64_t key) { return key >> (3 * table->bucketBits); }

// ---- Descent ----

// Fetches the lines of the bucket while the leaf's lock is taken, which otherwise comes first. The leaf may
// grow meanwhile: then the address means nothing, and fetching it does nothing.
[[gnu::always_inline]] inline void prefetchBucket(const Table& leaf, std::uint64_t key) {
  if (leaf.hashFunctions[0] != hashByKey) return;
  const std::uint64_t index = key & (static_cast<std::uint64_t>(loadRelaxed(leaf.bucketCount)) - 1);
  const std::uintptr_t bucket =
      reinterpret_cast<std::uintptr_t>(loadRelaxed(leaf.buckets)) + index * sizeof(Bucket);
  __builtin_prefetch(reinterpret_cast<const void*>(bucket));
  __builtin_prefetch(reinterpret_cast<const void*>(bucket + offsetof(Bucket, head)));
}

Bucket& subTableBucket(Table& table, std::uint64_t key) {
  const VeskHashFunction hash = table.hashFunctions[table.level];
  if (hash == hashByNextBits) return bucketAt(table, hashByNextBits(&table, key));
  if (hash == hashByHighBits) return bucketAt(table, hashByHighBits(&table, key));
  return bucketAt(table, hash(&table, key));
}

[[gnu::noinline]] Table* descendThroughLevels(Table* table, std::uint64_t key) {
  do {
    table = publishedIn(subTableBucket(*table, key));
  } while (table != nullptr && table->level > 0);
  return table;
}

// The leaf of a key; null while it does not exist.
[[gnu::always_inline]] inline Table* descend(Table* table, std::uint64_t key) {
  return table->level > 0 ? descendThroughLevels(table, key) : table;
}

Table* createSubTable(const Table& table) {
  return __VeskCreateHashTable(table.flags, table.hashFunctions, table.level, table.compare, table.keyRelease,
                               categoryOf(table.flags), slabShiftOf(table.flags));
}

Table* subTableFor(Table& table, std::uint64_t key) {
  Bucket& bucket = subTableBucket(table, key);
  Table* subTable = publishedIn(bucket);
  if (subTable != nullptr) [[likely]]
    return subTable;
  if (isUnlocked(table)) {
    subTable = createSubTable(table);
    bucket.head = subTable;
    return subTable;
  }
  if (compareAndSwap(bucket.head, nullptr, underCreation())) {
    subTable = createSubTable(table);
    compareAndSwap(bucket.head, underCreation(), subTable);
    return subTable;
  }
  Backoff backoff(kDefaultSpinCount);
  while ((subTable = publishedIn(bucket)) == nullptr) backoff.busy();
  return subTable;
}

// The leaf of a key that is to be inserted.
[[gnu::always_inline]] inline Table& descendCreating(Table* table, std::uint64_t key) {
  while (table->level > 0) table = subTableFor(*table, key);
  return *table;
}

// ---- Chains ----

[[gnu::noinline]] Entry* findByCompare(const Table& table, Entry* chain, std::uint64_t key) {
  while (chain != nullptr && table.compare(chain->key, key) == 0) chain = chain->next;
  return chain;
}

[[gnu::always_inline]] inline Entry* find(const Table& table, const Bucket& bucket, std::uint64_t key) {
  if (comparesKeys(table)) [[unlikely]]
    return findByCompare(table, chainOf(bucket), key);
  return findByNumber(chainOf(bucket), key);
}

[[gnu::always_inline]] inline Entry*& linkOfKey(const Table& table, Bucket& bucket, std::uint64_t key) {
  if (comparesKeys(table)) [[unlikely]]
    return findLink(bucket, [&](const Entry& entry) { return table.compare(entry.key, key) != 0; });
  return findLink(bucket, [&](const Entry& entry) { return entry.key == key; });
}

// A leaf without locks and callbacks.
[[gnu::always_inline]] inline bool isPlainUnlockedLeaf(const Table& table) {
  constexpr std::uint32_t kKind = VESK_HASH_TABLE_UNLOCKED | VESK_HASH_TABLE_COMPARE_KEYS;
  return table.level == 0 && (table.flags & kKind) == VESK_HASH_TABLE_UNLOCKED &&
         table.hashFunctions[0] == hashByKey;
}

// Calls use(data) under the leaf's locks if the key is there.
template <class Use>
[[gnu::always_inline]] inline void useData(Table& leaf, std::uint64_t key, Use use) {
  if (isUnlocked(leaf)) {
    if (leaf.entryCount < 1) return;
    if (const KeyIndex* const index = indexOf(leaf)) {
      if (const KeyIndex::Slot* const slot = index->find(key)) return use(slot->data);
      if (!index->leavesOut()) return;
    }
    if (const Entry* const entry = find(leaf, leafBucket(leaf, key), key)) use(entry->data);
    return;
  }
  prefetchBucket(leaf, key);
  const std::uint64_t self = nativeThreadId();
  acquireShared(leaf.lock, self);
  if (loadRelaxed(leaf.entryCount) >= 1) [[likely]] {
    Bucket& bucket = leafBucket(leaf, key);
    acquireShared(bucket.lock, self);
    if (const Entry* const entry = find(leaf, bucket, key)) use(entry->data);
    releaseShared(bucket.lock, self);
  }
  releaseShared(leaf.lock, self);
}

[[gnu::noinline]] void* lookUpGenerally(Table* table, std::uint64_t key) {
  Table* const leaf = descend(table, key);
  void* data = nullptr;
  if (leaf != nullptr) useData(*leaf, key, [&](void* found) { data = found; });
  return data;
}

// ---- Growth and insertion ----

// May the index know the leaf's keys? The calls of a hash or compare function from outside are counted on.
bool isIndexable(const Table& leaf) {
  return !comparesKeys(leaf) &&
         (leaf.hashFunctions[0] == hashByKey || range_table::isLevelHash(leaf.hashFunctions[0]));
}

Bucket* createBuckets(const Table& table, std::uint32_t bits) {
  const std::int32_t count = 1 << bits;
  const auto bytes = static_cast<std::uint32_t>(sizeof(Bucket)) << bits;
  const std::uint32_t category = categoryOf(table.flags);
  auto* const buckets = hasIndexInFront(table, bits) ? KeyIndex::allocate(category, count, isIndexable(table))
                                                     : static_cast<Bucket*>(__VeskMalloc(category, bytes, 0));
  if (isUnlocked(table)) {
    for (Bucket* bucket = buckets; bucket != buckets + count; ++bucket) bucket->head = nullptr;
  } else {
    std::memset(static_cast<void*>(buckets), 0, bytes); // a free lock of spin count 0 is all zeros
  }
  return buckets;
}

void freeBuckets(const Table& table, Bucket* buckets, std::uint32_t bits) {
  if (hasIndexInFront(table, bits)) {
    KeyIndex::of(buckets)->free();
  } else {
    __VeskFree(buckets);
  }
}

// Twice the buckets. The caller holds the leaf exclusive.
[[gnu::noinline]] void grow(Table& leaf) {
  if (leaf.bucketBits == kMaxBucketBits) return;
  const std::int32_t oldCount = leaf.bucketCount;
  Bucket* const fresh = createBuckets(leaf, leaf.bucketBits + 1);
  Bucket* const old = leaf.buckets;
  const KeyIndex* const oldIndex = indexOf(leaf);
  leaf.bucketBits = leaf.bucketBits + 1;
  storeRelaxed(leaf.bucketCount, 2 * oldCount); // these two are read ahead of the lock
  storeRelaxed(leaf.buckets, fresh);
  KeyIndex* const index = indexOf(leaf);
  if (index != nullptr && oldIndex != nullptr) index->addAllOf(*oldIndex);
  constexpr std::int32_t kAhead = 8; // entries lie anywhere: ask for them before their turn
  for (std::int32_t i = 0; i < oldCount; ++i) {
    if (i + kAhead < oldCount) __builtin_prefetch(old[i + kAhead].head);
    for (Entry* entry = chainOf(old[i]); entry != nullptr;) {
      Entry* const next = entry->next;
      Entry*& link = firstLink(leafBucket(leaf, entry->key));
      entry->next = link;
      link = entry;
      if (index != nullptr && oldIndex == nullptr) index->add(entry->key, entry->data);
      entry = next;
    }
  }
  freeBuckets(leaf, old, leaf.bucketBits - 1);
}

// Adds a key that its bucket does not have. The caller holds the leaf exclusive.
[[gnu::always_inline]] inline void add(Table& leaf, Bucket* bucket, std::uint64_t key, void* data) {
  if (loadRelaxed(leaf.entryCount) > leaf.bucketCount) [[unlikely]] {
    grow(leaf);
    bucket = &leafBucket(leaf, key);
  }
  auto* const entry =
      static_cast<Entry*>(__VeskMalloc(categoryOf(leaf.flags), sizeof(Entry), slabShiftOf(leaf.flags)));
  Entry*& link =
      firstLink(*bucket); // only now: a memory collector inside the allocation may have removed entries
  entry->next = link;
  entry->key = key;
  entry->data = data;
  if (!isUnlocked(leaf)) entry->lock = VeskSharedExclusiveLock{};
  link = entry;
  if (KeyIndex* const index = indexOf(leaf)) index->add(key, data);
  addToCount(leaf, 1);
  noteChange(leaf);
}

void* insertUnlocked(Table& leaf, std::uint64_t key, void* data) {
  Bucket& bucket = leafBucket(leaf, key);
  const KeyIndex* const index = indexOf(leaf);
  if (index != nullptr) {
    __builtin_prefetch(&bucket.head, 1);
    if (const KeyIndex::Slot* const slot = index->find(key)) return slot->data;
  }
  if (index == nullptr || index->leavesOut()) {
    if (const Entry* const entry = find(leaf, bucket, key)) return entry->data;
  }
  add(leaf, &bucket, key, data);
  return data;
}

// ---- Removal ----

// Takes the entry at the link out of its chain and frees it. The count is left to the caller.
[[gnu::always_inline]] inline void* take(Table& leaf, Entry*& link) {
  Entry* const entry = link;
  link = entry->next;
  noteChange(leaf);
  void* const data = entry->data;
  releaseKey(leaf, entry->key);
  __VeskFree(entry);
  return data;
}

void* removeUnlocked(Table& leaf, std::uint64_t key) {
  Bucket& bucket = leafBucket(leaf, key);
  KeyIndex* const index = indexOf(leaf);
  KeyIndex::Slot* slot = nullptr;
  if (index != nullptr) {
    __builtin_prefetch(&bucket.head);
    slot = index->find(key);
    if (slot == nullptr && !index->leavesOut()) return nullptr;
  }
  Entry*& link = linkOfKey(leaf, bucket, key);
  if (link == nullptr) return nullptr;
  if (index != nullptr) index->forget(slot);
  void* const data = take(leaf, link);
  addToCount(leaf, -1);
  return data;
}

void destroyChain(const Table& leaf, Entry* entry, VeskHashDataRelease dataRelease) {
  while (entry != nullptr) {
    Entry* const next = entry->next;
    if (dataRelease != nullptr) dataRelease(entry->data);
    releaseKey(leaf, entry->key);
    __VeskFree(entry);
    entry = next;
  }
}

std::uint32_t startingBits(std::uint32_t flags) {
  if ((flags & VESK_HASH_TABLE_512_BUCKETS) != 0) return 9;
  return (flags & VESK_HASH_TABLE_1024_BUCKETS) != 0 ? 10 : 8;
}

} // namespace

} // namespace vesk::hash_table

using namespace vesk;
using namespace vesk::hash_table;

VeskHashTable* __VeskCreateHashTable(uint32_t flags, const VeskHashFunction* hashFunctions, int32_t levels,
                                     VeskHashKeyCompare compare, VeskHashKeyRelease keyRelease,
                                     uint32_t category, uint32_t shift) {
  levels = std::clamp(levels, 1, VESK_HASH_TABLE_MAX_LEVELS);
  const std::uint32_t bits = startingBits(flags);
  auto* const table = new (__VeskMalloc(category, sizeof(Table), 0)) Table{};
  table->hashFunctions[0] = hashByKey;
  table->hashFunctions[1] = hashByNextBits;
  table->hashFunctions[2] = hashByHighBits;
  for (std::int32_t i = 0; hashFunctions != nullptr && i < levels; ++i) {
    if (hashFunctions[i] != nullptr) table->hashFunctions[i] = hashFunctions[i];
  }
  table->compare = compare;
  table->keyRelease = keyRelease;
  table->bucketCount = 1 << bits;
  table->bucketBits = bits;
  table->level = levels - 1;
  table->flags = tableFlags(flags, category, shift);
  table->buckets = createBuckets(*table, bits);
  return table;
}

void __VeskDestroyHashTable(VeskHashTable* table, VeskHashDataRelease dataRelease) {
  if (table == nullptr) return;
  for (Bucket* bucket = table->buckets; bucket != table->buckets + table->bucketCount; ++bucket) {
    if (table->level > 0) {
      __VeskDestroyHashTable(publishedIn(*bucket), dataRelease);
    } else {
      destroyChain(*table, chainOf(*bucket), dataRelease);
    }
  }
  freeBuckets(*table, table->buckets, table->bucketBits);
  __VeskFree(table);
}

void* __VeskLookupHashTable(VeskHashTable* table, uint64_t key) {
  if (!isPlainUnlockedLeaf(*table)) [[unlikely]]
    return lookUpGenerally(table, key);
  return dataInUnlocked(*table, key, [](std::uint64_t hash) { return hash; });
}

uint32_t __VeskLookupAndAcquireHashTableDataItem(VeskHashTable* table, uint64_t key,
                                                 VeskHashDataAcquire acquire, void** data) {
  Table* const leaf = descend(table, key);
  void* found = nullptr;
  std::uint32_t result = 1;
  if (leaf != nullptr) {
    useData(*leaf, key, [&](void* stored) {
      found = stored;
      result = acquire(stored);
    });
  }
  *data = found;
  return result;
}

void* __VeskInsertHashTableEntry(VeskHashTable* table, uint64_t key, void* data) {
  Table& leaf = descendCreating(table, key);
  if (isUnlocked(leaf)) return insertUnlocked(leaf, key, data);
  prefetchBucket(leaf, key);
  const std::uint64_t self = nativeThreadId();

  acquireShared(leaf.lock, self);
  Bucket& bucket = leafBucket(leaf, key);
  acquireExclusive(bucket.lock, self);
  const Entry* entry = find(leaf, bucket, key);
  if (entry != nullptr) {
    void* const existing = entry->data;
    releaseExclusive(bucket.lock);
    releaseShared(leaf.lock, self);
    return existing;
  }
  releaseExclusive(bucket.lock);

  // In compare mode the caller's function sees both searches.
  const bool undisturbed = exchangeSharedForExclusive(leaf.lock, self);
  Bucket& bucketNow = leafBucket(leaf, key);
  if (!undisturbed || comparesKeys(leaf)) [[unlikely]]
    entry = find(leaf, bucketNow, key);
  if (entry == nullptr) [[likely]] {
    add(leaf, &bucketNow, key, data);
  } else {
    data = entry->data;
  }
  releaseExclusive(leaf.lock);
  return data;
}

void* __VeskRemoveHashTableEntry(VeskHashTable* table, uint64_t key) {
  Table* const leaf = descend(table, key);
  if (leaf == nullptr) return nullptr;
  if (isUnlocked(*leaf)) return removeUnlocked(*leaf, key);
  prefetchBucket(*leaf, key);
  const std::uint64_t self = nativeThreadId();

  acquireShared(leaf->lock, self);
  Bucket& bucket = leafBucket(*leaf, key);
  acquireExclusive(bucket.lock, self);
  Entry*& link = linkOfKey(*leaf, bucket, key);
  const bool found = link != nullptr;
  void* const data = found ? take(*leaf, link) : nullptr;
  releaseExclusive(bucket.lock);
  if (!found) {
    releaseShared(leaf->lock, self);
    return nullptr;
  }
  exchangeSharedForExclusive(leaf->lock, self);
  addToCount(*leaf, -1);
  releaseExclusive(leaf->lock);
  return data;
}
