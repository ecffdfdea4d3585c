// The hash table's scans.
//
// A scan holds a leaf exclusive while it calls back, and its callbacks may change the leaf under its feet.
// Every change made while a scan runs moves the leaf's scan stamp; a scan that finds it moved looks its place
// up anew.
#include "containers/hash_table_leaf.h"
#include "runtime/shared_lock.h"
#include "veskrt/memory.h"

namespace vesk::hash_table {

namespace {

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
    forgetInIndex(leaf_, here.key);
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

bool tryToHold(Table& leaf) {
  if (__VeskIsExclusiveLockAcquiredByCallingThread(&leaf.lock) ||
      __VeskTryToAcquireExclusiveLock(&leaf.lock, 0) == 0)
    return false;
  if (!whole(leaf).readers.hasReaders()) return true;
  releaseExclusive(leaf.lock);
  return false;
}

std::uint32_t scanLeaf(Table& leaf, const Scan& scan, std::uint32_t& entryCount) {
  if (!isUnlocked(leaf) && !tryToHold(leaf)) {
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

using namespace vesk::hash_table;

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
