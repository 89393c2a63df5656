/*
 * actor.pml - an actor's start and stop: two threads, two bounded pipes.
 *
 * Claims
 *   1. j_actor_new returns when the function has signalled, and gives up when
 *      something unreadable arrives instead. Messages before the signal are dropped.
 *   2. j_actor_destroy returns when the function returns at the end of its stream,
 *      even if the function is just then waiting for room for an answer.
 *   3. A function that receives to the end gets every message that was sent.
 *   4. The function's end exists as long as the function runs.
 *   5. With SIGPIPE blocked in the actor's thread the process survives answers that
 *      nobody receives.
 *
 * Left out: bytes (a message is one unit, written and read whole), running out of
 * memory and descriptors, read-ahead, the registry.
 *
 * What stands for what
 *   Creator     j_actor_new, j_actor_destroy: JCXXActor::JCXXActor, StopAndRelease
 *   Function    JActorThreadWrapper::the_wrapper_function and the caller's function
 *   Await       JCXXMsg::WaitForSignal
 *   Stop        SockFromPipes::~SockFromPipes of the creator's end, which closes its
 *               reading descriptor first, then the join and the release of the
 *               other end in JActorThreadWrapper::~JActorThreadWrapper
 *   Send        JCXXSock::WriteBlockingIOV on a pipe
 *
 * Runs
 *   holds
 *   holds    -DCAPACITY=2
 *   refuted  -DNEVER_SIGNALS     invalid end state
 *   refuted  -DIGNORES_THE_END   invalid end state
 *   refuted  -DJOINS_FIRST       invalid end state
 *   refuted  -DEND_INHERITED     invalid end state
 *   refuted  -DNOBODY_RECEIVES   invalid end state
 *   refuted  -DRELEASES_FIRST    assertion violated
 *   refuted  -DHANG_UP_FIRST     assertion violated
 *   refuted  -DSIGPIPE_KILLS     assertion violated
 *
 * HANG_UP_FIRST is a function that takes the hang-up for the end while messages still
 * wait. NOBODY_RECEIVES is a mistake of the program, not of the library: both sides send
 * more than the pipes hold. END_INHERITED is a program that another thread has
 * started between `pipe` and `fcntl`: it keeps the creator's writing end open.
 */
#ifndef CAPACITY
#define CAPACITY 1
#endif
#ifdef NOBODY_RECEIVES
#define MESSAGES (2 * CAPACITY + 2)
#else
#define MESSAGES 3
#endif

mtype = {data, signal, garbage};

chan requests = [CAPACITY] of {mtype}; /* creator to function */
chan answers = [CAPACITY] of {mtype};  /* function to creator */

bool writes_requests = true; /* the creator's end has its writing descriptor */
bool reads_answers = true;   /* and its reading one */
bool ends_open = true;       /* the function's end */
bool inherited = false;      /* somebody else holds the creator's writing end */
bool returned = false;       /* the function has */
bool refused = false;        /* j_actor_new has given up */
byte sent = 0;
byte got = 0;

inline Answer(what) {
  assert(ends_open);
  if
  :: reads_answers && nfull(answers) -> answers!what
  :: !reads_answers ->
#ifdef SIGPIPE_KILLS
     assert(false)
#else
     skip /* the send fails, and the function goes on */
#endif
  fi
}

proctype Function() {
  mtype what;
#ifdef NEVER_SIGNALS
  goto done;
#endif
  if
  :: Answer(data); Answer(signal)
  :: Answer(signal)
  :: Answer(garbage)
  fi;
  do
  :: atomic { nempty(requests) -> assert(ends_open); requests?what }
     got++;
     if
     :: Answer(data)
#ifndef NOBODY_RECEIVES
     :: skip
#endif
     fi
#ifdef HANG_UP_FIRST
  :: !writes_requests -> break
#endif
  :: atomic { empty(requests) && !writes_requests && !inherited -> assert(ends_open) }
#ifdef IGNORES_THE_END
     false
#endif
     break
  od;
done:
  returned = true
}

inline Await() {
  do
  :: answers?data
  :: answers?signal -> break
  :: answers?garbage -> refused = true; break
  od
}

inline Stop() {
#ifdef JOINS_FIRST
  returned;
#endif
  reads_answers = false;
  writes_requests = false;
#ifdef RELEASES_FIRST
  ends_open = false;
#endif
  returned;
  ends_open = false
}

active proctype Creator() {
  mtype what;
#ifdef END_INHERITED
  inherited = true;
#endif
  run Function();
  Await();
  if
  :: refused -> skip
  :: else ->
     do
     :: sent < MESSAGES -> requests!data; sent++
#ifndef NOBODY_RECEIVES
     :: nempty(answers) -> answers?what
     :: break
#else
     :: sent == MESSAGES -> break
#endif
     od
  fi;
  Stop();
  assert(got == sent)
}
