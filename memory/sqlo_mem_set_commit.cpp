// Memory sets: what is committed; the thresholds that decide.
#include <algorithm>
#include <bit>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_set.h"
#include "platform/address_space.h"
#include "platform/osse.h"
#include "veksys/codes.h"

namespace {

using vek::ChunkRange;

std::size_t bytesOf(std::uint32_t chunks) noexcept { return std::size_t{chunks} << SQLO_CHUNK_SHIFT; }
std::uint64_t offsetOf(std::uint32_t chunk) noexcept { return (std::uint64_t{chunk} + 1) << SQLO_CHUNK_SHIFT; }

int commitPhysically(SMemSet& set, ChunkRange range) noexcept {
  const int error = set.isPrivate() ? vek::ossCommit(set.addressOf(range.first), bytesOf(range.count))
                                    : vek::ossAllocateRange(vek::sqloi_setDescriptor(set), offsetOf(range.first),
                                                            bytesOf(range.count));
  if (error != 0 || !set.has(SQLO_SET_PINNED)) return error;
  if (vek::ossPin(set.addressOf(range.first), bytesOf(range.count)) != 0) {
    set.m_options &= ~SQLO_SET_PINNED;
    set.m_pinningLost = true;
  }
  return 0;
}

int decommitPhysically(const SMemSet& set, ChunkRange range) noexcept {
  return set.isPrivate()
             ? vek::ossDecommit(set.addressOf(range.first), bytesOf(range.count))
             : vek::ossPunchHole(vek::sqloi_setDescriptor(set), offsetOf(range.first), bytesOf(range.count));
}

// The run of chunks from `chunk` up to `end` for which `isOf` holds.
template <class IsOf>
ChunkRange runFrom(std::uint32_t chunk, std::uint32_t end, IsOf isOf) noexcept {
  ChunkRange run = {chunk, 0};
  while (chunk < end && isOf(chunk++)) ++run.count;
  return run;
}

// Commits one run that is not committed, and notes it.
int commitRun(SMemSet& set, ChunkRange run) noexcept {
  set.m_begun.begin(run);
  const int error = commitPhysically(set, run);
  if (error == 0) {
    for (std::uint32_t chunk = run.first; chunk < run.first + run.count; ++chunk) {
      set.m_committed.add(chunk);
      if (!set.m_decommitted.has(chunk)) continue;
      set.m_decommitted.drop(chunk);
      --set.m_decommittedChunks;
      if (set.m_recommitableChunks != 0) --set.m_recommitableChunks;
    }
    set.m_committedChunks += run.count;
  }
  set.m_begun.end();
  return error;
}

// Commits what is not committed of a range.
int commitMissing(SMemSet& set, ChunkRange range) noexcept {
  const std::uint32_t end = range.first + range.count;
  for (std::uint32_t chunk = range.first; chunk < end;) {
    const ChunkRange run = runFrom(chunk, end, [&](std::uint32_t at) { return !set.m_committed.has(at); });
    if (run.count != 0) {
      const int error = commitRun(set, run);
      if (error != 0) return error;
    }
    chunk += std::max(run.count, 1U);
  }
  return 0;
}

}  // namespace

// ---- committing ------------------------------------------------------------------------------------------------

// What was committed before the system refused stays committed, free for the next request.
SqlzZrc SMemSet::commitMemory(ChunkRange range) noexcept {
  vek::VekTrace<vek::FID_SMemSet_commitMemory> trace;
  int error = commitMissing(*this, range);
  if (error == 0) return trace.exit(0);
  if (attemptRecoveryFromFailedMemoryCommit()) error = commitMissing(*this, range);
  if (error == 0) return trace.exit(0);
  notePendingFailure(vek::SetFailure::kCommit, error, SQLO_NOMEM, range);
  return trace.exit(SQLO_NOMEM);
}

