/* A latch whose holder was killed: found, and repaired, refused or reported.
 *
 * Stands for, in sync/sqloLatchTable.h: the order of a mark and the word (latchPublish, latchWithdraw); in
 * sync/sqloLatchDeath.cpp: judgeShared with freezeHolders, takeCensus, takeOverExclusive, takeBackShared and clearGone,
 * and judgeSpin for the cs, which is a spin latch and has holders that die as well; in sync/sqloLatchCAS32.cpp: who
 * takes the two, and when.
 *
 * Three threads, each a process, capture once: exclusively, the second in either mode; the first only tries. The first
 * and the second are killed between any two steps, or are not. Repair and refusal are open each time; a panic ends a
 * rescue as a refusal does. The latch lets readers pass; who wakes whom is left to latch_cas32.pml: here a waiter sees
 * by itself that its conflict is over. A sharer that takes a dead one's exclusive hold over keeps it so.
 *
 * Looking again and again at what does not change shows nothing new. The third looks LOOKS times at any moment, and
 * each once more whenever all others sleep, are gone or have come to their end. When nobody can move after that,
 * somebody hangs.
 *
 * Holds:
 *   1. A living holder is never taken for dead: what is taken over or taken back was a dead one's.
 *   2. Exclusive means alone; who gets the latch never finds data that a dead one left half changed.
 *   3. What one dead holder left is repaired once.
 *   4. Nobody waits for ever: with a living thread left, it gets the latch, is refused, or stops.
 *
 * Faults it can make, each of which must be found:
 *   BROKEN_INTENT    the mark is published when the word has been taken
 *   BROKEN_WITHDRAW  the mark is taken away before the word is given back
 *   BROKEN_FREEZE    the marks are counted while holders may leave
 *   BROKEN_WATCH     the cs is taken over without another look whether its holder is the one that was counted
 *   BROKEN_ORDER     the marks of the dead are cleared before the rescuer's says that it holds
 *   BROKEN_LOCK      two look at a time
 *   BROKEN_SKIP      a mark that changes while it is read is passed over
 */

#define THREADS 3
#define LOOKS 1

#define FREE 0
#define ACTIVE 1
#define WAITING 2
#define TIMED 4          /* beside ACTIVE */
#define IS_ACTIVE(mark) (((mark) & 3) == ACTIVE)

#define LATCH 1
#define CS 2

bool heldX;              /* the word */
byte sharers;
bool waiterBit;          /* of the word; while it is set who gives back needs the cs */
byte cs;                 /* 0 free, 1 held, 2 held and watched */
byte mark[THREADS];
byte csMark[THREADS];
byte region;             /* who has the region lock, plus one; the system takes it from the dead */

bool dead[THREADS];
bool rests[THREADS];     /* asleep, dead or at its end */
byte looked[THREADS];    /* at what (LATCH, CS), while all others rested; nothing has changed since */
byte looks;

byte owner;              /* not in the code: who holds the word exclusively, plus one */
bool shares[THREADS];
byte holder;             /* of the cs, plus one */
bool damaged;            /* the data */

#define CONFLICTS (heldX || (exclusive && sharers != 0))
#define QUIET(level) (rests[(self + 1) % THREADS] && rests[(self + 2) % THREADS] && (looked[self] & level) == 0)

inline changed() { looked[0] = 0; looked[1] = 0; looked[2] = 0 }

inline take() {
  assert(!damaged && owner == 0);
  if
  :: exclusive -> assert(!shares[0] && !shares[1] && !shares[2]); heldX = true; owner = self + 1
  :: else -> sharers++; shares[self] = true
  fi;
  changed()
}

inline give() {
  if
  :: exclusive -> assert(owner == self + 1); heldX = false; owner = 0
  :: else -> assert(shares[self]); sharers--; shares[self] = false
  fi;
  changed()
}

inline ownCs() {
  assert(holder == 0 || dead[holder - 1]);
  holder = self + 1
}

/* Within the census, where each mark is read, read again, and its owner asked for. */
#define NEXT at++; seen = FREE

inline clearMark(which) {
  which = FREE;
  changed()
}

inline takeBack(whose) {
  if
  :: sharers != seen && dead[whose] && shares[whose] -> sharers--; shares[whose] = false
  :: else
  fi
}

inline forget() {
  at = 0; seen = FREE; living = 0; gone = 0; goneWaiters = 0; lost = 0;
  wordX = false; wordS = 0; hadBit = false
}

