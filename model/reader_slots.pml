/* Readers that announce themselves: runtime/reader_slots.h, with the Hold of containers/hash_table.cpp and the try of
 * containers/hash_table_scan.cpp.
 *
 *   reader    tryToArrive, or acquireShared where that fails; leave, or releaseShared
 *   changer   the same, then becomeExclusive
 *   scanner   one attempt to take the lock exclusive, hasReaders
 *
 * Every load, store and locked instruction on the slots, and those on the lock that decide about them, is a step of its own.
 * What the lock itself does for readers and writers that go to its word is one step each: shared_lock.pml has these.
 *
 * Checked: who holds the lock exclusive, and has waited for the readers or found none, is alone inside; becomeExclusive says
 * truly that nobody else has been so since the caller's arrival; no state without a way on. With liveness: a changer gets in
 * however long readers keep coming.
 *
 * Left out: the order in which another processor sees the stores (a slot and the lock's state are taken by full barriers and
 * read behind these), the mask of slots in use (set before the first arrival, never cleared), re-entry by the exclusive holder.
 *
 * Threads come back for ever. With -DSLOTS=1 all threads have the same slot. Searches:
 *
 *   safety -DSLOTS=2 -DREADERS=1 -DCHANGERS=2 -DSCANNERS=0
 *   safety -DSLOTS=1 -DREADERS=1 -DCHANGERS=2 -DSCANNERS=0
 *   safety -DSLOTS=3 -DREADERS=2 -DCHANGERS=1 -DSCANNERS=1
 *   safety -DSLOTS=2 -DREADERS=1 -DCHANGERS=2 -DSCANNERS=1
 *   liveness -DSLOTS=2 -DREADERS=2 -DCHANGERS=1 -DSCANNERS=0
 */

#define THREADS (READERS + CHANGERS + SCANNERS)

#define FREE 0
#define SHARED 1
#define EXCLUSIVE 2

byte state = FREE;
byte readers; /* at the lock's word */
bit writerWaiting;
bit slots[SLOTS];

#define mySlot slots[me % SLOTS]

/* What is only here to be checked, by thread. */
byte readersIn;
byte writersIn;
bit disturbed[THREADS]; /* another one has been inside exclusive since this one's arrival */

inline arrive() {
  announced = 0;
  if
  :: d_step { mySlot == 0 -> mySlot = 1 } ->
     if
     :: state == EXCLUSIVE -> mySlot = 0
     :: state != EXCLUSIVE ->
        if
        :: writerWaiting == 1 -> mySlot = 0
        :: d_step { writerWaiting == 0 -> announced = 1; readersIn++; disturbed[me] = 0; assert(writersIn == 0) }
        fi
     fi
  :: d_step { mySlot == 1 -> skip } /* failed */
  fi;
  if
  :: announced -> skip
  :: !announced ->
     d_step {
       state != EXCLUSIVE && writerWaiting == 0 ->
       state = SHARED;
       readers++;
       readersIn++;
       disturbed[me] = 0;
       assert(writersIn == 0)
     }
  fi
}

inline releaseShared() { d_step { readers--; if :: readers == 0 -> state = FREE :: else fi } }

inline depart() {
  readersIn--;
  if
  :: announced -> mySlot = 0
  :: !announced -> releaseShared()
  fi
}

inline acquireExclusive() {
  do
  :: d_step { state == FREE -> state = EXCLUSIVE } -> break
  :: state != FREE -> writerWaiting = 1
  od;
  writerWaiting = 0
}

inline waitForReaders() {
  each = 0;
  do
  :: each < SLOTS -> slots[each] == 0; each++
  :: each == SLOTS -> break
  od;
  each = 0
}

/* Alone inside, for two steps. */
inline change() {
  d_step {
    writersIn++;
    assert(writersIn == 1 && readersIn == 0);
    for (each : 0 .. THREADS - 1) { if :: each != me -> disturbed[each] = 1 :: else fi }
    each = 0
  }
  d_step { assert(writersIn == 1 && readersIn == 0); writersIn-- }
}

proctype reader(byte me) {
  bit announced;
  do
  :: arrive();
     depart()
  od
}

proctype changer(byte me) {
  bit announced, undisturbed;
  byte each;
  do
  :: arrive();
     readersIn--;
     undisturbed = 0;
     if
     :: announced ->
        if
        :: d_step { state == FREE -> state = EXCLUSIVE; undisturbed = 1 } -> skip
        :: d_step { state != FREE -> skip }
        fi;
        mySlot = 0;
        if
        :: undisturbed -> writerWaiting = 0
        :: !undisturbed -> acquireExclusive()
        fi
     :: !announced ->
        if
        :: d_step { state == SHARED && readers == 1 -> state = EXCLUSIVE; readers = 0; undisturbed = 1 } -> writerWaiting = 0
        :: d_step { !(state == SHARED && readers == 1) -> skip } ->
           releaseShared();
           acquireExclusive()
        fi
     fi;
     waitForReaders();
     assert(!(undisturbed && disturbed[me]));
     change();
     state = FREE
  od
}

proctype scanner(byte me) {
  byte each;
  bit found;
  do
  :: if
     :: d_step { state == FREE -> state = EXCLUSIVE } ->
        writerWaiting = 0;
        found = 0;
        do
        :: each < SLOTS && !found -> found = slots[each]; each++
        :: else -> break
        od;
        each = 0;
        if
        :: !found -> change()
        :: found -> found = 0
        fi;
        state = FREE
     :: d_step { state != FREE -> skip } /* busy: skipped */
     fi
  od
}

init {
  byte thread = 0;
  atomic {
    do
    :: thread < READERS -> run reader(thread); thread++
    :: thread >= READERS && thread < READERS + CHANGERS -> run changer(thread); thread++
    :: thread >= READERS + CHANGERS && thread < THREADS -> run scanner(thread); thread++
    :: thread == THREADS -> break
    od
  }
}

#ifdef LIVENESS
ltl changers_get_in { [] <> (writersIn == 1) }
#endif
