// The concurrent hash table.
//
//   root, level 2        sub-tables, level 1      leaves, level 0
//   [bucket] ----------> [bucket] --------------> [bucket] -> entry -> entry
//   [ null ]             [  1   ] being created   [ null ]
//
// An operation descends to its leaf without a lock: a bucket's head above the leaves goes from null to 1 to
// the sub-table's address and stays. Only the leaf's locks count from there on.
//
// Numbered leaves. Where keys are compared as numbers, and hashed by a function of the library's, nobody calls out
// while a key is looked for. Such a leaf has an index of its keys (key_index.h), its readers announce themselves
// (runtime/reader_slots.h), and it changes under its lock exclusive alone: whoever reads needs no bucket's lock, and
// only waits until nobody holds that who would keep it out. A thread that has looked for a key and becomes the writer
// without another one in between need not look again.
//
// Other leaves, in compare mode or under a hash function from outside, take the bucket's lock around the search. What
// a thread may rely on that holds such a leaf shared: no key is added, the bucket array stays, chains only lose
// entries, and a chain whose bucket it holds does not change.
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

struct Found {
  bool there;
  void* data;
};

[[gnu::always_inline]] inline Found found(const Entry* entry) {
  return {entry != nullptr, entry != nullptr ? entry->data : nullptr};
}

// Searches a leaf whose keys are numbers.
[[gnu::always_inline]] inline Found search(Table& leaf, std::uint64_t key) {
  const KeyIndex& index = whole(leaf).index;
  if (index.isThere()) [[likely]] {
    void* const data = index.dataOf(key);
    if (data != nullptr || !index.leavesOut()) [[likely]]
      return {data != nullptr, data};
  }
  return found(findByNumber(chainOf(leafBucket(leaf, key)), key));
}

// Searches any leaf. A hash function from outside is not called again, the bucket being known.
[[gnu::always_inline]] inline Found search(Table& leaf, const Bucket& bucket, std::uint64_t key) {
  return whole(leaf).index.isThere() ? search(leaf, key) : found(find(leaf, bucket, key));
}

// ---- Numbered leaves ----

[[gnu::always_inline]] inline bool isNumberedAndLocked(const Table& leaf) {
  return whole(leaf).readers.areThere();
}

// Fetches what an operation on the key will read, while it arrives. The leaf may grow meanwhile: then the addresses
// mean nothing, and fetching them does nothing.
[[gnu::always_inline]] inline void prefetchKey(const Table& leaf, std::uint64_t key) {
  whole(leaf).index.prefetch(key);
  const std::uint64_t index = key & (static_cast<std::uint64_t>(loadRelaxed(leaf.bucketCount)) - 1);
  const std::uintptr_t bucket =
      reinterpret_cast<std::uintptr_t>(loadRelaxed(leaf.buckets)) + index * sizeof(Bucket);
  __builtin_prefetch(reinterpret_cast<const void*>(bucket));
  __builtin_prefetch(reinterpret_cast<const void*>(bucket + offsetof(Bucket, head)));
}

[[gnu::noinline]] void waitForBucket(Bucket& bucket) { const ScopedExclusiveLock pass(bucket.lock); }

// Lets those go first who hold the bucket's lock.
[[gnu::always_inline]] inline void giveWay(Bucket& bucket) {
  if (loadRelaxed(bucket.lock.state) != shared_lock::kFree) [[unlikely]]
    waitForBucket(bucket);
}

// The caller's hold of a numbered leaf: shared at first, announced or by the lock itself.
class Hold {
public:
  [[gnu::always_inline]] Hold(Table& leaf, std::uint64_t self)
      : leaf_(leaf), self_(self), slot_(whole(leaf).readers.tryToArrive(leaf.lock)) {
    if (slot_ == nullptr) [[unlikely]]
      acquireShared(leaf.lock, self);
  }
  [[gnu::always_inline]] void leave() {
    if (slot_ != nullptr) [[likely]] {
      ReaderSlots::leave(*slot_);
    } else {
      releaseShared(leaf_.lock, self_);
    }
  }
  // Takes the leaf exclusive instead, for the caller to release. Says whether nobody else has had it so since the
  // arrival.
  [[gnu::always_inline]] bool becomeExclusive() {
    bool undisturbed;
    if (slot_ == nullptr) [[unlikely]] {
      undisturbed = exchangeSharedForExclusive(leaf_.lock, self_);
    } else {
      undisturbed = compareAndSwap(leaf_.lock.state, shared_lock::kFree, shared_lock::kExclusive);
      ReaderSlots::leave(*slot_); // a writer may be waiting for it
      if (undisturbed) [[likely]] {
        shared_lock::own(leaf_.lock, self_);
      } else {
        acquireExclusive(leaf_.lock, self_);
      }
    }
    whole(leaf_).readers.waitForReaders();
    return undisturbed;
  }

private:
  Table& leaf_;
  std::uint64_t self_;
  ReaderSlot* slot_;
};

