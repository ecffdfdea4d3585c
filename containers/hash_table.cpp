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
//
// Scans hold the leaf exclusive while they call back, and their callbacks may change the leaf under their
// feet: every change made while a scan runs moves the leaf's scan stamp, and a scan that finds it moved looks
// its place up anew.
#include <algorithm>
#include <cstring>
#include <new>

#include "containers/hash_table_probe.h"
#include "runtime/backoff.h"
#include "runtime/shared_lock.h"
#include "veskrt/memory.h"

namespace vesk::hash_table {

namespace {

using Table = VeskHashTable;
using Bucket = VeskHashTableBucket;
using Entry = VeskHashTableEntry;

constexpr std::uint32_t kCategoryPosition = 8;
constexpr std::uint32_t kCategoryMask = 0xFF;
constexpr std::uint32_t kShiftPosition = 16;
constexpr std::uint32_t kShiftMask = 0xF;

// The largest array of which __VeskMalloc can be asked for; a leaf that is there grows no more.
constexpr std::uint32_t kMaxBucketBits = 26;
static_assert((sizeof(Bucket) << kMaxBucketBits) <= UINT32_MAX);

std::uint64_t hashByKey(Table*, std::uint64_t key) { return key; }
std::uint64_t hashByNextBits(Table* table, std::uint64_t key) { return key >> table->bucketBits; }
std::uint64_t hashByHighBits(Table* table, std::uint64_t key) { return key >> (3 * table->bucketBits); }

bool isUnlocked(const Table& table) { return (table.flags & VESK_HASH_TABLE_UNLOCKED) != 0; }
bool comparesKeys(const Table& table) { return (table.flags & VESK_HASH_TABLE_COMPARE_KEYS) != 0; }
std::uint32_t categoryOf(const Table& table) { return table.flags >> kCategoryPosition & kCategoryMask; }
std::uint32_t shiftOf(const Table& table) { return table.flags >> kShiftPosition & kShiftMask; }

// ---- Descent ----

[[gnu::always_inline]] inline Bucket& leafBucket(Table& leaf, std::uint64_t key) {
  const VeskHashFunction hash = leaf.hashFunctions[0];
  return bucketAt(leaf, hash == hashByKey ? key : hash(&leaf, key));
}

Bucket& subTableBucket(Table& table, std::uint64_t key) {
  const VeskHashFunction hash = table.hashFunctions[table.level];
  if (hash == hashByNextBits) return bucketAt(table, hashByNextBits(&table, key));
  if (hash == hashByHighBits) return bucketAt(table, hashByHighBits(&table, key));
  return bucketAt(table, hash(&table, key));
}

// The reserved head of a bucket whose sub-table is being created.
void* underCreation() { return reinterpret_cast<void*>(std::uintptr_t{1}); }

Table* publishedIn(const Bucket& bucket) {
  void* const head = loadAcquire(bucket.head);
  return head != underCreation() ? static_cast<Table*>(head) : nullptr;
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
                               categoryOf(table), shiftOf(table));
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

// A link is the word that points to an entry: its predecessor's, or the bucket's head.
Entry*& firstLink(Bucket& bucket) {
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

[[gnu::always_inline]] inline Entry*& linkOfKey(const Table& table, Bucket& bucket, std::uint64_t key) {
  if (comparesKeys(table)) [[unlikely]]
    return findLink(bucket, [&](const Entry& entry) { return table.compare(entry.key, key) != 0; });
  return findLink(bucket, [&](const Entry& entry) { return entry.key == key; });
}

// Tells a scan that runs on this leaf that its chains have changed. Only the scan's own thread can get here
// then.
void noteChange(Table& leaf) {
  if (leaf.scanStamp != 0 && ++leaf.scanStamp == 0) leaf.scanStamp = 1;
}

void releaseKey(const Table& table, std::uint64_t key) {
  if (comparesKeys(table) && table.keyRelease != nullptr) table.keyRelease(key);
}

void addToCount(Table& leaf, std::int32_t change) {
  storeRelaxed(leaf.entryCount, loadRelaxed(leaf.entryCount) + change);
}

// A leaf without locks and callbacks.
[[gnu::always_inline]] inline bool isPlainUnlockedLeaf(const Table& table) {
  constexpr std::uint32_t kKind = VESK_HASH_TABLE_UNLOCKED | VESK_HASH_TABLE_COMPARE_KEYS;
  return table.level == 0 && (table.flags & kKind) == VESK_HASH_TABLE_UNLOCKED &&
         table.hashFunctions[0] == hashByKey;
}

[[gnu::noinline]] void* lookUpGenerally(Table* table, std::uint64_t key) {
  Table* const leaf = descend(table, key);
  if (leaf == nullptr) return nullptr;
  const bool locked = !isUnlocked(*leaf);
  if (locked) {
    auto* base = (char*)loadRelaxed(leaf->buckets);
    std::uint64_t mask = (std::uint64_t)loadRelaxed(leaf->bucketCount) - 1;
    __builtin_prefetch(base + (key & mask) * sizeof(Bucket));
    __builtin_prefetch(base + (key & mask) * sizeof(Bucket) + 32);
  }
  const std::uint64_t self = locked ? nativeThreadId() : 0;
  void* data = nullptr;
  if (locked) acquireShared(leaf->lock, self);
  if (loadRelaxed(leaf->entryCount) >= 1) [[likely]] {
    Bucket& bucket = leafBucket(*leaf, key);
    if (locked) {
      acquireShared(bucket.lock, self);
    }
    const Entry* const entry = find(*leaf, bucket, key);
    if (entry != nullptr) data = entry->data;
    if (locked) releaseShared(bucket.lock, self);
  }
  if (locked) releaseShared(leaf->lock, self);
  return data;
}

// ---- Growth and insertion ----

Bucket* createBuckets(const Table& table, std::int32_t count) {
  const auto bytes = static_cast<std::uint32_t>(sizeof(Bucket)) * static_cast<std::uint32_t>(count);
  auto* const buckets = static_cast<Bucket*>(__VeskMalloc(categoryOf(table), bytes, 0));
  if (isUnlocked(table)) {
    for (Bucket* bucket = buckets; bucket != buckets + count; ++bucket) bucket->head = nullptr;
  } else {
    std::memset(static_cast<void*>(buckets), 0, bytes); // a free lock of spin count 0 is all zeros
  }
  return buckets;
}

// Twice the buckets. The caller holds the leaf exclusive.
[[gnu::noinline]] void grow(Table& leaf) {
  if (leaf.bucketBits == kMaxBucketBits) return;
  const std::int32_t oldCount = leaf.bucketCount;
  Bucket* const fresh = createBuckets(leaf, 2 * oldCount);
  Bucket* const old = leaf.buckets;
  leaf.bucketBits = leaf.bucketBits + 1;
  leaf.bucketCount = 2 * oldCount;
  leaf.buckets = fresh;
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

// Adds a key that is not there. The caller holds the leaf exclusive.
[[gnu::always_inline]] inline void add(Table& leaf, std::uint64_t key, void* data) {
  if (loadRelaxed(leaf.entryCount) > leaf.bucketCount) [[unlikely]]
    grow(leaf);
  auto* const entry = static_cast<Entry*>(__VeskMalloc(categoryOf(leaf), sizeof(Entry), shiftOf(leaf)));
  // Only now: a memory collector that ran inside the allocation may have changed an unlocked table.
  Entry*& link = firstLink(leafBucket(leaf, key));
  entry->next = link;
  entry->key = key;
  entry->data = data;
  if (!isUnlocked(leaf)) entry->lock = VeskSharedExclusiveLock{};
  link = entry;
  addToCount(leaf, 1);
  noteChange(leaf);
}

void* insertUnlocked(Table& leaf, std::uint64_t key, void* data) {
  if (const Entry* entry = find(leaf, leafBucket(leaf, key), key)) return entry->data;
  add(leaf, key, data);
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
  Entry*& link = linkOfKey(leaf, leafBucket(leaf, key), key);
  if (link == nullptr) return nullptr;
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

// ---- Scans ----

// Either scan. Without a visit function every entry is selected and to be removed.
struct Scan {
  VeskHashVisit visit;
  void* context;
  bool remove;
  VeskHashDataRelease release;
};

// The walk of one leaf that is held exclusive, or unlocked.
class LeafScan {
public:
  LeafScan(Table& leaf, const Scan& scan) : leaf_(leaf), scan_(scan), outermost_(leaf.scanStamp == 0) {
    if (outermost_) leaf_.scanStamp = 1;
  }
  ~LeafScan() {
    if (outermost_) leaf_.scanStamp = 0;
  }
  LeafScan(const LeafScan&) = delete;
  LeafScan& operator=(const LeafScan&) = delete;

  // Returns the number of entries removed. If callbacks make the leaf grow, what was in bucket i is
  // afterwards in the buckets congruent to i modulo the count at the start: they are walked in its stead.
  std::uint32_t run() {
    const std::int32_t count = leaf_.bucketCount;
    for (std::int32_t i = 0; i < count; ++i) {
      bool whole = true;
      for (std::int32_t j = i; whole && j < leaf_.bucketCount; j += count)
        whole = walkChain(leaf_.buckets[j]);
    }
    return removed_;
  }

private:
  // What is known of an entry, to find it again after a callback.
  struct Place {
    explicit Place(const Entry* at)
        : entry(at), key(at != nullptr ? at->key : 0), data(at != nullptr ? at->data : nullptr) {}
    bool is(const Entry& other) const { return &other == entry && other.key == key && other.data == data; }
    const Entry* entry;
    std::uint64_t key;
    void* data;
  };

  // The place's link as the leaf now stands; null if its entry is gone.
  Entry** findAgain(const Place& place) const {
    if (place.entry == nullptr) return nullptr;
    Entry*& link =
        findLink(leafBucket(leaf_, place.key), [&](const Entry& entry) { return place.is(entry); });
    return link != nullptr ? &link : nullptr;
  }

  bool wantsToGo(void* data) const {
    if (scan_.visit != nullptr && (scan_.visit(data, scan_.context) == 0 || !scan_.remove)) return false;
    return scan_.release == nullptr || scan_.release(data) != 0;
  }

  // Says whether the bucket's entries are still those of the bucket: not once the leaf has grown.
  bool walkChain(Bucket& bucket) {
    const std::int32_t count = leaf_.bucketCount;
    for (Entry** link = &firstLink(bucket); link != nullptr && *link != nullptr;) {
      link = settle(*link);
      if (leaf_.bucketCount != count) return false;
    }
    return true;
  }

  // Asks for one entry and does what is wanted. Returns the link to the entry after it, null if that is not
  // known any more.
  Entry** settle(Entry*& firstSeen) {
    Entry** link = &firstSeen;
    Entry* const entry = *link;
    if (!isUnlocked(leaf_) && __VeskTryToAcquireExclusiveLock(&entry->lock, 0) == 0) return &entry->next;

    const std::uint32_t stamp = leaf_.scanStamp;
    const Place here(entry);
    const Place next(entry->next);
    const bool goes = wantsToGo(here.data);
    const bool keyFirst =
        scan_.visit == nullptr; // emptying releases the key of an entry that is still linked
    if (goes && keyFirst) releaseKey(leaf_, here.key);
    if (leaf_.scanStamp != stamp) [[unlikely]] {
      link = findAgain(here);
      if (link == nullptr) return findAgain(next);
    }
    if (!goes) {
      if (!isUnlocked(leaf_)) releaseExclusive(entry->lock);
      return &entry->next;
    }
    *link = entry->next;
    noteChange(leaf_);
    const Place after(*link);
    const std::uint32_t stampUnlinked = leaf_.scanStamp;
    if (!keyFirst) releaseKey(leaf_, here.key);
    addToCount(leaf_, -1);
    __VeskFree(entry);
    ++removed_;
    return leaf_.scanStamp == stampUnlinked ? link : findAgain(after);
  }

  Table& leaf_;
  const Scan& scan_;
  const bool outermost_;
  std::uint32_t removed_ = 0;
};

std::uint32_t scanLeaf(Table& leaf, const Scan& scan, std::uint32_t& entryCount) {
  if (!isUnlocked(leaf) && (__VeskIsExclusiveLockAcquiredByCallingThread(&leaf.lock) ||
                            __VeskTryToAcquireExclusiveLock(&leaf.lock, 0) == 0)) {
    entryCount += static_cast<std::uint32_t>(loadRelaxed(leaf.entryCount));
    return 0;
  }
  entryCount += static_cast<std::uint32_t>(loadRelaxed(leaf.entryCount));
  const std::uint32_t removed = LeafScan(leaf, scan).run();
  if (!isUnlocked(leaf)) releaseExclusive(leaf.lock);
  return removed;
}

// Adds the leaves' counts to `entryCount`.
std::uint32_t scanTable(Table& table, const Scan& scan, std::uint32_t& entryCount) {
  if (table.level == 0) return scanLeaf(table, scan, entryCount);
  std::uint32_t removed = 0;
  for (std::int32_t i = 0; i < table.bucketCount; ++i) {
    if (Table* const subTable = publishedIn(table.buckets[i]))
      removed += scanTable(*subTable, scan, entryCount);
  }
  return removed;
}

} // namespace

} // namespace vesk::hash_table

using namespace vesk;
using namespace vesk::hash_table;

VeskHashTable* __VeskCreateHashTable(uint32_t flags, const VeskHashFunction* hashFunctions, int32_t levels,
                                     VeskHashKeyCompare compare, VeskHashKeyRelease keyRelease,
                                     uint32_t category, uint32_t shift) {
  levels = std::clamp(levels, 1, VESK_HASH_TABLE_MAX_LEVELS);
  const std::uint32_t bits = (flags & VESK_HASH_TABLE_512_BUCKETS) != 0    ? 9
                             : (flags & VESK_HASH_TABLE_1024_BUCKETS) != 0 ? 10
                                                                           : 8;
  constexpr std::uint32_t kPlaced = kCategoryMask << kCategoryPosition | kShiftMask << kShiftPosition;
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
  table->flags = (flags & ~kPlaced) | (category & kCategoryMask) << kCategoryPosition |
                 (shift & kShiftMask) << kShiftPosition;
  table->buckets = createBuckets(*table, table->bucketCount);
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
  __VeskFree(table->buckets);
  __VeskFree(table);
}

void* __VeskLookupHashTable(VeskHashTable* table, uint64_t key) {
  if (!isPlainUnlockedLeaf(*table)) [[unlikely]]
    return lookUpGenerally(table, key);
  const Entry* const entry = findByNumber(chainOf(bucketAt(*table, key)), key);
  return entry != nullptr ? entry->data : nullptr;
}

uint32_t __VeskLookupAndAcquireHashTableDataItem(VeskHashTable* table, uint64_t key,
                                                 VeskHashDataAcquire acquire, void** data) {
  Table* const leaf = descend(table, key);
  void* found = nullptr;
  std::uint32_t result = 1;
  const auto acquireIn = [&](const Bucket& bucket) {
    const Entry* const entry = find(*leaf, bucket, key);
    if (entry == nullptr) return;
    found = entry->data;
    result = acquire(found);
  };
  if (leaf != nullptr && isUnlocked(*leaf)) {
    if (leaf->entryCount >= 1) acquireIn(leafBucket(*leaf, key));
  } else if (leaf != nullptr) {
    const std::uint64_t self = nativeThreadId();
    acquireShared(leaf->lock, self);
    if (loadRelaxed(leaf->entryCount) >= 1) [[likely]] {
      Bucket& bucket = leafBucket(*leaf, key);
      acquireShared(bucket.lock, self);
      acquireIn(bucket);
      releaseShared(bucket.lock, self);
    }
    releaseShared(leaf->lock, self);
  }
  *data = found;
  return result;
}

void* __VeskInsertHashTableEntry(VeskHashTable* table, uint64_t key, void* data) {
  Table& leaf = descendCreating(table, key);
  if (isUnlocked(leaf)) return insertUnlocked(leaf, key, data);
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
  if (!undisturbed || comparesKeys(leaf)) [[unlikely]] {
    entry = find(leaf, leafBucket(leaf, key), key);
    if (entry != nullptr) data = entry->data;
  }
  if (entry == nullptr) [[likely]]
    add(leaf, key, data);
  releaseExclusive(leaf.lock);
  return data;
}

void* __VeskRemoveHashTableEntry(VeskHashTable* table, uint64_t key) {
  Table* const leaf = descend(table, key);
  if (leaf == nullptr) return nullptr;
  if (isUnlocked(*leaf)) return removeUnlocked(*leaf, key);
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

uint32_t __VeskScanHashTable(VeskHashTable* table, VeskHashVisit visit, void* context, uint32_t remove,
                             VeskHashDataRelease release, uint32_t* entryCount) {
  std::uint32_t entries = 0;
  const std::uint32_t removed = scanTable(
      *table, Scan{.visit = visit, .context = context, .remove = remove != 0, .release = release}, entries);
  *entryCount = entries;
  return removed;
}

uint32_t __VeskScanAndEmptyHashTable(VeskHashTable* table, VeskHashDataRelease release,
                                     uint32_t* entryCount) {
  return __VeskScanHashTable(table, nullptr, nullptr, 1, release, entryCount);
}
