#include "memory/sqlo_mem_rows.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

#include "platform/osse.h"
#include "platform/thread.h"

namespace vek {
namespace {

// The process that has taken back what the dead left.
constinit std::atomic<std::uint64_t> g_swept{0};

constexpr std::uint64_t lifeOf(std::uint64_t owner) noexcept { return owner & ~MEM_ROW_READY; }

// Calls `visit(row, owner)` for every row that is not free.
template <class Visit>
void visitRows(MemRows& rows, const Visit& visit) noexcept {
  const std::uint32_t end = std::min(rows.highest.load(std::memory_order_acquire), MEM_ROWS);
  for (MemRow* row = rows.rows; row != rows.rows + end; ++row)
    if (const std::uint64_t owner = row->owner.load(std::memory_order_acquire); owner != 0) visit(*row, owner);
}

// One exchange: whoever has the row by now keeps it.
void freeRow(MemRow& row, std::uint64_t owner) noexcept {
  row.owner.compare_exchange_strong(owner, 0, std::memory_order_acq_rel);
}

// Frees what dead processes left. Whether a process lives is asked once per run of its rows.
void sweep(MemRows& rows) noexcept {
  std::uint64_t known = 0;
  bool lives = false;
  visitRows(rows, [&](MemRow& row, std::uint64_t owner) {
    if ((owner & MEM_ROW_SHARED) != 0) return;
    if (lifeOf(owner) != known) lives = regionOwnerLives(known = lifeOf(owner));
    if (!lives) freeRow(row, owner);
  });
}

// Takes the first free row for an owner; null when there is none.
MemRow* claim(MemRows& rows, std::uint64_t owner) noexcept {
  for (std::uint32_t number = 1; number <= MEM_ROWS; ++number) {
    MemRow& row = rows.rows[number - 1];
    std::uint64_t expected = 0;
    if (row.owner.load(std::memory_order_relaxed) != 0 ||
        !row.owner.compare_exchange_strong(expected, owner, std::memory_order_acq_rel))
      continue;
    std::uint32_t highest = rows.highest.load(std::memory_order_relaxed);
    while (highest < number && !rows.highest.compare_exchange_weak(highest, number, std::memory_order_acq_rel)) {
    }
    row.uses.fetch_add(1, std::memory_order_relaxed);
    return &row;
  }
  return nullptr;
}

// Stored as words, each after `uses` has changed: who reads in between notices.
void describe(MemRow& row, const MemRowAbout& about) noexcept {
  std::uint64_t words[MEM_ROW_WORDS];
  static_assert(sizeof words == sizeof about);
  std::memcpy(words, &about, sizeof about);
  for (std::size_t i = 0; i < MEM_ROW_WORDS; ++i) row.about[i].store(words[i], std::memory_order_release);
}

// Whose the rows about a set are: this process's, or those of the entry of a shared set. 0: not attached.
std::uint64_t ownerFor(const SMemSet& set) noexcept {
  return set.isPrivate() ? regionProcessOwner() : set.m_sharedOwner;
}

MemRowAbout aboutOf(MemRowKind kind, std::uint32_t typeId, const SMemSet& set) noexcept {
  MemRowAbout about = {kind, typeId, set.m_window, ossProcessId(), {}, {}};
  ossProcessName(about.processName, sizeof about.processName);
  if (kind == MemRowKind::kSet) ossCopyText(about.name, sizeof about.name, set.m_name);
  return about;
}

// Takes a row; answers its number, 0 when it has none. Its counters are told later.
std::uint32_t enlist(const SMemSet& set, const MemRowAbout& about) noexcept {
  MemRows* const rows = sqloi_rows();
  const std::uint64_t owner = ownerFor(set);
  if (rows == nullptr || owner == 0 || processIsEnding()) return 0;
  const bool isFirst = g_swept.exchange(regionProcessOwner(), std::memory_order_relaxed) != regionProcessOwner();
  if (isFirst) sweep(*rows);
  MemRow* row = claim(*rows, owner);
  if (row == nullptr) {
    sweep(*rows);
    row = claim(*rows, owner);
  }
  if (row == nullptr) return 0;
  for (auto* counter : {&row->options, &row->limitChunks, &row->sizeChunks, &row->peakChunks, &row->keptChunks,
                        &row->used, &row->committedChunks, &row->refusals, &row->consumer})
    counter->store(0, std::memory_order_relaxed);
  row->consumerOwner.store(0, std::memory_order_relaxed);
  describe(*row, about);
  return static_cast<std::uint32_t>(row - rows->rows) + 1;
}

// The row of that number while it belongs to the set's owner, READY or not.
MemRow* rowOf(const SMemSet& set, std::uint32_t number) noexcept {
  MemRows* const rows = sqloi_rows();
  if (rows == nullptr || number == 0 || number > MEM_ROWS) return nullptr;
  MemRow& row = rows->rows[number - 1];
  return lifeOf(row.owner.load(std::memory_order_relaxed)) == ownerFor(set) ? &row : nullptr;
}

// A forked child has copies of its parent's private sets; they get rows of their own when it first changes them.
MemRow* ownRow(const SMemSet& set, std::uint32_t* number, MemRowKind kind, std::uint32_t typeId) noexcept {
  if (*number == 0) return nullptr;
  MemRow* row = rowOf(set, *number);
  if (row != nullptr || !set.isPrivate() || regionProcessOwner() == 0) return row;
  *number = enlist(set, aboutOf(kind, typeId, set));
  return rowOf(set, *number);
}

void makeReady(MemRow& row) noexcept {
  const std::uint64_t owner = row.owner.load(std::memory_order_relaxed);
  if ((owner & MEM_ROW_READY) == 0) row.owner.store(owner | MEM_ROW_READY, std::memory_order_release);
}

void tell(std::atomic<std::uint32_t>& counter, std::uint32_t value) noexcept {
  counter.store(value, std::memory_order_relaxed);
}

void unlist(const SMemSet& set, std::uint32_t* number) noexcept {
  MemRow* const row = rowOf(set, std::exchange(*number, 0));
  if (row != nullptr) freeRow(*row, row->owner.load(std::memory_order_relaxed));
}

}  // namespace

void sqloi_listSet(SMemSet& set) noexcept {
  if (regionAttach() != 0) return;
  set.m_row = enlist(set, aboutOf(MemRowKind::kSet, set.m_setType, set));
  sqloi_tellSet(set);
}

void sqloi_listPool(MemPool& pool) noexcept {
  if (regionAttach() != 0) return;
  pool.m_row = enlist(*pool.m_set, aboutOf(MemRowKind::kPool, pool.m_poolId, *pool.m_set));
  sqloi_tellPool(pool);
}

void sqloi_tellSet(SMemSet& set) noexcept {
  MemRow* const row = ownRow(set, &set.m_row, MemRowKind::kSet, set.m_setType);
  if (row == nullptr) return;
  tell(row->options, set.m_options);
  tell(row->limitChunks, set.m_maxChunksAllowed);
  tell(row->sizeChunks, set.m_allocatedChunks);
  tell(row->peakChunks, set.m_largestChunksUsed);
  tell(row->keptChunks, set.m_fastCount);
  tell(row->used, set.m_usedChunks);
  tell(row->committedChunks, set.m_committedChunks);
  tell(row->consumer, set.m_consumerNumber);
  row->consumerOwner.store(set.m_consumerOwner, std::memory_order_relaxed);
  makeReady(*row);
}

void sqloi_tellPool(MemPool& base) noexcept {
  base.m_usedTold = base.m_currentUsed;
  MemRow* const row = ownRow(*base.m_set, &base.m_row, MemRowKind::kPool, base.m_poolId);
  if (row == nullptr) return;
  tell(row->options, base.m_options);
  tell(row->limitChunks, base.m_maximumAllowed);
  tell(row->sizeChunks, base.m_currentOwned);
  tell(row->peakChunks, base.m_maximumOwned);
  tell(row->keptChunks, base.m_cachedChunkCount);
  tell(row->used, base.m_currentUsed);
  tell(row->refusals, base.m_refusals);
  makeReady(*row);
}

void sqloi_unlistSet(SMemSet& set) noexcept {
  for (MemPool* pool = set.m_pools; pool != nullptr; pool = pool->m_next) unlist(set, &pool->m_row);
  unlist(set, &set.m_row);
}

void sqloi_unlistPool(MemPool& base) noexcept { unlist(*base.m_set, &base.m_row); }

void sqloi_freeRowsOf(std::uint64_t owner) noexcept {
  MemRows* const rows = sqloi_rows();
  if (rows == nullptr || owner == 0) return;
  visitRows(*rows, [&](MemRow& row, std::uint64_t its) {
    if (lifeOf(its) == owner) freeRow(row, its);
  });
}

void sqloi_rowsProcessEnds() noexcept { sqloi_freeRowsOf(regionProcessOwner()); }

}  // namespace vek
