/* Sub-tables and growth of the hash table: containers/hash_table.cpp.
 *
 *   inserter   __VeskInsertHashTableEntry: descendCreating, subTableFor, createSubTable, add, grow
 *   remover    __VeskRemoveHashTableEntry: descend, unlink
 *   looker     __VeskLookupHashTable: descendThroughLevels, search
 *
 * With -DNUMBERED the leaves are numbered ones: insertNumber, removeNumber, lookUpNumber. Otherwise they take the locks of
 * their buckets: insertGenerally, removeGenerally, useData.
 *
 * A table of three levels. Its keys 0 to 2 share one leaf, key 3 has another below the same sub-table. A leaf begins with
 * one bucket; a chain is the set of its keys. Table 0 stands for null, 1 for a sub-table under creation.
 *
 * The locks of leaves and buckets are taken whole: shared_lock.pml and reader_slots.pml are about what they are made of. Turning a shared hold
 * into an exclusive one succeeds at once only for the only reader, and then may fail all the same, since readers on their
 * way count; otherwise it lets go in between.
 *
 * Checked: no state without a way on; a bucket gets one sub-table, which is complete whenever it is seen, and none is made
 * in vain; a bucket array is not used after its release; a key is never twice in the table, whatever a thread that was not
 * disturbed spares itself; who inserts a key gets the data that is stored under it; what has been inserted is found; the
 * count is that of the keys in the end. With liveness: every operation ends, if each thread that can take a step takes one
 * in the end.
 *
 * Left out: the order in which another processor sees the stores, compare mode, scans, unlocked tables, and the look at a
 * bucket's address ahead of the lock, which reads nothing through it.
 *
 * Searches:
 *
 *   safety -DNUMBERED -DINSERTERS=2 -DREMOVERS=0 -DLOOKERS=1
 *   safety -DNUMBERED -DINSERTERS=2 -DREMOVERS=1 -DLOOKERS=0
 *   safety -DNUMBERED -DINSERTERS=1 -DREMOVERS=2 -DLOOKERS=0
 *   liveness -DNUMBERED -DINSERTERS=2 -DREMOVERS=1 -DLOOKERS=0
 *   safety -DINSERTERS=2 -DREMOVERS=0 -DLOOKERS=1
 *   safety -DINSERTERS=2 -DREMOVERS=1 -DLOOKERS=0
 *   safety -DINSERTERS=3 -DREMOVERS=0 -DLOOKERS=0
 *   liveness -DINSERTERS=2 -DREMOVERS=1 -DLOOKERS=0
 */

#define THREADS (INSERTERS + REMOVERS + LOOKERS)
#define KEYS 4
#define NOTHING 0
#define CREATING 1
#define FIRST 2 /* the tables below the root: one sub-table, two leaves */
#define TABLES 5
#define BUCKETS 7 /* of a leaf: an array of one, one of two, one of four */

typedef Bucket {
  byte keys; /* one bit each */
  byte readers;
  bit writer;
}

typedef Table {
  byte level;
  bit complete;
  byte heads[2]; /* above the leaves */
  Bucket buckets[BUCKETS];
  byte bucketCount;
  byte array; /* the first bucket of the array in use */
  byte entryCount;
  byte readers; /* the leaf's lock */
  bit writer;
  byte data[KEYS];
}

Table table[TABLES];
byte head; /* of the root's bucket */
byte tables = FIRST;

/* What is only here to be checked. */
byte inserted; /* one bit for each key: an insertion of it has returned */
byte finished;

#define headOf(parent, key) table[parent].heads[key / 3]
#define published(head) (head != NOTHING && head != CREATING)
#define bucketOf(leaf, key) (table[leaf].array + key % table[leaf].bucketCount)
#define has(leaf, bucket, key) ((table[leaf].buckets[bucket].keys >> key & 1) == 1)
#define inUse(leaf, bucket) (bucket >= table[leaf].array && bucket < table[leaf].array + table[leaf].bucketCount)

/* ---- Locks ---- */

