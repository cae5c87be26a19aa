// The memory controller: requests, what is given back, its bounds.
#include "memory/sqlo_mem_ctlr.h"

#include <algorithm>
#include <bit>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_section.h"
#include "memory/sqlo_mem_settings.h"
#include "platform/address_windows.h"
#include "platform/host.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"
#include "veksys/latch_types.h"
#include "veksys/sync/latch_control.h"

namespace vek {

static_assert(SQLO_LT_SqloMemController__m_latch__latch == 466);
static_assert(sizeof(SqloMemController) <= REGION_MEMORY_CONTROLLER_BYTES);

constinit std::uint32_t g_memPersistentAttempts = 0xFFFFFFFF;

namespace {

using Access = SqloMemControllerAccess;

constexpr std::uint32_t kAttempts = 10;
constexpr unsigned kRegionWaitMs = 2000;

// ---- the controller of this process ----------------------------------------------------------------------------

constinit MappedSection g_section = {RegionSectionId::kMemoryController, MEMORY_CONTROLLER_ADDRESS,
                                     REGION_MEMORY_CONTROLLER_BYTES, [] {
                                       (void)sqloSetLatchDeathPolicy(SQLO_LT_SqloMemController__m_latch__latch,
                                                                     SQLO_LATCH_DEATH_REPAIR, Access::repair, nullptr);
                                     }};

// ---- reports ---------------------------------------------------------------------------------------------------

// What the record of a refused request tells.
struct Refusal {
  char name[SQLO_MEM_CONSUMER_NAME_BYTES];
  std::uint32_t consumerSize;
  std::uint32_t consumerCached;
  std::uint32_t currentSize;
  std::uint32_t upperBound;
  std::uint32_t cachedByOthers;
};

void logRefusal(const Refusal& refusal, std::uint32_t bytes, std::uint32_t attempts) noexcept {
  (void)pdLogValues(PD_LOG_RC_ZRC, FID_SqloMemController_requestMemory, SQLO_NOMEM, 20, PD_LEVEL_ERROR,
                    "OOM - Instance memory request failed", "Logging disabled until next success", bytes, attempts,
                    refusal.name, refusal.consumerSize, refusal.consumerCached, refusal.currentSize, refusal.upperBound,
                    refusal.cachedByOthers);
}

}  // namespace

void MemOperation::reportOverFreed() noexcept {
  const std::uint32_t bytes = g_memOverFreed.exchange(0, std::memory_order_relaxed);
  if (bytes == 0) return;
  (void)pdLogValues(PD_LOG_RC_ZRC, FID_SqloMemController_freeMemory, SQLO_INV_MEM, 10, PD_LEVEL_ERROR,
                    "A memory consumer gave back more than it was granted; bytes too many:", bytes);
}

SqlzZrc sqloi_requestMemory(SqloMemController& controller, MemRequest request, bool persist,
                            std::uint32_t* attempts) noexcept {
  const std::uint32_t limit = persist ? g_memPersistentAttempts : kAttempts;
  for (*attempts = 0;;) {
    MemAttempt outcome;
    {
      const MemOperation operation(controller);
      outcome = Access::attempt(controller, request);
    }
    if (outcome == MemAttempt::kGranted) return 0;
    if (outcome == MemAttempt::kNotAConsumer) return SQLO_INV_MEM;
    if (outcome == MemAttempt::kNeedsPhysicalMemory) {
      SqloPhysicalMemoryStats stats;
      const SqlzZrc result = sqloGetPhysicalMemoryStats(&stats);
      if (result != 0) {
        (void)pdLogRCValues(PD_LOG_RC_ZRC, FID_SqloMemController_requestMemory, result, 10, PD_LEVEL_ERROR,
                            FID_sqloGetPhysicalMemoryStats, "Fail to get physical memory.");
        return SQLO_NOMEM;
      }
      request.physicalBytes = stats.totalBytes;
      request.physicalKnown = true;
      continue;
    }
    if (++*attempts >= limit) return SQLO_NOMEM;
    ossYield();
  }
}

}  // namespace vek

// ---- requests --------------------------------------------------------------------------------------------------