int SMemSet::decommitMemory(ChunkRange range) noexcept {
  vek::VekTrace<vek::FID_SMemSet_decommitMemory> trace;
  m_begun.begin(range);
  const int error = decommitPhysically(*this, range);
  if (error == 0) {
    for (std::uint32_t chunk = range.first; chunk < range.first + range.count; ++chunk) {
      m_committed.drop(chunk);
      m_decommitted.add(chunk);
    }
    m_committedChunks -= range.count;
    m_decommittedChunks += range.count;
    m_recommitableChunks += range.count;
  } else {
    notePendingFailure(vek::SetFailure::kDecommit, error, SQLO_NOSEG, range);
  }
  m_begun.end();
  return trace.exit(error);
}

// Gives back everything that is committed and unused, whatever the thresholds say; true when that was anything.
bool SMemSet::attemptRecoveryFromFailedMemoryCommit() noexcept {
  vek::VekTrace<vek::FID_SMemSet_attemptRecoveryFromFailedMemoryCommit> trace;
  freeFastChunksUntilTargetReached(m_fastCount);
  if (!has(SQLO_SET_DECOMMITABLE)) return trace.exit(false);
  const std::uint32_t before = m_decommittedChunks;
  decommitChunksUntilTargetReached(m_allocatedChunks);
  return trace.exit(m_decommittedChunks != before);
}

// The highest run of free committed chunks below a chunk, its upper part when it has more than `most`; decommitted.
ChunkRange SMemSet::decommitChunksFromFreeTree(std::uint32_t below, std::uint32_t most) noexcept {
  const vek::VekTrace<vek::FID_SMemSet_decommitChunksFromFreeTree> trace;
  const auto isFree = [&](std::uint32_t chunk) { return m_committed.has(chunk) && !m_used.has(chunk); };
  while (below != 0 && !isFree(below - 1)) --below;
  std::uint32_t first = below;
  while (first != 0 && below - first < most && isFree(first - 1)) --first;
  const ChunkRange range = {first, below - first};
  if (range.count == 0 || decommitMemory(range) != 0) return {0, 0};
  return range;
}

void SMemSet::decommitChunksUntilTargetReached(std::uint32_t target) noexcept {
  const vek::VekTrace<vek::FID_SMemSet_decommitChunksUntilTargetReached> trace;
  std::uint32_t below = m_allocatedChunks;
  while (m_decommittedChunks < target) {
    const ChunkRange range = decommitChunksFromFreeTree(below, target - m_decommittedChunks);
    if (range.count == 0) return;
    below = range.first;
  }
}

// Commits decommitted chunks, lowest first, until so many are committed or none may be committed again.
void SMemSet::recommitChunksUntilTargetReached(std::uint32_t target) noexcept {
  vek::VekTrace<vek::FID_SMemSet_recommitChunksUntilTargetReached> trace;
  for (std::uint32_t chunk = 0; m_committedChunks < target && m_recommitableChunks != 0; ++chunk) {
    if (chunk == m_allocatedChunks) {
      trace.data(10, "decommitRootChunks depleted.");
      return;
    }
    if (!m_decommitted.has(chunk)) continue;
    const std::uint32_t most = std::min(target - m_committedChunks, m_recommitableChunks);
    const ChunkRange run = runFrom(chunk, std::min(m_allocatedChunks, chunk + most),
                                   [&](std::uint32_t at) { return m_decommitted.has(at); });
    if (trace.exit(commitMemory(run)) != 0) return;
    chunk = run.first + run.count - 1;
  }
}

// Commits up to `most` of the chunks that were to be committed at creation.
std::uint32_t SMemSet::commitAhead(std::uint32_t most) noexcept {
  const std::uint32_t before = m_committedChunks;
  const std::uint32_t end = std::min(m_commitTarget, m_allocatedChunks);
  for (std::uint32_t chunk = 0; chunk < end && m_committedChunks - before < most; ++chunk) {
    if (m_committed.has(chunk) || m_decommitted.has(chunk)) continue;
    const ChunkRange run = runFrom(chunk, std::min(end, chunk + most - (m_committedChunks - before)),
                                   [&](std::uint32_t at) { return !m_committed.has(at) && !m_decommitted.has(at); });
    if (commitMemory(run) != 0) break;
    chunk = run.first + run.count - 1;
  }
  return m_committedChunks - before;
}

