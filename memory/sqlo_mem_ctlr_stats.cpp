// The memory controller: its counters for those who watch, as records and as text.
#include <algorithm>
#include <cstring>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_ctlr.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/log_items.h"

namespace vek {
namespace {

using Access = SqloMemControllerAccess;

constexpr std::size_t kLeastBytes = 512;     // of a buffer: more than the block about the instance
constexpr std::size_t kLineMostBytes = 192;  // more than a line about a consumer
constexpr std::size_t kRecordBytes = 4096;   // of text that one log record gets
constexpr const char* kNotActive = "Instance Memory Controller is not active.\n";

constexpr std::uint32_t kilobytes(std::uint32_t bytes) { return bytes >> 10; }

std::size_t formatInstance(SqloMemStatsLayout layout, const SqloMemPartitionStats& stats, char* buffer,
                           std::size_t bytes) noexcept {
  const char* automatic = stats.automatic ? "Yes" : "No";
  const std::uint32_t maximum = kilobytes(stats.upperBound);
  const std::uint32_t current = kilobytes(stats.currentSize);
  const std::uint32_t highWater = kilobytes(stats.usageHighWater);
  const std::uint32_t cached = kilobytes(stats.cachedMemory);
  const std::uint32_t cachedDatabase = kilobytes(stats.cachedDatabaseMemory);
  if (layout == SQLO_MEM_STATS_LOG)
    return ossSnprintf(buffer, bytes,
                       "Instance Memory Controller statistics.\nInstance Memory Automatic: %s.\nMaximum size = %u KB\n"
                       "Current size = %u KB\nUsage HWM = %u KB\nCached memory = %u KB\nCached DB memory = %u KB\n",
                       automatic, maximum, current, highWater, cached, cachedDatabase);
  return ossSnprintf(
      buffer, bytes,
      "Instance Memory Controller statistics.\nInstance Memory Automatic: %s.\nMaximum size (KB) = %u\n"
      "Current size (KB) = %u\nUsage HWM (KB) = %u\nCached memory (KB) = %u\nCached DB memory (KB) = %u\n"
      "\nCurrent, Usage HWM, and Cached memory in KB for individual consumers.\n",
      automatic, maximum, current, highWater, cached, cachedDatabase);
}

std::size_t formatConsumer(SqloMemStatsLayout layout, const char* name, std::uint32_t current, std::uint32_t highWater,
                           std::uint32_t cached, char* buffer, std::size_t bytes) noexcept {
  if (layout == SQLO_MEM_STATS_LOG)
    return ossSnprintf(buffer, bytes, "%s - Current size : %u KB, HWM : %u KB, Cached : %u KB\n", name,
                       kilobytes(current), kilobytes(highWater), kilobytes(cached));
  return ossSnprintf(buffer, bytes, "%s - %u, %u, %u\n", name, kilobytes(current), kilobytes(highWater),
                     kilobytes(cached));
}

}  // namespace
}  // namespace vek

// ---- for those who watch ----------------------------------------------------------------------------------------

namespace {

template <class Number>
Number now(const Number& counter) noexcept {
  return __atomic_load_n(&counter, __ATOMIC_RELAXED);
}

}  // namespace

SqloMemControllerAccess::Seen SqloMemControllerAccess::look(const Controller& controller,
                                                            std::uint32_t number) noexcept {
  const Consumer& consumer = controller.m_consumers[number - 1];
  Seen seen = {now(consumer.m_owner),     now(consumer.m_kind),   now(consumer.m_currentSize),
               now(consumer.m_highWater), now(consumer.m_cached), {}};
  std::memcpy(seen.name, consumer.m_name, sizeof seen.name - 1);
  return seen;
}

SqloMemPartitionStats SqloMemControllerAccess::look(const Controller& controller) noexcept {
  SqloMemPartitionStats stats = {};
  stats.active = controller.isActive();
  if (!stats.active) return stats;
  stats.automatic = now(controller.m_automatic) != 0;
  stats.boundFixed = now(controller.m_boundFixed) != 0;
  stats.strict = now(controller.m_strict) != 0;
  stats.upperBound = now(controller.m_upperBound);
  stats.initialBound = now(controller.m_initialBound);
  stats.desiredMax = now(controller.m_desiredMax);
  stats.currentSize = now(controller.m_currentSize);
  stats.usageHighWater = now(controller.m_usageHighWater);
  stats.cachedMemory = now(controller.m_cachedMemory);
  stats.cachedDatabaseMemory = now(controller.m_cachedDatabaseMemory);
  for (const Consumer& consumer : controller.m_consumers) stats.consumers += now(consumer.m_owner) != 0 ? 1U : 0U;
  return stats;
}

