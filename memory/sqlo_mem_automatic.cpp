// Physical memory, and the bound that follows from it.
#include <algorithm>
#include <cmath>

#include "diag/base/traced.h"
#include "memory/sqlo_mem_ctlr.h"
#include "platform/osse.h"
#include "platform/system_facts.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr double kLeastFraction = 0.75;
constexpr double kMostFraction = 0.95;
constexpr std::uint64_t kSmallMachineBytes = 109'951'162;  // here the curve meets one half
constexpr std::uint64_t kChunkBytes = 65'536;

// The larger the machine, the smaller the part that all others need.
double fractionOf(std::uint64_t physicalBytes) noexcept {
  const double curve =
      physicalBytes > kSmallMachineBytes ? 1 - 51.2 / std::sqrt(std::sqrt(static_cast<double>(physicalBytes))) : 0.5;
  return std::max(std::min(curve, kMostFraction), kLeastFraction);
}

constexpr double kTwoTo64 = 18446744073709551616.0;

}  // namespace

std::uint64_t sqloi_automaticBound(std::uint64_t physicalBytes, std::uint64_t percentage, std::uint32_t members,
                                   bool wholeChunks, double* fraction) noexcept {
  *fraction = percentage != 0 ? static_cast<double>(percentage) / 100 : fractionOf(physicalBytes);
  const double share = static_cast<double>(physicalBytes) * *fraction;
  std::uint64_t bound = share < kTwoTo64 ? static_cast<std::uint64_t>(share) : UINT64_MAX;
  bound = std::min(bound / std::max(members, 1U), SQLO_MEM_AUTOMATIC_MOST);
  return wholeChunks ? bound / kChunkBytes * kChunkBytes : bound;
}

}  // namespace vek

SqlzZrc SqloMemController::calculateAutomaticSize(std::uint64_t* physicalMemory, bool wholeChunks,
                                                  std::uint64_t configured, std::uint64_t* result) noexcept {
  vek::VekTrace<vek::FID_SqloMemController_calculateAutomaticSize> trace;
  if (result == nullptr) return trace.exit(SQLO_INV_PARM);
  SqloPhysicalMemoryStats stats;
  const SqlzZrc known = sqloGetPhysicalMemoryStats(&stats);
  if (known != 0) return trace.exit(known);
  double fraction = 0;
  *result = vek::sqloi_automaticBound(stats.totalBytes, configured, vekInstanceControl()->MEMBERS_ON_HOST, wholeChunks,
                                      &fraction);
  char text[32];
  vek::ossSnprintf(text, sizeof text, "%.6f", fraction);
  trace.data(100, text);
  if (physicalMemory != nullptr) *physicalMemory = stats.totalBytes;
  return trace.exit(0);
}

SqlzZrc sqloGetPhysicalMemoryStats(SqloPhysicalMemoryStats* stats) noexcept {
  vek::VekTrace<vek::FID_sqloGetPhysicalMemoryStats> trace;
  if (stats == nullptr) return trace.exit(SQLO_INV_PARM);
  vek::MemoryFacts facts;
  if (!vek::ossMemoryFacts(&facts)) return trace.exit(SQLO_NOTAVAIL);
  stats->totalBytes = std::min(facts.memoryBytes, facts.limitBytes);
  stats->availableBytes = std::min(facts.availableBytes, stats->totalBytes);
  stats->machineBytes = facts.memoryBytes;
  stats->limitBytes = facts.limitBytes;
  return trace.exit(0);
}