// ---- Look-ups ----

// Calls use(data) under the leaf's locks if the key is there.
template <class Use>
[[gnu::always_inline]] inline void useData(Table& leaf, std::uint64_t key, Use use) {
  if (loadRelaxed(leaf.entryCount) < 1) return;
  Bucket& bucket = leafBucket(leaf, key);
  if (!isUnlocked(leaf)) acquireShared(bucket.lock);
  const Found result = search(leaf, bucket, key);
  if (result.there) use(result.data);
  if (!isUnlocked(leaf)) releaseShared(bucket.lock);
}

template <class Use>
void useDataOf(Table* table, std::uint64_t key, Use use) {
  Table* const leaf = descend(table, key);
  if (leaf == nullptr) return;
  if (isUnlocked(*leaf)) return useData(*leaf, key, use);
  const ScopedSharedLock hold(leaf->lock);
  useData(*leaf, key, use);
}

[[gnu::noinline]] void* lookUpGenerally(Table* table, std::uint64_t key) {
  void* data = nullptr;
  useDataOf(table, key, [&](void* stored) { data = stored; });
  return data;
}

// Of a numbered leaf. Whoever keeps readers out is waited for the general way.
[[gnu::always_inline]] inline void* lookUpNumber(Table& leaf, std::uint64_t key) {
  prefetchKey(leaf, key);
  if (ReaderSlot* const slot = whole(leaf).readers.tryToArrive(leaf.lock)) [[likely]] {
    const VeskSharedExclusiveLock& lock = leafBucket(leaf, key).lock;
    const bool open =
        loadRelaxed(lock.state) != shared_lock::kExclusive && loadRelaxed(lock.writerWaiting) == 0;
    void* const data = open ? search(leaf, key).data : nullptr;
    ReaderSlots::leave(*slot);
    if (open) [[likely]]
      return data;
  }
  return lookUpGenerally(&leaf, key);
}

// ---- Growth and insertion ----

// The calls of a hash or compare function from outside are counted on.
bool isNumbered(const Table& table) {
  return table.level == 0 && !comparesKeys(table) &&
         (table.hashFunctions[0] == hashByKey || range_table::isLevelHash(table.hashFunctions[0]));
}

Bucket* createBuckets(const Table& table, std::uint32_t bits) {
  const std::int32_t count = 1 << bits;
  const auto bytes = static_cast<std::uint32_t>(sizeof(Bucket)) << bits;
  auto* const buckets = static_cast<Bucket*>(__VeskMalloc(categoryOf(table.flags), bytes, 0));
  if (isUnlocked(table)) {
    for (Bucket* bucket = buckets; bucket != buckets + count; ++bucket) bucket->head = nullptr;
  } else {
    std::memset(static_cast<void*>(buckets), 0, bytes); // a free lock of spin count 0 is all zeros
  }
  return buckets;
}

// A leaf that can grow no more does without: it may get more keys than an index has room for.
KeyIndex createIndex(const Table& table, std::uint32_t bits) {
  KeyIndex index;
  if (whole(table).index.isThere() && bits < kMaxBucketBits)
    index.allocate(categoryOf(table.flags), 1 << bits);
  return index;
}

