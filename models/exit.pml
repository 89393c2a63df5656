/*
 * exit.pml - the end of the process, and what may still call then.
 *
 * One thread ends the process: in order; or from a signal handler that has interrupted
 * one of its own calls, whose lock nobody will give back; or in the child of a fork,
 * which has no other thread but may have their lock. Another thread goes on calling.
 * After the registry's end the ending thread makes a late call, as the destructor of
 * a static object does.
 *
 * Claims
 *   1. The process ends, whoever holds the registry's lock then.
 *   2. No thread touches a set that the registry's end has emptied or is emptying.
 *   3. A call that begins after the end is refused without waiting.
 *   4. The child of a fork can use the registry, because fork takes its lock.
 *
 * Left out: calls of static objects that are destroyed before the registry, out of a
 * signal handler that has interrupted a call: no call may be made from a handler.
 * The length of the bounded wait: here some tries, any number of which may fail.
 *
 * What stands for what
 *   Call        Apply, AskSet and the other users of the registry's mutex
 *   Handler     a signal that comes while Call is anywhere, and calls exit
 *   End         the destructor of the process-wide instance
 *   Fork        the handlers that pthread_atfork has been given
 *   gone        the mark that the registry has ended
 *   emptied     the sets have been
 *
 * Runs
 *   holds
 *   holds    -DIN_HANDLER
 *   holds    -DIN_CHILD
 *   refuted  -DWAITS_FOR_EVER -DIN_HANDLER                 invalid end state
 *   refuted  -DWAITS_FOR_EVER -DFORKS_UNLOCKED -DIN_CHILD  invalid end state
 *   refuted  -DFORKS_UNLOCKED -DIN_CHILD                   invalid end state
 *   refuted  -DEMPTIES_ANYWAY                              assertion violated
 *   refuted  -DLOOKS_ONCE                                  assertion violated
 *   refuted  -DLOOKS_LOCKED_ONLY -DIN_HANDLER              invalid end state
 *   refuted  -DMARKS_NOTHING                               assertion violated
 */
#define TRIES 2
#define CALLS 2

bool locked = false;
bool gone = false;
bool emptied = false;
bool alone = false; /* the ending thread is the only one there is */

/* A call that touches a set. The mark is looked at before the lock, so that a late
 * call does not wait for a lock that nobody gives back, and again behind it. */
inline Call(refused) {
  refused = false;
#ifndef LOOKS_LOCKED_ONLY
  refused = gone;
#endif
  if
  :: !refused ->
     atomic { !locked -> locked = true };
#ifndef LOOKS_ONCE
     refused = gone;
#endif
     if
     :: !refused ->
        assert(!emptied);
        /* here the set changes */
        assert(!emptied)
     :: else
     fi;
     locked = false
  :: else
  fi
}

proctype Busy() {
  byte calls = 0;
  bool refused = false;
  {
    do
    :: calls < CALLS -> calls++; Call(refused)
    :: calls == CALLS -> break
    od
  } unless { alone }
}

/* A call of the ending thread, which a signal handler interrupts and never returns to. */
inline InterruptedCall() {
  if
  :: skip
  :: atomic { !locked -> locked = true };
     if
     :: skip
     :: locked = false
     fi
  fi
}

inline End() {
#ifdef WAITS_FOR_EVER
  atomic { !locked -> locked = true; had = true };
#else
  do
  :: !had && tries < TRIES ->
     tries++;
     if
     :: atomic { !locked -> locked = true; had = true }
     :: locked
     fi
  :: else -> break
  od;
#endif
#ifndef MARKS_NOTHING
  gone = true;
#endif
#ifdef EMPTIES_ANYWAY
  had = true;
#endif
  if
  :: had -> emptied = true; locked = false
  :: else /* the sets are left alone: an ending process loses nothing by it */
  fi
}

active proctype Ending() {
  byte tries = 0;
  bool had = false;
  bool refused = false;
  run Busy();
#ifdef IN_CHILD
#ifndef FORKS_UNLOCKED
  atomic { !locked -> locked = true };
#endif
  alone = true; /* the child goes on with a copy of the lock as it is in this moment */
#ifndef FORKS_UNLOCKED
  locked = false;
#endif
  Call(refused);
  assert(!refused);
#endif
#ifdef IN_HANDLER
  InterruptedCall();
#endif
  End();
  Call(refused);
  assert(refused);
  alone = true
}
