/*
 * leaving.pml - who may leave an endpoint without losing what is in it.
 *
 * A FIFO loses its bytes when the last descriptor on it is closed. The rules, which
 * need neither a clock nor a lock:
 *
 *   Look    A look is a descriptor that is read-only and non-blocking. It keeps the
 *           bytes in the FIFO, and others can tell it from an opened endpoint.
 *   Close   A process that leaves first closes the endpoint and keeps a look; then it
 *           searches for others that have the endpoint open. So the last one to close it
 *           finds nobody, and knows that closing its look will lose what waits.
 *   Report  A jpipe that finds nobody then reports what waits as lost.
 *   Stay    A push leaves when the FIFO is empty, or when it has found a process that
 *           stays: once before it closes the endpoint, and the same one again after that.
 *           If then no process stays, and something waits, it opens the endpoint again
 *           and goes on waiting.
 *   Mark    A jpipe that will leave on its own (push, signal, import; pull and export
 *           with a count or a time limit) marks itself before it opens the endpoint,
 *           with a descriptor that others can see. One that stays until it is stopped
 *           marks itself only then. So a process with the endpoint open and no mark stays.
 *           Here has_look is both the mark and the look: while the endpoint is open
 *           too, it keeps no bytes that are not kept anyway.
 *
 * Claims
 *   1. No message that a push has sent is lost without a report, unless a process that
 *      had the endpoint open, or was leaving it, was killed while messages waited, or a
 *      program that does not follow these rules closed it then.
 *   2. A push that is not interrupted leaves its messages only to a process that stays
 *      until it is stopped, or to a program; and it does leave if there is such a one.
 *
 * Left out: messages that are cut; a message that its reader has taken and cannot show;
 * push --no-wait, which does not search; processes that /proc does not show, which for
 * the others do not exist. A report may be wrong, but never missing: a process that opens
 * the endpoint at the same moment may still take what was reported as lost.
 *
 * What stands for what
 *   Pusher    push, signal, import: EndpointSock::LeaveWhenSafe
 *   Puller    pull and export that leave on their own
 *   Keeper    pull and export that stay until they are stopped
 *   Leave     EndpointSock::Leave
 *   Program   a program that uses the library and knows nothing of the rules
 *   Drain     drain, which only looks and takes
 *   Killer    SIGKILL, or a crash, of any process at any point
 *   IsSeen... the search in /proc (FindKeeper, Keeps), which is not atomic: it may look
 *             for a process's mark before that is opened, and for its endpoint after
 *
 * Runs
 *   holds    -DPUSHERS=2 -DKEEPERS=1
 *   holds    -DPUSHERS=2 -DKEEPERS=1 -DSTAYS_FOR_EVER
 *   holds    -DPUSHERS=2 -DPULLERS=1
 *   holds    -DPUSHERS=1 -DKEEPERS=2
 *   holds    -DPUSHERS=1 -DPULLERS=1 -DKEEPERS=1 -DKILLS
 *   holds    -DPUSHERS=2 -DPULLERS=1 -DKEEPERS=1
 *   holds    -DPUSHERS=1 -DKEEPERS=1 -DPROGRAMS=1 -DDRAINS=1
 *   refuted  -DPUSHERS=1 -DKEEPERS=1 -DSEARCHES_FIRST    assertion violated .*waiting
 *   refuted  -DPUSHERS=1 -DKEEPERS=1 -DKEEPS_NO_LOOK     assertion violated .*waiting
 *   refuted  -DPUSHERS=2 -DKEEPERS=1 -DEMPTY_IS_ENOUGH   assertion violated .*waiting
 *   refuted  -DPUSHERS=1 -DPULLERS=1 -DREPORTS_NOTHING   assertion violated .*waiting
 *   refuted  -DPUSHERS=1 -DPULLERS=1 -DSEARCHES_ONCE     assertion violated .*found
 *   refuted  -DPUSHERS=1 -DPULLERS=1 -DLOOKS_LAST        assertion violated .*found
 *   refuted  -DPUSHERS=2 -DCOUNTS_ALL                    assertion violated .*found
 *   refuted  -DPUSHERS=1 -DKEEPERS=1 -DSTAYS_FOR_EVER -DNEVER_TRUSTS  assertion violated .*has_open
 */
