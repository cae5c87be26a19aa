// The inside of a memory set.
//
// A set's records lie in the first chunk of its window, the chunks that it hands out behind it: chunk 0 begins at the
// second 64 KiB. Which chunks are used, committed, decommitted, kept for fast reuse, and where a handed-out run begins
// is told by one bit each. The bits are the truth: after the death of a holder of the latch the counters are made anew
// from them. `begun` tells of a commit or decommit that had not been noted in the bits when its process died, `moving`
// of chunks that were about to be handed out or taken back.
//
// A run of a shared set that has been handed out and is not yet a pool's, or that a pool has sent off and is not yet
// back, is marked, and its first words tell which process has it: when that dies on the way, the set takes it back. A
// new pool has arrived when it stands in the list of pools; `ending` tells of one that is leaving it with all it has.
//
// Invariants, whenever nobody holds the latch:
//
//   1  m_usedChunks = used bits - m_fastCount; m_committedChunks and m_decommittedChunks = their bits
//   2  used chunks are committed; decommitted ones are not
//   3  m_recommitableChunks <= m_decommittedChunks; the difference is withdrawn from use
//   4  all bits lie below m_allocatedChunks <= m_maxChunksAllowed
//   5  groups are neighbours and cover the allocated chunks; a group's subgroups are the runs that begin in it
//   6  where a mark stands a run on its way begins
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/region.h"
#include "veksys/memory/controller.h"
#include "veksys/memory/set.h"
#include "veksys/sync/latch.h"

namespace vek {

struct MemPool;

inline constexpr std::uint32_t MEM_SET_EYE_CATCHER = 0x534D5345;  // "ESMS" in memory
inline constexpr std::uint32_t MEM_SET_GROUPS = 512;
inline constexpr std::uint32_t MEM_SET_FAST_CHUNKS = 256;
inline constexpr std::uint32_t MEM_SET_WORDS = 1024;
inline constexpr std::uint32_t MEM_SET_LEAST_FREE = 257;  // chunks that a threshold keeps at least

// A set of chunks, a bit each.
struct ChunkBits {
  std::uint64_t words[MEM_SET_WORDS];

  bool has(std::uint32_t chunk) const noexcept { return (word(chunk) >> (chunk % 64) & 1) != 0; }
  void add(std::uint32_t chunk) noexcept { put(chunk, word(chunk) | std::uint64_t{1} << (chunk % 64)); }
  void drop(std::uint32_t chunk) noexcept { put(chunk, word(chunk) & ~(std::uint64_t{1} << (chunk % 64))); }
  std::uint32_t count() const noexcept {
    std::uint32_t total = 0;
    for (const std::uint64_t bits : words) total += static_cast<std::uint32_t>(__builtin_popcountll(bits));
    return total;
  }

 private:
  // Whether a chunk is committed is looked at without the latch.
  std::uint64_t word(std::uint32_t chunk) const noexcept {
    return __atomic_load_n(&words[chunk / 64], __ATOMIC_RELAXED);
  }
  void put(std::uint32_t chunk, std::uint64_t bits) noexcept {
    __atomic_store_n(&words[chunk / 64], bits, __ATOMIC_RELAXED);
  }
};

// Chunks obtained from the system in one piece.
struct ChunkGroup {
  std::uint32_t firstChunk;
  std::uint32_t chunks;
  std::uint32_t subgroups;
};

struct ChunkRange {
  std::uint32_t first;
  std::uint32_t count;
};

// Stores before it and after it stay in their order, for whoever repairs what a killed process has left.
inline void keepOrder() noexcept { std::atomic_signal_fence(std::memory_order_seq_cst); }

// Chunks that an operation is about to change and has not changed yet as a whole.
struct ChunkIntent {
  std::uint32_t first;
  std::uint32_t count;  // 0: none

  void begin(ChunkRange range) noexcept {
    first = range.first;
    keepOrder();
    count = range.count;
    keepOrder();
  }
  void end() noexcept {
    keepOrder();
    count = 0;
  }
};

// The first words of a run on its way.
struct ChunkRun {
  void* pool;             // null: it is no pool's, for whoever has a block in it
  ChunkRun* next;         // of those that go back with it
  std::uint64_t process;  // life of the one that has it
  std::uint32_t eyeCatcher;
  std::uint32_t chunks;
};

// What kind of operation of the system failed; numbers as they stand in the sixth word of the record.
enum class SetFailure : std::uint32_t { kExhausted = 1, kFree = 2, kCommit = 3, kDecommit = 4, kSegment = 5 };

// A failure that waits to be logged: error of the system, our code, first chunk, count, committed chunks, kind.
struct PendingFailure {
  std::uint32_t words[6];
};

}  // namespace vek

class SMemSet {
 public:
  SMemSet(const SMemSet&) = delete;
  SMemSet& operator=(const SMemSet&) = delete;

  // The latch; all other members that change something need it.
  void captureLatch(const char* file, std::uint32_t line) noexcept;
  void releaseLatch() noexcept;

