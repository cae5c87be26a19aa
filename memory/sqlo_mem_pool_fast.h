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

// Blocks of one stride, in one word, which others may read at any time: the lower half of the address of the first one
// (0: none), how many more there is room for, and how many there may be.
class FastBin {
 public:
  constexpr FastBin() noexcept = default;

  std::uint64_t word() const noexcept { return word_.load(std::memory_order_relaxed); }
  void set(std::uint64_t word) noexcept { word_.store(word, std::memory_order_relaxed); }

  static constexpr std::uint32_t headOf(std::uint64_t word) noexcept { return static_cast<std::uint32_t>(word); }
  static constexpr bool hasRoom(std::uint64_t word) noexcept { return (word & kRoom) != 0; }
  static constexpr std::uint64_t popped(std::uint64_t word, std::uint32_t next) noexcept {
    return ((word & ~kHead) + kOne) | next;
  }
  static constexpr std::uint64_t pushed(std::uint64_t word, std::uint32_t low) noexcept {
    return ((word & ~kHead) - kOne) | low;
  }

  std::uint32_t size() const noexcept { return countOf(word()); }
  std::uint32_t most() const noexcept { return static_cast<std::uint32_t>(word() >> 48); }
  // Needs an empty bin.
  void limit(std::uint32_t most) noexcept { set(std::uint64_t{most} << 48 | std::uint64_t{most} << 32); }

 private:
  static constexpr std::uint64_t kHead = 0xFFFFFFFF;
  static constexpr std::uint64_t kOne = std::uint64_t{1} << 32;
  static constexpr std::uint64_t kRoom = std::uint64_t{0xFFFF} << 32;
  static constexpr std::uint32_t countOf(std::uint64_t word) noexcept {
    return static_cast<std::uint32_t>((word >> 48) - ((word & kRoom) >> 32));
  }

  std::atomic<std::uint64_t> word_{0};
};

// What a thread keeps of a pool; a block of that pool.
struct FastCache {
  FastCache* next;  // of the pool's
  MemPool* pool;
  FastBin bins[KEPT_LISTS];
};

// What a thread knows of pools. It is true as long as the epoch is the one that it was learned in.
struct FastThread {
  std::atomic<std::uint32_t> inside;  // 1: the thread looks at its caches
  std::uint32_t sequence;
  std::uint64_t epoch;
  FastThread* next;  // of all threads that have one
  FastThread* previous;
  struct Entry {
    MemPool* pool;             // that is there
    FastCache* cache;          // null: its blocks are not kept
    std::uint32_t generation;  // of the pool: another one may come to stand in its place
  } entries[FAST_ENTRIES];
  std::uint32_t entryCount;
  struct Chunk {
    std::uint32_t chunk;  // number in the address space; 0: none
    std::uint32_t entry;  // of the pool that it belongs to
    FastCache* cache;     // of that entry
  } chunks[FAST_CHUNKS];
  struct File {
    const char* file;
    std::uint32_t key;
  } files[FAST_FILES];
};

extern thread_local constinit FastThread* t_fast __attribute__((tls_model("initial-exec")));
extern std::atomic<std::uint64_t> g_fastEpoch;

// The place where a thread remembers the name of a file, by the address of the text.
inline FastThread::File& fastFileOf(FastThread& thread, const char* file) noexcept {
  return thread.files[(reinterpret_cast<std::uintptr_t>(file) >> 3) % FAST_FILES];
}

// The key of a file's name, by which other processes and dumps find it. Without a latch.
std::uint32_t sqloi_fileKey(const char* file) noexcept;

inline std::uint32_t fastHash(const SQLO_MEM_POOL* pool) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(pool);
  return static_cast<std::uint32_t>((address >> SQLO_CHUNK_SHIFT) ^ (address >> 32)) % FAST_ENTRIES;
}

inline std::uint32_t chunkNumber(Block block) noexcept { return static_cast<std::uint32_t>(block >> SQLO_CHUNK_SHIFT); }

// What the thread knows of a pool; null: nothing.
inline FastThread::Entry* fastEntryOf(FastThread& thread, const SQLO_MEM_POOL* pool) noexcept {
  for (std::uint32_t at = fastHash(pool); thread.entries[at].pool != nullptr; at = (at + 1) % FAST_ENTRIES)
    if (thread.entries[at].pool == pool) return &thread.entries[at];
  return nullptr;
}

// What it knows of a chunk.
inline FastThread::Chunk* fastChunkOf(FastThread& thread, Block header) noexcept {
  FastThread::Chunk* const chunk = &thread.chunks[chunkNumber(header) % FAST_CHUNKS];
  return chunk->chunk == chunkNumber(header) ? chunk : nullptr;
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

// Learns about a pool that is there, and makes the calling thread's cache of it when it is to have one. Null: there is
// no memory for that at the moment, or the pool is one that processes share. Without a latch.
FastThread::Entry* sqloi_fastLearn(MemPool& pool) noexcept;

// Learns that a chunk, of a private set, belongs to a pool that the thread knows.
inline void fastLearnChunk(FastThread& thread, std::uint32_t number, const FastThread::Entry& entry) noexcept {
  thread.chunks[number % FAST_CHUNKS] = {number, static_cast<std::uint32_t>(&entry - thread.entries), entry.cache};
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
