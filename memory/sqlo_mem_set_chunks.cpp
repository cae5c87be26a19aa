// Memory sets: which chunks are handed out; groups of them.
#include <algorithm>
#include <bit>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_set.h"
#include "platform/address_space.h"
#include "platform/osse.h"
#include "veksys/codes.h"

namespace vek {
namespace {

constexpr int kFreedFill = 0xDD;

// The first run of `count` chunks below `end` whose bits are set in the words that `word(index)` answers; `end` when
// there is none. Words that are all clear or all set are passed at once.
template <class Word>
std::uint32_t findRun(std::uint32_t count, std::uint32_t end, Word word) noexcept {
  std::uint32_t begin = 0;  // of the run that ends here
  for (std::uint32_t at = 0; at < end; at += 64) {
    const std::uint64_t bits = word(at / 64);
    for (std::uint32_t bit = 0; bit < 64;) {
      const std::uint64_t rest = bits >> bit;
      const auto ones = std::min(static_cast<std::uint32_t>(std::countr_one(rest)), 64 - bit);
      bit += ones;
      if (std::min(at + bit, end) - std::min(begin, end) >= count && at + bit > begin) return begin;
      if (bit == 64) break;
      bit += std::min(static_cast<std::uint32_t>(std::countr_zero(bits >> bit)), 64 - bit);
      begin = at + bit;
    }
  }
  return end;
}

}  // namespace
}  // namespace vek

// ---- groups ----------------------------------------------------------------------------------------------------

std::uint32_t SMemSet::growthFor(std::uint32_t chunks) const noexcept {
  if (!has(SQLO_SET_GROWABLE)) return 0;
  std::uint32_t atEnd = 0;
  while (atEnd < m_allocatedChunks && !m_used.has(m_allocatedChunks - 1 - atEnd)) ++atEnd;
  const std::uint32_t needed = chunks > atEnd ? chunks - atEnd : 1;
  const std::uint32_t step = std::min(std::max(m_chunkIncrement, needed), getSetGrowthLimit());
  return step < needed ? 0 : step;
}

SqlzZrc SMemSet::allocateChunkGroup(std::uint32_t chunks) noexcept {
  vek::VekTrace<vek::FID_SMemSet_allocateChunkGroup> trace;
  if (chunks > getSetGrowthLimit()) return trace.exit(SQLO_NOTAVAIL);
  const vek::ChunkRange range = {m_allocatedChunks, chunks};
  const std::size_t bytes = std::size_t{chunks} << SQLO_CHUNK_SHIFT;
  const int error = isPrivate() ? vek::ossReserveAt(addressOf(range.first), bytes)
                                : vek::ossTruncate(vek::sqloi_setDescriptor(*this),
                                                   (std::uint64_t{range.first} + 1 + chunks) << SQLO_CHUNK_SHIFT);
  if (error != 0) {
    notePendingFailure(isPrivate() ? vek::SetFailure::kExhausted : vek::SetFailure::kSegment, error, SQLO_NOSEG, range);
    return trace.exit(SQLO_NOMEM);
  }
  if (has(SQLO_SET_LARGE_PAGES)) (void)vek::ossPreferLargePages(addressOf(range.first), bytes);
  addChunkGroupToSet(chunks);
  refreshMaxFreeChunks();
  return trace.exit(0);
}

// Groups are neighbours: when there is no record left for another one, the last one becomes larger. Not inline, since
// the trace point would lie badly inside that of the caller.
[[gnu::noinline]] void SMemSet::addChunkGroupToSet(std::uint32_t chunks) noexcept {
  const vek::VekTrace<vek::FID_SMemSet_addChunkGroupToSet> trace;
  if (m_groupCount < vek::MEM_SET_GROUPS)
    m_groups[m_groupCount++] = {m_allocatedChunks, chunks, 0};
  else
    m_groups[m_groupCount - 1].chunks += chunks;
  m_allocatedChunks += chunks;
}