// Asks the others, one after the other, until there is room.
void SqloMemControllerAccess::reclaim(Controller& controller, const Consumer& requester, std::uint32_t bytes) noexcept {
  const std::uint64_t bound = controller.m_upperBound;
  const auto fits = [&] { return std::uint64_t{controller.m_currentSize} + bytes <= bound; };
  const std::uint64_t excess = controller.m_currentSize > bound ? controller.m_currentSize - bound : 0;
  const auto amount = static_cast<std::uint32_t>(std::min<std::uint64_t>(bytes + excess, UINT32_MAX));
  visitConsumers(controller, [&](Consumer& consumer) {
    if (&consumer != &requester) askToRelease(controller, consumer, amount);
    return !fits();
  });
}

vek::MemAttempt SqloMemControllerAccess::attempt(Controller& controller, const vek::MemRequest& request) noexcept {
  if (numberOf(controller, request.consumer) == 0) return vek::MemAttempt::kNotAConsumer;
  Consumer& consumer = *request.consumer;
  if (request.owner != 0 && consumer.m_owner != request.owner) return vek::MemAttempt::kNotAConsumer;
  const bool enforced = controller.m_automatic == 0 || controller.m_boundFixed != 0;
  const bool byMachine = !enforced && controller.m_strict != 0;
  if (byMachine && !request.physicalKnown) return vek::MemAttempt::kNeedsPhysicalMemory;
  const bool isAdvice = !enforced && !byMachine;  // the bound of an automatic controller that is not strict
  const bool force = request.force || isAdvice;
  const std::uint64_t bound =
      std::min<std::uint64_t>(byMachine ? request.physicalBytes : controller.m_upperBound, UINT32_MAX);
  const auto newTotal = [&] { return std::uint64_t{controller.m_currentSize} + request.bytes; };

  if (newTotal() > (isAdvice ? UINT32_MAX : bound)) [[unlikely]] {
    removeDead(controller);
    if (consumer.m_owner == 0) return vek::MemAttempt::kNotAConsumer;
    const std::uint64_t cachedByOthers = controller.m_cachedMemory - consumer.m_cached;
    const bool mayHelp = newTotal() > bound && newTotal() - std::min(newTotal(), cachedByOthers) <= bound;
    VekEngineUnit unit;
    if (enforced && request.allowReclaim && mayHelp && vek::hostEngineUnit(&unit))
      reclaim(controller, consumer, request.bytes);
  }
  if (newTotal() > (force ? UINT32_MAX : bound)) return vek::MemAttempt::kRefused;
  grant(controller, consumer, request.bytes);
  if (!force) controller.m_loggingSuppressed = 0;
  return vek::MemAttempt::kGranted;
}

SqlzZrc SqloMemController::requestMemory(SqloMemoryConsumer* consumer, std::uint32_t bytes, bool allowReclaim,
                                         bool force, bool persist) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_requestMemory> trace;
  if (!isActive()) return trace.exit(0);
  if (vek::sqloi_isInMemCallback()) return trace.exit(SQLO_NOMEM);
  std::uint32_t attempts = 0;
  const SqlzZrc result = vek::sqloi_requestMemory(*this, {consumer, bytes, allowReclaim, force}, persist, &attempts);
  if (result == 0) [[likely]]
    return trace.exit(0);
  trace.error(30, result, bytes, attempts);
  if (result != SQLO_NOMEM || !persist || attempts == 0) return trace.exit(result);
  vek::Refusal refusal;
  {
    const vek::MemOperation operation(*this);
    if (m_loggingSuppressed != 0 || vek::Access::numberOf(*this, consumer) == 0) return trace.exit(result);
    m_loggingSuppressed = 1;
    refusal.consumerSize = consumer->m_currentSize;
    refusal.consumerCached = consumer->m_cached;
    refusal.currentSize = m_currentSize;
    refusal.upperBound = m_upperBound;
    refusal.cachedByOthers = m_cachedMemory - consumer->m_cached;
    vek::ossCopyText(refusal.name, sizeof refusal.name, consumer->m_name);
  }
  vek::logRefusal(refusal, bytes, attempts);
  logStatistics();
  return trace.exit(result);
}

