// The instance's list of sets and pools: a section of the instance region with a row for each, which tells what it is
// and where its counters stand. Whoever changes the counters tells the row; who watches reads it and asks nobody.
//
// A row belongs to a life of a process (private sets and their pools) or to a life of an entry of the directory of
// shared sets. Its owner word goes from 0 to the owner by one compare-and-swap, and says READY once the row is filled:
// a process killed meanwhile leaves a row that nobody sees, and that is taken back like others of the dead. `uses`
// tells a reader that a row changed hands while it was read.
//
// Rows of dead processes stay, for those who watch, until another process makes its first set or rows run out. A
// process that ends in order takes its rows with it. Without a free row a set or pool is not listed, and works all the
// same.
#pragma once

#include <atomic>
#include <cstdint>

#include "memory/sqlo_mem_pool.h"
#include "memory/sqlo_mem_set.h"
#include "platform/region.h"

namespace vek {

inline constexpr std::uint32_t MEM_ROWS = 4095;
inline constexpr std::uint32_t MEM_ROW_NAME_BYTES = 23;

// Bits of an owner word beside the life it tells: slots of processes and entries of the directory leave them free.
inline constexpr std::uint64_t MEM_ROW_READY = 1U << 31;
inline constexpr std::uint64_t MEM_ROW_SHARED = 1U << 30;
static_assert(REGION_PROCESS_SLOTS < MEM_ROW_SHARED && MEM_SET_ENTRIES < MEM_ROW_SHARED);

// The owner of rows about a shared set: which life of which entry of the directory.
constexpr std::uint64_t sharedRowOwner(std::uint32_t entry, std::uint32_t serial) noexcept {
  return std::uint64_t{serial} << 32 | MEM_ROW_SHARED | (entry + 1U);
}

enum class MemRowKind : std::uint32_t { kSet = 1, kPool = 2 };

// What a row is about. Stays while the row has its owner.
struct MemRowAbout {
  MemRowKind kind;
  std::uint32_t typeId;     // type of the set, id of the pool
  std::uint32_t window;     // of the set, or of the set the pool lies in
  std::uint32_t processId;  // that made it, and its name
  char name[SQLO_SET_NAME_BYTES];
  char processName[MEM_ROW_NAME_BYTES];
};
inline constexpr std::size_t MEM_ROW_WORDS = sizeof(MemRowAbout) / 8;
static_assert(sizeof(MemRowAbout) % 8 == 0);

struct MemRow {
  std::atomic<std::uint64_t> owner;  // 0: free
  std::atomic<std::uint64_t> consumerOwner;
  std::atomic<std::uint32_t> uses;
  std::atomic<std::uint32_t> options;
  std::atomic<std::uint32_t> limitChunks;
  std::atomic<std::uint32_t> sizeChunks;  // reserved by a set, owned by a pool
  std::atomic<std::uint32_t> peakChunks;  // most that was used of a set, or owned by a pool
  std::atomic<std::uint32_t> keptChunks;  // unused, for fast reuse
  std::atomic<std::uint32_t> used;        // chunks of a set, bytes of a pool
  std::atomic<std::uint32_t> committedChunks;
  std::atomic<std::uint32_t> refusals;
  std::atomic<std::uint32_t> consumer;  // number of the record that counts the set, 0: none
  std::atomic<std::uint64_t> about[MEM_ROW_WORDS];
};
static_assert(sizeof(MemRow) == 128);

struct alignas(128) MemRows {
  std::atomic<std::uint32_t> highest;  // no row above this number was ever used
  MemRow rows[MEM_ROWS];               // number 1 is the first
};
static_assert(sizeof(MemRows) == REGION_MEMORY_ROWS_BYTES);

// Rows of the region of this process; null when it has none.
inline MemRows* sqloi_rows() noexcept { return static_cast<MemRows*>(regionSection(RegionSectionId::kMemoryRows)); }

// Lists a new set or pool. Without a latch, before others know of it.
void sqloi_listSet(SMemSet& set) noexcept;
void sqloi_listPool(MemPool& pool) noexcept;

// Tells the row where the counters stand. Needs the latch of the set, or of the base pool.
void sqloi_tellSet(SMemSet& set) noexcept;
void sqloi_tellPool(MemPool& base) noexcept;

// How far the bytes in use of a pool may move until its row is told, unless it takes or gives back chunks.
inline constexpr std::uint32_t MEM_ROW_STEP_BYTES = 4096;

inline void sqloi_tellPoolWhenMoved(MemPool& base) noexcept {
  if (base.m_currentUsed - base.m_usedTold + MEM_ROW_STEP_BYTES > 2 * MEM_ROW_STEP_BYTES) [[unlikely]]
    sqloi_tellPool(base);
}

// Takes a set with all its pools, or a pool, out of the list.
void sqloi_unlistSet(SMemSet& set) noexcept;
void sqloi_unlistPool(MemPool& base) noexcept;

// Frees all rows of an owner.
void sqloi_freeRowsOf(std::uint64_t owner) noexcept;

// The port of a process's end: frees its rows.
void sqloi_rowsProcessEnds() noexcept;

}  // namespace vek