// Everything in it is decommitted, then the record goes, then the address space: whoever is killed in between leaves a
// set that has less than the system thinks, never more.
SqlzZrc SMemSet::freeChunkGroup() noexcept {
  vek::VekTrace<vek::FID_SMemSet_freeChunkGroup> trace;
  if (m_groupCount < 2) return trace.exit(SQLO_NOTAVAIL);
  const vek::ChunkGroup group = m_groups[m_groupCount - 1];
  const std::uint32_t end = group.firstChunk + group.chunks;
  for (std::uint32_t chunk = group.firstChunk; chunk < end; ++chunk)
    if (m_used.has(chunk)) return trace.exit(SQLO_NOTAVAIL);
  for (std::uint32_t below = end; below > group.firstChunk;) {
    if (!m_committed.has(below - 1)) {
      --below;
      continue;
    }
    const vek::ChunkRange range = decommitChunksFromFreeTree(below, below - group.firstChunk);
    if (range.count == 0) return trace.exit(SQLO_NOSEG);
    below = range.first;
  }
  const std::uint32_t withdrawn = m_decommittedChunks - m_recommitableChunks;
  for (std::uint32_t chunk = group.firstChunk; chunk < end; ++chunk) {
    m_decommittedChunks -= m_decommitted.has(chunk) ? 1U : 0U;
    m_decommitted.drop(chunk);
  }
  m_recommitableChunks = m_decommittedChunks - std::min(withdrawn, m_decommittedChunks);
  m_allocatedChunks -= group.chunks;
  --m_groupCount;
  const int error = isPrivate()
                        ? vek::ossUnmapAt(addressOf(group.firstChunk), std::size_t{group.chunks} << SQLO_CHUNK_SHIFT)
                        : vek::ossTruncate(vek::sqloi_setDescriptor(*this), (std::uint64_t{group.firstChunk} + 1)
                                                                                << SQLO_CHUNK_SHIFT);
  if (error != 0) {
    addChunkGroupToSet(group.chunks);
    notePendingFailure(vek::SetFailure::kFree, error, SQLO_NOSEG, {group.firstChunk, group.chunks});
    return trace.exit(SQLO_NOSEG);
  }
  refreshMaxFreeChunks();
  return trace.exit(0);
}

// Whether the last group is more than what may be kept free.
bool SMemSet::isLastGroupIdle() const noexcept {
  if (!has(SQLO_SET_REDUCIBLE) || has(SQLO_SET_FIXED_SIZE) || m_groupCount < 2) return false;
  const std::uint32_t unused = m_allocatedChunks - m_usedChunks - m_fastCount;
  return unused >= std::uint64_t{m_maxFreeChunks} + m_groups[m_groupCount - 1].chunks;
}

// ---- chunks ----------------------------------------------------------------------------------------------------

namespace {

vek::ChunkGroup& groupOf(SMemSet& set, std::uint32_t chunk) noexcept {
  vek::ChunkGroup* group = set.m_groups;
  while (chunk >= group->firstChunk + group->chunks) ++group;
  return *group;
}

void noteStart(SMemSet& set, std::uint32_t chunk) noexcept {
  if (set.m_starts.has(chunk)) return;
  set.m_starts.add(chunk);
  ++groupOf(set, chunk).subgroups;
}

void forgetStart(SMemSet& set, std::uint32_t chunk) noexcept {
  if (!set.m_starts.has(chunk)) return;
  set.m_starts.drop(chunk);
  --groupOf(set, chunk).subgroups;
}

vek::ChunkRun* runAt(const SMemSet& set, std::uint32_t chunk) noexcept {
  return std::bit_cast<vek::ChunkRun*>(set.addressOf(chunk));
}

// Whose it is stands there before the mark, and it is a pool's until then: at any instant it belongs to somebody. A
// private set is gone with its process, and needs no mark.
vek::ChunkRun* sendOff(SMemSet& set, vek::ChunkRange range, std::uint64_t process) noexcept {
  vek::ChunkRun* const run = runAt(set, range.first);
  run->process = process;
  run->chunks = range.count;
  if (!set.isPrivate()) set.m_onTheWay.add(range.first);
  run->eyeCatcher = 0;
  run->pool = nullptr;
  return run;
}

void noteUsed(SMemSet& set, vek::ChunkRange range) noexcept {
  (void)sendOff(set, range, vek::regionProcessOwner());
  for (std::uint32_t chunk = range.first; chunk < range.first + range.count; ++chunk) set.m_used.add(chunk);
  noteStart(set, range.first);
  set.m_usedChunks += range.count;
  set.m_largestChunksUsed = std::max(set.m_largestChunksUsed, set.m_usedChunks);
  // A lazy set keeps what it ever used, until it is told to keep less.
  if (set.has(SQLO_SET_LAZY_DECOMMIT)) set.m_keepCommitChunks = std::max(set.m_keepCommitChunks, set.m_usedChunks);
}

}  // namespace

