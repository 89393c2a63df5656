/*
 * registry.pml - the answers that threads remember about handles.
 *
 * Three addresses, all in one group of the counts and all in one entry of a thread's
 * memory. This is the worst case: real addresses can share both. Two threads add and
 * remove, so that an address is reused; a third asks.
 *
 * Claims
 *   1. Every answer, remembered or not, was right at some moment of the call that
 *      returned it. So no answer is older than a change that the asking thread can know
 *      of: such a change was complete before the call began.
 *   2. No thread waits for ever for the registry's lock.
 *
 * Left out: weaker memory ordering (here all threads see every step immediately; the
 * library stores a count with release and loads it with acquire), counts that wrap
 * around after 2^63 changes.
 *
 * What stands for what
 *   Changer       registry::Enter, Leave: EnterSet, LeaveSet, CountAdded, CountRemoved
 *   Asker         registry::Ask: KnownHandles::Recall, then AskSet, Remember
 *   in_set        the set of one family; changed with the mutex held
 *   added,removed the counts of one group (Changes)
 *   known_*       one entry of the asking thread's Memory (KnownHandles)
 *   live          the truth: it changes where the change can first be known, at the
 *                 step that moves the count
 *
 * Runs
 *   holds
 *   refuted  -DCOUNTS_ONE_KIND       assertion violated
 *   refuted  -DCOUNTS_NO_REMOVAL     assertion violated
 *   refuted  -DREMEMBERS_UNLOCKED    assertion violated
 *   refuted  -DCOUNTS_UNLOCKED       assertion violated
 *   refuted  -DIGNORES_THE_ADDRESS   assertion violated
 *   refuted  -DKEEPS_THE_LOCK        invalid end state
 */
#define ADDRESSES 3
#define CHANGES 3 /* of each changing thread */
#define ASKS 3

bool in_set[ADDRESSES];
bool live[ADDRESSES];
byte added = 0;
byte removed = 0;
bool locked = false;

inline Lock() { atomic { !locked -> locked = true } }
inline Unlock() { locked = false }

inline Since(valid, count) {
#ifdef COUNTS_ONE_KIND
  count = added;
#else
  count = (valid -> removed : added);
#endif
}

/* The count and, for the claim, the moment when the change becomes known. */
inline CountRemoved() {
#ifdef COUNTS_NO_REMOVAL
  live[a] = false
#else
  count = removed;
  d_step {
    removed = count + 1;
    live[a] = false
  }
#endif
}

inline CountAdded() {
  count = added;
  d_step {
    added = count + 1;
    live[a] = true
  }
}

/* Each changing thread has its own addresses, as an object has one owner. */
proctype Changer(byte low; byte high) {
  byte changes = 0;
  byte count = 0;
  byte a = 0;
  do
  :: changes < CHANGES ->
     changes++;
     select(a : low..high);
     Lock();
     if
     :: in_set[a] ->
        in_set[a] = false;
#ifdef COUNTS_UNLOCKED
        Unlock();
        CountRemoved();
        goto next
#else
        CountRemoved()
#endif
     :: else ->
        in_set[a] = true;
        CountAdded()
     fi;
     Unlock();
next:
     count = 0
  :: else -> break
  od
}

proctype Asker() {
  byte asks = 0;
  byte a = 0;
  byte known_address = 255;
  byte known_count = 0;
  byte count = 0;
  bool known_valid = false;
  bool valid = false;
  do
  :: asks < ASKS ->
     asks++;
     select(a : 0..2);
     if
#ifdef IGNORES_THE_ADDRESS
     :: known_address != 255 ->
#else
     :: known_address == a ->
#endif
        /* Recall: one load of a count */
        d_step {
          Since(known_valid, count);
          valid = (count == known_count);
          assert(!valid || live[a] == known_valid)
        };
        if
        :: valid -> goto answered
        :: else
        fi
     :: else
     fi;
     Lock();
     d_step {
       valid = in_set[a];
#ifndef COUNTS_UNLOCKED
       assert(valid == live[a]);
#endif
     };
#ifdef REMEMBERS_UNLOCKED
     Unlock();
#endif
     Since(valid, count);
     known_address = a;
     known_valid = valid;
     known_count = count;
#ifndef REMEMBERS_UNLOCKED
#ifndef KEEPS_THE_LOCK
     Unlock();
#endif
#endif
answered:
     valid = false;
     count = 0
  :: else -> break
  od
}

init {
  atomic {
    run Changer(0, 0);
    run Changer(1, 2);
    run Asker()
  }
}
