// Memory sets: the unit in which address space is reserved and committed.
//
// A set lies in one window of 4 GiB of the address space and is counted in chunks of 65,536 bytes. Memory pools live in
// sets and take whole chunks from them; the set decides when chunks are committed, how many stay committed while
// unused, and what is given back to the system. A private set belongs to one process; a shared one is mapped at the
// same address by all processes that connect to it.
//
// Common rules
//   - Any thread, in every process that is connected, unless a function says otherwise. Counters change under the set
//     latch only. A process that dies in the middle of a change leaves nobody waiting: the next one makes the counters
//     anew.
//   - Nothing is logged while the set latch is held. A failure of the system met there is recorded in the set, and
//   logged
//     by the operation that met it after it has released the latch.
//   - Committing real memory can fail (a full /dev/shm among other things) and is answered by a code, never by a
//   signal.
//   - Functions that change a threshold trace entry and exit.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/types.h"

inline constexpr std::uint32_t SQLO_CHUNK_BYTES = 65'536;
inline constexpr unsigned SQLO_CHUNK_SHIFT = 16;
inline constexpr std::uint32_t SQLO_SET_CHUNKS_MOST = 65'535;  // one of a window's 65,536 holds the set's own records
inline constexpr std::uint32_t SQLO_INVALID_SET = 0x0C4A0C4A;  // a reference of this value leads to no set
inline constexpr std::size_t SQLO_SET_NAME_BYTES = 33;

// Bytes to chunks, rounded up.
constexpr std::uint32_t sqloChunksOf(std::uint64_t bytes) noexcept {
  return static_cast<std::uint32_t>((bytes + SQLO_CHUNK_BYTES - 1) >> SQLO_CHUNK_SHIFT);
}

// Set types. Others up to 12 are unassigned.
enum SqloMemSetType : std::uint32_t {
  SQLO_SET_DBM_DBMS = 0,
  SQLO_SET_DBM_DB = 1,
  SQLO_SET_FMP_RESOURCES = 2,
  SQLO_SET_LOCAL_APL = 4,
  SQLO_SET_PRIVATE = 9,
  SQLO_SET_FCM_RESOURCES = 11,
  SQLO_SET_APL_CTL = 12,
};

// Options of a set.
inline constexpr std::uint32_t SQLO_SET_PINNED = 0x1;  // kept in the machine's memory
inline constexpr std::uint32_t SQLO_SET_CRITICAL = 0x2;
inline constexpr std::uint32_t SQLO_SET_CHUNK_KEEP = 0x4;  // single chunks are kept for fast reuse
inline constexpr std::uint32_t SQLO_SET_SET_CHUNKS = 0x8;
inline constexpr std::uint32_t SQLO_SET_LARGE_PAGES = 0x20;
inline constexpr std::uint32_t SQLO_SET_FFDC_REPORT = 0x100;
inline constexpr std::uint32_t SQLO_SET_BACKGROUND_COMMIT = 0x200;  // state: its chunks are committed in the background
inline constexpr std::uint32_t SQLO_SET_CRASH_ON_LEAKS = 0x400;     // freed with chunks in use: the process stops
inline constexpr std::uint32_t SQLO_SET_PENDING_REPORT = 0x800;     // state: a failure waits to be logged
inline constexpr std::uint32_t SQLO_SET_SHARED = 0x2000;
inline constexpr std::uint32_t SQLO_SET_PRIVATE_OPTION = 0x4000;
inline constexpr std::uint32_t SQLO_SET_AUTOMATIC_MAX_FREE = 0x10000;
inline constexpr std::uint32_t SQLO_SET_GOVERNS_POOLS =
    0x20000;  // its pools grow unless told otherwise, whatever they ask
inline constexpr std::uint32_t SQLO_SET_FIXED_SIZE = 0x80000;
inline constexpr std::uint32_t SQLO_SET_GROWABLE = 0x100000;
inline constexpr std::uint32_t SQLO_SET_REDUCIBLE = 0x200000;
inline constexpr std::uint32_t SQLO_SET_NAMED = 0x400000;
inline constexpr std::uint32_t SQLO_SET_DECOMMITABLE = 0x800000;
inline constexpr std::uint32_t SQLO_SET_MULTIPLE_SETS_ALLOWED = 0x1000000;
inline constexpr std::uint32_t SQLO_SET_LAZY_DECOMMIT = 0x8000000;

class SMemSet;

// A memory set as its users name it.
using SQLO_MEM_SET = SMemSet;