inline acquireShared(lock) { d_step { !lock.writer -> lock.readers++ } }
inline releaseShared(lock) { d_step { assert(lock.readers > 0); lock.readers-- } }
inline acquireExclusive(lock) { d_step { !lock.writer && lock.readers == 0 -> lock.writer = 1 } }
inline releaseExclusive(lock) { d_step { assert(lock.writer); lock.writer = 0 } }

inline exchangeSharedForExclusive(lock) {
  if
  :: d_step { lock.readers == 1 && !lock.writer -> lock.readers = 0; lock.writer = 1; undisturbed = 1 }
  :: releaseShared(lock);
     acquireExclusive(lock);
     undisturbed = 0
  fi
}

#ifdef NUMBERED
#define acquireBucketShared(bucket) skip
#define releaseBucketShared(bucket) skip
#define acquireBucketExclusive(bucket) skip
#define releaseBucketExclusive(bucket) skip
#else
#define acquireBucketShared(bucket) acquireShared(bucket)
#define releaseBucketShared(bucket) releaseShared(bucket)
#define acquireBucketExclusive(bucket) acquireExclusive(bucket)
#define releaseBucketExclusive(bucket) releaseExclusive(bucket)
#endif

/* ---- Descent ---- */

inline createSubTable(ofLevel) {
  d_step { at = tables; tables++; assert(at < TABLES) }
  table[at].level = ofLevel;
  d_step { table[at].bucketCount = 1; table[at].complete = 1 }
}

inline subTableFor(bucketHead, ofLevel) {
  d_step { at = bucketHead; if :: at == CREATING -> at = NOTHING :: else fi }
  if
  :: at != NOTHING -> skip
  :: else ->
     if
     :: d_step { bucketHead == NOTHING -> bucketHead = CREATING } ->
        createSubTable(ofLevel);
        d_step { assert(bucketHead == CREATING); bucketHead = at }
     :: d_step { bucketHead != NOTHING -> skip } -> /* another thread creates it, or has */
        d_step { published(bucketHead) -> at = bucketHead }
     fi
  fi;
  assert(table[at].complete && table[at].level == ofLevel)
}

/* ---- Operations ---- */

inline grow(leaf) {
  /* A new array behind the old one: moved and released under the exclusive lock, unseen. */
  d_step {
    assert(table[leaf].array + 3 * table[leaf].bucketCount <= BUCKETS);
    old = table[leaf].array;
    table[leaf].bucketCount = 2 * table[leaf].bucketCount
  }
  d_step {
    table[leaf].array = old + table[leaf].bucketCount / 2;
    moved = 0;
    do
    :: moved < KEYS ->
       bucket = old + moved % (table[leaf].bucketCount / 2);
       assert(table[leaf].buckets[bucket].readers == 0 && !table[leaf].buckets[bucket].writer);
       if
       :: has(leaf, bucket, moved) ->
          table[leaf].buckets[bucket].keys = table[leaf].buckets[bucket].keys & ~(1 << moved);
          bucket = bucketOf(leaf, moved);
          table[leaf].buckets[bucket].keys = table[leaf].buckets[bucket].keys | 1 << moved
       :: else
       fi;
       moved++
    :: else -> break
    od;
    old = 0;
    moved = 0
  }
}

inline insert(key) {
  subTableFor(head, 1);
  d_step { parent = at; at = 0 }
  subTableFor(headOf(parent, key), 0);
  d_step { leaf = at; at = 0; parent = 0 }

  acquireShared(table[leaf]);
  bucket = bucketOf(leaf, key);
  acquireBucketExclusive(table[leaf].buckets[bucket]);
  d_step { assert(inUse(leaf, bucket)); present = has(leaf, bucket, key) }
  if
  :: present ->
     data = table[leaf].data[key];
     releaseBucketExclusive(table[leaf].buckets[bucket]);
     releaseShared(table[leaf])
  :: else ->
     releaseBucketExclusive(table[leaf].buckets[bucket]);
     exchangeSharedForExclusive(table[leaf]);
     d_step {
       bucket = bucketOf(leaf, key);
       if :: !undisturbed -> present = has(leaf, bucket, key) :: else fi
     }
     if
     :: present -> data = table[leaf].data[key]
     :: else ->
        if
        :: table[leaf].entryCount > table[leaf].bucketCount ->
           grow(leaf);
           bucket = bucketOf(leaf, key)
        :: else
        fi;
        d_step {
          assert(inUse(leaf, bucket) && !has(leaf, bucket, key));
          table[leaf].buckets[bucket].keys = table[leaf].buckets[bucket].keys | 1 << key;
          table[leaf].data[key] = _pid;
          data = _pid
        }
        table[leaf].entryCount++
     fi;
     releaseExclusive(table[leaf])
  fi;
  d_step {
    assert(REMOVERS > 0 || data == table[leaf].data[key]);
    inserted = inserted | 1 << key;
    leaf = 0; bucket = 0; present = 0; undisturbed = 0; data = 0
  }
}

