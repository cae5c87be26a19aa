/* The shared latch: taken, waited for, converted, given back and handed over.
 *
 * Stands for, in sync/sqloLatchCAS32.cpp: attempt, enqueue, dequeue and Wait with look, settle, lineUp and leave; the
 * ways of giving back (fastRelease, giveBackUnderCs with afterRelease, afterDowngrade, wakeExclusive, wakeShared and
 * wake, sqloi_downgrade); in sync/sqloLatchDeath.cpp what judgeShared does to the word when nobody died; for the
 * invariants latchWordFault in sync/sqloLatchWord.h.
 *
 * Two readers and two writers, under either policy. Each request may be conditional, a writer may come by way of a
 * shared hold and may leave by way of one. A loop around compare-and-swap is one step here: what it stores is computed
 * from the very word that it replaces. Spinning repeats the first attempt and is left out, and so is the 65,536th
 * sharer. A sleep ends by a post; at most TIMEOUTS sleeps end by themselves, in many runs none: nobody needs that.
 *
 * Holds:
 *   1. Exclusive means alone.
 *   2. No word that anybody can read breaks an invariant.
 *   3. Nobody sleeps for ever: every thread comes to its end, and nothing is left behind: no bit, post or count.
 *   4. Under "No X Starvation" no shared request gets in from the moment an exclusive one stands in line until the
 *      next exclusive grant; nobody but the present holders can keep that away.
 *   5. A reservation ends with the one exclusive grant that it was made for, or that came before it.
 *
 * Faults it can make, each of which must be found:
 *   BROKEN_ENQUEUE      the waiter bit is set without another look whether the conflict is over
 *   BROKEN_STORE        a release stores what it computed from a word read earlier
 *   BROKEN_RESERVATION  the latch is not reserved for the exclusive waiter that is woken
 *   BROKEN_CONSUME      an exclusive grant leaves the reservation
 *   BROKEN_CLEAR        the bit of the shared waiters is cleared a step after the hold was given back
 *   BROKEN_PENDING      a woken exclusive waiter does not count its post down
 *   BROKEN_SEAT         who waits to become the exclusive holder sleeps among the others that wait for that, who may
 *                       take its post
 *   BROKEN_LAST         a release does not wake the last holder that waits to become the exclusive one
 *   BROKEN_UPGRADE      two shared holders may both wait to become the exclusive one
 *   BROKEN_DEQUEUE      who gets in without having been posted stays in line
 */

#define ROUNDS (writes -> 1 : 2)  /* requests of one thread */
#define TIMEOUTS 1

#define HOLDERS 7
#define HELD_X 8
#define RESERVED 16
#define WAITER_S 32
#define WAITER_X 64
#define WAITER (kind -> WAITER_X : WAITER_S)

#ifdef BROKEN_SEAT
#define SEAT kind
#define LAST 1
#else
#define SEAT (kind + own)
#define LAST 2
#endif

bool noStarvation;
byte timeouts;

byte word;
byte pending;            /* numXPostsPending */
bool cs;

byte semaphores[3];      /* of the element, by WaiterKind: 0 shared, 1 exclusive, 2 the upgrading one */
byte waiters[3];
byte attached;
bool upgrading;

byte sharers;            /* not in the code: who believes to hold the latch */
byte owners;
byte line;               /* exclusive waiters that no release has chosen yet */
bool isDue;              /* one has been chosen, no exclusive grant came since */
byte reservations;       /* that no grant has consumed */

#define HAS(bits) ((word & (bits)) != 0)
#define SOUND (!(HAS(HELD_X) && HAS(HOLDERS | RESERVED)) && \
               (noStarvation || !HAS(RESERVED)) && \
               (noStarvation || !HAS(HOLDERS) || !HAS(WAITER_S)) && \
               (!noStarvation || !HAS(HOLDERS) || !HAS(WAITER_S) || HAS(WAITER_X)))

#define MASK_S (noStarvation -> (HELD_X | RESERVED | WAITER_X) : HELD_X)
#define CONFLICTS (((word - own) & (kind -> (HELD_X | HOLDERS) : MASK_S)) != 0)

