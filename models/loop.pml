/*
 * loop.pml - an actor that waits for its sock in a CZMQ loop, with read-ahead.
 *
 * A message is two bytes, header and payload; the read-ahead buffer takes three, so
 * that it cuts messages. The pipe takes four.
 *
 * Claims
 *   1. With the documented loop (a handler that receives while j_sock_wait is 1 and
 *      ends the loop when a receive returns null) every message is handled, and the loop
 *      and the creator's wait for it end, with or without a tolerant poller.
 *   2. The same holds when the creator stops only after all were handled, and when the
 *      function has received before the loop began, as long as it then went on while
 *      j_sock_wait was 1.
 *   3. A handler that receives while j_sock_wait is 1 never waits for the rest of a
 *      message.
 *   4. For programs that receive until j_sock_buffered is 0 (LOOKS_AT_BUFFERED) claims 1
 *      and 2 hold with a tolerant poller.
 *
 * Left out: other pollers of the same loop, timers, failing reads.
 *
 * What stands for what
 *   Wait        JCXXSock::WaitForMessage with a limit of 0
 *   Receive     JCXXMsg::ReadMessage, JCXXSock::ReadBlocking
 *   ReadByte    JCXXSock::ReadBlockingReadaheadBuffered: ServeFromBuffer, ReadAhead,
 *               ReadDirect, AvailableToRead
 *   Handler     the caller's handler behind hybrid_internal_handler
 *   Loop        zloop_start, with the rule of CZMQ 4.2.1 that drops a poller at its
 *               second event with an error flag
 *   Creator     j_msg_send, j_actor_destroy
 *
 * Runs
 *   holds
 *   holds    -DRECEIVES_BEFORE
 *   holds    -DSPLIT_WRITES
 *   holds    -DINTOLERANT
 *   holds    -DLOOKS_AT_BUFFERED
 *   holds    -DLOOKS_AT_BUFFERED -DRECEIVES_BEFORE
 *   holds    -DLOOKS_AT_BUFFERED -DSPLIT_WRITES
 *   refuted  -DLOOKS_AT_BUFFERED -DINTOLERANT       invalid end state
 *   refuted  -DRECEIVES_ONE -DREAD_AHEAD=4          invalid end state
 *   refuted  -DRECEIVES_BEFORE -DLEAVES_READ_AHEAD -DMESSAGES=2  invalid end state
 *   refuted  -DGOES_ON_AFTER_NULL                   assertion violated
 *   refuted  -DBELIEVES_POLL -DSPLIT_WRITES         assertion violated
 *   refuted  -DLOOKS_AT_BUFFERED -DHANG_UP_FIRST    assertion violated
 *
 * BELIEVES_POLL takes a readable descriptor for a whole message. HANG_UP_FIRST takes a
 * hang-up for the end while bytes still wait. SPLIT_WRITES writes a message in two
 * parts, as happens to a large one when the pipe is full.
 */
#ifndef MESSAGES
#define MESSAGES 3
#endif
#define ROOM 4
#ifndef READ_AHEAD
#define READ_AHEAD 3
#endif

byte in_pipe = 0;
bool writer_open = true;
byte buffered = 0;
byte handled = 0;
bool returned = false;

/* Result: `ok`; it blocks while there is nothing to read but still a writer. */
inline ReadByte() {
  if
  :: buffered > 0 -> buffered--; ok = true
  :: else ->
     avail = in_pipe; /* FIONREAD */
     if
#ifdef HANG_UP_FIRST
     :: !writer_open -> ok = false
#endif
     :: avail > 1 ->
        d_step {
          buffered = (avail - 1 > READ_AHEAD -> READ_AHEAD : avail - 1);
          in_pipe = in_pipe - 1 - buffered;
          ok = true
        }
     :: avail <= 1 ->
        assert(!ready || in_pipe > 0 || !writer_open); /* or it would block */
        if
        :: atomic { in_pipe > 0 -> in_pipe--; ok = true }
        :: atomic { in_pipe == 0 && !writer_open -> ok = false }
        fi
     fi
  fi
}

