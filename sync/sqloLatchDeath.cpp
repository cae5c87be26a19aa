#include "sync/sqloLatchDeath.h"

#include <algorithm>
#include <array>

#include "diag/base/traced.h"
#include "platform/osse.h"
#include "sync/sqloLatchAccess.h"
#include "sync/sqloLatchDebug.h"
#include "sync/sqloLatchMarks.h"
#include "sync/sqloSemPool.h"
#include "veksys/codes.h"
#include "veksys/diag/log.h"
#include "veksys/sync/latch_control.h"
#include "veksys_functions.h"

namespace vek {
namespace {

// ---- policies ---------------------------------------------------------------------------------------------------

struct DeathPolicy {
  std::atomic<SqloLatchRepair> repair{nullptr};
  std::atomic<void*> context{nullptr};
  std::atomic<std::uint32_t> policy{SQLO_LATCH_DEATH_PANIC};  // stored last
};

constinit std::array<DeathPolicy, SQLO_LATCH_TYPE_COUNT> g_policies = {};

DeathPolicy& policyOf(std::uint32_t typeId) noexcept { return g_policies[typeId < SQLO_LATCH_TYPE_COUNT ? typeId : 0]; }

// Runs the repair of the type, which the caller needs before it may use what it took over.
void repairData(const LatchSubject& subject) noexcept {
  DeathPolicy& policy = policyOf(subject.typeId());
  const SqloLatchRepair repair = policy.repair.load(std::memory_order_acquire);
  const SqlzZrc result =
      repair(policy.context.load(std::memory_order_acquire), const_cast<void*>(subject.latch), subject.typeId());
  if (result != 0) sqloPanic(result, "The data under a latch whose holder died cannot be repaired", subject.latch);
}

// ---- who holds it -----------------------------------------------------------------------------------------------

// What the marks say of one latch. An ACTIVE mark of a living thread counts whatever its mode, since it may be on its
// way from one to the other.
struct Census {
  std::uint32_t living = 0;                 // that say ACTIVE
  std::uint32_t livingWaiters[2] = {0, 0};  // by WaiterKind
  std::uint32_t gone = 0;                   // that say ACTIVE
  std::uint32_t goneWaiters = 0;
  std::uint32_t livingUpgraders = 0;           // exclusive waiters that hold the latch themselves
  std::uint32_t holdingSlot = REGION_NO_SLOT;  // of the living mark seen last that says ACTIVE
};

bool concerns(const LatchSubject& subject, const LatchMarkSeen& mark) noexcept {
  if (mark.latch != reinterpret_cast<std::uint64_t>(subject.latch)) return false;
  return subject.isBetweenProcesses() ? (mark.word & MARK_SHARED_MEMORY) != 0 : mark.owner == regionProcessOwner();
}

void count(Census* census, const LatchMarkSeen& mark) noexcept {
  const bool exclusive = (mark.word & MARK_EXCLUSIVE) != 0;
  const std::uint64_t state = mark.word & MARK_STATE;
  if (mark.isGone()) {
    ++(state == MARK_ACTIVE ? census->gone : census->goneWaiters);
  } else if (state == MARK_WAITING) {
    ++census->livingWaiters[exclusive ? 1 : 0];
    if (exclusive && census->holdingSlot == mark.slot) ++census->livingUpgraders;
  } else if (state == MARK_ACTIVE) {
    census->holdingSlot = mark.slot;
    ++census->living;
  }
}

Census takeCensus(const LatchSubject& subject) noexcept {
  Census census;
  LivingProcesses processes;
  visitMarks(processes, [&](const LatchMarkSeen& mark) {
    if (concerns(subject, mark)) count(&census, mark);
  });
  return census;
}

// Where somebody took such a latch without a mark, nobody can tell any more.
bool canTell(const LatchSubject& subject) noexcept { return sqloi_allHoldsAreMarked(subject.isBetweenProcesses()); }

// Said once by a process; the waiter goes on waiting.
void reportUntold(const LatchSubject& subject) noexcept {
  static constinit std::atomic<bool> reported{false};
  if (reported.exchange(true)) return;
  (void)pdLogPrintf(
      PD_LOG_RC_ZRC, FID_getConflict, SQLO_LATCH_TRACKING_FULL, 30, PD_LEVEL_WARNING,
      "A thread waits for %s at %p. Whether its holder lives cannot be told: a thread holds latches that it "
      "has no tracking entry for",
      sqloLatchTypeName(subject.typeId()), subject.latch);
}

// Done when no lock is held any more.
Rescue settled(Rescue rescue, const LatchSubject& subject) noexcept {
  if (!canTell(subject)) reportUntold(subject);
  if (rescue == Rescue::kPanic)
    sqloPanic(SQLO_LATCH_HOLDER_DIED, "The exclusive holder of a latch died", subject.latch);
  return rescue;
}

// Debug reports are held back while the thread has latches; one that waits may wait for good.
void writeReports() noexcept {
  SqloLatchTable* table = t_latchTable;
  if (table != nullptr && table->hasReports) sqloi_debugReport(table);
}

// ---- taking over ------------------------------------------------------------------------------------------------

void clearMark(const LatchMarkSeen& mark) noexcept {
  auto* page = static_cast<LatchPage*>(const_cast<void*>(regionThreadPageOf(mark.slot)));
  page->marks[mark.index].word.store(mark.word & ~MARK_STATE, std::memory_order_release);
  regionThreadUnpin(mark.slot, 1ULL << mark.index);
}

constexpr std::uint32_t kAllMarks = ~0U;

// Takes the marks of the dead away: at most `active` of those that say ACTIVE, and all others, since who is about to
// take a latch says ACTIVE first.
void clearGone(const LatchSubject& subject, std::uint32_t active) noexcept {
  LivingProcesses processes;
  visitMarks(processes, [&](const LatchMarkSeen& mark) {
    if (!mark.isGone() || !concerns(subject, mark)) return;
    const bool waits = (mark.word & MARK_STATE) != MARK_ACTIVE;
    if (!waits && active == 0) return;
    clearMark(mark);
    active -= waits || active == kAllMarks ? 0U : 1U;
  });
}

// The exclusive hold of the dead becomes the caller's, whose mark says so before theirs say nothing any more.
Rescue takeOverExclusive(const LatchSubject& subject, LatchHold& hold) noexcept {
  switch (policyOf(subject.typeId()).policy.load(std::memory_order_acquire)) {
    case SQLO_LATCH_DEATH_REFUSE:
      return Rescue::kRefused;
    case SQLO_LATCH_DEATH_REPAIR:
      break;
    default:
      return Rescue::kPanic;
  }
  hold.tries();
  clearGone(subject, kAllMarks);
  return Rescue::kOwned;
}

constexpr unsigned kRegionWaitMs = 20;

// ---- shared latches, under cs -----------------------------------------------------------------------------------

// Every waiter is woken to look again, since nobody knows how far a dead one came; waiters that are gone are forgotten.
void restoreQueue(SQLO_SLATCH_CAS32& latch, const Census& census) noexcept {
  const SemElementRef reference = SqloSharedLatchAccess::element(latch);
  if (SemElement* element = sqloi_elementOf(reference); element != nullptr) {
    const std::uint32_t upgrading = census.livingUpgraders != 0 ? element->upgrading : 0;
    const std::uint32_t wake[WAITER_KINDS] = {census.livingWaiters[0], census.livingWaiters[1], upgrading};
    for (std::uint32_t kind = 0; kind < WAITER_KINDS; ++kind) {
      element->waiters[kind] = 0;
      while (sqloi_waitElement(reference, static_cast<WaiterKind>(kind), 0)) continue;  // posts that a dead one left
      sqloi_postElement(reference, static_cast<WaiterKind>(kind), wake[kind]);
    }
    element->upgrading = upgrading;
  }
  SqloSharedLatchAccess::postsPending(latch) = 0;
  SqloSharedLatchAccess::state(latch).fetch_and(~(SQLO_SLATCH_RESERVED_X | SQLO_SLATCH_WAITER_X | SQLO_SLATCH_WAITER_S),
                                                std::memory_order_acq_rel);
}

// The word with a waiter bit set, so that holders stay as they are.
std::uint32_t freezeHolders(SQLO_SLATCH_CAS32& latch) noexcept {
  return SqloSharedLatchAccess::state(latch).fetch_or(SQLO_SLATCH_WAITER_X, std::memory_order_acq_rel);
}

// The parts of `lost` sharers that died go from the count, since they left the data as they were, and as many marks of
// the dead. More of those may be left, of threads that died before they took the latch or behind giving it back; nobody
// can tell them from that of one who took it since the word was read, so they stay. They do no harm.
void takeBackShared(SQLO_SLATCH_CAS32& latch, const LatchSubject& subject, std::uint32_t lost) noexcept {
  if (lost != 0) SqloSharedLatchAccess::state(latch).fetch_sub(lost, std::memory_order_acq_rel);
  clearGone(subject, lost);
}

Rescue judgeShared(SQLO_SLATCH_CAS32& latch, const LatchSubject& subject, LatchHold& hold) noexcept {
  if (!canTell(subject)) return Rescue::kNothing;
  const RegionLock lock(kRegionWaitMs);
  if (!lock.held()) return Rescue::kNothing;
  const std::uint32_t word = freezeHolders(latch);
  const Census census = takeCensus(subject);
  const bool isLost = (word & SQLO_SLATCH_HELD_X) != 0 && census.living == 0 && census.gone != 0;
  const std::uint32_t sharers = word & SQLO_SLATCH_HOLDERS;
  // No more than they have marks for: a thread without a slot of the region holds private latches without being seen.
  const std::uint32_t lost = sharers > census.living ? std::min(sharers - census.living, census.gone) : 0;
  // What a dead waiter may have left for others to meet: a reservation, and no living one comes for it.
  const bool isForNobody = census.livingWaiters[1] == 0 && (word & SQLO_SLATCH_RESERVED_X) != 0;
  if (!isLost && lost == 0 && census.goneWaiters == 0 && !isForNobody) {
    if ((word & SQLO_SLATCH_WAITER_X) == 0) SqloSharedLatchAccess::state(latch).fetch_and(~SQLO_SLATCH_WAITER_X);
    return Rescue::kNothing;
  }
  Rescue rescue = Rescue::kRetry;
  if (isLost)
    rescue = takeOverExclusive(subject, hold);
  else
    takeBackShared(latch, subject, lost);
  restoreQueue(latch, census);
  return rescue;
}

// ---- spin latches -----------------------------------------------------------------------------------------------

constexpr std::uint8_t kHeld = 1;
constexpr std::uint8_t kHeldAndWatched = 2;

bool watch(SqloSpinLatch& latch) noexcept {
  std::uint8_t held = kHeld;
  return SqloSpinLatchAccess::held(latch).compare_exchange_strong(held, kHeldAndWatched, std::memory_order_acq_rel) ||
         held == kHeldAndWatched;
}

bool isStillWatched(SqloSpinLatch& latch) noexcept {
  return SqloSpinLatchAccess::held(latch).load(std::memory_order_acquire) == kHeldAndWatched;
}

bool guardsSharedLatch(const SqloSpinLatch& latch) noexcept {
  return (SqloSpinLatchAccess::flags(latch) & SqloSpinLatchAccess::kGuardsSharedLatch) != 0;
}

Rescue judgeSpin(SqloSpinLatch& latch, const LatchSubject& subject, LatchHold& hold) noexcept {
  if (!canTell(subject)) return Rescue::kNothing;
  const RegionLock lock(kRegionWaitMs);
  if (!lock.held() || !watch(latch)) return Rescue::kNothing;
  const Census census = takeCensus(subject);
  if (!isStillWatched(latch)) return Rescue::kNothing;
  // A living mark may be that of a thread that is only about to try: then the next look tells.
  if (census.gone == 0 || census.living != 0) {
    clearGone(subject, 0);
    return Rescue::kNothing;
  }
  if (!guardsSharedLatch(latch)) return takeOverExclusive(subject, hold);
  hold.tries();
  clearGone(subject, kAllMarks);
  return Rescue::kOwned;
}

// A dead thread held the cs of a shared latch; the caller has it now.
void restoreSharedLatch(SqloSpinLatch& cs) noexcept {
  SQLO_SLATCH_CAS32& latch = SqloSharedLatchAccess::ofCs(cs);
  restoreQueue(latch, takeCensus(SqloSharedLatchAccess::subject(latch, true)));
}

}  // namespace

Rescue sqloi_rescueSpin(SqloSpinLatch& latch, LatchHold& hold) noexcept {
  const LatchSubject subject = SqloSpinLatchAccess::subject(latch);
  writeReports();
  const Rescue rescue = settled(judgeSpin(latch, subject, hold), subject);
  if (rescue != Rescue::kOwned) return rescue;
  if (guardsSharedLatch(latch))
    restoreSharedLatch(latch);
  else
    repairData(subject);
  return rescue;
}

Rescue sqloi_rescueShared(SQLO_SLATCH_CAS32& latch, LatchHold& hold) noexcept {
  const LatchSubject subject = SqloSharedLatchAccess::subject(latch, true);
  writeReports();
  Rescue rescue = Rescue::kNothing;
  {
    const CsGuard guard(latch);
    rescue = judgeShared(latch, subject, hold);
  }
  if (settled(rescue, subject) == Rescue::kOwned) repairData(subject);
  return rescue;
}

}  // namespace vek

SqlzZrc sqloSetLatchDeathPolicy(std::uint32_t typeId, SqloLatchDeathPolicy policy, SqloLatchRepair repair,
                                void* context) noexcept {
  vek::VekTrace<vek::FID_sqloSetLatchDeathPolicy> trace;
  trace.data(10, typeId, static_cast<std::uint32_t>(policy));
  if (typeId >= SQLO_LATCH_TYPE_COUNT || policy > SQLO_LATCH_DEATH_REPAIR) return trace.exit(SQLO_INV_PARM);
  if (policy == SQLO_LATCH_DEATH_REPAIR && repair == nullptr) return trace.exit(SQLO_INV_PARM);
  vek::DeathPolicy& entry = vek::policyOf(typeId);
  entry.repair.store(repair, std::memory_order_relaxed);
  entry.context.store(context, std::memory_order_relaxed);
  entry.policy.store(policy, std::memory_order_release);
  return trace.exit(0);
}