// Twice the buckets. The caller holds the leaf exclusive.
[[gnu::noinline]] void grow(Table& leaf) {
  if (leaf.bucketBits == kMaxBucketBits) return;
  const std::int32_t oldCount = leaf.bucketCount;
  // Before anything changes: a memory collector inside the allocations may remove entries.
  KeyIndex index = createIndex(leaf, leaf.bucketBits + 1);
  Bucket* const fresh = createBuckets(leaf, leaf.bucketBits + 1);
  Bucket* const old = leaf.buckets;
  leaf.bucketBits = leaf.bucketBits + 1;
  storeRelaxed(leaf.bucketCount, 2 * oldCount); // these two are read ahead of the lock
  storeRelaxed(leaf.buckets, fresh);
  if (index.isThere()) index.addAllOf(whole(leaf).index);
  whole(leaf).index.replaceBy(index);
  constexpr std::int32_t kAhead = 8; // entries lie anywhere: ask for them before their turn
  for (std::int32_t i = 0; i < oldCount; ++i) {
    if (i + kAhead < oldCount) __builtin_prefetch(old[i + kAhead].head);
    for (Entry* entry = chainOf(old[i]); entry != nullptr;) {
      Entry* const next = entry->next;
      Entry*& link = firstLink(leafBucket(leaf, entry->key));
      entry->next = link;
      link = entry;
      entry = next;
    }
  }
  __VeskFree(old);
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
  if (KeyIndex& index = whole(leaf).index; index.isThere()) index.add(key, data);
  addToCount(leaf, 1);
  noteChange(leaf);
}

void* insertUnlocked(Table& leaf, std::uint64_t key, void* data) {
  Bucket& bucket = leafBucket(leaf, key);
  __builtin_prefetch(&bucket.head, 1);
  const Found present = search(leaf, bucket, key);
  if (present.there) return present.data;
  add(leaf, &bucket, key, data);
  return data;
}

void* insertNumber(Table& leaf, std::uint64_t key, void* data) {
  prefetchKey(leaf, key);
  Hold hold(leaf, nativeThreadId());
  Bucket& bucket = leafBucket(leaf, key);
  giveWay(bucket);
  Found present = search(leaf, key);
  if (present.there) {
    hold.leave();
    return present.data;
  }
  if (!hold.becomeExclusive()) [[unlikely]]
    present = search(leaf, key);
  if (!present.there) [[likely]] {
    add(leaf, &leafBucket(leaf, key), key, data);
    present.data = data;
  }
  releaseExclusive(leaf.lock);
  return present.data;
}