proctype inserter(byte first) {
  byte at, parent, leaf, bucket, data, old, moved;
  bit present, undisturbed;
  insert(first);
  insert((first + 1));
  finished++
}

inline unlink(key) { table[leaf].buckets[bucket].keys = table[leaf].buckets[bucket].keys & ~(1 << key) }

proctype remover(byte key) {
  byte at, leaf, bucket;
  bit present, undisturbed;
  at = head;
  if :: published(at) -> at = headOf(at, key) :: else -> at = NOTHING fi;
  if
  :: !published(at) -> skip
  :: else ->
     d_step { leaf = at; at = 0 }
     acquireShared(table[leaf]);
     bucket = bucketOf(leaf, key);
     acquireBucketExclusive(table[leaf].buckets[bucket]);
     d_step { assert(inUse(leaf, bucket)); present = has(leaf, bucket, key) }
#ifndef NUMBERED
     if
     :: present -> unlink(key)
     :: else
     fi;
#endif
     releaseBucketExclusive(table[leaf].buckets[bucket]);
     if
     :: !present -> releaseShared(table[leaf])
     :: else ->
        exchangeSharedForExclusive(table[leaf]);
#ifdef NUMBERED
        /* The chain is gone through again in any case. */
        d_step { bucket = bucketOf(leaf, key); present = has(leaf, bucket, key) }
        if
        :: present -> unlink(key)
        :: else
        fi;
#endif
        if
        :: present -> d_step { assert(table[leaf].entryCount > 0); table[leaf].entryCount-- }
        :: else
        fi;
        releaseExclusive(table[leaf])
     fi
  fi;
  finished++
}

proctype looker(byte key) {
  byte at, bucket;
  bit present, expected;
  expected = inserted >> key & 1;
  at = head;
  if :: published(at) -> at = headOf(at, key) :: else -> at = NOTHING fi;
  if
  :: !published(at) -> skip
  :: else ->
     assert(table[at].complete);
     acquireShared(table[at]);
     if
     :: table[at].entryCount >= 1 ->
        bucket = bucketOf(at, key);
        acquireBucketShared(table[at].buckets[bucket]);
        d_step { assert(inUse(at, bucket)); present = has(at, bucket, key) }
        releaseBucketShared(table[at].buckets[bucket])
     :: else
     fi;
     releaseShared(table[at])
  fi;
  assert(present || !expected);
  finished++
}

init {
  byte i;
  atomic {
    do
    :: i < INSERTERS -> run inserter(i); i++
    :: i >= INSERTERS && i < INSERTERS + REMOVERS -> run remover(1); i++
    :: i >= INSERTERS + REMOVERS && i < THREADS -> run looker(1); i++
    :: i == THREADS -> break
    od;
    i = FIRST
  }
  finished == THREADS;
  d_step {
    do
    :: i < tables ->
       if
       :: table[i].level == 0 ->
          assert(table[i].entryCount == has(i, bucketOf(i, 0), 0) + has(i, bucketOf(i, 1), 1) +
                                            has(i, bucketOf(i, 2), 2) + has(i, bucketOf(i, 3), 3))
       :: else
       fi;
       i++
    :: else -> break
    od
  }
}

#ifdef LIVENESS
ltl every_operation_ends { <> (finished == THREADS) }
#endif
