// Fast blocks: what a thread keeps of a pool for its own next requests.
//
// A thread's caches are its own: it allocates and frees without a latch and without an atomic operation. Whoever takes
// back what other threads keep (a pool that is flushed, full, or freed) tells all threads first that what they know is
// stale, makes all processors see that (membarrier), and waits for threads that are inside: a thread notes that it is,
// then looks whether its knowledge is stale, and touches its caches only when it is not. A thread that finds it stale
// goes the long way, under the latch of all this, and finds out which of its pools are still there.
//
// The blocks that a thread keeps are of kind KEPT; for the pool they are in use, until its counters are read: then what
// threads keep is counted.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "memory/sqlo_mem_pool.h"
#include "platform/region.h"

namespace vek {

inline constexpr std::uint32_t FAST_POOLS = 64;     // of a process at one time
inline constexpr std::uint32_t FAST_ENTRIES = 128;  // of a thread; more than pools, so that a probe ends
inline constexpr std::uint32_t FAST_FILES = 64;     // names of files that a thread remembers
inline constexpr std::uint32_t FAST_CHUNKS = 512;   // chunks of which a thread remembers the pool
inline constexpr std::uint64_t FAST_NO_CHUNK = ~std::uint64_t{0};
inline constexpr std::uint32_t FAST_BIN_BYTES = 64 * 1024;
inline constexpr std::uint32_t FAST_MOST_DEFAULT = 64;
inline constexpr std::uint32_t FAST_MOST_HIGHEST = 4096;

// Blocks of one stride. `head` is the lower half of the address of the first one, 0 when there is none. How much room
// there is others may read at any time; it stands in one word with how many were taken, and both change in one store.
class FastBin {
 public:
  std::uint32_t head() const noexcept { return head_; }
  std::uint32_t room() const noexcept { return state() & kRoom; }
  bool hasRoom() const noexcept { return room() != 0; }

  // Answers how many were taken so far.
  std::uint32_t pop(std::uint32_t next) noexcept {
    const std::uint32_t state = this->state() + kTaken + 1;
    set(next, state);
    return state / kTaken;
  }
  void push(std::uint32_t low) noexcept { set(low, state() - 1); }
  // When there is room: push(low, head()) with what `prepare(next)` makes of the block in between.
  template <class Prepare>
  bool pushWhenRoom(std::uint32_t low, const Prepare& prepare) noexcept {
    const std::uint32_t state = this->state();
    if ((state & kRoom) == 0) [[unlikely]]
      return false;
    prepare(head_);
    set(low, state - 1);
    return true;
  }

  // The first one from now on, behind some that were taken away or before some that were added.
  void take(std::uint32_t count, std::uint32_t next) noexcept { set(next, state() + count); }
  void add(std::uint32_t count, std::uint32_t low) noexcept { set(low, state() - count); }

  // Needs an empty bin.
  void limit(std::uint32_t most) noexcept { set(0, (state() & ~kRoom) + most); }

 private:
  static constexpr std::uint32_t kTaken = 0x10000;
  static constexpr std::uint32_t kRoom = kTaken - 1;
  static_assert(FAST_MOST_HIGHEST <= kRoom);

  std::uint32_t state() const noexcept { return state_.load(std::memory_order_relaxed); }
  void set(std::uint32_t head, std::uint32_t state) noexcept {
    head_ = head;
    state_.store(state, std::memory_order_relaxed);
  }

  std::uint32_t head_ = 0;
  std::atomic<std::uint32_t> state_{0};
};
static_assert(sizeof(FastBin) == 8);

// What a thread keeps of a pool; a block of that pool.
struct FastCache {
  FastBin bins[KEPT_LISTS];
  std::uint16_t most[KEPT_LISTS];  // that a bin takes
  Block window;                    // of the pool
  FastCache* next;                 // of the pool's
  MemPool* pool;