// What a set is made of. `size` is sizeof(SqloMemSetRequest); sizes are bytes, rounded up to whole chunks.
struct SqloMemSetRequest {
  std::size_t size;
  std::uint32_t setType;
  std::uint32_t options;         // PRIVATE_OPTION or SHARED is added as the type asks for
  const char* name;              // of a shared set, at most 32 characters; null: ""
  std::uint32_t bytes;           // reserved at once
  std::uint32_t maxBytes;        // GROWABLE sets grow up to it; 0: bytes
  std::uint32_t paddingBytes;    // the limit is raised by so much, as far as the address space allows
  std::uint32_t incrementBytes;  // reserved per step of growth; 0: one chunk
  std::uint32_t commitBytes;     // committed at once, unless VEK_DEFER_MEMORY_COMMIT or background commit say otherwise
  std::uint32_t keepCommitBytes;  // stays committed when unused
  std::uint32_t heapBytes;        // pools that must fit in `bytes`
};

// A set's counters, all of one moment. In chunks.
struct SqloMemSetInfo {
  std::uint32_t setType;
  std::uint32_t options;
  std::uint32_t usedChunks;
  std::uint32_t keepCommitChunks;
  std::uint32_t largestChunksUsed;
  std::uint32_t referenceChunks;
  std::uint32_t maxChunksAllowed;
  std::uint32_t chunkIncrement;
  std::uint32_t allocatedChunks;
  std::uint32_t maxFreeChunks;
  std::uint32_t maxFreePercent;
  std::uint32_t committedChunks;
  std::uint32_t decommittedChunks;
  std::uint32_t recommitableChunks;
  std::uint32_t fastChunks;
  std::uint32_t chunkGroups;
  std::uint32_t usableChunks;
  std::uint64_t address;  // of the first chunk
  char name[SQLO_SET_NAME_BYTES];
};

