/* The once-only guard: ScopedOnceGuard of runtime/once_guard.h, around work that is done once.
 *
 * Each thread takes the word from 0 to 1 by compare-and-swap, with a yield between attempts, looks at the done flag, does
 * the work in two steps if nobody has, and stores 0. A thread does all this twice, as a later caller of the same start-up
 * does.
 *
 * Checked: one thread at a time inside, the work done once, and done for everybody who has left the guard; every thread
 * leaves, if each that can take a step takes one in the end (liveness).
 *
 * Left out: the order in which another processor sees the stores (the guard's release is a store with release, its taking
 * a full barrier), and recursion, which the guard does not have.
 *
 * Searches:
 *
 *   safety
 *   liveness
 */

#define THREADS 3

bit word; /* the guard */
bit done; /* the flag of the work's owner */

/* What is only here to be checked. */
byte inside;
byte work;
byte finished;

active [THREADS] proctype thread() {
  byte round = 0;
  do
  :: round < 2 ->
     do
     :: atomic { word == 0 -> word = 1; inside++ } -> break
     :: atomic { word != 0 -> skip } /* a failed attempt; yield */
     od;
     assert(inside == 1);
     if
     :: !done ->
        work++;
        done = 1
     :: else
     fi;
     assert(done && work == 1);
     atomic { inside--; word = 0 }
     round++
  :: else -> break
  od;
  finished++
}

#ifdef LIVENESS
ltl everyone_leaves { <> (finished == THREADS) }
#endif
