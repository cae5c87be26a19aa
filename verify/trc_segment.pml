/* A segment of the trace ring: taken, written, left, given back after a death, read meanwhile.
 *
 * Stands for, in platform/: searchSegment, openSegment, writeRecord and leaveSegment (trcapi.cpp), trcSweep with
 * freeSegment and regionOwnerLives (trcapi.cpp, region.cpp), the reading of a segment between two looks at its guard
 * (trc_reader.cpp, copySegment in trc_ring.cpp).
 *
 * Two process slots, one of them used by two processes one after the other, fight for one segment with room for two
 * records.
 * Every process may be killed at every step, or stand still for as long as it likes. Steps are seen by all in one
 * order: what the code asks of the processor (release, acquire) is taken as given here.
 *
 * Holds:
 *   1. A segment has one writer. One that stood still and goes on later still owns it.
 *   2. A segment whose writer is dead is never taken for a living one's, so none is lost for ever. While a new process
 *      moves into the slot, between its lock and its generation, it may seem to be: the next sweep tells.
 *   3. A reader whose two looks at the guard agree finds the id and whole records of that use, then a zero.
 *
 * Faults it can make, each of which must be found:
 *   BROKEN_GENERATION   the owner word does not tell the processes of a slot apart
 *   BROKEN_LIVENESS     the sweep takes a process that stands still for dead
 *   BROKEN_NUMBER       the sweep asks whether a process of that number exists, not for the lock
 *   BROKEN_GUARD        a segment is written anew while its guard still tells the old use
 *   BROKEN_HEAD         a record's head is stored before its words
 *   BROKEN_ZERO         a record's head is stored before the zero behind it
 */

#define SLOTS 2
#define LIVES(slot) (2 - slot)
#define TAKES 1
#define RECORDS 2

byte owner;              /* 0 free, else the owner word of a process */
byte guard;              /* sequence of this use; 0 while it is being replaced */
byte id;                 /* whose it is since when: the sequence stands for all of it */
byte head[RECORDS + 1];  /* 0, or the sequence that the record was summed with */
byte word[RECORDS + 1];  /* the rest of the record: the sequence it was written in */
byte lastSequence;

bool locked[SLOTS];      /* the record lock on a slot's byte */
byte generation[SLOTS];
bool killed[SLOTS];
bool movedIn[SLOTS];     /* not in the code: between a process's generation and its death */

byte writers;            /* not in the code: how many believe that the segment is theirs */

#ifdef BROKEN_GENERATION
#define OWNER(slot) (slot + 1)
#define GENERATION_IS_CURRENT(word) true
#else
#define OWNER(slot) (generation[slot] * SLOTS + slot + 1)
#define GENERATION_IS_CURRENT(word) (generation[(word - 1) % SLOTS] == (word - 1) / SLOTS)
#endif

inline writeOne(at, sequence) {
#ifdef BROKEN_HEAD
  head[at + 1] = 0;
  head[at] = sequence;
  word[at] = sequence;
#else
  word[at] = sequence;
#ifdef BROKEN_ZERO
  head[at] = sequence;
  head[at + 1] = 0;
#else
  head[at + 1] = 0;
  head[at] = sequence;
#endif
#endif
}

proctype Writer(byte slot) {
  byte me, sequence, takes, lives;
  bool writing;
life:
  {
    locked[slot] = true;
    atomic { generation[slot]++; movedIn[slot] = true };
    me = OWNER(slot);
    takes = 0;
    do
    :: takes < TAKES ->
      atomic { owner == 0 -> owner = me; writers++; writing = true; assert(writers == 1) };
#ifndef BROKEN_GUARD
      guard = 0;
#endif
      atomic { lastSequence++; sequence = lastSequence };
      id = sequence;
      head[0] = 0;
      guard = sequence;
      writeOne(0, sequence);
      writeOne(1, sequence);
      atomic { owner = 0; writers--; writing = false; takes++ }
    :: break
    od
  } unless {
    killed[slot]
  }
  /* However it ended: the kernel drops the lock. */
  atomic {
    locked[slot] = false;
    movedIn[slot] = false;
    killed[slot] = false;
    me = 0; sequence = 0; takes = 0;
    if
    :: writing -> writing = false; writers--
    :: else
    fi;
    lives++
  }
  if
  :: lives < LIVES(slot) -> goto life
  :: else
  fi
}

proctype Killer() {
  byte victim;
  do
  :: atomic { locked[0] && !killed[0] -> killed[0] = true }
  :: atomic { locked[1] && !killed[1] -> killed[1] = true }
  :: break
  od
}

/* Whether the owner of a word lives. By its number alone it may seem to: a stranger may have been given the number. */
#ifdef BROKEN_NUMBER
#define ALIVE(word) GENERATION_IS_CURRENT(word)
#else
#define ALIVE(word) (GENERATION_IS_CURRENT(word) && locked[(word - 1) % SLOTS])
#endif

#define MOVING_IN(word) (locked[(word - 1) % SLOTS] && !movedIn[(word - 1) % SLOTS])

/* One sweeper at a time works in the instance: it holds the region lock. */
proctype Sweeper() {
  byte seen;
end:
  do
  :: atomic { owner != 0 -> seen = owner };
#ifndef BROKEN_LIVENESS
    if
    :: atomic { ALIVE(seen) -> assert(owner != seen || writers == 1 || MOVING_IN(seen)); seen = 0 }
    :: atomic { !GENERATION_IS_CURRENT(seen) || !locked[(seen - 1) % SLOTS] -> skip }
    fi;
#endif
    atomic {
      if
      :: seen != 0 && owner == seen -> owner = 0
      :: else
      fi;
      seen = 0
    }
  od
}

proctype Reader() {
  byte before, at, recordHead;
  bool sound;
end:
  do
  :: atomic { guard != 0 -> before = guard };
    sound = (id == before);
record:
    atomic {
      recordHead = head[at];
      if
      :: at == RECORDS || recordHead == 0 -> goto done
      :: else
      fi
    }
    atomic { sound = sound && recordHead == before && word[at] == before; at++; goto record };
done:
    atomic { assert(guard != before || sound); before = 0; at = 0; recordHead = 0; sound = false }
  od
}

init {
  atomic { run Writer(0); run Writer(1); run Killer(); run Sweeper(); run Reader() }
}
