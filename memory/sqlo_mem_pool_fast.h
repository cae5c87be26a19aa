// Fast blocks: what a thread keeps of a pool for its own next requests.
//
// A thread's caches are its own: it allocates and frees without a latch and without an atomic operation. Whoever takes
// back what other threads keep (a pool that is flushed, full, or freed) raises the epoch first, makes all processors
// see that (membarrier), and waits for threads that are inside: a thread notes that it is, then looks at the epoch, and
// touches its caches only when it is the one that it knows. A thread that finds a new epoch goes the long way, under
// the latch of all this, and finds out which of its pools are still there.
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
inline constexpr std::uint32_t FAST_BIN_BYTES = 64 * 1024;
inline constexpr std::uint32_t FAST_MOST_DEFAULT = 64;
inline constexpr std::uint32_t FAST_MOST_HIGHEST = 4096;

// Blocks of one stride. `head` is the lower half of the address of the first one, 0 when there is none. Others may read
// how many there are at any time.
class FastBin {
 public:
  constexpr FastBin() noexcept = default;

  std::uint32_t head() const noexcept { return head_; }
  bool hasRoom() const noexcept { return room() != 0; }
  void pop(std::uint32_t next) noexcept { set(next, room() + 1U); }
  void push(std::uint32_t low) noexcept { set(low, room() - 1U); }

  // The first one from now on, behind some that were taken away or before some that were added.
  void take(std::uint32_t count, std::uint32_t next) noexcept { set(next, room() + count); }
  void add(std::uint32_t count, std::uint32_t low) noexcept { set(low, room() - count); }

  std::uint32_t size() const noexcept { return std::uint32_t{most_} - std::min(most_, room()); }
  std::uint32_t most() const noexcept { return most_; }
  // Needs an empty bin.
  void limit(std::uint32_t most) noexcept {
    most_ = static_cast<std::uint16_t>(most);
    set(0, most);
  }

 private:
  std::uint16_t room() const noexcept { return room_.load(std::memory_order_relaxed); }
  void set(std::uint32_t head, std::uint32_t room) noexcept {
    head_ = head;
    room_.store(static_cast<std::uint16_t>(room), std::memory_order_relaxed);
  }

  std::uint32_t head_ = 0;
  std::atomic<std::uint16_t> room_{0};
  std::uint16_t most_ = 0;
};
static_assert(sizeof(FastBin) == 8);

// What a thread keeps of a pool; a block of that pool.
struct FastCache {
  FastBin bins[KEPT_LISTS];
  Block window;     // of the pool
  FastCache* next;  // of the pool's
  MemPool* pool;
};

// What a thread knows of pools, of private sets. It is true as long as the epoch is the one that it was learned in.
struct FastThread {
  std::atomic<std::uint32_t> inside;  // 1: the thread looks at its caches
  std::uint32_t sequence;
  std::uint64_t epoch;
  FastThread* next;  // of all threads that have one
  FastThread* previous;
  MemPool* pools[FAST_ENTRIES];                  // that are there
  std::atomic<FastCache*> caches[FAST_ENTRIES];  // of these pools; g_noCache: their blocks are not kept
  std::uint32_t generations[FAST_ENTRIES];       // of these pools: another one may come to stand in its place
  std::uint32_t poolCount;
  std::uint32_t chunks[FAST_CHUNKS];  // numbers in the address space, 0: none
  FastCache* chunkCaches[FAST_CHUNKS];
  MemPool* chunkPools[FAST_CHUNKS];
  const char* files[FAST_FILES];
  std::uint32_t fileKeys[FAST_FILES];
};

// Stands for a cache where there is none, and for a thread that knows nothing.
extern FastCache g_noCache;
extern FastThread g_nobody;

extern thread_local constinit FastThread* t_fast __attribute__((tls_model("initial-exec")));
extern std::atomic<std::uint64_t> g_fastEpoch;

// The key of a file's name, by which other processes and dumps find it. Without a latch.
std::uint32_t sqloi_fileKey(const char* file) noexcept;

// Multiplicative hashing: pools stand at the same places of different windows.
inline std::uint32_t fastHash(const SQLO_MEM_POOL* pool) noexcept {
  return static_cast<std::uint32_t>((reinterpret_cast<std::uintptr_t>(pool) * 0x9E3779B97F4A7C15U) >> 57);
}
static_assert(FAST_ENTRIES == 1U << (64 - 57));

inline std::uint32_t chunkNumber(Block block) noexcept { return static_cast<std::uint32_t>(block >> SQLO_CHUNK_SHIFT); }
inline std::uint32_t fastFileAt(const char* file) noexcept {
  return static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(file) >> 3) % FAST_FILES;
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
  bool knows() const noexcept { return thread_.epoch == g_fastEpoch.load(std::memory_order_acquire); }

 private:
  FastThread& thread_;
};

// Whether threads keep blocks of a pool.
bool sqloi_isFast(const MemPool& pool) noexcept;

// What stands in a place of a thread's table. Whoever takes caches away may change it at any time; what is read counts
// while the thread is inside and knows.
inline FastCache* fastCacheAt(const FastThread& thread, std::uint32_t at) noexcept {
  return thread.caches[at].load(std::memory_order_relaxed);
}

// The calling thread's cache of a pool that is there, made when it is to have one; g_noCache when it is not, or when
// the pool has no block for it. Null: the thread cannot know about it, since processes share it or there is no memory.
// Without a latch.
FastCache* sqloi_fastLearn(MemPool& pool) noexcept;

// What the thread knows of a pool already; null: nothing.
FastCache* sqloi_fastKnown(const SQLO_MEM_POOL* pool) noexcept;

// Learns that a chunk belongs to a pool that the thread knows. Inside.
inline void fastLearnChunk(FastThread& thread, std::uint32_t number, MemPool& pool, FastCache& cache) noexcept {
  const std::uint32_t at = number % FAST_CHUNKS;
  thread.chunks[at] = number;
  thread.chunkPools[at] = &pool;
  thread.chunkCaches[at] = &cache;
}

// What threads know of chunks and pools is no longer true.
inline void fastForgetKnowledge() noexcept { g_fastEpoch.fetch_add(1, std::memory_order_release); }

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