#ifndef PULLERS
#define PULLERS 0
#endif
#ifndef KEEPERS
#define KEEPERS 0
#endif
#ifndef PROGRAMS
#define PROGRAMS 0
#endif
#ifndef DRAINS
#define DRAINS 0
#endif
#define ROOM 2
#define ALL (PUSHERS + PULLERS + KEEPERS + PROGRAMS)
#define MOST 4

byte waiting = 0;     /* messages in the FIFO */
byte reported = 0;    /* how many of them, the first ones, were reported as lost */
bool excused = false; /* what waits may be lost: see claim 1 */
byte looks_of_drains = 0;
bool has_open[MOST]; /* the endpoint */
bool has_look[MOST];
bool before[MOST] = true; /* it has not opened anything yet */
bool dead[MOST];

/* What the processes really are: the first ones leave on their own. */
#define stays(p) ((p) >= PUSHERS + PULLERS)
#define SOMEBODY_STAYS (HAS_STAYED(0) || HAS_STAYED(1) || HAS_STAYED(2) || HAS_STAYED(3))
#define HAS_STAYED(p) (has_open[p] && stays(p))

/* Whether a first search may find that `p` stays: it searches for a look, and then,
 * maybe after `p` has opened look and endpoint, for the endpoint. */
#if defined COUNTS_ALL
#define NO_LOOK(p) (me != p && has_open[p])
#elif defined SEARCHES_ONCE
#define NO_LOOK(p) (me != p && p < ALL)
#else
#define NO_LOOK(p) (me != p && p < ALL && !has_look[p] && (has_open[p] || before[p]))
#endif

/* After a descriptor was closed: closing the last one loses what waited. */
inline Closed() {
  other = 0;
  do
  :: other < ALL && !has_open[other] && !has_look[other] -> other++
  :: else -> break
  od;
  if
  :: other == ALL && looks_of_drains == 0 ->
     assert(waiting <= reported || excused);
     waiting = 0;
     reported = 0;
     excused = false
  :: else
  fi;
  other = 0
}

inline Close() {
  d_step {
    has_open[me] = false;
#ifdef KEEPS_NO_LOOK
    has_look[me] = false;
#endif
    Closed()
  }
}

inline CloseLook() {
  d_step {
    has_look[me] = false;
    Closed()
  }
}

inline Die() {
  d_step {
    excused = excused || ((has_open[me] || has_look[me]) && waiting > 0);
    has_open[me] = false;
    has_look[me] = false;
    Closed()
  }
}

inline Take() {
  d_step {
    waiting > 0;
    waiting--;
    reported = (reported > 0 -> reported - 1 : 0)
  }
}

/* Result: `found`, whether anybody else has the endpoint open. */
inline SearchForAnybody() {
  other = 0;
  found = false;
  do
  :: other < ALL && !found ->
     found = (other != me && has_open[other]);
     other++
  :: else -> break
  od;
  other = 0
}

/* Result: `found`, whether `other` has the endpoint open and no look. */
inline IsSeenToStay() {
#ifdef COUNTS_ALL
  found = has_open[other]
#else
  found = !has_look[other];
  found = found && has_open[other]
#endif
}

/* Leaves, whatever is lost by that. */
inline Leave() {
  has_look[me] = true;
#ifndef SEARCHES_FIRST
  Close();
#endif
  SearchForAnybody();
#ifndef REPORTS_NOTHING
  if
  :: !found -> reported = waiting
  :: else
  fi;
#endif
#ifdef SEARCHES_FIRST
  Close();
#endif
  found = false;
  CloseLook()
}