// ---- thresholds ------------------------------------------------------------------------------------------------

std::int64_t SMemSet::excessChunks() const noexcept {
  return std::int64_t{m_committedChunks} - std::max(m_usedChunks, m_keepCommitChunks);
}

void SMemSet::decommitExcess() noexcept {
  if (!has(SQLO_SET_DECOMMITABLE)) return;
  const std::int64_t excess = excessChunks() - m_maxFreeChunks;
  if (excess > 0) decommitChunksUntilTargetReached(m_decommittedChunks + static_cast<std::uint32_t>(excess));
}

void SMemSet::refreshMaxFreeChunks() noexcept {
  const vek::VekTrace<vek::FID_SMemSet_refreshMaxFreeChunks> trace;
  if (!has(SQLO_SET_AUTOMATIC_MAX_FREE)) return;
  const std::uint32_t bytes = usableChunks() << SQLO_CHUNK_SHIFT;
  m_maxFreeChunks = (bytes / 100 * m_maxFreePercent + SQLO_CHUNK_BYTES - 1) / SQLO_CHUNK_BYTES;
  if (m_maxFreePercent != 0) m_maxFreeChunks = std::max(m_maxFreeChunks, vek::MEM_SET_LEAST_FREE);
}

SqlzZrc SMemSet::updateMaxFree(std::uint32_t percent) noexcept {
  vek::VekTrace<vek::FID_SMemSet_updateMaxFree> trace;
  if (percent > 100 || !has(SQLO_SET_AUTOMATIC_MAX_FREE)) return trace.exit(SQLO_INV_MEM);
  m_maxFreePercent = percent;
  refreshMaxFreeChunks();
  if (isDecommitDue()) decommitExcess();
  return trace.exit(0);
}

