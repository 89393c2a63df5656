/*
 * exit.pml - the end of the process, and a fork, while another thread is busy.
 *
 * One thread ends the process: normally; or from a signal handler that has interrupted
 * one of its own calls, to which it never returns; or in the child of a fork, which has no
 * other thread. The fork may also be made in such a handler, which then returns to the
 * call. Another thread goes on calling. After the end has been marked the ending thread
 * calls once more, as an exit handler or the destructor of a static object does.
 *
 * Claims
 *   1. The process ends, whoever holds the registry's lock at that time.
 *   2. A call after the mark works or is refused; it never waits for ever.
 *   3. No call finds a set that another call has left half changed.
 *   4. The child of a fork can use the registry, and so can its parent.
 *
 * Left out: calls by exit handlers that run before the library's own, when exit() was
 * called in a signal handler that has interrupted a call: no call may be made from a
 * handler. How long the bounded wait is: here it is a few tries, each of which may fail
 * while the lock is held.
 *
 * What stands for what
 *   Call        registry::Ask, Enter, Leave and their process::CriticalSection
 *   End         process::End with CanBeHad
 *   Fork        process::BeforeFork and AfterFork
 *   gone        process::Phase::kGone
 *   inside      process::inside of the ending thread
 *   half        a set is being changed
 *
 * Runs
 *   holds
 *   holds    -DIN_HANDLER
 *   holds    -DIN_CHILD
 *   holds    -DIN_CHILD -DFORKS_IN_HANDLER
 *   holds    -DIN_PARENT
 *   refuted  -DWAITS_FOR_EVER -DIN_HANDLER                invalid end state
 *   refuted  -DMARKS_NOTHING -DIN_HANDLER                 invalid end state
 *   refuted  -DLOOKS_NOT -DIN_HANDLER                     invalid end state
 *   refuted  -DBREAKS_THE_LOCK -DIN_HANDLER               assertion violated
 *   refuted  -DKEEPS_THE_LOCK                             invalid end state
 *   refuted  -DFORKS_UNLOCKED -DIN_CHILD                  invalid end state
 *   refuted  -DLOCKS_TWICE -DIN_CHILD -DFORKS_IN_HANDLER  invalid end state
 *   refuted  -DGIVES_BACK_NOTHING -DIN_PARENT             invalid end state
 *   refuted  -DIN_CHILD -DFORKS_IN_HANDLER -DON_ITS_WAY   invalid end state
 *
 * The last one is not a mistake but a limit: a handler that forks while the call that it
 * interrupted waits for another thread to release the lock. In the child that thread does
 * not exist, so the call waits for ever when the handler returns to it.
 */
#define TRIES 2
#define CALLS 2

bool locked = false;
bool half = false;
bool gone = false;
bool alone = false;  /* the ending thread is the only one there is */
bool inside = false; /* the ending thread is in a section, or entering or leaving one */

inline Change() {
  assert(!half);
  half = true;
  half = false
}

/* A call of the ending thread. Result: `refused`. */
inline Call() {
#ifdef LOOKS_NOT
  refused = false;
#else
  refused = gone;
#endif
  if
  :: !refused ->
     inside = true;
     atomic { !locked -> locked = true };
     Change();
     locked = false;
     inside = false
  :: else
  fi
}

/* The part of a call before a signal handler interrupts it. */
inline InterruptedCall() {
  inside = true;
  if
  :: skip
  :: atomic { !locked -> locked = true };
     if
     :: skip
     :: half = true;
        if
        :: skip
        :: half = false;
           if
           :: skip
           :: locked = false
           fi
        fi
     fi
  fi
}

/* The rest of it, when the handler returns. It had the lock, or tries to take it now. */
inline RestOfCall() {
  if
  :: had -> skip
  :: else -> atomic { !locked -> locked = true }
  fi;
  half = false;
  locked = false;
  inside = false;
  had = false
}

proctype Busy() {
  byte calls = 0;
  {
    do
    :: calls < CALLS && !gone ->
       calls++;
       atomic { !locked -> locked = true };
       Change();
       locked = false
    :: else -> break
    od
  } unless { alone }
}

inline End() {
  tries = 0;
#ifdef WAITS_FOR_EVER
  atomic { !locked -> locked = true; had = true };
#else
  do
  :: !had && tries < TRIES && !(tries > 0 && inside) ->
     tries++;
     if
     :: atomic { !locked -> locked = true; had = true }
     :: locked
     fi
  :: else -> break
  od;
#endif
#ifndef KEEPS_THE_LOCK
  if
  :: had -> locked = false
  :: else
  fi;
#endif
#ifdef BREAKS_THE_LOCK
  locked = false;
#elif !defined MARKS_NOTHING
  gone = !had;
#endif
  had = false
}

/* Both processes go on with the lock as it is between the two halves. */
inline Fork() {
#ifndef FORKS_UNLOCKED
#ifdef LOCKS_TWICE
  atomic { !locked -> locked = true; took = true };
#else
  if
  :: !inside -> atomic { !locked -> locked = true; took = true }
  :: else
  fi;
#endif
#endif
#ifdef IN_CHILD
  alone = true;
#endif
#ifndef GIVES_BACK_NOTHING
  if
  :: took -> locked = false; took = false
  :: else
  fi
#endif
}

active proctype Ending() {
  byte tries = 0;
  bool had = false;
  bool took = false;
  bool refused = false;
  run Busy();
#ifdef FORKS_IN_HANDLER
  inside = true;
#ifndef ON_ITS_WAY
  atomic { !locked -> locked = true; had = true };
  half = true;
#endif
  Fork();
  RestOfCall();
  Call();
  assert(!refused);
#elif defined IN_CHILD || defined IN_PARENT
  Fork();
  Call();
  assert(!refused);
#endif
#ifdef IN_HANDLER
  InterruptedCall();
#endif
  End();
  Call();
  alone = true
}