void SqloMemController::freeMemory(SqloMemoryConsumer* consumer, std::uint32_t bytes, bool latchHeld) noexcept {
  const vek::VekTrace<vek::FID_SqloMemController_freeMemory> trace;
  if (!isActive()) return;
  const auto give = [&] {
    if (vek::Access::numberOf(*this, consumer) != 0) vek::Access::giveBack(*this, *consumer, bytes);
  };
  if (latchHeld || vek::sqloi_isInMemCallback()) return give();
  const vek::MemOperation operation(*this);
  give();
}

void SqloMemController::setCachedMemory(SqloMemoryConsumer* consumer, std::uint32_t bytes, bool latchHeld) noexcept {
  if (!isActive()) return;
  const auto set = [&] {
    if (vek::Access::numberOf(*this, consumer) != 0) vek::Access::setCached(*this, *consumer, bytes);
  };
  if (latchHeld || vek::sqloi_isInMemCallback()) return set();
  const vek::MemOperation operation(*this);
  set();
}

// ---- beginning, bounds -----------------------------------------------------------------------------------------

SqloMemController& SqloMemControllerAccess::theController() noexcept {
  return *std::bit_cast<SqloMemController*>(vek::MEMORY_CONTROLLER_ADDRESS);
}

SqloMemController* SqloMemController::instance() noexcept {
  return instanceStatus() == 0 ? &vek::Access::theController() : nullptr;
}

SqlzZrc SqloMemController::instanceStatus() noexcept { return vek::sqloi_mapSection(vek::g_section); }

// An active controller is cleared under its latch. One that is not has no latch yet; of several processes that make it
// active at once the region lock lets one through, which is done with when the others come.
SqlzZrc SqloMemController::initialize(std::uint32_t bound, bool automatic, bool boundFixed, std::uint32_t desiredMax,
                                      std::uint64_t percentage) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_initialize> trace;
  const bool strict = vek::sqloi_readBoolean("VEK_STRICT_INSTANCE_MEMORY", false);
  const auto clear = [&] { vek::Access::clear(*this, bound, automatic, boundFixed, strict, desiredMax, percentage); };
  if (!isActive()) {
    const vek::RegionLock lock(vek::kRegionWaitMs);
    if (!lock.held()) return trace.exit(SQLO_REGION_BUSY);
    if (!isActive()) {
      m_latch.init(SQLO_LT_SqloMemController__m_latch__latch, SQLO_LATCH_BETWEEN_PROCESSES);
      clear();
      __atomic_store_n(&m_eyeCatcher, SQLO_MEM_CONTROLLER_EYE_CATCHER, __ATOMIC_RELEASE);
      return trace.exit(0);
    }
  }
  const vek::MemOperation operation(*this);
  clear();
  return trace.exit(0);
}

int SqloMemController::setNewUpperBound(std::uint32_t bound, std::uint32_t desired, std::uint32_t flags) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_setNewUpperBound> trace;
  if ((flags & ~SQLO_MEM_BOUND_NOT_BELOW_USE) != 0) return trace.exit(SQLO_INV_PARM);
  if (!isActive()) return trace.exit(SQLO_NOTAVAIL);
  const vek::MemOperation operation(*this);
  const std::uint32_t desiredMax = desired != 0 ? desired : m_desiredMax;
  const std::uint32_t limited = m_automatic != 0 && desiredMax != 0 ? std::min(bound, desiredMax) : bound;
  if ((flags & SQLO_MEM_BOUND_NOT_BELOW_USE) != 0 && limited < m_currentSize) return trace.exit(SQLO_NO_INS_MEM);
  m_desiredMax = desiredMax;
  m_upperBound = limited;
  return trace.exit(0);
}

void SqloMemController::setNewDesiredMaxValue(std::uint32_t value) noexcept {
  const vek::VekTrace<vek::FID_SqloMemController_setNewDesiredMaxValue> trace;
  if (!isActive()) return;
  const vek::MemOperation operation(*this);
  m_desiredMax = value;
}

void SqloMemController::setAutomaticFlag(bool on) noexcept {
  const vek::VekTrace<vek::FID_SqloMemController_setAutomaticFlag> trace;
  if (!isActive()) return;
  const vek::MemOperation operation(*this);
  m_automatic = on ? 1 : 0;
}