SqlzZrc SMemSet::decreaseKeepCommitThresh(std::uint32_t hundredths) noexcept {
  vek::VekTrace<vek::FID_SMemSet_decreaseKeepCommitThresh> trace;
  if (hundredths > 10'000 || !has(SQLO_SET_AUTOMATIC_MAX_FREE | SQLO_SET_LAZY_DECOMMIT))
    return trace.exit(SQLO_INV_MEM);
  const std::uint32_t bytes = m_referenceChunks << SQLO_CHUNK_SHIFT;
  const std::uint32_t decrease =
      std::max((bytes / 10'000 * hundredths + SQLO_CHUNK_BYTES - 1) / SQLO_CHUNK_BYTES, vek::MEM_SET_LEAST_FREE);
  m_keepCommitChunks = std::max(m_keepCommitChunks - std::min(decrease, m_keepCommitChunks), m_usedChunks);
  if (!isDecommitDue()) return trace.exit(0);
  if (has(SQLO_SET_DECOMMITABLE)) {
    const std::int64_t excess = std::int64_t{m_committedChunks} - m_keepCommitChunks - m_maxFreeChunks;
    if (excess > 0) decommitChunksUntilTargetReached(m_decommittedChunks + static_cast<std::uint32_t>(excess));
  }
  // KEEP: only the low 16 bits are compared; those who tune sets rely on when the cache is drained and when not.
  const auto usableLow = static_cast<std::uint16_t>(usableChunks());
  const auto decreaseLow = static_cast<std::uint16_t>(decrease);
  if (m_fastCount != 0 && m_fastEnabled && !m_fastDraining && usableLow > decreaseLow)
    freeFastChunksUntilTargetReached(decrease);
  return trace.exit(0);
}

// Withdraws chunks from use: decommitted ones first, then what can be decommitted.
std::uint32_t SMemSet::decreaseUseableMemory(std::uint32_t chunks) noexcept {
  vek::VekTrace<vek::FID_SMemSet_decreaseUseableMemory> trace;
  if (m_recommitableChunks < chunks && has(SQLO_SET_DECOMMITABLE))
    decommitChunksUntilTargetReached(m_decommittedChunks + chunks - m_recommitableChunks);
  const std::uint32_t withdrawn = std::min(chunks, m_recommitableChunks);
  m_recommitableChunks -= withdrawn;
  refreshMaxFreeChunks();
  return trace.exit(withdrawn);
}

// Lets withdrawn chunks be used again, and commits what is to stay committed.
std::uint32_t SMemSet::increaseUseableMemory(std::uint32_t chunks) noexcept {
  vek::VekTrace<vek::FID_SMemSet_increaseUseableMemory> trace;
  const std::uint32_t regained = std::min(chunks, m_decommittedChunks - m_recommitableChunks);
  m_recommitableChunks += regained;
  refreshMaxFreeChunks();
  recommitChunksUntilTargetReached(m_keepCommitChunks);
  return trace.exit(regained);
}

// ---- after a death ---------------------------------------------------------------------------------------------

// Makes the counters anew from the bits. A commit or decommit that had begun is brought to what the bits say; chunks
// that were about to be handed out or taken back are free.
void SMemSet::repair() noexcept {
  const std::uint32_t withdrawn = m_decommittedChunks - std::min(m_recommitableChunks, m_decommittedChunks);
  for (std::uint32_t chunk = m_begun.first; chunk < m_begun.first + m_begun.count; ++chunk) {
    if (m_committed.has(chunk))
      (void)commitPhysically(*this, {chunk, 1});
    else
      (void)decommitPhysically(*this, {chunk, 1});
  }
  m_begun.end();
  for (std::uint32_t chunk = m_moving.first; chunk < m_moving.first + m_moving.count; ++chunk) {
    m_used.drop(chunk);
    m_kept.drop(chunk);
    m_onTheWay.drop(chunk);
  }
  m_moving.end();
  vek::sqloi_repairPoolsOf(*this);
  m_allocatedChunks = 0;
  for (std::uint32_t i = 0; i < m_groupCount; ++i) {
    m_allocatedChunks += m_groups[i].chunks;
    m_groups[i].subgroups = 0;
  }
  m_fastCount = 0;
  for (std::uint32_t chunk = 0; chunk < m_allocatedChunks; ++chunk) {
    if (m_kept.has(chunk)) {
      m_used.add(chunk);
      m_starts.drop(chunk);
      m_fast[m_fastCount++ % vek::MEM_SET_FAST_CHUNKS] = static_cast<std::uint16_t>(chunk);
    }
    const bool continues = chunk != 0 && m_used.has(chunk - 1) && !m_kept.has(chunk - 1);
    if (!m_used.has(chunk)) m_starts.drop(chunk);
    if (m_used.has(chunk) && !m_kept.has(chunk) && !continues) m_starts.add(chunk);
    if (m_committed.has(chunk)) m_decommitted.drop(chunk);
  }
  for (std::uint32_t i = 0; i < m_groupCount; ++i)
    for (std::uint32_t chunk = 0; chunk < m_groups[i].chunks; ++chunk)
      m_groups[i].subgroups += m_starts.has(m_groups[i].firstChunk + chunk) ? 1U : 0U;
  m_usedChunks = m_used.count() - m_fastCount;
  m_committedChunks = m_committed.count();
  m_decommittedChunks = m_decommitted.count();
  m_recommitableChunks = m_decommittedChunks - std::min(withdrawn, m_decommittedChunks);
  m_largestChunksUsed = std::max(m_largestChunksUsed, m_usedChunks);
  m_fastDraining = false;
  (void)returnStrandedChunks();
}