// ---- records ----------------------------------------------------------------------------------------------------

SqlzZrc SqloMemController::queryStats(SqloMemPartitionStats* partitionStats) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_queryStats> trace;
  SqloMemStatsSummary summary;
  return trace.exit(getPartitionStatsSummary("", &summary, partitionStats));
}

SqlzZrc SqloMemController::queryDBMemStats(const char* databaseName, SqloMemDatabaseStats* databaseStats) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_queryDBMemStats> trace;
  if (databaseName == nullptr || databaseStats == nullptr) return trace.exit(SQLO_INV_PARM);
  *databaseStats = {};
  if (!isActive()) return trace.exit(0);
  const vek::MemOperation operation(*this);
  vek::Access::removeDead(*this);
  vek::Access::visitConsumers(*this, [&](SqloMemoryConsumer& consumer) {
    if (!vek::Access::isDatabase(consumer) || std::strcmp(consumer.m_name, databaseName) != 0) return true;
    ++databaseStats->consumers;
    databaseStats->currentSize += consumer.m_currentSize;
    databaseStats->cachedMemory += consumer.m_cached;
    databaseStats->usageHighWater += std::min(consumer.m_highWater, UINT32_MAX - databaseStats->usageHighWater);
    return true;
  });
  return trace.exit(0);
}

SqlzZrc SqloMemController::getPartitionStatsSummary(const char* databaseName, SqloMemStatsSummary* summary,
                                                    SqloMemPartitionStats* partitionStats) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_getPartitionStatsSummary> trace;
  if (databaseName == nullptr || summary == nullptr || partitionStats == nullptr) return trace.exit(SQLO_INV_PARM);
  *summary = {};
  *partitionStats = {};
  if (!isActive()) return trace.exit(0);
  const vek::MemOperation operation(*this);
  vek::Access::removeDead(*this);
  *partitionStats = {
      true,         m_automatic != 0, m_boundFixed != 0, m_strict != 0,  m_upperBound,           m_initialBound,
      m_desiredMax, m_currentSize,    m_usageHighWater,  m_cachedMemory, m_cachedDatabaseMemory, 0};
  vek::Access::visitConsumers(*this, [&](SqloMemoryConsumer& consumer) {
    const bool isIts = vek::Access::isDatabase(consumer) && std::strcmp(consumer.m_name, databaseName) == 0;
    std::uint32_t& size = isIts                               ? summary->databaseSize
                          : vek::Access::isDatabase(consumer) ? summary->otherDatabases
                                                              : summary->otherConsumers;
    size += consumer.m_currentSize;
    if (!isIts) summary->reclaimable += consumer.m_cached;
    ++partitionStats->consumers;
    return true;
  });
  summary->available = m_upperBound - std::min(m_upperBound, m_currentSize);
  return trace.exit(0);
}

// ---- text -------------------------------------------------------------------------------------------------------

// `position` counts the records that have been looked at, plus one.
std::size_t SqloMemController::formatStatistics(SqloMemStatsLayout layout, char* buffer, std::size_t bytes,
                                                std::uint32_t* position) noexcept {
  const std::uint32_t begin = *position;
  *position = 0;
  if (bytes < vek::kLeastBytes) return 0;
  if (!isActive()) return vek::ossSnprintf(buffer, bytes, "%s", vek::kNotActive);
  SqloMemPartitionStats stats;
  (void)queryStats(&stats);
  std::size_t length = begin == 0 ? vek::formatInstance(layout, stats, buffer, bytes) : 0;
  buffer[length] = '\0';
  const vek::MemOperation operation(*this);
  for (std::uint32_t index = begin == 0 ? 0 : begin - 1; index < SQLO_MEM_CONSUMERS; ++index) {
    const SqloMemoryConsumer& consumer = m_consumers[index];
    if (consumer.m_owner == 0) continue;
    if (bytes - length < vek::kLineMostBytes) {
      *position = index + 1;
      return length;
    }
    length += vek::formatConsumer(layout, consumer.m_name, consumer.m_currentSize, consumer.m_highWater,
                                  consumer.m_cached, buffer + length, bytes - length);
  }
  return length;
}

void SqloMemController::logStatistics() noexcept {
  const vek::VekTrace<vek::FID_SqloMemController_logStatistics> trace;
  char text[vek::kRecordBytes];
  std::uint32_t position = 0;
  do {
    if (formatStatistics(SQLO_MEM_STATS_LOG, text, sizeof text, &position) == 0) return;
    PdLogCall call = pdLogDescribe(PD_LOG_RC_NONE, vek::FID_SqloMemController_logStatistics, 0, 10, PD_LEVEL_WARNING);
    call.message = text;
    (void)pdLogCall(&call);
  } while (position != 0);
}
