// Memory pools: the heaps from which the components of a server allocate blocks.
//
// A pool lives in a memory set and takes whole chunks of 64 KiB from it as it grows; it carves them into blocks. Its id
// tells what it is for. A sub-pool has blocks and chunks of its own, but the limit, the chunk count and the latch of
// the pool it was made in, its base pool.
//
// A block begins at a multiple of 16 bytes and is preceded by a header of 24, which tells its pool: freeing needs the
// block alone. Blocks of a pool in a shared set may be freed by any process that is connected to the set.
//
// Common rules
//   - Any thread, in every process connected to the set, unless a function says otherwise. Changes are made under the
//     latch of the base pool (none, with SQLO_POOL_UNLATCHED: then one thread at a time, by the caller's care).
//   - `file` and `line` are those of the caller (__FILE__ and __LINE__, or a text that lives as long as the process).
//   - Nothing is logged while the pool latch is held.
//   - A process that dies in the middle of a change leaves nobody waiting: the next one makes the free blocks and the
//     counters of the pool anew from its blocks. What the dead process had allocated stays allocated.
//   - A handle that leads to no pool, a destroyed one among them, is SQLO_INV_MEM.
//   - Sizes reported are bytes.
//   - A signal handler must not allocate or free.
//   - A child of fork has the pools of its parent's private sets as they were at that moment, and none of the threads
//     that were about to change them: fork while no other thread allocates or frees, or exec.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/memory/set.h"
#include "veksys/sync/latch.h"
#include "veksys/types.h"

// What a pool is for. SQLO_POOL_MAXHEAPID is the end marker, no pool has it.
enum SqloMemPoolId : std::uint32_t {
#define SQLO_POOL_ID(number, symbol, name, description, parameter, type) SQLO_POOL_##symbol = (number),
#include "veksys/memory/pools.def"
#undef SQLO_POOL_ID
};

// Options of a pool.
inline constexpr std::uint32_t SQLO_POOL_NO_AUTOMATIC = 0x1;   // in a set with SQLO_SET_GOVERNS_POOLS: it does not grow
inline constexpr std::uint32_t SQLO_POOL_CRITICAL = 0x2;       // set through its set
inline constexpr std::uint32_t SQLO_POOL_UNLATCHED = 0x4;      // used without its latch
inline constexpr std::uint32_t SQLO_POOL_AUTOMATIC = 0x8;      // grows beyond its limit as far as the set allows
inline constexpr std::uint32_t SQLO_POOL_SEARCHABLE = 0x20;    // state: it keeps a tree of free blocks; not a raw pool
inline constexpr std::uint32_t SQLO_POOL_RAW = 0x40;           // each block has whole chunks of its own, and their size
inline constexpr std::uint32_t SQLO_POOL_REPORT_LEAKS = 0x80;  // freed with blocks in use: they are logged

// Eye-catchers of pools. A raw pool is of the distinguished kind, which sqloGetPoolInfo tells.
inline constexpr std::uint32_t SQLO_POOL_EYE_CATCHER = 0x55500E50;
inline constexpr std::uint32_t SQLO_POOL_RAW_EYE_CATCHER = 0x55500E5C;

// Instead of a pointer to the control of memory debugging: it is off; it was asked for and could not be had.
inline constexpr std::uintptr_t SQLO_POOL_DEBUG_OFF = 0x111E5511;
inline constexpr std::uintptr_t SQLO_POOL_DEBUG_FAILED = 0x111E5911;

// Options of an allocation.
inline constexpr std::uint32_t SQLO_MEM_ZERO = 0x1;  // the block is filled with zeros

inline constexpr std::uint32_t SQLO_BLOCK_ALIGNMENT = 16;
inline constexpr std::uint32_t SQLO_BLOCK_HEADER_BYTES = 24;

struct SqloMemSubgroup;
struct SqloMemFreeBlock;
struct SqloMemDebugControl;