  // One register for all that follows: the compiler would address each member by the array and the index, of which it
  // has too few to go without the stack.
  FastBin& bin(std::uint32_t list) noexcept {
    FastBin* bin = &bins[list];
    asm("" : "+r"(bin));  // NOLINT(hicpp-no-assembler)
    return *bin;
  }
  std::uint32_t sizeOf(std::uint32_t list) const noexcept {
    return most[list] - std::min<std::uint32_t>(most[list], bins[list].room());
  }
};

// What a thread knows of pools, of private sets. Parallel arrays: the short ways find their entries by one index.
struct FastThread {
  std::atomic<std::uint32_t> inside;      // 1: the thread looks at its caches
  std::atomic<std::uint32_t> isStale{1};  // 1: what it knows may not be true any more
  MemPool* pools[FAST_ENTRIES];           // that are there
  FastCache* caches[FAST_ENTRIES];        // of these pools; g_noCache: their blocks are not kept
  const char* files[FAST_FILES];          // names, by their addresses
  std::uint64_t fileKeys[FAST_FILES];
  std::uint64_t chunks[FAST_CHUNKS];  // numbers in the address space, or FAST_NO_CHUNK
  FastCache* chunkCaches[FAST_CHUNKS];
  MemPool* chunkPools[FAST_CHUNKS];
  std::uint32_t generations[FAST_ENTRIES];  // of the pools: another one may come to stand in its place
  std::uint32_t poolCount;
  bool isTaken;      // by a thread
  FastThread* next;  // of all that were ever made
};

// Stands for a cache where there is none, and for a thread that knows nothing.
extern FastCache g_noCache;
extern FastThread g_nobody;

extern thread_local constinit FastThread* t_fast __attribute__((tls_model("initial-exec")));

// The key of a file's name, by which other processes and dumps find it. Without a latch.
std::uint32_t sqloi_fileKey(const char* file) noexcept;

// Where a pool stands, unless others stood there before. Multiplicative hashing: pools stand at the same places of
// different windows.
inline std::size_t fastHash(const SQLO_MEM_POOL* pool) noexcept {
  return (reinterpret_cast<std::uintptr_t>(pool) * 0x9E3779B97F4A7C15U) >> 57;
}
static_assert(FAST_ENTRIES == 1U << (64 - 57));

// The chunk that a block's contents begin in: of a chunk's blocks all belong to one pool.
inline std::uint64_t chunkNumber(Block block) noexcept { return block >> SQLO_CHUNK_SHIFT; }

inline std::size_t fastFileAt(const char* file) noexcept {
  return (reinterpret_cast<std::uintptr_t>(file) >> 3) % FAST_FILES;
}

inline bool fastKnows(const FastThread& thread) noexcept { return thread.isStale.load(std::memory_order_acquire) == 0; }

// What stands in a place of a thread's table. Whoever takes caches away may change it at any time; what is read counts
// while the thread is inside and knows.
inline FastCache* fastCacheAt(const FastThread& thread, std::size_t at) noexcept {
  return __atomic_load_n(&thread.caches[at], __ATOMIC_RELAXED);
}
inline void fastSetCache(FastThread& thread, std::size_t at, FastCache* cache) noexcept {
  __atomic_store_n(&thread.caches[at], cache, __ATOMIC_RELAXED);
}

// A thread between entering and leaving: nobody else touches its caches, and what it knows is true when `knows`.
class FastInside {
 public:
  explicit FastInside(FastThread& thread) noexcept : thread_(thread) {
    thread.inside.store(1, std::memory_order_relaxed);
    std::atomic_signal_fence(std::memory_order_seq_cst);  // the other half is a membarrier
  }
  ~FastInside() { thread_.inside.store(0, std::memory_order_release); }
  FastInside(const FastInside&) = delete;
  FastInside& operator=(const FastInside&) = delete;
  bool knows() const noexcept { return fastKnows(thread_); }

 private:
  FastThread& thread_;
};

// Whether threads keep blocks of a pool.
inline bool sqloi_isFast(const MemPool& pool) noexcept {
  return __atomic_load_n(&pool.m_fastMost, __ATOMIC_RELAXED) != 0;
}

// The calling thread's cache of a pool that is there, made when it is to have one; g_noCache when it is not, or when
// the pool has no block for it. Null: the thread cannot know about it, since processes share it or there is no memory.
// Without a latch.
FastCache* sqloi_fastLearn(MemPool& pool) noexcept;

// What the thread knows of a pool already; null: nothing.
FastCache* sqloi_fastKnown(const SQLO_MEM_POOL* pool) noexcept;

// Learns that a chunk belongs to a pool that the thread knows. Inside.
inline void fastLearnChunk(FastThread& thread, std::uint64_t number, MemPool& pool, FastCache& cache) noexcept {
  const std::size_t at = number % FAST_CHUNKS;
  thread.chunks[at] = number;
  thread.chunkPools[at] = &pool;
  thread.chunkCaches[at] = &cache;
}

// What threads know of chunks and pools is no longer true. Without a latch.
void fastForgetKnowledge() noexcept;

// Fetches blocks of that stride into the cache, of the calling thread; how many.
std::uint32_t sqloi_fastFill(FastCache& cache, std::uint32_t stride) noexcept;

// Gives a part of the blocks of a full bin back to the pool.
void sqloi_fastSpill(FastCache& cache, std::uint32_t stride) noexcept;

// Takes back what all threads of this process keep of a pool; its caches stay. Without the pool latch.
void sqloi_fastTakeBack(MemPool& pool) noexcept;

// The same, and no thread keeps any more of it.
void sqloi_fastForget(MemPool& pool) noexcept;

// What threads keep of a pool at this moment. Needs the pool latch.
struct FastKept {
  std::uint32_t bytes;
  std::uint32_t blocks;
};
FastKept sqloi_fastKept(const MemPool& pool) noexcept;

// The port of a thread's end: gives back what the thread keeps.
void sqloi_fastThreadEnds() noexcept;

}  // namespace vek
