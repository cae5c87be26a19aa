// Memory sets: the latch and what is reported after it, thresholds, questions.
#include "memory/sqlo_mem_set.h"

#include <algorithm>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_pool.h"
#include "memory/sqlo_mem_rows.h"
#include "memory/sqlo_mem_settings.h"
#include "platform/address_space.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"

namespace vek {
namespace {

struct FailureText {
  const char* text;
  std::uint32_t probe;
};

// By kind. Kinds 3 and 4 are logged with the name of the set's type.
constexpr FailureText kFailures[] = {
    {"Unmapped memory set failure", 700},      {"Private memory and/or virtual address space exhausted", 100},
    {"Failure freeing private memory", 300},   {"Failed memory commit operation", 400},
    {"Failed memory decommit operation", 500}, {"New shared memory segment allocation", 600},
};

bool namesType(std::uint32_t kind) noexcept {
  return kind == static_cast<std::uint32_t>(SetFailure::kCommit) ||
         kind == static_cast<std::uint32_t>(SetFailure::kDecommit);
}

void report(const PendingFailure& failure, std::uint32_t setType) noexcept {
  const auto& [osError, zrc, first, count, committed, kind] = failure.words;
  const FailureText& row = kFailures[kind < std::size(kFailures) ? kind : 0];
  PdLogCall call =
      pdLogDescribe(PD_LOG_RC_ZRC, FID_SMemSet_releaseLatch, static_cast<std::int32_t>(zrc), row.probe, PD_LEVEL_ERROR);
  call.hasOsError = true;
  call.osError = static_cast<std::int32_t>(osError);
  call.message = row.text;
  if (namesType(kind))
    (void)pdLogCallValues(call, sqloMemSetTypeName(setType), first, count, committed);
  else
    (void)pdLogCallValues(call, first, count, committed);
}

}  // namespace

SetOperation::~SetOperation() {
  PendingFailure failure;
  const std::uint32_t setType = set_.m_setType;
  const bool isPending = set_.takePendingFailure(&failure);
  const bool pinningLost = set_.m_pinningLost;
  set_.m_pinningLost = false;
  sqloi_tellSet(set_);
  set_.releaseLatch();
  if (isPending) report(failure, setType);
  if (pinningLost) {
    PdLogCall call = pdLogDescribe(PD_LOG_RC_NONE, FID_SMemSet_releaseLatch, 0, 800, PD_LEVEL_WARNING);
    call.message = "Can not continue with VEK_PINNED_BP=true, disabling to continue";
    (void)pdLogCallValues(call, sqloMemSetTypeName(setType));
  }
}

}  // namespace vek

// ---- the latch, sizes -------------------------------------------------------------------------------------------

void SMemSet::captureLatch(const char* file, std::uint32_t line) noexcept {
  const vek::VekTrace<vek::FID_SMemSet_captureLatch> trace;
  (void)m_latch.captureLatch(file, line);
}

void SMemSet::releaseLatch() noexcept {
  const vek::VekTrace<vek::FID_SMemSet_releaseLatch> trace;
  m_latch.releaseLatch();
}

// Not inline, since the trace point would lie badly inside that of the caller.
[[gnu::noinline]] std::uint32_t SMemSet::getSetGrowthLimit() const noexcept {
  vek::VekTrace<vek::FID_SMemSet_getSetGrowthLimit> trace;
  return trace.exit(m_maxChunksAllowed - m_allocatedChunks);
}

std::uint32_t SMemSet::getSetUncommittedSize() const noexcept {
  vek::VekTrace<vek::FID_SMemSet_getSetUncommittedSize> trace;
  return trace.exit(m_allocatedChunks - m_committedChunks);
}

// ---- failures --------------------------------------------------------------------------------------------------

// The first failure of an operation is what caused the others.
void SMemSet::notePendingFailure(vek::SetFailure kind, int osError, SqlzZrc zrc, vek::ChunkRange range) noexcept {
  if (has(SQLO_SET_PENDING_REPORT)) return;
  m_pending = {{static_cast<std::uint32_t>(osError), static_cast<std::uint32_t>(zrc), range.first, range.count,
                m_committedChunks, static_cast<std::uint32_t>(kind)}};
  m_options |= SQLO_SET_PENDING_REPORT;
}

bool SMemSet::takePendingFailure(vek::PendingFailure* out) noexcept {
  if (!has(SQLO_SET_PENDING_REPORT)) return false;
  *out = m_pending;
  m_options &= ~SQLO_SET_PENDING_REPORT;
  return true;
}

// ---- thresholds ------------------------------------------------------------------------------------------------

SqlzZrc sqloUpdateMemorySetFreeThreshold(SQLO_MEM_SET* set, std::uint32_t percent) noexcept {
  vek::VekTrace<vek::FID_sqloUpdateMemorySetFreeThreshold> trace;
  trace.data(10, static_cast<const void*>(set), percent);
  if (percent > 100 || !vek::sqloi_isSet(set)) return trace.exit(SQLO_INV_MEM);
  const vek::SetOperation operation(*set);
  return trace.exit(set->updateMaxFree(percent));
}