// A pool, as its users hold it: the pool's own control block.
class VEK_EXPORT SQLO_MEM_POOL {
 public:
  SQLO_MEM_POOL(const SQLO_MEM_POOL&) = delete;
  SQLO_MEM_POOL& operator=(const SQLO_MEM_POOL&) = delete;

  // Commits chunks for the pool ahead of their use; they count as owned, and blocks are carved from them later.
  //
  //   committed   gets how many; may be null
  //   Result      0: all of them; SQLO_NOMEM: the set refused or the limit would be passed ("Raw chunk commit failed",
  //               "Exceeded max chunks" in a trace); what was committed stays. SQLO_INV_MEM: no pool
  SqlzZrc commitRawChunks(std::uint32_t count, std::uint32_t* committed) noexcept;

 protected:
  SQLO_MEM_POOL() = default;
  // Where the latch stands in the control block, for whoever knows a pool by its latch.
  static constexpr std::size_t latchOffset() noexcept { return offsetof(SQLO_MEM_POOL, m_latch); }

  std::uint32_t m_eyeCatcher;
  std::uint32_t m_options;
  std::uint32_t m_poolId;
  SqloMemFreeBlock* m_freeTree;  // its root is the largest free block
  SqloMemDebugControl* m_debug;  // or SQLO_POOL_DEBUG_...
  SQLO_MEM_POOL* m_base;         // itself, or the pool that a sub-pool was made in
  SQLO_MEM_SET* m_set;           // null or SQLO_INVALID_SET: none
  SqloMemSubgroup* m_firstSubgroup;
  std::uint32_t m_currentUsed;     // bytes in blocks, headers and what threads keep for fast reuse included
  std::uint32_t m_currentOwned;    // chunks, those of sub-pools included
  std::uint32_t m_maximumOwned;    // the most it ever was
  std::uint32_t m_maximumAllowed;  // chunks
  SqloSpinLatch m_latch;           // of a base pool
};

// What a pool is made of. `size` is sizeof(SqloMemPoolRequest).
struct SqloMemPoolRequest {
  std::size_t size;
  SQLO_MEM_SET* set;
  std::uint32_t poolId;        // 1 to 97, none of the free ones (21 to 49)
  std::uint32_t options;       // SQLO_POOL_..., no state
  std::uint64_t bytes;         // its limit, rounded up to whole chunks; 0: as much as the set
  std::uint64_t initialBytes;  // taken from the set at once; at least a chunk is
};

// What sqloGetPoolInfo tells.
struct SqloMemPoolInfo {
  std::uint32_t maximumAllowed;  // never below currentOwned
  std::uint32_t currentOwned;    // of the base pool, as are the next two
  std::uint32_t maximumOwned;
  std::uint32_t largestFreeBlock;  // with its header; 0 without SQLO_POOL_SEARCHABLE
  std::uint32_t growths;           // steps by which the base pool has grown
  std::uint32_t refusals;          // requests that the base pool could not meet
  std::uint32_t cachedBytes;       // in whole chunks that the base pool keeps unused
  std::uint32_t available;         // what may still be had: from the set up to the limit, or in one free block
  std::uint32_t poolUsed;          // of the pool itself, headers included, as are the next three
  std::uint32_t poolBlocks;        // blocks in use
  std::uint32_t poolKept;          // bytes in freed blocks kept for fast reuse
  std::uint32_t poolOwned;
  std::uint32_t poolId;
  std::uint8_t isRaw;  // 1: of the distinguished kind
};

// What sqloGetMemPoolStatsUnlatched tells.
struct SqloMemPoolStats {
  std::uint32_t maximumAllowed;  // of the base pool, as are the next four
  std::uint32_t maximumOwned;
  std::uint32_t currentOwned;
  std::uint32_t growths;
  std::uint32_t refusals;
  std::uint32_t poolUsed;  // of the pool itself; what threads keep for fast reuse counts
  std::uint32_t poolOwned;
};
static_assert(sizeof(SqloMemPoolStats) == 28);