/* Waits until it is safe to leave, and leaves. */
inline LeaveWhenSafe() {
  do
  :: waiting == 0 ->
     Close();
#ifndef EMPTY_IS_ENOUGH
     SearchForAnybody();
     if
     :: !found && waiting > 0 -> has_open[me] = true
     :: else -> found = false; CloseLook(); break
     fi
#else
     CloseLook();
     break
#endif
#ifndef NEVER_TRUSTS
  :: atomic {
       waiting > 0 && (NO_LOOK(0) || NO_LOOK(1) || NO_LOOK(2) || NO_LOOK(3)) ->
       if
       :: NO_LOOK(0) -> other = 0
       :: NO_LOOK(1) -> other = 1
       :: NO_LOOK(2) -> other = 2
       :: NO_LOOK(3) -> other = 3
       fi
     };
     if
#ifndef SEARCHES_ONCE
     :: !has_open[other] -> other = 0
#endif
     :: else ->
        trusted = other;
        Close();
        other = trusted;
#ifndef SEARCHES_FIRST
        IsSeenToStay();
#else
        found = true;
#endif
        d_step {
          assert(!found || stays(trusted));
          other = 0;
          trusted = 0
        };
        if
        :: found -> found = false; CloseLook(); break
        :: else -> has_open[me] = true
        fi
     fi
#endif
#ifdef STAYS_FOR_EVER
  :: timeout -> assert(!SOMEBODY_STAYS); break
#else
  :: timeout -> break
  :: me == 0 -> Leave(); break /* it is interrupted */
#endif
  od
}

inline Open() {
  before[me] = false;
#ifdef LOOKS_LAST
  has_open[me] = true;
  has_look[me] = true
#else
  has_look[me] = true;
  has_open[me] = true
#endif
}

proctype Pusher(byte me) {
  byte other = 0;
  byte trusted = 0;
  bool found = false;
  {
    Open();
    d_step {
      waiting < ROOM;
      waiting++
    };
    LeaveWhenSafe()
  } unless {
    dead[me] -> Die()
  }
}

proctype Puller(byte me) {
  byte other = 0;
  bool found = false;
  {
    Open();
    if
    :: Take()
    :: skip
    fi;
    Leave()
  } unless {
    dead[me] -> Die()
  }
}

proctype Keeper(byte me) {
  byte other = 0;
  bool found = false;
  {
    d_step {
      before[me] = false;
      has_open[me] = true
    };
#ifdef STAYS_FOR_EVER
    timeout /* it does not even read */
#else
    do
    :: Take()
    :: Leave(); break
    od
#endif
  } unless {
    dead[me] -> Die()
  }
}

proctype Program(byte me) {
  byte other = 0;
  d_step {
    before[me] = false;
    has_open[me] = true
  };
  do
  :: Take()
  :: break
  od;
  skip;
  d_step {
    excused = excused || waiting > 0;
    has_open[me] = false;
    Closed()
  }
}

proctype Drain() {
  byte other = 0;
  looks_of_drains++;
  do
  :: Take()
  :: break
  od;
  skip;
  d_step {
    looks_of_drains--;
    Closed()
  }
}

proctype Killer() {
  byte victim;
  select(victim: 0 .. 3);
  dead[victim] = true
}

init {
  byte n = 0;
  byte k = 0;
  atomic {
    do
    :: k < PUSHERS -> run Pusher(n); n++; k++
    :: else -> k = 0; break
    od;
    do
    :: k < PULLERS -> run Puller(n); n++; k++
    :: else -> k = 0; break
    od;
    do
    :: k < KEEPERS -> run Keeper(n); n++; k++
    :: else -> k = 0; break
    od;
#if PROGRAMS
    run Program(n);
#endif
#if DRAINS
    run Drain();
#endif
#ifdef KILLS
    run Killer();
#endif
    n = 0
  }
}