  // ---- sizes, in chunks
  bool isPrivate() const noexcept { return m_setType == SQLO_SET_PRIVATE; }
  bool has(std::uint32_t options) const noexcept { return (m_options & options) == options; }
  std::uint32_t usableChunks() const noexcept {
    return (isPrivate() ? m_allocatedChunks : m_maxChunksAllowed) - (m_decommittedChunks - m_recommitableChunks);
  }
  std::uint32_t getSetGrowthLimit() const noexcept;
  std::uint32_t getSetUncommittedSize() const noexcept;
  std::uint64_t addressOf(std::uint32_t chunk) const noexcept {
    return reinterpret_cast<std::uintptr_t>(this) + ((std::uint64_t{chunk} + 1) << SQLO_CHUNK_SHIFT);
  }
  std::uint32_t chunkAt(const void* address) const noexcept {
    return static_cast<std::uint32_t>((reinterpret_cast<std::uintptr_t>(address) - addressOf(0)) >> SQLO_CHUNK_SHIFT);
  }

  // ---- groups: what is reserved. SQLO_NOTAVAIL: beyond the limit; SQLO_NOMEM: the system refuses.
  SqlzZrc allocateChunkGroup(std::uint32_t chunks) noexcept;
  void addChunkGroupToSet(std::uint32_t chunks) noexcept;
  SqlzZrc freeChunkGroup() noexcept;  // the last one, when nothing in it is used
  bool isLastGroupIdle() const noexcept;
  std::uint32_t growthFor(std::uint32_t chunks) const noexcept;  // step that would make room for a run; 0: none

  // ---- chunks. SQLO_NOTAVAIL: no such run, growing may help; SQLO_NOMEM: it could not be committed.
  SqlzZrc getChunksFromTree(std::uint32_t chunks, std::uint32_t* first) noexcept;
  SqlzZrc getChunksForInternalUse(std::uint32_t chunks,
                                  std::uint32_t* first) noexcept;  // withdrawn ones count as usable
  bool getFastChunk(std::uint32_t* first) noexcept;
  SqlzZrc returnContiguousChunks(vek::ChunkRange range) noexcept;
  std::uint32_t returnStrandedChunks() noexcept;  // of processes that died on the way; how many
  std::uint32_t freeFastChunksUntilTargetReached(std::uint32_t chunks) noexcept;

  // ---- committing
  SqlzZrc commitMemory(vek::ChunkRange range) noexcept;
  int decommitMemory(vek::ChunkRange range) noexcept;
  bool attemptRecoveryFromFailedMemoryCommit() noexcept;
  void decommitChunksUntilTargetReached(std::uint32_t target) noexcept;
  vek::ChunkRange decommitChunksFromFreeTree(std::uint32_t below, std::uint32_t most) noexcept;
  void recommitChunksUntilTargetReached(std::uint32_t target) noexcept;
  std::uint32_t commitAhead(std::uint32_t most) noexcept;

  // ---- thresholds
  SqlzZrc updateMaxFree(std::uint32_t percent) noexcept;
  void refreshMaxFreeChunks() noexcept;
  SqlzZrc decreaseKeepCommitThresh(std::uint32_t hundredths) noexcept;
  std::uint32_t decreaseUseableMemory(std::uint32_t chunks) noexcept;
  std::uint32_t increaseUseableMemory(std::uint32_t chunks) noexcept;
  std::int64_t excessChunks() const noexcept;  // committed, unused and not to be kept
  bool isDecommitDue() const noexcept { return (m_options & 0xA00000) != 0 && excessChunks() > m_maxFreeChunks; }
  void decommitExcess() noexcept;

  // ---- failures
  void notePendingFailure(vek::SetFailure kind, int osError, SqlzZrc zrc, vek::ChunkRange range) noexcept;
  bool takePendingFailure(vek::PendingFailure* out) noexcept;
  void repair() noexcept;