SqlzZrc sqloDecreaseMemorySetKeepCommitThresh(SQLO_MEM_SET* set, std::uint32_t hundredthsOfPercent) noexcept {
  vek::VekTrace<vek::FID_sqloDecreaseMemorySetKeepCommitThresh> trace;
  trace.data(10, static_cast<const void*>(set), hundredthsOfPercent);
  if (hundredthsOfPercent > 10'000 || !vek::sqloi_isSet(set)) return trace.exit(SQLO_INV_MEM);
  const vek::SetOperation operation(*set);
  return trace.exit(set->decreaseKeepCommitThresh(hundredthsOfPercent));
}

SqlzZrc sqloMemSetSetMaxSize(SQLO_MEM_SET* set, std::uint32_t bytes) noexcept {
  vek::VekTrace<vek::FID_sqloMemSetSetMaxSize> trace;
  trace.data(10, static_cast<const void*>(set), bytes);
  if (!vek::sqloi_isSet(set)) return trace.exit(SQLO_INV_MEM);
  const std::uint32_t chunks = sqloChunksOf(bytes);
  const vek::SetOperation operation(*set);
  if (set->has(SQLO_SET_FIXED_SIZE)) return trace.exit(SQLO_INV_MEM);
  if (chunks < set->m_allocatedChunks || chunks > SQLO_SET_CHUNKS_MOST) return trace.exit(SQLO_MEM_SIZE);
  set->m_maxChunksAllowed = chunks;
  set->refreshMaxFreeChunks();
  return trace.exit(0);
}

void sqloEnableCriticalOptionForMemSet(SQLO_MEM_SET* set) noexcept {
  const vek::VekTrace<vek::FID_sqloEnableCriticalOptionForMemSet> trace;
  if (!vek::sqloi_isSet(set)) return;
  set->m_options |= SQLO_SET_CRITICAL;
  for (vek::MemPool* pool = set->m_pools; pool != nullptr; pool = pool->m_next)
    vek::sqloi_visitPools(*pool, [](vek::MemPool& each) { each.m_options |= SQLO_POOL_CRITICAL; });
}

// ---- questions -------------------------------------------------------------------------------------------------

SqlzZrc sqloGetSetInfo(SQLO_MEM_SET* set, SqloMemSetInfo* info) noexcept {
  vek::VekTrace<vek::FID_sqloGetSetInfo> trace;
  if (info == nullptr) return trace.exit(SQLO_INV_PARM);
  if (!vek::sqloi_isSet(set)) return trace.exit(SQLO_INV_MEM);
  const vek::SetOperation operation(*set);
  *info = {set->m_setType,
           set->m_options,
           set->m_usedChunks,
           set->m_keepCommitChunks,
           set->m_largestChunksUsed,
           set->m_referenceChunks,
           set->m_maxChunksAllowed,
           set->m_chunkIncrement,
           set->m_allocatedChunks,
           set->m_maxFreeChunks,
           set->m_maxFreePercent,
           set->m_committedChunks,
           set->m_decommittedChunks,
           set->m_recommitableChunks,
           set->m_fastCount,
           set->m_groupCount,
           set->usableChunks(),
           set->addressOf(0),
           {}};
  std::memcpy(info->name, set->m_name, sizeof info->name);
  return trace.exit(0);
}

std::uint32_t sqloMemSetGetGrowthLimit(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqloMemSetGetGrowthLimit> trace;
  if (!vek::sqloi_isSet(set)) return trace.exit(0U);
  const vek::SetOperation operation(*set);
  return trace.exit(set->getSetGrowthLimit() << SQLO_CHUNK_SHIFT);
}

bool sqloMemSetIsResizable(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqloMemSetIsResizable> trace;
  if (!vek::sqloi_isSet(set)) return trace.exit(false);
  const vek::SetOperation operation(*set);
  return trace.exit(!set->has(SQLO_SET_FIXED_SIZE) && (set->has(SQLO_SET_GROWABLE) || set->has(SQLO_SET_REDUCIBLE)));
}

std::uint32_t sqloMemSetPageSize(SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqloMemSetPageSize> trace;
  constexpr std::uint32_t kPageBytes = 4096;
  if (!vek::sqloi_isSet(set)) return trace.exit(0U);
  const vek::SetOperation operation(*set);
  return trace.exit(set->has(SQLO_SET_LARGE_PAGES) ? vek::ossLargePageBytes() : kPageBytes);
}

// ---- background commit -----------------------------------------------------------------------------------------

bool sqloBgCommitIsNeeded(const SQLO_MEM_SET* set) noexcept {
  vek::VekTrace<vek::FID_sqloBgCommitIsNeeded> trace;
  return trace.exit(vek::sqloi_readBoolean("VEK_ENABLE_BG_COMMIT", true) && vek::sqloi_isSet(set) &&
                    set->m_setType == SQLO_SET_DBM_DB && set->has(SQLO_SET_BACKGROUND_COMMIT));
}

SqlzZrc sqloBgCommit(SQLO_MEM_SET* set, std::uint32_t chunks, std::uint32_t* committedOut) noexcept {
  vek::VekTrace<vek::FID_sqloBgCommit> trace;
  if (!vek::sqloi_isSet(set)) return trace.exit(SQLO_INV_MEM);
  const vek::SetOperation operation(*set);
  const std::uint32_t committed = set->commitAhead(chunks);
  if (committedOut != nullptr) *committedOut = committed;
  return trace.exit(set->has(SQLO_SET_PENDING_REPORT) ? SQLO_NOMEM : 0);
}
