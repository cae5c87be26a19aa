/* Appending to a file under a robust mutex that dies with its owner.
 *
 * Stands for, in platform/append_file.cpp: takeMutex, endsAsKnown or meet with repairFrom, writeNoted with writeWhole, and
 * the unlock at the end of attempt.
 *
 * Two writers with two lives each append one record a life. A record is written in two halves: a kill, or a full disk,
 * may come between them. Every writer may be killed at every step, or stand still for as long as it likes; cutting half
 * a record off may be refused. Steps are seen by all in one order: the mutex gives that.
 *
 * Holds:
 *   1. One writer at a time writes, and the offset in a record's identifier is where it begins.
 *   2. A record whose writer was answered 0 is in the file, whole and once; any other is there once or not at all.
 *   3. Half a record is cut off, or followed by the line that says so, by the next owner of the mutex.
 *
 * Faults it can make, each of which must be found:
 *   BROKEN_INTENT   the intent is noted behind the first half
 *   BROKEN_REPAIR   the next owner does not look at what a dead one noted
 *   BROKEN_CLEAR    the intent is taken back before the second half
 *   BROKEN_PART     a writer that could not cut off its own half takes its intent back
 *   BROKEN_OWNER    the mutex is taken from a writer that stands still
 *   BROKEN_SIZE     the size is asked for before the mutex is held
 */

#define SLOTS 2
#define LIVES 2
#define RECORDS 4
#define HALVES 2
#define CELLS 14
#define MARK 9

byte cell[CELLS];        /* what stands in the file, half a record each */
byte size;

byte mutex;              /* 0 free, else the slot of its owner + 1 */
byte intentOffset;
bool intent;             /* in the code: a length that is not 0 */

bool answered[RECORDS];  /* not in the code: what the callers know */
bool runs[SLOTS];
bool killed[SLOTS];
byte writers;
byte ended;

inline append(value) { cell[size] = value; size++ }

inline take(who) {
#ifdef BROKEN_OWNER
  mutex = who
#else
  atomic { mutex == 0 -> mutex = who }
#endif
}

inline look() {
#ifdef BROKEN_SIZE
  skip
#else
  offset = size
#endif
}

inline repair() {
#ifndef BROKEN_REPAIR
  if
  :: intent ->
    if
    :: offset > intentOffset && offset < intentOffset + HALVES ->
      if
      :: atomic { size = intentOffset; offset = size }
      :: atomic { append(MARK); offset = size }
      fi
    :: else
    fi;
    intent = false
  :: else
  fi
#else
  skip
#endif
}

inline note() { intentOffset = offset; intent = true }

inline forget() { intent = false }

proctype Writer(byte slot) {
  byte offset, lives, record;
  bool writing;
life:
  {
    record = slot * LIVES + lives;
    runs[slot] = true;
    offset = size;
    take(slot + 1);
    look();
    repair();
#ifndef BROKEN_INTENT
    note();
#endif
    atomic { writers++; writing = true; assert(writers == 1); assert(offset == size); append(record + 1) };
#ifdef BROKEN_INTENT
    note();
#endif
#ifdef BROKEN_CLEAR
    forget();
#endif
    if
    :: atomic { append(record + 1); writers--; writing = false };
      forget();
      atomic { mutex = 0; answered[record] = true }
    :: atomic { size = offset; writers--; writing = false };  /* the disk is full, and the half cut off */
      forget();
      mutex = 0
    :: atomic { writers--; writing = false };                 /* or not cut off: left to the next owner */
#ifdef BROKEN_PART
      forget();
#endif
      mutex = 0
    fi
  } unless {
    killed[slot]
  }
  /* However it ended: the kernel hands the mutex on. */
  atomic {
    if
    :: mutex == slot + 1 -> mutex = 0
    :: else
    fi;
    if
    :: writing -> writing = false; writers--
    :: else
    fi;
    runs[slot] = false;
    killed[slot] = false;
    offset = 0;
    lives++
  }
  if
  :: lives < LIVES -> goto life
  :: else -> ended++
  fi
}

proctype Killer() {
  byte victim;
  do
  :: atomic { runs[0] && !killed[0] -> killed[0] = true }
  :: atomic { runs[1] && !killed[1] -> killed[1] = true }
  :: break
  od
}

/* The next owner, after which the file must be in order. */
proctype Last() {
  byte offset, at, record;
  byte count[RECORDS];
  ended == SLOTS;
  take(SLOTS + 1);
  offset = size;
  repair();
  d_step {
    do
    :: at < size ->
      assert(at + 1 < size && cell[at] != MARK);
      if
      :: cell[at + 1] == cell[at] -> count[cell[at] - 1]++
      :: else -> assert(cell[at + 1] == MARK)
      fi;
      at = at + HALVES
    :: else -> break
    od;
    record = 0;
    do
    :: record < RECORDS ->
      assert(count[record] <= 1 && (count[record] == 1 || !answered[record]));
      record++
    :: else -> break
    od
  }
}

init {
  atomic { run Writer(0); run Writer(1); run Killer(); run Last() }
}
