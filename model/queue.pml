/* The two-lock queue in its thread-safe mode: containers/queue.cpp.
 *
 *   producer   __VeskEnqueue: isFree, allocateNode, enqueueAtTail, takeResident, tryToAppend, append, appendInOrder
 *   consumer   __VeskDequeue: unlinkFirst, unlink, unlinkLast, dispose
 *   picker     __VeskPeekQueue with removal, of the first value of one of the producers
 *
 * Nodes are numbers: 0 stands for null, 1 is the dummy, 2 the resident node, the others come from the allocator. Each load
 * and store that another thread may meet is a step of its own.
 *
 * Checked: no state without a way on; no node is touched that is not allocated, or handed out twice; every value is taken
 * once, as it was put in, and those of one producer in their order; the queue is empty at the end, with the dummy as its
 * tail, the resident node free and nothing allocated. With liveness: all values are taken, if consumers
 * ask __VeskIsQueueEmpty first, and each thread that can take a step takes one in the end.
 *
 * Left out: the order in which another processor sees the stores, the locks' own record of their holder (a lock here is its
 * state word, taken by compare-and-swap), nested acquisitions, peeking without removal, destruction.
 *
 * Searches:
 *
 *   safety -DPRODUCERS=2 -DVALUES=2 -DCONSUMERS=1 -DPICKERS=0
 *   safety -DPRODUCERS=1 -DVALUES=3 -DCONSUMERS=2 -DPICKERS=0
 *   safety -DPRODUCERS=2 -DVALUES=2 -DCONSUMERS=1 -DPICKERS=1
 *   safety -DPRODUCERS=3 -DVALUES=1 -DCONSUMERS=1 -DPICKERS=1
 *   liveness -DPRODUCERS=2 -DVALUES=1 -DCONSUMERS=2 -DPICKERS=0
 */

#define ALL (PRODUCERS * VALUES)
#define NONE 0
#define DUMMY 1
#define RESIDENT 2
#define NODES (3 + ALL)

byte next[NODES];
byte value[NODES]; /* producer * VALUES + number + 1 */
byte tail = DUMMY;
bit headLock, tailLock;

/* What is only here to be checked. */
bit allocated[NODES];
byte taken;
byte lastTaken[PRODUCERS]; /* number + 1 of the last value taken, by producer */

#define take(lock) d_step { lock == 0 -> lock = 1 }

inline touch(node) { assert(node == DUMMY || node == RESIDENT || allocated[node]) }

/* ---- Producers ---- */

inline allocate(node) {
  d_step {
    node = 3;
    do
    :: allocated[node] -> node++
    :: else -> break
    od;
    allocated[node] = 1;
    value[node] = mine;
    next[node] = NONE
  }
}

/* Under the tail lock, and the head lock if the tail is the dummy. */
inline append(node) {
  d_step { last = tail; touch(last) }
  d_step { touch(last); next[last] = node }
  d_step { tail = node; last = 0 }
}

inline enqueue() {
  node = NONE;
again:
  if
  :: next[RESIDENT] == RESIDENT -> node = NONE
  :: next[RESIDENT] != RESIDENT -> allocate(node)
  fi;
  take(tailLock);
  if
  :: node == NONE ->
     if
     :: next[RESIDENT] == RESIDENT ->
        node = RESIDENT;
        value[RESIDENT] = mine;
        next[RESIDENT] = NONE
     :: next[RESIDENT] != RESIDENT ->
        tailLock = 0;
        goto again
     fi
  :: else
  fi;
  if
  :: tail != DUMMY ->
     append(node);
     tailLock = 0
  :: tail == DUMMY ->
     if
     :: d_step { headLock == 0 -> headLock = 1 } ->
        append(node);
        headLock = 0;
        tailLock = 0
     :: d_step { headLock == 1 -> skip } ->
        tailLock = 0;
        take(headLock); /* appendInOrder */
        take(tailLock);
        append(node);
        tailLock = 0;
        headLock = 0
     fi
  fi;
  node = 0
}

proctype producer(byte who) {
  byte node, last, mine = who * VALUES;
  do
  :: mine < (who + 1) * VALUES ->
     mine++;
     enqueue()
  :: else -> break
  od
}

/* ---- Consumers ---- */

/* The node is the caller's own from the step on that takes it out of the list. */
inline takeOut() {
  expected = value[node];
  assert(expected != 0 && (expected - 1) % VALUES + 1 > lastTaken[(expected - 1) / VALUES]);
  lastTaken[(expected - 1) / VALUES] = (expected - 1) % VALUES + 1
}

inline unlink() {
  d_step { touch(node); following = next[node] }
  if
  :: following != NONE -> d_step { next[previous] = following; takeOut() }
  :: else ->
     take(tailLock);
     d_step { touch(node); following = next[node] }
     if
     :: following == NONE -> tail = previous
     :: else
     fi;
     d_step { next[previous] = following; takeOut() }
     tailLock = 0
  fi
}

inline dispose() {
  if
  :: node == RESIDENT -> next[RESIDENT] = RESIDENT
  :: else -> d_step { touch(node); allocated[node] = 0; value[node] = 0; next[node] = 0 }
  fi
}

inline finishTaking() {
  d_step { touch(node); assert(value[node] == expected) }
  dispose();
  d_step { node = 0; following = 0; previous = 0; expected = 0; taken++ }
}

/* One that asks again and again under the lock can keep a producer from it for ever: the locks have no queue. */
#ifdef LIVENESS
#define worthAsking next[DUMMY] != NONE
#else
#define worthAsking true
#endif

proctype consumer() {
  byte node, previous, following, expected;
  do
  :: taken < ALL && worthAsking ->
     take(headLock);
     d_step { previous = DUMMY; node = next[DUMMY] }
     if
     :: node == NONE -> headLock = 0; previous = 0
     :: else ->
        unlink();
        headLock = 0;
        finishTaking()
     fi
  :: taken == ALL -> break
  od
}

/* Takes the values of the last producer, wherever they stand. */
proctype picker() {
  byte node, previous, following, expected;
  do
  :: taken < ALL ->
     take(headLock);
     previous = DUMMY;
     do
     :: d_step { touch(previous); node = next[previous] }
        if
        :: node == NONE -> headLock = 0; previous = 0; break
        :: else ->
           d_step { touch(node); expected = value[node] }
           if
           :: expected > ALL - VALUES ->
              unlink();
              headLock = 0;
              finishTaking();
              break
           :: else -> d_step { previous = node; expected = 0 }
           fi
        fi
     od
  :: taken == ALL -> break
  od
}

init {
  byte i;
  atomic {
    next[RESIDENT] = RESIDENT;
    do
    :: i < PRODUCERS -> run producer(i); i++
    :: i >= PRODUCERS && i < PRODUCERS + CONSUMERS -> run consumer(); i++
    :: i >= PRODUCERS + CONSUMERS && i < PRODUCERS + CONSUMERS + PICKERS -> run picker(); i++
    :: else -> break
    od;
    i = 3
  }
  taken == ALL;
  (_nr_pr == 1);
  assert(next[DUMMY] == NONE && tail == DUMMY && next[RESIDENT] == RESIDENT && !headLock && !tailLock);
  do
  :: i < NODES -> assert(!allocated[i]); i++
  :: else -> break
  od
}

#ifdef LIVENESS
ltl all_are_taken { <> (taken == ALL) }
#endif