/* Within an atomic step. */
inline store(next) {
  word = next;
  assert(SOUND)
}

inline grant() {
#ifdef BROKEN_CONSUME
  store(word - own + (kind -> HELD_X : 1));
#else
  if
  :: HAS(RESERVED) -> reservations--
  :: else
  fi;
  store((word - own + (kind -> HELD_X : 1)) & ~RESERVED);
#endif
  if
  :: kind -> sharers = sharers - own; owners++; isDue = false
  :: else -> sharers++; assert(!noStarvation || (line == 0 && !isDue))
  fi;
  assert(owners == 0 || (owners == 1 && sharers == 0))
}

inline settle() {
  if
  :: queued ->
    if
    :: !posted && semaphores[SEAT] > 0 -> semaphores[SEAT]--; posted = true
    :: else
    fi;
    if
    :: posted ->
      queued = false;
      posted = false;
#ifndef BROKEN_PENDING
      if
      :: SEAT == 1 -> assert(pending > 0); pending--
      :: else
      fi
#endif
    :: else
    fi
  :: else
  fi
}

inline lineUp() {
  if
  :: !isAttached -> isAttached = true; attached++; upgrading = upgrading || own
  :: else
  fi;
  waiters[SEAT]++;
  line = line + kind;
  queued = true
}

inline leave() {
  if
  :: queued ->
#ifndef BROKEN_DEQUEUE
    waiters[SEAT]--;
    line = line - kind;
    if
    :: (kind -> waiters[1] + waiters[2] : waiters[0]) == 0 -> store(word & ~WAITER)
    :: else
    fi;
#endif
    queued = false
  :: else
  fi;
  if
  :: isAttached ->
    isAttached = false;
    attached--;
    upgrading = upgrading && !own;
    assert(attached != 0 || (semaphores[0] + semaphores[1] + semaphores[2] == 0))
  :: else
  fi
}

inline wakeExclusive() {
#ifndef BROKEN_RESERVATION
  if
  :: noStarvation -> reservations = reservations + (HAS(RESERVED) -> 0 : 1); after = after | RESERVED
  :: else
  fi;
#endif
  if
  :: pending == 0 ->
    wakes[1] = 1;
    after = (waiters[1] == 1 -> after & ~WAITER_X : after)
  :: else
  fi
}

inline wakeShared() {
#ifdef BROKEN_CLEAR
  clears = WAITER_S;
#else
  after = after & ~WAITER_S;
#endif
  wakes[0] = waiters[0]
}

inline afterRelease() {
  if
#ifndef BROKEN_LAST
  :: (after & HOLDERS) == 1 && upgrading && waiters[LAST] != 0 -> wakes[LAST] = waiters[LAST]
#endif
  :: else ->
    if
    :: (after & HOLDERS) != 0
    :: else ->
      after = (waiters[1] == 0 -> after & ~WAITER_X : after);
      if
      :: (after & WAITER_X) != 0 && (noStarvation || waiters[0] == 0) -> wakeExclusive()
      :: else -> wakeShared()
      fi
    fi
  fi
}

inline afterDowngrade() {
  after = (waiters[1] == 0 -> after & ~WAITER_X : after);
  if
  :: noStarvation && (after & WAITER_X) != 0
  :: else -> wakeShared()
  fi
}

