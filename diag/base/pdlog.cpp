// The level of the log, and the calls with a format.
#include "diag/base/pdlog.h"

#include <atomic>

#include "diag/base/pdlog_state.h"
#include "diag/base/traced.h"
#include "platform/host.h"
#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/region.h"
#include "platform/wint.h"
#include "veksys/codes.h"

namespace vek {
namespace {

constexpr std::uint32_t kUnattached = 0xFFFFFFFFU;
constexpr std::uint32_t kHighestLevel = 0x7FFFFFFEU;

constinit std::uint32_t g_unattachedWord = kUnattached;
constinit std::uint32_t g_ownWord = 0;  // of a process that has no region, not even one of its own

std::int32_t configuredLevel() noexcept { return __atomic_load_n(&vekInstanceControl()->DIAGLEVEL, __ATOMIC_RELAXED); }

SqlzZrc writeFormatted(PdLogCall& call, const char* format, std::va_list* arguments) noexcept {
  call.format = format;
  call.arguments = arguments;
  return pdi_writeRecord(call);
}

void writeToStandardError(const PortEvent& event) noexcept {
  const char* function = ecfGetFunctionName(event.functionId);
  char line[1024];
  const std::size_t length =
      ossSnprintf(line, sizeof line, "veksys: %s, probe:%u, ZRC=0x%08X: %s\n", function != nullptr ? function : "?",
                  event.probe, static_cast<unsigned>(event.zrc), event.message);
  ossSayOnStandardError(line, length);
}

}  // namespace

constinit std::atomic<std::uint32_t*> g_logLevelWord{&g_unattachedWord};

bool pdi_isFiltered(std::uint32_t level) noexcept {
  const std::uint32_t word = pdi_levelWord();
  return std::int64_t{level} > (word == 0 ? std::int64_t{configuredLevel()} : static_cast<std::int64_t>(word) - 1);
}

void pdi_attachLog() noexcept {
  if (g_logLevelWord.load(std::memory_order_acquire) != &g_unattachedWord) return;
  const bool hasRegion = regionAttach() == 0;
  auto* words = hasRegion ? static_cast<std::uint32_t*>(regionSection(RegionSectionId::kTraceWords)) : nullptr;
  g_logLevelWord.store(words != nullptr ? words + WINT_DIAG_LEVEL_WORD : &g_ownWord, std::memory_order_release);
}

void pdi_reportEvent(const PortEvent& event) noexcept {
  PdLogCall call = pdLogDescribe(PD_LOG_RC_ZRC, event.functionId, event.zrc, event.probe, event.level);
  call.message = event.message;
  if (pdi_isOver(call.flags, call.level)) return;
  if (pdi_writeRecord(call) == SQLT_DIAGERR_LOGERR && !pdi_isInsideLog()) writeToStandardError(event);
}

}  // namespace vek

using vek::writeFormatted;

SqlzZrc pdLogCall(const PdLogCall* call) noexcept {
  if (call == nullptr) return SQLO_INV_PARM;
  return vek::pdi_writeRecord(*call);
}

SqlzZrc pdLogPrintf(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                    std::uint32_t level, const char* format, ...) noexcept {
  if (vek::pdi_isOver(flags, level)) return SQLT_NOLOG;
  if (format == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, format);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  const SqlzZrc result = writeFormatted(call, format, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogPrintfEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                           std::uint32_t level, const PdRecorderEvent* event, const char* format, ...) noexcept {
  if (event == nullptr || format == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, format);
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  const SqlzZrc result = writeFormatted(call, format, &arguments);
  va_end(arguments);
  return result;
}

SqlzZrc pdSetDiagLevel(std::int32_t level) noexcept {
  vek::VekTrace<vek::FID_pdSetDiagLevel> trace;
  if (level < -1 || level > static_cast<std::int64_t>(vek::kHighestLevel)) return trace.exit(SQLO_INV_PARM);
  vek::pdi_attachLog();
  __atomic_store_n(vek::g_logLevelWord.load(std::memory_order_acquire), static_cast<std::uint32_t>(level + 1),
                   __ATOMIC_RELAXED);
  return trace.exit(vek::regionHeader() == nullptr ? SQLO_REGION_NO_MEMORY : vek::regionSharedStatus());
}

std::int32_t pdGetDiagLevel() noexcept {
  vek::pdi_attachLog();
  const std::uint32_t word = vek::pdi_levelWord();
  return word == 0 ? vek::configuredLevel() : static_cast<std::int32_t>(word - 1);
}