inline sleepUntil(condition, level) {
  atomic { rests[self] = true }
  if
  :: atomic { condition -> rests[self] = false; rescues = false }
  :: atomic { self == 2 && looks > 0 -> looks--; rests[self] = false; rescues = true }
  :: atomic { QUIET(level) -> looked[self] = looked[self] | level; rests[self] = false; rescues = true }
  fi
}

proctype Thread(byte self) {
  byte at, seen, living, gone, goneWaiters, lost, back;
  bool exclusive, rescues, wordX, hadBit;
  byte wordS;

{
  if
  :: exclusive = true
  :: self == 1 -> exclusive = false
  fi;
#ifndef BROKEN_INTENT
  mark[self] = ACTIVE;
#endif
  atomic {
    if
    :: !CONFLICTS -> take(); goto held
    :: CONFLICTS && self == 0 -> goto withdraw
    :: CONFLICTS && self != 0
    fi
  }
#ifdef BROKEN_INTENT
  mark[self] = ACTIVE;
#endif

look:
  back = 0; goto wantCs;
haveLook:
  mark[self] = ACTIVE;
  atomic {
    if
    :: !CONFLICTS -> take(); back = 3; goto giveCs
    :: else
    fi
  }
  mark[self] = WAITING;
  atomic {
    if
    :: !CONFLICTS -> goto haveLook
    :: else -> waiterBit = true; back = 4; goto giveCs
    fi
  }
asleep:
  sleepUntil(!CONFLICTS, LATCH);
  if
  :: atomic { !rescues -> goto look }
  :: atomic { rescues -> rescues = false; back = 1; goto wantCs }
  fi;

haveRescue:
#ifndef BROKEN_LOCK
  atomic {
    if
    :: region == 0 -> region = self + 1
    :: else -> back = 5; goto giveCs
    fi
  }
#endif
  atomic {
    wordX = heldX; wordS = sharers; hadBit = waiterBit;
#ifndef BROKEN_FREEZE
    waiterBit = true;
#endif
    at = 0; living = 0; gone = 0; goneWaiters = 0
  }
  do
  :: at == THREADS -> break
  :: atomic { at < THREADS && (at == self || mark[at] == FREE) -> at++ }
  :: atomic { at < THREADS && at != self && mark[at] != FREE -> seen = mark[at] }
    atomic {
      if
#ifdef BROKEN_SKIP
      :: mark[at] != seen -> NEXT
#else
      :: mark[at] != seen -> seen = FREE
#endif
      :: mark[at] == seen && seen == WAITING -> goneWaiters = goneWaiters + dead[at]; NEXT
      :: mark[at] == seen && IS_ACTIVE(seen) -> gone = gone + dead[at]; living = living + !dead[at]; NEXT
      fi
    }
  od;
  atomic {
    at = 0;
    lost = (gone != 0 && wordS > living -> wordS - living : 0);
    if
    :: wordX && living == 0 && gone != 0 -> goto isLost
    :: !(wordX && living == 0 && gone != 0) && lost == 0 && goneWaiters == 0 ->
      waiterBit = waiterBit && hadBit; region = 0; forget(); back = 5; goto giveCs
    :: else ->
      seen = sharers - lost;
      takeBack(0); takeBack(1); takeBack(2);
      assert(sharers == seen);
      seen = FREE;
      changed()
    fi
  }
  do
  :: at == THREADS -> break
  :: atomic { at < THREADS && (at == self || !dead[at] || mark[at] == FREE) -> at++ }
  :: atomic { at < THREADS && at != self && dead[at] && mark[at] == WAITING -> clearMark(mark[at]); at++ }
  :: atomic {
      at < THREADS && at != self && dead[at] && IS_ACTIVE(mark[at]) ->
      if
      :: lost != 0 -> lost--; clearMark(mark[at])
      :: else
      fi;
      at++
    }
  od;
  atomic { waiterBit = false; region = 0; forget(); back = 5; goto giveCs }

isLost:
  atomic {
    assert(owner != 0 && dead[owner - 1] && damaged);
    if
    :: waiterBit = false; region = 0; forget(); back = 6; goto giveCs
    :: skip
    fi
  }
#ifndef BROKEN_ORDER
  atomic { mark[self] = ACTIVE; owner = self + 1 }
#endif
  do
  :: at == THREADS -> break
  :: atomic { at < THREADS && (at == self || !dead[at] || mark[at] == FREE) -> at++ }
  :: atomic { at < THREADS && at != self && dead[at] && mark[at] != FREE -> clearMark(mark[at]); at++ }
  od;
#ifdef BROKEN_ORDER
  atomic { mark[self] = ACTIVE; owner = self + 1 }
#endif
  atomic { waiterBit = false; region = 0; forget(); back = 7; goto giveCs }
repair:
  atomic { assert(damaged && owner == self + 1); damaged = false; exclusive = true; goto held }

held:
  mark[self] = ACTIVE + TIMED;   /* since when */
#ifdef BROKEN_WITHDRAW
  mark[self] = FREE;
#endif
  atomic {
    if
    :: !waiterBit -> give(); goto withdraw
    :: else
    fi
  }
  back = 2; goto wantCs;
haveRelease:
  atomic { give(); waiterBit = waiterBit && (heldX || sharers != 0); back = 8; goto giveCs }
withdraw:
  atomic { clearMark(mark[self]); goto done }

/* ---- the cs ---------------------------------------------------------------------------------------------------- */

wantCs:
  csMark[self] = ACTIVE;
  atomic {
    if
    :: cs == 0 -> cs = 1; ownCs(); goto haveCs
    :: else
    fi
  }
restCs:
  csMark[self] = WAITING;
  sleepUntil(cs == 0, CS);
  if
  :: atomic { !rescues -> goto wantCs }
  :: atomic { rescues -> rescues = false }
  fi;
#ifndef BROKEN_LOCK
  atomic {
    if
    :: region == 0 -> region = self + 1
    :: else -> goto restCs
    fi
  }
#endif
  atomic {
    if
    :: cs == 0 -> region = 0; goto restCs
    :: else -> cs = 2; at = 0; living = 0; gone = 0
    fi
  }
  do
  :: at == THREADS -> break
  :: atomic { at < THREADS && (at == self || !IS_ACTIVE(csMark[at])) -> at++ }
  :: atomic {
      at < THREADS && at != self && IS_ACTIVE(csMark[at]) ->
      gone = gone + dead[at];
      living = living + !dead[at];
      at++
    }
  od;
  atomic {
    at = 0;
    if
#ifdef BROKEN_WATCH
    :: gone == 0 || living != 0 -> region = 0; forget(); goto restCs
#else
    :: cs != 2 || gone == 0 || living != 0 -> region = 0; forget(); goto restCs
#endif
    :: else
    fi
  }
#ifndef BROKEN_ORDER
  atomic { csMark[self] = ACTIVE; ownCs() }
#endif
  do
  :: at == THREADS -> break
  :: atomic { at < THREADS && (at == self || !dead[at] || csMark[at] == FREE) -> at++ }
  :: atomic { at < THREADS && at != self && dead[at] && csMark[at] != FREE -> clearMark(csMark[at]); at++ }
  od;
#ifdef BROKEN_ORDER
  atomic { csMark[self] = ACTIVE; ownCs() }
#endif
  atomic { region = 0; forget() }
  waiterBit = false;       /* the queue is restored */

haveCs:
  if
  :: back == 0 -> goto haveLook
  :: back == 1 -> goto haveRescue
  :: back == 2 -> goto haveRelease
  fi;

giveCs:
  atomic { assert(holder == self + 1); cs = 0; holder = 0 }
  atomic {
    csMark[self] = FREE;
    if
    :: back == 3 -> back = 0; goto held
    :: back == 4 -> back = 0; goto asleep
    :: back == 5 -> back = 0; goto look
    :: back == 6 -> clearMark(mark[self]); goto done
    :: back == 7 -> back = 0; goto repair
    :: back == 8 -> back = 0; goto withdraw
    fi
  }

done:
  atomic { rests[self] = true; exclusive = false; back = 0 }
} unless { dead[self] }
}

inline kill(victim) {
  !dead[victim] && (mark[victim] != FREE || csMark[victim] != FREE) ->
  dead[victim] = true;
  rests[victim] = true;
  region = (region == victim + 1 -> 0 : region);
  damaged = damaged || owner == victim + 1;
  changed()
}

init {
  atomic {
    looks = LOOKS;
    run Thread(0); run Thread(1); run Thread(2)
  }
end:
  do
  :: atomic { kill(0) }
  :: atomic { kill(1) }
  od
}