  std::uint32_t m_eyeCatcher;
  std::uint32_t m_window;
  std::uint32_t m_setType;
  std::uint32_t m_options;
  std::uint32_t m_usedChunks;
  std::uint32_t m_keepCommitChunks;
  std::uint32_t m_largestChunksUsed;
  std::uint32_t m_referenceChunks;
  std::uint32_t m_maxChunksAllowed;
  std::uint32_t m_chunkIncrement;
  std::uint32_t m_allocatedChunks;
  std::uint32_t m_maxFreeChunks;
  std::uint32_t m_maxFreePercent;
  std::uint32_t m_committedChunks;
  std::uint32_t m_decommittedChunks;
  std::uint32_t m_recommitableChunks;
  SqloSpinLatch m_latch;
  std::uint32_t m_groupCount;
  vek::ChunkGroup m_groups[vek::MEM_SET_GROUPS];
  vek::MemPool* m_pools;
  vek::MemPool* m_ending;         // a pool whose runs are being sent off at this moment
  std::uint64_t m_endingProcess;  // life of the one that frees it
  vek::PendingFailure m_pending;
  std::uint32_t m_fastCount;
  bool m_fastEnabled;
  bool m_fastDraining;
  bool m_fillsFreed;   // memory debugging: what is given back is filled
  bool m_pinningLost;  // to be logged
  std::uint16_t m_fast[vek::MEM_SET_FAST_CHUNKS];
  std::uint32_t m_commitTarget;    // chunks that were to be committed at creation
  vek::ChunkIntent m_begun;        // being committed or decommitted at this moment
  vek::ChunkIntent m_moving;       // being handed out or taken back at this moment
  SqloMemoryConsumer* m_consumer;  // with the memory controller, and the process it belongs to
  std::uint64_t m_consumerOwner;
  std::uint32_t m_consumerNumber;
  std::uint32_t m_row;          // in the instance's list of sets; 0: none
  std::uint64_t m_sharedOwner;  // of that row and those of its pools, when it is shared
  char m_name[SQLO_SET_NAME_BYTES];
  vek::ChunkBits m_used;
  vek::ChunkBits m_starts;  // of handed-out runs
  vek::ChunkBits m_committed;
  vek::ChunkBits m_decommitted;
  vek::ChunkBits m_kept;      // used, and in the fast-chunk cache
  vek::ChunkBits m_onTheWay;  // used; where runs begin that are between the set and a pool
};
static_assert(sizeof(SMemSet) <= SQLO_CHUNK_BYTES);

namespace vek {

// ---- the directory of shared sets: a section of the instance region, mapped at one address everywhere
// ------------------

inline constexpr std::uint32_t MEM_SET_ENTRIES = 128;    // shared sets of an instance at one time
inline constexpr std::uint32_t MEM_SET_PROCESSES = 128;  // processes connected to one of them at one time

enum class SetState : std::uint32_t { kFree = 0, kCreating = 1, kReady = 2, kEnding = 3 };

struct SetEntry {
  SetState state;
  std::uint32_t setType;
  std::uint32_t options;
  std::uint32_t serial;  // counts the sets that this entry stood for
  char name[SQLO_SET_NAME_BYTES];
  std::uint64_t connected[MEM_SET_PROCESSES];  // lives of processes; the creator's stands first
};

// The entry of a number stands for the window of that number plus one.
struct SetDirectory {
  SqloSpinLatch latch;
  std::uint32_t isReady;
  SetEntry entries[MEM_SET_ENTRIES];
};
static_assert(sizeof(SetDirectory) <= REGION_MEMORY_SETS_BYTES);

// A change of a set: the latch for the length of a scope. What failed meanwhile is logged after the latch is released.
class SetOperation {
 public:
  explicit SetOperation(SMemSet& set, std::uint32_t line = __builtin_LINE()) noexcept : set_(set) {
    set_.captureLatch("sqlo_mem_set", line);
  }
  ~SetOperation();
  SetOperation(const SetOperation&) = delete;
  SetOperation& operator=(const SetOperation&) = delete;

 private:
  SMemSet& set_;
};

// True when the pointer leads to a set that this process is connected to.
bool sqloi_isSet(const SMemSet* set) noexcept;

// The descriptor of a shared set's memory in this process.
int sqloi_setDescriptor(const SMemSet& set) noexcept;

// Takes a run of chunks for whoever lives in the set, which grows when it may; gives it, or a part of it, back.
//
//   Result   0; SQLO_MEM_SIZE: no chunks, or more than a set can have; SQLO_NOMEM
//            giving back: SQLO_INV_MEM: not chunks in use
SqlzZrc sqloi_setGetChunks(SMemSet& set, std::uint32_t chunks, void** address) noexcept;
SqlzZrc sqloi_setReturnChunks(SMemSet& set, void* address, std::uint32_t chunks) noexcept;

// Ends the way of a run that the set gave: it is noted where it belongs, and its first words are free for use. The
// second form needs the set latch.
void sqloi_setRunArrived(SMemSet& set, const void* address) noexcept;
void sqloi_setRunArrivedLatched(SMemSet& set, const void* address) noexcept;

// Begins the way of a run back to the set; from here on nobody else may take it for one of his. The second form needs
// the set latch; `process` is the life of the one that has it.
ChunkRun* sqloi_setSendRun(SMemSet& set, void* address, std::uint32_t chunks) noexcept;
ChunkRun* sqloi_setSendRunLatched(SMemSet& set, void* address, std::uint32_t chunks, std::uint64_t process) noexcept;

// Brings to an end what a process that died with the set latch had begun with the list of pools. Needs the latch.
void sqloi_repairPoolsOf(SMemSet& set) noexcept;

// Asks the controller for memory that the set is about to reserve, and tells what it gives back. Without the set latch.
SqlzZrc sqloi_setRequestMemory(SMemSet& set, std::uint32_t chunks) noexcept;
void sqloi_setFreeMemory(SMemSet& set, std::uint32_t chunks) noexcept;

}  // namespace vek