inline Receive() {
  ReadByte();
  if
  :: ok -> ReadByte(); assert(ok)
  :: else
  fi
}

/* Result: `ready`, when a whole message is in the buffer, or the stream has ended. */
inline Wait() {
  ready = false;
  said_ready = false;
  do
  :: buffered >= 2 -> ready = true; break
  :: else ->
     avail = in_pipe; /* FIONREAD */
     if
     :: avail > 0 ->
        said_ready = false;
        d_step {
          avail = (avail > READ_AHEAD - buffered -> READ_AHEAD - buffered : avail);
          buffered = buffered + avail;
          in_pipe = in_pipe - avail
        }
     :: avail == 0 && said_ready -> ready = true; break
     :: avail == 0 && !said_ready ->
        if
        :: atomic { in_pipe == 0 && writer_open -> break }
        :: atomic { in_pipe > 0 || !writer_open -> said_ready = true }
        fi
#ifdef BELIEVES_POLL
        ; ready = true; break
#endif
     fi
  od
}

/* Receives everything that is there. Result: `ok`, unless the stream has ended. */
inline ReceiveAll() {
  ok = true;
  do
#ifdef LOOKS_AT_BUFFERED
  :: buffered > 0 ->
#else
  :: Wait();
     if
     :: !ready -> break
     :: else
     fi;
#endif
     Receive();
     ready = false;
     if
     :: ok -> handled++
     :: else -> break
     fi
#ifdef LOOKS_AT_BUFFERED
  :: else -> break
#endif
  od
}

/* What the loop calls. Ends with `canceled` when it returns -1. */
inline Handler() {
  do
  :: assert(!ended);
#ifdef LOOKS_AT_BUFFERED
     Receive();
#else
     Wait();
     if
     :: !ready -> break
     :: else
     fi;
     Receive();
     ready = false;
#endif
     if
     :: !ok ->
        ended = true;
#ifndef GOES_ON_AFTER_NULL
        canceled = true;
#endif
        break
     :: else -> handled++
     fi;
#ifdef RECEIVES_ONE
     break
#endif
#ifdef LOOKS_AT_BUFFERED
     if
     :: buffered == 0 -> break
     :: else
     fi
#endif
  od
}

inline Loop() {
  do
  :: canceled -> break
  :: !canceled && watched && (in_pipe > 0 || !writer_open) ->
     /* poll has returned: the events are a snapshot */
#ifdef INTOLERANT
     if
     :: !writer_open ->
        if
        :: errors > 0 -> watched = false
        :: else -> errors++
        fi
     :: else -> errors = 0
     fi;
#endif
     if
     :: watched -> Handler()
     :: else
     fi
  od
}

proctype Function() {
  byte avail = 0;
  byte errors = 0;
  bool ok = false;
  bool ready = false;
  bool said_ready = false;
  bool ended = false;
  bool canceled = false;
  bool watched = true;
#ifdef RECEIVES_BEFORE
  Receive();
  if
  :: ok -> handled++
  :: else -> goto done
  fi;
#ifndef LEAVES_READ_AHEAD
  ReceiveAll();
  if
  :: !ok -> goto done
  :: else
  fi;
#endif
#endif
  Loop();
done:
  returned = true
}

active proctype Creator() {
  byte sent = 0;
  run Function();
  do
  :: sent < MESSAGES ->
#ifdef SPLIT_WRITES
     atomic { in_pipe < ROOM -> in_pipe++ };
     atomic { in_pipe < ROOM -> in_pipe++ };
#else
     atomic { in_pipe + 2 <= ROOM -> in_pipe = in_pipe + 2 };
#endif
     sent++
  :: sent == MESSAGES -> break
  od;
  if
  :: skip -> handled == sent /* the program waits for the last answer */
  :: skip
  fi;
  writer_open = false;
  returned;
  assert(handled == sent)
}