extern "C" {

// ---- the catalogue --------------------------------------------------------------------------------------------------

VEK_EXPORT std::uint32_t sqloGetMinMemPoolID() noexcept;  // 1
VEK_EXPORT std::uint32_t sqloGetMaxMemPoolID() noexcept;  // 98

// Strings of a pool id: short name, what it is for, the configuration parameter that sizes it ("": none), its
// monitoring type ("": not reported by type). "" for an id that there is not, never null. Live as long as the process.
VEK_EXPORT const char* sqloGetMemPoolName(std::uint32_t id) noexcept;
VEK_EXPORT const char* sqloGetMemPoolDescription(std::uint32_t id) noexcept;
VEK_EXPORT const char* sqloGetMemPoolConfigParam(std::uint32_t id) noexcept;
VEK_EXPORT const char* sqloGetMemPoolType(std::uint32_t id) noexcept;

// ---- blocks ---------------------------------------------------------------------------------------------------------

// Allocates a block.
//
//   bytes     at least 1
//   options   SQLO_MEM_ZERO or 0
//   block     gets it, null on failure; the caller owns it until sqloMemPoolFree
//   Result    0
//             SQLO_NOMEM     the limit of the pool, the set or the system does not admit it
//             SQLO_MEM_SIZE  no bytes, or more than a set can have
//             SQLO_INV_PARM  block is null, or unknown options
//             SQLO_INV_MEM   no pool
//   Fast      with sqloEnableFastMemoryBlocks: no latch and no atomic operation when the thread has one at hand
VEK_EXPORT SqlzZrc sqloMemPoolAllocate(SQLO_MEM_POOL* pool, std::size_t bytes, std::uint32_t options, const char* file,
                                       std::uint32_t line, void** block) noexcept;

// Frees a block, whatever thread or process allocated it.
//
//   Result   0, also for null
//            SQLO_INV_MEM   not a block, or one that is free already: logged with the place that freed it first. With
//            memory debugging also a block that was written beyond its end: logged with both places, and not freed.
//            Nothing is changed then
VEK_EXPORT SqlzZrc sqloMemPoolFree(void* block, const char* file, std::uint32_t line) noexcept;

// sqloMemPoolFree for a block of that pool alone; one of another pool is reported likewise, and not freed.
VEK_EXPORT SqlzZrc sqloMemPoolFreeOf(SQLO_MEM_POOL* pool, void* block, const char* file, std::uint32_t line) noexcept;

// The pool of a block.
//
//   outPool  gets it; null when the chunk belongs to no pool any more, which is success
//   Result   0; SQLO_INV_MEM: null, no block, or a pool without a set
VEK_EXPORT SqlzZrc sqloGetPoolHandleFromBlkPointer(const void* block, SQLO_MEM_POOL** outPool) noexcept;

// Writes what the header of a block says as text, for dumps: "BLOCK: code: 0x%x size: %u file: %u line: %hu seq: %hu
// CSG: 0x%08x". The bytes need not be a block. Cut to `bytes`, terminated; answers the characters.
VEK_EXPORT std::size_t sqloMemBlockToString(const void* block, char* buffer, std::size_t bytes) noexcept;

// ---- life -----------------------------------------------------------------------------------------------------------

// Creates a pool in a set.
//
//   Result   0
//            SQLO_NOMEM     "The requested heap size is too big." (the set cannot give so much), or "Unable to allocate
//                           memory for the initial pool size."; both are logged
//            SQLO_INV_PARM  a null pointer, a request of another size, no such id or option
//            SQLO_INV_MEM   no set
VEK_EXPORT SqlzZrc sqloCreateMemoryPoolEx(const SqloMemPoolRequest* request, SQLO_MEM_POOL** pool) noexcept;

// Creates a sub-pool of a pool, or of a sub-pool of a pool (no deeper). It is freed with its parent, or before.
//
//   Result   0; SQLO_NOMEM; SQLO_INV_MEM: no pool, or a parent that is two levels deep; SQLO_INV_PARM: subPool is null
VEK_EXPORT SqlzZrc sqloCreateMemorySubPool(SQLO_MEM_POOL* parent, SQLO_MEM_POOL** subPool) noexcept;

// Frees a sub-pool with all its blocks and its own sub-pools; the chunks go back to the base pool. Leaks are not looked
// for.
//
//   Result   0; SQLO_INV_MEM: not a sub-pool
VEK_EXPORT SqlzZrc sqloFreeMemorySubPool(SQLO_MEM_POOL* subPool) noexcept;

// Frees all blocks of a sub-pool, and its own sub-pools; it can be used again at once.
//
//   Result   0; SQLO_INV_MEM: not a sub-pool
VEK_EXPORT SqlzZrc sqloPurgeMemoryInSubPool(SQLO_MEM_POOL* subPool) noexcept;

// Frees pools with their sub-pools and all their blocks; the chunks go back to their sets. Nobody may use them any
// more. Blocks in use are logged by file, line and count, when the pool has SQLO_POOL_REPORT_LEAKS or its set
// FFDC_REPORT; when the set has CRASH_ON_LEAKS the process stops.
//
//   Result   0; SQLO_INV_MEM: one of them is no pool, or a sub-pool; the others are freed
VEK_EXPORT SqlzZrc sqloMemFreePools(SQLO_MEM_POOL* const* pools, std::size_t count) noexcept;

// Gives back what a pool keeps unused: blocks kept for fast reuse, those of all threads of this process included, are
// joined with their neighbours, and chunks without a block in use go back to the set.
//
//   freedBytes   gets how much went back; may be null
//   Result       0; SQLO_INV_MEM
VEK_EXPORT SqlzZrc sqloFlushMemory(SQLO_MEM_POOL* pool, std::uint32_t* freedBytes) noexcept;

// Gives up to `bytes` of the whole chunks that a pool keeps unused back to its set.
//
//   freedBytes   gets how much went back, also on failure; may be null
//   Result       0; SQLO_INV_MEM: 0 bytes, no pool, or a pool without a set
VEK_EXPORT SqlzZrc sqloShrinkUnderlyingSet(SQLO_MEM_POOL* pool, std::uint32_t bytes,
                                           std::uint32_t* freedBytes) noexcept;

// sqloUpdateMemorySetFreeThreshold for the set of a pool.
VEK_EXPORT SqlzZrc sqloUpdateUnderlyingSetFreeThreshold(SQLO_MEM_POOL* pool, std::uint32_t percent) noexcept;

// ---- fast blocks ----------------------------------------------------------------------------------------------------

// Lets each thread of this process keep freed blocks of the pool (up to 2 KB each) for its own next requests; or stops
// that and takes back what threads keep. For pools of private sets; at most 64 pools of a process at a time. A thread
// that ends gives back what it kept; a pool at its limit takes back what all threads keep of it. With memory debugging
// it is not done.
//
//   Result   0; SQLO_INV_MEM: no pool; SQLO_NOTAVAIL: a pool of a shared set, a sub-pool, one without a latch, one with
//            memory debugging, a raw one, or 64 others have it
VEK_EXPORT SqlzZrc sqloEnableFastMemoryBlocks(SQLO_MEM_POOL* pool, bool on) noexcept;

// How many blocks of a size a thread keeps at most: 1 to 4,096, 64 by default, never more than 64 KB of them.
//
//   Result   0; SQLO_INV_MEM; SQLO_INV_PARM
VEK_EXPORT SqlzZrc sqloUpdateMaxFastMemoryBlocks(SQLO_MEM_POOL* pool, std::uint32_t blocks) noexcept;

// ---- questions and limits -------------------------------------------------------------------------------------------

VEK_EXPORT std::uint32_t sqloGetMemPoolId(const SQLO_MEM_POOL* pool) noexcept;  // 0 for no pool

// Of the base pool: its limit, the bytes in its blocks, the limit it was created with or last changed to. 0 for no
// pool.
VEK_EXPORT std::uint64_t sqloMemPoolGetMaxSize(SQLO_MEM_POOL* pool) noexcept;
VEK_EXPORT std::uint32_t sqloMemPoolGetCurrentSize(SQLO_MEM_POOL* pool) noexcept;
VEK_EXPORT std::uint64_t sqloMemPoolGetConfiguredSize(SQLO_MEM_POOL* pool) noexcept;

// Changes the limit of the base pool, rounded up to whole chunks. Below what it owns: it takes no more until it has
// given back enough.
//
//   Result   0; SQLO_INV_MEM; SQLO_MEM_SIZE: 0, or more than its set can ever have
VEK_EXPORT SqlzZrc sqloMemPoolChangeSize(SQLO_MEM_POOL* pool, std::uint64_t bytes) noexcept;

// Sets or clears SQLO_POOL_AUTOMATIC of the base pool, under the pool latch.
VEK_EXPORT SqlzZrc sqloSetMemoryPoolAutomaticBit(SQLO_MEM_POOL* pool, bool on) noexcept;

// Whether the pool may grow beyond its limit: SQLO_POOL_AUTOMATIC of the base pool; in a set with
// SQLO_SET_GOVERNS_POOLS the inverse of its SQLO_POOL_NO_AUTOMATIC. False for no pool and one without a set.
VEK_EXPORT bool sqloMemPoolAllowsAutomaticGrowth(SQLO_MEM_POOL* pool) noexcept;

// Whether a block of so many bytes could be had, without the system refusing; the largest free block, its header not
// counted; what the set could still give. Under the pool latch. False and 0 for no pool.
VEK_EXPORT bool sqloMemPoolHasSpace(SQLO_MEM_POOL* pool, std::size_t bytes) noexcept;
VEK_EXPORT std::uint32_t sqloGetLargestFreeBlockSize(SQLO_MEM_POOL* pool) noexcept;
VEK_EXPORT std::uint32_t sqloGetRemainingSetSize(SQLO_MEM_POOL* pool) noexcept;

// Everything about a pool, of one moment; null: about this process's private pool.
//
//   Result   0; SQLO_INV_MEM; SQLO_INV_PARM: info is null; for the private pool also as sqloGetPrivatePoolHandle
VEK_EXPORT SqlzZrc sqloGetPoolInfo(SQLO_MEM_POOL* pool, SqloMemPoolInfo* info) noexcept;

// The counters that can be read without the latch. They may not fit together at that moment.
VEK_EXPORT SqlzZrc sqloGetMemPoolStatsUnlatched(SQLO_MEM_POOL* pool, SqloMemPoolStats* stats) noexcept;

// ---- the private set ------------------------------------------------------------------------------------------------

// This process's private set and the pool in it (SQLO_POOL_PRIVATE), made at the first call; they grow as far as the
// address window, and live as long as the process.
//
//   Result   0; as sqlocshr and sqloCreateMemoryPoolEx; SQLO_INV_PARM: null
VEK_EXPORT SqlzZrc sqloGetPrivateSet(SQLO_MEM_SET** set) noexcept;
VEK_EXPORT SqlzZrc sqloGetPrivatePoolHandle(SQLO_MEM_POOL** pool) noexcept;

}  // extern "C"

// The same for C++: the private set of this process as an object.
struct VEK_EXPORT MemPrivateSet {
  static SQLO_MEM_SET* set() noexcept;    // null when it cannot be had
  static SQLO_MEM_POOL* pool() noexcept;  // likewise
};
