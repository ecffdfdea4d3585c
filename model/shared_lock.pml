/* The shared/exclusive lock: runtime/shared_lock.h and runtime/shared_lock.cpp.
 *
 *   reader    acquireShared, acquireSharedSlowly, releaseShared, releaseSharedSlowly
 *   writer    acquireExclusive, waitForExclusive, own, releaseExclusive
 *   changer   acquireShared, then exchangeSharedForExclusive
 *
 * State and reader count are one word: an atomic step that has both is a compare-and-swap, or a load, of the whole word; one
 * that has one of them is on that half. Each load, store and locked instruction is a step of its own.
 *
 * Checked: a writer is alone inside, readers are there without a writer; no state without a way on; a reader that began to
 * arrive while a writer was waiting is not in before a writer has been; exchangeSharedForExclusive says truly that no other
 * writer has held the lock since the caller's arrival; the lock is free, and nobody waited for, once all have left. With
 * liveness: a waiting writer gets in however long readers keep coming, if each thread that can take a step takes one in
 * the end. (With several writers there is no such promise, and none to readers: the lock has no queue.)
 *
 * Left out: the order in which another processor sees the stores, spin counts (a wait may end after any number of
 * readings), re-entry by the exclusive holder, and the try, which is the first step of a writer alone.
 *
 * Threads come back for ever, or once each (-DONCE). Searches:
 *
 *   safety -DREADERS=2 -DWRITERS=1 -DCHANGERS=0
 *   safety -DREADERS=1 -DWRITERS=2 -DCHANGERS=0
 *   safety -DREADERS=1 -DWRITERS=1 -DCHANGERS=1
 *   safety -DREADERS=0 -DWRITERS=1 -DCHANGERS=2
 *   safety -DONCE -DREADERS=2 -DWRITERS=1 -DCHANGERS=1
 *   safety -DONCE -DREADERS=2 -DWRITERS=2 -DCHANGERS=0
 *   liveness -DREADERS=2 -DWRITERS=1 -DCHANGERS=0
 */

#define THREADS (READERS + WRITERS + CHANGERS)

#define FREE 0
#define SHARED 1
#define EXCLUSIVE 2

byte state = FREE; /* the two halves of one word */
byte readers;
bit writerWaiting;

/* What is only here to be checked, by thread. */
byte readersIn;
byte writersIn;
bit late[THREADS];      /* began to arrive while a writer was waiting, and no writer has got in since */
bit disturbed[THREADS]; /* another writer has held the lock since this one's arrival */
byte left;

inline writerTakes(me) {
  byte each;
  for (each : 0 .. THREADS - 1) {
    late[each] = 0;
    if :: each != me -> disturbed[each] = 1 :: else fi
  }
  each = 0
}

/* ---- Shared ---- */

inline acquireShared(me) {
  d_step { late[me] = writerWaiting && state != EXCLUSIVE; seenState = state; seenReaders = readers }
  if
  :: seenState <= SHARED ->
     if
     :: writerWaiting == 0 ->
        if
        :: d_step { state == seenState && readers == seenReaders -> state = SHARED; readers = seenReaders + 1 } ->
           goto arrived
        :: d_step { state != seenState || readers != seenReaders -> skip } /* failed */
        fi
     :: writerWaiting == 1 -> skip
     fi
  :: else -> skip
  fi;
  /* acquireSharedSlowly */
  do
  :: writerWaiting == 1 -> skip
  :: writerWaiting == 0 -> break
  od;
  readers++;
  do
  :: state == EXCLUSIVE -> skip
  :: state != EXCLUSIVE ->
     if
     :: d_step { state == FREE -> state = SHARED } -> break
     :: d_step { state != FREE -> skip } -> /* failed: look again */
        if
        :: state == SHARED -> break
        :: state != SHARED -> skip
        fi
     fi
  od;
arrived:
  skip;
  d_step { readersIn++; disturbed[me] = 0; assert(writersIn == 0); assert(!late[me]); seenState = 0; seenReaders = 0 }
}

inline releaseShared() {
  d_step { readersIn--; seenState = state; seenReaders = readers }
  if
  :: d_step { state == seenState && readers == seenReaders ->
       if
       :: state == SHARED && readers == 1 -> state = FREE; readers = 0
       :: else -> readers--
       fi } -> skip
  :: d_step { state != seenState || readers != seenReaders -> skip } ->
     /* releaseSharedSlowly */
     readers--;
     d_step { if :: state == SHARED && readers == 0 -> state = FREE :: else fi }
  fi;
  d_step { seenState = 0; seenReaders = 0 }
}

/* ---- Exclusive ---- */

inline acquireExclusive(me) {
  if
  :: d_step { state == FREE -> state = EXCLUSIVE; writerTakes(me) } -> skip
  :: d_step { state != FREE -> skip } ->
     /* waitForExclusive */
     do
     :: state == FREE ->
        if
        :: d_step { state == FREE -> state = EXCLUSIVE; writerTakes(me) } -> break
        :: d_step { state != FREE -> skip }
        fi
     :: state != FREE ->
        if
        :: writerWaiting == 0 -> writerWaiting = 1
        :: writerWaiting == 1 -> skip
        fi;
        if
        :: skip /* a busy reading without a yield */
        :: d_step { state == FREE -> state = EXCLUSIVE; writerTakes(me) } -> break
        :: d_step { state != FREE -> skip } /* the attempt after a yield has failed */
        fi
     od
  fi;
  own()
}

inline own() {
  writerWaiting = 0;
  d_step { writersIn++; assert(writersIn == 1 && readersIn == 0) }
}

inline releaseExclusive() {
  d_step { assert(writersIn == 1 && readersIn == 0 && state == EXCLUSIVE); writersIn-- }
  state = FREE
}

/* ---- Threads ---- */

#ifdef ONCE
#define AGAIN break
#else
#define AGAIN skip
#endif

inline leave() {
  d_step {
    left++;
    assert(left < THREADS || (state == FREE && readers == 0 && writerWaiting == 0))
  }
}

proctype reader(byte me) {
  byte seenState, seenReaders;
  do
  :: acquireShared(me);
     releaseShared();
     AGAIN
  od;
  leave()
}

proctype writer(byte me) {
  do
  :: acquireExclusive(me);
     releaseExclusive();
     AGAIN
  od;
  leave()
}

proctype changer(byte me) {
  byte seenState, seenReaders;
  do
  :: acquireShared(me);
     if
     :: d_step { state == SHARED && readers == 1 -> state = EXCLUSIVE; readers = 0; readersIn--; writerTakes(me) } ->
        own();
        assert(!disturbed[me])
     :: d_step { !(state == SHARED && readers == 1) -> skip } ->
        releaseShared();
        acquireExclusive(me)
     fi;
     releaseExclusive();
     AGAIN
  od;
  leave()
}

init {
  atomic {
    byte i;
    for (i : 0 .. THREADS - 1) {
      if
      :: i < READERS -> run reader(i)
      :: i >= READERS && i < READERS + WRITERS -> run writer(i)
      :: else -> run changer(i)
      fi
    }
  }
}

#ifdef LIVENESS
/* The writer is thread 2, which init starts third. */
ltl a_waiting_writer_gets_in { [] (writerWaiting -> <> (writersIn == 1)) }
#endif