// Committed runs first, lowest address first; else any run, committing what it lacks. Chunks that were withdrawn are
// not told one by one, so that while there are any, decommitted chunks are taken only as far as they may be committed
// again.
SqlzZrc SMemSet::getChunksForInternalUse(std::uint32_t chunks, std::uint32_t* first) noexcept {
  vek::VekTrace<vek::FID_SMemSet_getChunksForInternalUse> trace;
  const std::uint32_t end = m_allocatedChunks;
  const bool sparesDecommitted = m_recommitableChunks < std::min(chunks, m_decommittedChunks);
  std::uint32_t found =
      vek::findRun(chunks, end, [&](std::uint32_t word) { return m_committed.words[word] & ~m_used.words[word]; });
  if (found == end)
    found = vek::findRun(chunks, end, [&](std::uint32_t word) {
      return ~(m_used.words[word] | (sparesDecommitted ? m_decommitted.words[word] : 0));
    });
  if (found == end) {
    // What is kept for fast reuse may lie in between.
    if (m_fastCount == 0) return trace.exit(SQLO_NOTAVAIL);
    freeFastChunksUntilTargetReached(m_fastCount);
    return trace.exit(getChunksForInternalUse(chunks, first));
  }
  const SqlzZrc committed = commitMemory({found, chunks});
  if (committed != 0) return trace.exit(committed);
  m_moving.begin({found, chunks});
  noteUsed(*this, {found, chunks});
  m_moving.end();
  *first = found;
  return trace.exit(0);
}

SqlzZrc SMemSet::getChunksFromTree(std::uint32_t chunks, std::uint32_t* first) noexcept {
  vek::VekTrace<vek::FID_SMemSet_getChunksFromTree> trace;
  if (chunks > usableChunks() - std::min(m_usedChunks, usableChunks())) return trace.exit(SQLO_NOTAVAIL);
  return trace.exit(getChunksForInternalUse(chunks, first));
}

bool SMemSet::getFastChunk(std::uint32_t* first) noexcept {
  vek::VekTrace<vek::FID_SMemSet_getFastChunk> trace;
  if (m_fastCount == 0 || m_usedChunks >= usableChunks()) return trace.exit(false);
  *first = m_fast[m_fastCount - 1];
  m_moving.begin({*first, 1});
  --m_fastCount;
  m_kept.drop(*first);
  noteUsed(*this, {*first, 1});
  m_moving.end();
  return trace.exit(true);
}

std::uint32_t SMemSet::freeFastChunksUntilTargetReached(std::uint32_t chunks) noexcept {
  vek::VekTrace<vek::FID_SMemSet_freeFastChunksUntilTargetReached> trace;
  const std::uint32_t count = std::min(chunks, m_fastCount);
  m_fastDraining = true;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t chunk = m_fast[--m_fastCount];
    m_kept.drop(chunk);
    m_used.drop(chunk);
  }
  m_fastDraining = false;
  return trace.exit(count);
}

SqlzZrc SMemSet::returnContiguousChunks(vek::ChunkRange range) noexcept {
  vek::VekTrace<vek::FID_SMemSet_returnContiguousChunks> trace;
  if (range.count == 0 || range.first >= m_allocatedChunks || range.count > m_allocatedChunks - range.first)
    return trace.exit(SQLO_INV_MEM);
  const std::uint32_t end = range.first + range.count;
  for (std::uint32_t chunk = range.first; chunk < end; ++chunk)
    if (!m_used.has(chunk) || m_kept.has(chunk)) return trace.exit(SQLO_INV_MEM);
  m_moving.begin(range);
  if (m_fillsFreed)
    std::memset(std::bit_cast<void*>(addressOf(range.first)), vek::kFreedFill,
                std::size_t{range.count} << SQLO_CHUNK_SHIFT);
  // What is left of a run behind the range is a run of its own.
  if (end < m_allocatedChunks && m_used.has(end) && !m_kept.has(end)) noteStart(*this, end);
  for (std::uint32_t chunk = range.first; chunk < end; ++chunk) forgetStart(*this, chunk);
  m_onTheWay.drop(range.first);
  m_usedChunks -= range.count;
  if (range.count == 1 && m_fastEnabled && !m_fastDraining && m_fastCount < vek::MEM_SET_FAST_CHUNKS) {
    m_kept.add(range.first);
    m_fast[m_fastCount++] = static_cast<std::uint16_t>(range.first);
    m_moving.end();
    return trace.exit(0);
  }
  for (std::uint32_t chunk = range.first; chunk < end; ++chunk) m_used.drop(chunk);
  m_moving.end();
  if (isDecommitDue()) decommitExcess();
  return trace.exit(0);
}