extern "C" {

// The name of a set type; "" for an unassigned one, "INVALID SET ID" from 13 on. The class word likewise, "" where
// there is none. Live as long as the process.
VEK_EXPORT const char* sqloMemSetTypeName(std::uint32_t setType) noexcept;
VEK_EXPORT const char* sqloMemSetTypeClass(std::uint32_t setType) noexcept;

// Writes options as text: "\t0", then " | " and a name for each bit that has one, then what is left as a number. Never
// more than bufferSize - 1 characters, terminated.
//
//   Result   the length of the last piece appended, not that of the text; 0 when buffer is null or has no room
VEK_EXPORT std::size_t sqloMemSetOptionsToString(char* buffer, std::size_t bufferSize, std::uint32_t options) noexcept;

// ---- life ---------------------------------------------------------------------------------------------------------

// Creates a set and connects the calling process to it. A set that cannot get large or pinned pages is made without
// them, and one that does not fit the address space is truncated; both are logged. The memory controller is asked for
// what is reserved, on behalf of the calling process.
//
//   Result   0
//            SQLO_INV_PARM       a null pointer, a request of another size, no such type, a name that is too long
//            SQLO_MEM_SIZE       no bytes, a maximum below them, or less than its heaps need
//            SQLO_SHM_EXISTS     there is such a set already, and it does not allow several (MULTIPLE_SETS_ALLOWED)
//            SQLO_NO_INS_MEM     the memory controller refuses
//            SQLO_NOSEG          no address space, or no memory
//            SQLO_ADDRESS_TAKEN  something else is mapped where the set would be
//            SQLO_REGION_...     a shared set, and this process cannot have its instance's region
VEK_EXPORT SqlzZrc sqlocshr(const SqloMemSetRequest* request, SQLO_MEM_SET** set) noexcept;

// Connects to the shared set of that type and name (null: "").
//
//   Result   0, also when this process is connected already ("Shared memory set is already connected." is logged);
//            SQLO_NOSEG: there is none; SQLO_NOTAVAIL: it is not ready; SQLO_ADDRESS_TAKEN; SQLO_INV_PARM;
//            SQLO_REGION_...
VEK_EXPORT SqlzZrc sqlogmshr(std::uint32_t setType, const char* name, SQLO_MEM_SET** set) noexcept;

// True when this process is connected to that set; the second connects when it is not, and logs nothing when it is.
VEK_EXPORT bool sqloIsSetAlreadyConnected(std::uint32_t setType, const char* name) noexcept;
VEK_EXPORT SqlzZrc sqloConnectIfNotConnected(std::uint32_t setType, const char* name, SQLO_MEM_SET** set) noexcept;

// Disconnects this process from a shared set, which stays for the others. No thread of the process may use it any more.
//
//   Result   0; SQLO_INV_MEM: not a set that this process is connected to, or a private one
VEK_EXPORT SqlzZrc sqlodshr(SQLO_MEM_SET* set) noexcept;

// Frees a set: its memory goes back to the system, a shared one's as soon as the last process has disconnected. Chunks
// in use are reported when the set has FFDC_REPORT, and stop the process when it has CRASH_ON_LEAKS.
//
//   Result   0; SQLO_INV_MEM: not a set that this process is connected to
VEK_EXPORT SqlzZrc sqlofshr(SQLO_MEM_SET* set) noexcept;

// Registers the set with the memory controller on behalf of the calling process, when nobody alive has done so; takes
// it out again. Creating and freeing do that by themselves; a shared set that outlives its creator is registered anew.
//
//   Result   0; SQLO_INV_MEM; SQLO_NO_INS_MEM, SQLO_NOMEM: the controller refuses
VEK_EXPORT SqlzZrc sqloRegisterMemorySetWithPMC(SQLO_MEM_SET* set) noexcept;
VEK_EXPORT SqlzZrc sqloDeRegisterSet(SQLO_MEM_SET* set) noexcept;

// ---- questions ----------------------------------------------------------------------------------------------------

// The counters of a set: one that this process is connected to, or a shared one by type and name, for which it is
// connected meanwhile when it is not.
//
//   Result   0; SQLO_INV_MEM; SQLO_INV_PARM; the second as sqlogmshr
VEK_EXPORT SqlzZrc sqloGetSetInfo(SQLO_MEM_SET* set, SqloMemSetInfo* info) noexcept;
VEK_EXPORT SqlzZrc sqloqshr(std::uint32_t setType, const char* name, SqloMemSetInfo* info) noexcept;

// Bytes by which it may still grow; whether its size can change; the size of its pages. 0 and false for no set.
VEK_EXPORT std::uint32_t sqloMemSetGetGrowthLimit(SQLO_MEM_SET* set) noexcept;
VEK_EXPORT bool sqloMemSetIsResizable(SQLO_MEM_SET* set) noexcept;
VEK_EXPORT std::uint32_t sqloMemSetPageSize(SQLO_MEM_SET* set) noexcept;

// True when background commit applies: VEK_ENABLE_BG_COMMIT (default TRUE, read on each call) is on and the set is one
// of a database that is committed in the background.
VEK_EXPORT bool sqloBgCommitIsNeeded(const SQLO_MEM_SET* set) noexcept;

// Commits up to `chunks` more of what was to be committed at creation; for a thread of the server, which calls again as
// long as chunks are committed.
//
//   Result   0; SQLO_INV_MEM; SQLO_NOMEM: what could be committed is
VEK_EXPORT SqlzZrc sqloBgCommit(SQLO_MEM_SET* set, std::uint32_t chunks, std::uint32_t* committedOut) noexcept;

// ---- thresholds ---------------------------------------------------------------------------------------------------

// Changes the limit up to which it grows.
//
//   Result   0; SQLO_INV_MEM: no set, or one of FIXED_SIZE; SQLO_MEM_SIZE: less than it has reserved, or more than a
//   window
VEK_EXPORT SqlzZrc sqloMemSetSetMaxSize(SQLO_MEM_SET* set, std::uint32_t bytes) noexcept;

// Sets the free threshold, as a percentage of the usable size, and decommits what is above it when the set is
// DECOMMITABLE. 0 keeps no free chunks; any other percentage keeps at least 257.
//
//   Result   0; SQLO_INV_MEM: percent above 100, no set, or one without AUTOMATIC_MAX_FREE; nothing is changed
VEK_EXPORT SqlzZrc sqloUpdateMemorySetFreeThreshold(SQLO_MEM_SET* set, std::uint32_t percent) noexcept;

// Lowers the number of chunks that stay committed when unused by hundredths of a percent of the reference size, by 257
// at least, though never below what is in use; then decommits.
//
//   Result   0; SQLO_INV_MEM: above 10,000, no set, or one without AUTOMATIC_MAX_FREE or LAZY_DECOMMIT
VEK_EXPORT SqlzZrc sqloDecreaseMemorySetKeepCommitThresh(SQLO_MEM_SET* set, std::uint32_t hundredthsOfPercent) noexcept;

// Sets CRITICAL in the set and in all that is linked below it, three levels deep. Takes no latch: call it while the set
// is being created.
VEK_EXPORT void sqloEnableCriticalOptionForMemSet(SQLO_MEM_SET* set) noexcept;

}  // extern "C"