void* insertGenerally(Table& leaf, std::uint64_t key, void* data) {
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

// ---- Removal ----

// Takes the entry at the link out of its chain. The count is left to the caller.
[[gnu::always_inline]] inline Entry* unlink(Table& leaf, Entry*& link) {
  Entry* const entry = link;
  link = entry->next;
  noteChange(leaf);
  return entry;
}

[[gnu::always_inline]] inline void* dataOfFreed(const Table& leaf, Entry* entry) {
  void* const data = entry->data;
  releaseKey(leaf, entry->key);
  __VeskFree(entry);
  return data;
}

// From a leaf that is unlocked or held exclusive; the key has this slot, or none.
[[gnu::always_inline]] inline Entry* unlinkKey(Table& leaf, std::uint64_t key, KeyIndex::Slot* slot) {
  Entry*& link = linkOfKey(leaf, leafBucket(leaf, key), key);
  if (link == nullptr) [[unlikely]]
    return nullptr;
  if (KeyIndex& index = whole(leaf).index; index.isThere()) [[likely]]
    index.forget(slot);
  addToCount(leaf, -1);
  return unlink(leaf, link);
}

[[gnu::always_inline]] inline KeyIndex::Slot* slotOf(const Table& leaf, std::uint64_t key) {
  const KeyIndex& index = whole(leaf).index;
  return index.isThere() ? index.find(key) : nullptr;
}

// What a removal need not look for in a chain.
[[gnu::always_inline]] inline bool isMissing(const KeyIndex& index, const KeyIndex::Slot* slot) {
  return slot == nullptr && index.isThere() && !index.leavesOut();
}

void* removeUnlocked(Table& leaf, std::uint64_t key) {
  const KeyIndex& index = whole(leaf).index;
  if (index.isThere()) __builtin_prefetch(&leafBucket(leaf, key).head); // no call of a function from outside
  KeyIndex::Slot* const slot = slotOf(leaf, key);
  Entry* const entry = isMissing(index, slot) ? nullptr : unlinkKey(leaf, key, slot);
  return entry != nullptr ? dataOfFreed(leaf, entry) : nullptr;
}

void* removeNumber(Table& leaf, std::uint64_t key) {
  prefetchKey(leaf, key);
  Hold hold(leaf, nativeThreadId());
  Bucket& bucket = leafBucket(leaf, key);
  giveWay(bucket);
  KeyIndex::Slot* slot = slotOf(leaf, key);
  if (isMissing(whole(leaf).index, slot)) {
    hold.leave();
    return nullptr;
  }
  __builtin_prefetch(chainOf(bucket), 1);
  if (!hold.becomeExclusive()) [[unlikely]]
    slot = slotOf(leaf, key);
  Entry* const entry = unlinkKey(leaf, key, slot);
  releaseExclusive(leaf.lock);
  return entry != nullptr ? dataOfFreed(leaf, entry) : nullptr;
}

void* removeGenerally(Table& leaf, std::uint64_t key) {
  const std::uint64_t self = nativeThreadId();
  acquireShared(leaf.lock, self);
  Bucket& bucket = leafBucket(leaf, key);
  acquireExclusive(bucket.lock, self);
  Entry*& link = linkOfKey(leaf, bucket, key);
  const bool found = link != nullptr;
  void* const data = found ? dataOfFreed(leaf, unlink(leaf, link)) : nullptr;
  releaseExclusive(bucket.lock);
  if (!found) {
    releaseShared(leaf.lock, self);
    return nullptr;
  }
  exchangeSharedForExclusive(leaf.lock, self);
  addToCount(leaf, -1);
  releaseExclusive(leaf.lock);
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
  Table record = {};
  record.hashFunctions[0] = hashByKey;
  record.hashFunctions[1] = hashByNextBits;
  record.hashFunctions[2] = hashByHighBits;
  for (std::int32_t i = 0; hashFunctions != nullptr && i < levels; ++i) {
    if (hashFunctions[i] != nullptr) record.hashFunctions[i] = hashFunctions[i];
  }
  record.compare = compare;
  record.keyRelease = keyRelease;
  record.bucketCount = 1 << bits;
  record.bucketBits = bits;
  record.level = levels - 1;
  record.flags = tableFlags(flags, category, shift);

  const bool numbered = isNumbered(record);
  const bool announces = numbered && !isUnlocked(record);
  auto* const memory = static_cast<char*>(
      __VeskMalloc(category, sizeof(WholeTable) + (announces ? ReaderSlots::kBytes : 0), 0));
  auto* const table = new (memory) WholeTable(record, announces ? memory + sizeof(WholeTable) : nullptr);
  table->record.buckets = createBuckets(record, bits);
  if (numbered) table->index.allocate(category, record.bucketCount);
  return &table->record;
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
  __VeskFree(table->buckets);
  whole(*table).index.free();
  __VeskFree(table);
}

void* __VeskLookupHashTable(VeskHashTable* table, uint64_t key) {
  if (table->level > 0) [[unlikely]] {
    table = descendThroughLevels(table, key);
    if (table == nullptr) return nullptr;
  }
  if (isNumberedAndLocked(*table)) return lookUpNumber(*table, key);
  // An entry whose data is null is looked up as if it were not there.
  if (isUnlocked(*table) && whole(*table).index.isThere()) return whole(*table).index.dataOf(key);
  return lookUpGenerally(table, key);
}

uint32_t __VeskLookupAndAcquireHashTableDataItem(VeskHashTable* table, uint64_t key,
                                                 VeskHashDataAcquire acquire, void** data) {
  void* found = nullptr;
  std::uint32_t result = 1;
  useDataOf(table, key, [&](void* stored) {
    found = stored;
    result = acquire(stored);
  });
  *data = found;
  return result;
}

void* __VeskInsertHashTableEntry(VeskHashTable* table, uint64_t key, void* data) {
  Table& leaf = descendCreating(table, key);
  if (isNumberedAndLocked(leaf)) return insertNumber(leaf, key, data);
  return isUnlocked(leaf) ? insertUnlocked(leaf, key, data) : insertGenerally(leaf, key, data);
}

void* __VeskRemoveHashTableEntry(VeskHashTable* table, uint64_t key) {
  Table* const leaf = descend(table, key);
  if (leaf == nullptr) return nullptr;
  if (isNumberedAndLocked(*leaf)) return removeNumber(*leaf, key);
  return isUnlocked(*leaf) ? removeUnlocked(*leaf, key) : removeGenerally(*leaf, key);
}