std::uint32_t SMemSet::returnStrandedChunks() noexcept {
  if (isPrivate()) return 0;
  std::uint32_t returned = 0;
  for (std::uint32_t word = 0; word < vek::MEM_SET_WORDS; ++word)
    for (std::uint64_t marks = m_onTheWay.words[word]; marks != 0; marks &= marks - 1) {
      const std::uint32_t chunk = word * 64 + static_cast<std::uint32_t>(std::countr_zero(marks));
      vek::ChunkRun& run = *runAt(*this, chunk);
      // A forked child has no life before its first call into the region: it may live.
      if (run.process == 0 || vek::regionOwnerLives(run.process)) continue;
      run.eyeCatcher = 0;  // its pool may be about to look for what it has
      const std::uint32_t chunks = run.chunks;
      if (returnContiguousChunks({chunk, chunks}) == 0)
        returned += chunks;
      else
        m_onTheWay.drop(chunk);
    }
  return returned;
}

// ---- for those who live in a set -------------------------------------------------------------------------------

namespace vek {
namespace {

// Reserves another group. The controller is asked first, without the latch. SQLO_NOTAVAIL: somebody else made it grow.
SqlzZrc grow(SMemSet& set, std::uint32_t chunks) noexcept {
  const SqlzZrc granted = sqloi_setRequestMemory(set, chunks);
  if (granted != 0) return granted;
  SqlzZrc result;
  {
    const SetOperation operation(set);
    result = set.allocateChunkGroup(chunks);
  }
  if (result != 0) sqloi_setFreeMemory(set, chunks);
  return result;
}

}  // namespace

SqlzZrc sqloi_setGetChunks(SMemSet& set, std::uint32_t chunks, void** address) noexcept {
  if (chunks == 0 || chunks > SQLO_SET_CHUNKS_MOST) return SQLO_MEM_SIZE;
  (void)regionAttach();  // a forked child has a life from here on
  for (;;) {
    std::uint32_t first = 0;
    std::uint32_t step = 0;
    SqlzZrc result = 0;
    {
      const SetOperation operation(set);
      if (chunks != 1 || !set.getFastChunk(&first)) result = set.getChunksFromTree(chunks, &first);
      if (result == SQLO_NOTAVAIL && set.returnStrandedChunks() != 0) result = set.getChunksFromTree(chunks, &first);
      if (result == SQLO_NOTAVAIL) step = set.growthFor(chunks);
    }
    if (result == 0) {
      *address = std::bit_cast<void*>(set.addressOf(first));
      return 0;
    }
    if (step == 0) return SQLO_NOMEM;
    const SqlzZrc grown = grow(set, step);
    if (grown != 0 && grown != SQLO_NOTAVAIL) return SQLO_NOMEM;
  }
}

// No failure of the system is logged under the latch here: the caller may hold a pool latch.
void sqloi_setRunArrived(SMemSet& set, const void* address) noexcept {
  if (set.isPrivate()) return;
  set.captureLatch("sqlo_mem_set_chunks", __LINE__);
  sqloi_setRunArrivedLatched(set, address);
  set.releaseLatch();
}

void sqloi_setRunArrivedLatched(SMemSet& set, const void* address) noexcept {
  set.m_onTheWay.drop(set.chunkAt(address));
}

ChunkRun* sqloi_setSendRun(SMemSet& set, void* address, std::uint32_t chunks) noexcept {
  if (set.isPrivate()) return sqloi_setSendRunLatched(set, address, chunks, 0);
  set.captureLatch("sqlo_mem_set_chunks", __LINE__);
  ChunkRun* const run = sqloi_setSendRunLatched(set, address, chunks, regionProcessOwner());
  set.releaseLatch();
  return run;
}

ChunkRun* sqloi_setSendRunLatched(SMemSet& set, void* address, std::uint32_t chunks, std::uint64_t process) noexcept {
  return sendOff(set, {set.chunkAt(address), chunks}, process);
}

SqlzZrc sqloi_setReturnChunks(SMemSet& set, void* address, std::uint32_t chunks) noexcept {
  const std::uint64_t distance = reinterpret_cast<std::uintptr_t>(address) - set.addressOf(0);
  if (distance % SQLO_CHUNK_BYTES != 0 || distance >> SQLO_CHUNK_SHIFT >= SQLO_SET_CHUNKS_MOST) return SQLO_INV_MEM;
  std::uint32_t freed = 0;
  SqlzZrc result;
  {
    const SetOperation operation(set);
    result = set.returnContiguousChunks({static_cast<std::uint32_t>(distance >> SQLO_CHUNK_SHIFT), chunks});
    const std::uint32_t before = set.m_allocatedChunks;
    while (set.isLastGroupIdle() && set.freeChunkGroup() == 0) {
    }
    freed = before - set.m_allocatedChunks;
  }
  if (freed != 0) sqloi_setFreeMemory(set, freed);
  return result;
}

}  // namespace vek