proctype Thread(bool writes) {
  byte rounds, after, wakes[3];
  bool kind, own, conditional, converts, queued, posted, isAttached, wasWaiter;
#ifdef BROKEN_CLEAR
  byte clears;
#endif

round:
  atomic {
    if
    :: rounds == ROUNDS -> goto done
    :: else -> rounds++
    fi;
    own = 0;
    if
    :: conditional = true
    :: conditional = false
    fi;
    if
    :: writes -> kind = 1; converts = false
    :: writes -> kind = 0; converts = true
    :: !writes -> kind = 0; converts = false
    fi
  }

request:
  atomic {
    if
    :: !CONFLICTS -> grant(); goto held
    :: CONFLICTS && conditional && !converts -> goto refused
    :: CONFLICTS && !(conditional && !converts)
    fi
  }

look:
  atomic { !cs -> cs = true; settle() }
enqueue:
  atomic {
    if
    :: !CONFLICTS -> grant(); goto granted
    :: else
    fi
  }
  atomic {
#ifndef BROKEN_ENQUEUE
    if
    :: !CONFLICTS -> goto enqueue
    :: else
    fi;
#endif
    store(word | WAITER)
  }
  atomic {
    if
#ifndef BROKEN_UPGRADE
    :: own && !isAttached && upgrading -> cs = false; goto refused
#endif
    :: else
    fi;
    if
    :: !queued -> lineUp()
    :: else
    fi;
    cs = false
  }
  if
  :: atomic { semaphores[SEAT] > 0 -> semaphores[SEAT]--; posted = true; goto look }
  :: atomic { timeouts > 0 -> timeouts-- }
  fi;
  /* Woken by itself: looks whether the holders live. */
  atomic { !cs -> cs = true; wasWaiter = HAS(WAITER_X); store(word | WAITER_X) }
  atomic {
    if
    :: !wasWaiter -> store(word & ~WAITER_X)
    :: else
    fi;
    cs = false; wasWaiter = false;
    goto look
  }

granted:
  atomic { leave(); cs = false }

held:
  atomic {
    if
    :: converts -> converts = false; own = 1; kind = 1; goto request
    :: kind && !own -> goto give
    :: kind -> goto downgrade
    :: kind -> goto give
    :: !kind && !converts -> goto give
    fi
  }

refused:
  atomic {
    if
    :: own -> kind = 0; own = 0; goto give
    :: else -> goto round
    fi
  }

downgrade:
  atomic {
    owners--; sharers++; own = 0;
    if
    :: word == HELD_X -> store(1); kind = 0; goto give
    :: else
    fi
  }
  atomic { !cs -> cs = true }
  atomic {
    after = word - HELD_X + 1;
    kind = 0;
    afterDowngrade();
    store(after);
    own = 1;
    goto wake
  }

give:
#ifdef BROKEN_STORE
  after = word;
#endif
  atomic {
    if
    :: kind -> owners--
    :: else -> sharers--
    fi;
    own = 0;
#ifdef BROKEN_STORE
    if
    :: (after & ~(HOLDERS | HELD_X)) == 0 -> store(after - (kind -> HELD_X : 1)); after = 0; goto round
#else
    if
    :: !HAS(~(HOLDERS | HELD_X)) -> store(word - (kind -> HELD_X : 1)); goto round
#endif
    :: else
    fi
  }
  atomic { !cs -> cs = true }
  atomic {
    after = word - (kind -> HELD_X : 1);
    afterRelease();
    line = line - wakes[1] - wakes[2];
    isDue = isDue || wakes[1] + wakes[2] != 0;
    store(after)
  }
wake:
  atomic {
#ifdef BROKEN_CLEAR
    store(word & ~clears);
    clears = 0;
#endif
    waiters[0] = waiters[0] - wakes[0];
    waiters[1] = waiters[1] - wakes[1];
    waiters[2] = waiters[2] - wakes[2];
    semaphores[0] = semaphores[0] + wakes[0];
    semaphores[1] = semaphores[1] + wakes[1];
    semaphores[2] = semaphores[2] + wakes[2];
    pending = pending + wakes[1];
    wakes[0] = 0; wakes[1] = 0; wakes[2] = 0; after = 0;
    cs = false;
    if
    :: own -> goto give
    :: else -> goto round
    fi
  }

done:
  skip
}

init {
  atomic {
    if
    :: noStarvation = true
    :: noStarvation = false
    fi;
    if
    :: timeouts = 0
    :: timeouts = TIMEOUTS
    fi;
    run Thread(false); run Thread(false); run Thread(true); run Thread(true)
  }
  (_nr_pr == 1);
  assert(word == 0 && pending == 0 && !cs && attached == 0 && !upgrading && waiters[0] + waiters[1] + waiters[2] == 0);
  assert(semaphores[0] + semaphores[1] + semaphores[2] == 0 && reservations == 0)
}
