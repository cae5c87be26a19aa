// Which memory an instance has: the sets, pools and consumers of all its processes.
//
// The list is read from shared memory, without the help of the processes it tells of: one that is stopped or hangs is
// shown like any other, and what a dead one left is marked. Nothing is locked, so that threads go on meanwhile: the
// list is true entry by entry, each for the moment it was read. Sums may be off by what was on its way; a second look
// settles that.
//
// Counters of sets, and the chunks of pools, are those of the moment. The bytes in use of a pool may lag behind by less
// than 5 KB; blocks that threads keep for fast reuse count as used.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/memory/controller.h"
#include "veksys/memory/pool.h"
#include "veksys/memory/set.h"
#include "veksys/types.h"

// What an entry tells of.
enum SqloMemEntryKind : std::uint32_t {
  SQLO_MEM_ENTRY_SET = 1,
  SQLO_MEM_ENTRY_POOL = 2,        // a base pool, its sub-pools included
  SQLO_MEM_ENTRY_CONSUMER = 3,    // of the memory controller
  SQLO_MEM_ENTRY_CONNECTION = 4,  // a process that is connected to a shared set
};

// One set, pool, consumer or connection. All sizes are bytes; what does not apply to a kind is 0.
struct SqloMemEntry {
  std::uint32_t kind;    // SqloMemEntryKind
  std::uint32_t typeId;  // SqloMemSetType, SqloMemPoolId, SqloMemConsumerKind
  std::uint64_t
      set;  // tells sets apart; of a pool and a connection: theirs; of a consumer: the set that it counts, or 0
  std::uint64_t
      owner;  // tells processes apart, also those whose number was used again; 0: a shared set, or a pool in one
  std::uint32_t processId;  // that it belongs to; of shared sets and their pools: that made it
  std::uint32_t options;    // SQLO_SET_... or SQLO_POOL_...
  char processName[32];     // terminated, like all texts here; cut to 22 characters
  char name[64];            // of the set, the pool id, the consumer
  std::uint8_t isShared;
  std::uint8_t processIsDead;  // its memory, unless it is shared, has gone with it
  std::uint32_t refusals;      // requests that a pool could not meet
  std::uint64_t limitBytes;    // up to which a set or pool grows
  std::uint64_t sizeBytes;     // reserved by a set, owned by a pool, granted to a consumer
  std::uint64_t committedBytes;
  std::uint64_t usedBytes;  // of a set: in chunks handed out; of a pool: in blocks, headers included
  std::uint64_t peakBytes;  // the most a set ever handed out, a pool owned, a consumer was granted
  std::uint64_t keptBytes;  // whole chunks that a set or pool keeps for fast reuse, what a consumer could release
};

extern "C" {

// Reads the list of the instance that this process belongs to.
//
//   entries, room   receives up to `room` entries; null with 0 to count
//   count           how many there are, also those without room
//   controller      when given, gets what the memory controller counts
//   Result          0; SQLO_INV_PARM: count is null; SQLO_REGION_... when the process shares no region: the list is
//   that
//                   of this process then
//   Threads         any; takes no latch
VEK_EXPORT SqlzZrc sqloListMemory(SqloMemEntry* entries, std::size_t room, std::size_t* count,
                                  SqloMemPartitionStats* controller) noexcept;

}  // extern "C"
