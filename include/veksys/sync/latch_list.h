// Who holds and who awaits which latch, in all processes of an instance.
//
// The list is read from shared memory, without the help of the processes it tells of: one that is stopped or hangs is
// shown like any other, and what a dead one left is marked. Nothing is locked, so that threads go on meanwhile: the
// list is true entry by entry, each for the moment it was read.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"

// What the thread of an entry does with the latch.
enum SqloLatchEntryState : std::uint32_t {
  SQLO_LATCH_ENTRY_HELD = 1,
  SQLO_LATCH_ENTRY_WAITING = 2,
};

// One latch of one thread.
struct SqloLatchEntry {
  std::uint64_t latch;  // its address; in memory of one process it means something there only
  std::uint32_t processId;
  std::uint32_t threadId;
  char processName[32];  // terminated, like all texts here
  char threadName[16];
  std::uint32_t state;    // SqloLatchEntryState
  std::uint32_t request;  // SQLO_LATCH_SHARED or SQLO_LATCH_EXCLUSIVE
  std::uint32_t typeId;
  std::uint32_t line;
  char file[256];  // empty: not known
  std::uint8_t isBetweenProcesses;
  std::uint8_t processIsDead;
  std::uint8_t threadHasEnded;  // it ended with the latch held
  std::uint8_t hasSince;
  std::int64_t sinceNs;    // when hasSince: the time, in the clock of CLOCK_MONOTONIC, since when it holds or waits
  std::uint64_t sequence;  // the same number at a later look: it is still the same hold or wait
  std::uint64_t owner;     // tells processes apart, also those whose number was used again
};

extern "C" {

// Reads the list of the instance that this process belongs to.
//
//   entries, room   receives up to `room` entries; null with 0 to count
//   count           how many there are, also those without room
//   Result          0; SQLO_INV_PARM: no `count`
//                   SQLO_REGION_... when the process shares no region: the list is that of this process then
//   Threads         any
VEK_EXPORT SqlzZrc sqloListLatches(SqloLatchEntry* entries, std::size_t room, std::size_t* count) noexcept;

}  // extern "C"
