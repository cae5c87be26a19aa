// The calls of the log, their filter, and the level that it compares with.
//
// The filter is the first thing that a call does: one load of the word of the level, and, where no level is set for the
// whole instance, one of the host's DIAGLEVEL. The word of a process that has not attached yet lets everything pass, so
// that its first call attaches and sees what is set for the instance.
#include "diag/base/pdlog.h"

#include <atomic>
#include <cstring>

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
constinit std::atomic<std::uint32_t*> g_levelWord{&g_unattachedWord};

std::uint32_t levelWord() noexcept {
  return __atomic_load_n(g_levelWord.load(std::memory_order_relaxed), __ATOMIC_RELAXED);
}

std::int32_t configuredLevel() noexcept {
  const VekInstanceControl* control = g_hostControl.load(std::memory_order_acquire);
  if (control == nullptr) [[unlikely]]
    control = vekInstanceControl();
  return __atomic_load_n(&control->DIAGLEVEL, __ATOMIC_RELAXED);
}

// Numbers as they stand: a level above the threshold is kept out. A threshold below 0 keeps everything out.
bool isAbove(std::uint32_t level) noexcept {
  const std::uint32_t word = levelWord();
  const std::int64_t threshold = word == 0 ? configuredLevel() : static_cast<std::int64_t>(word) - 1;
  return level > threshold;
}

constexpr std::uint64_t kElsewhere = PD_LOG_NOTIFY_MASK | PD_LOG_FACILITY_MASK | PD_LOG_TRACE;

// Whether a call is over before it has begun: too high a level, and nobody else to tell.
bool isOver(std::uint64_t flags, std::uint32_t level) noexcept { return isAbove(level) && (flags & kElsewhere) == 0; }

// The arguments that all calls begin with.
PdLogCall callOf(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                 std::uint32_t level) noexcept {
  PdLogCall call = {};
  call.size = sizeof call;
  call.flags = flags;
  call.functionId = functionId;
  call.probe = probe;
  call.returnCode = returnCode;
  call.level = level;
  return call;
}

PdLogCall withItems(PdLogCall call, std::uint64_t itemCount, std::va_list* arguments) noexcept {
  call.itemsAnnounced = true;
  call.itemCount = itemCount;
  call.arguments = arguments;
  return call;
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

bool pdi_isFiltered(std::uint32_t level) noexcept { return isAbove(level); }

void pdi_attachLog() noexcept {
  if (g_levelWord.load(std::memory_order_acquire) != &g_unattachedWord) return;
  const bool hasRegion = regionAttach() == 0;
  auto* words = hasRegion ? static_cast<std::uint32_t*>(regionSection(RegionSectionId::kTraceWords)) : nullptr;
  g_levelWord.store(words != nullptr ? words + WINT_DIAG_LEVEL_WORD : &g_ownWord, std::memory_order_release);
}

void pdi_reportEvent(const PortEvent& event) noexcept {
  PdLogCall call = callOf(PD_LOG_RC_ZRC, event.functionId, event.zrc, event.probe, event.level);
  call.message = event.message;
  if (isOver(call.flags, call.level)) return;
  if (pdi_writeRecord(call) == SQLT_DIAGERR_LOGERR && !pdi_isInsideLog()) writeToStandardError(event);
}

}  // namespace vek

using vek::callOf;
using vek::isOver;
using vek::pdi_writeRecord;
using vek::withItems;

SqlzZrc pdLogCall(const PdLogCall* call) noexcept {
  if (call == nullptr) return SQLO_INV_PARM;
  return pdi_writeRecord(*call);
}

SqlzZrc pdLog(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
              std::uint32_t level, std::uint64_t itemCount, ...) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  std::va_list arguments;
  va_start(arguments, itemCount);
  const PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogPrintf(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                    std::uint32_t level, const char* format, ...) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  if (format == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, format);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.format = format;
  call.arguments = &arguments;
  const SqlzZrc result = pdi_writeRecord(call);
  va_end(arguments);
  return result;
}

SqlzZrc pdLogRC(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                std::uint32_t level, EcfFunctionId calledFunctionId, std::uint64_t itemCount, ...) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.calledFunctionId = calledFunctionId;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogSysRC(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                   std::uint32_t level, const char* calledSystemFunction, std::int32_t osError, std::uint64_t itemCount,
                   ...) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.calledSystemFunction = calledSystemFunction;
  call.hasOsError = true;
  call.osError = osError;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogEvent(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                   std::uint32_t level, const PdLogEvent* event, std::uint64_t itemCount, ...) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.event = event;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogEventString(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                         std::uint32_t level, const PdLogEvent* event, const char* text) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  if (event == nullptr) return SQLO_INV_PARM;
  const PdtItem item = {PD_TYPE_STRING, text == nullptr ? 0U : static_cast<std::uint32_t>(std::strlen(text)), text};
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.event = event;
  call.itemsAnnounced = true;
  call.itemCount = 1;
  call.items = &item;
  return pdi_writeRecord(call);
}

SqlzZrc pdLogEventWithMessage(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode,
                              std::uint32_t probe, std::uint32_t level, const PdLogEvent* event,
                              std::uint64_t messageNumber, std::uint64_t itemCount, ...) noexcept {
  if (isOver(flags, level)) return SQLT_NOLOG;
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.event = event;
  call.messageNumber = messageNumber;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                     std::uint32_t level, const PdRecorderEvent* event, std::uint64_t itemCount, ...) noexcept {
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogRCEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                       std::uint32_t level, const PdRecorderEvent* event, EcfFunctionId calledFunctionId,
                       std::uint64_t itemCount, ...) noexcept {
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  call.calledFunctionId = calledFunctionId;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogSysRCEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                          std::uint32_t level, const PdRecorderEvent* event, const char* calledSystemFunction,
                          std::int32_t osError, std::uint64_t itemCount, ...) noexcept {
  if (event == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, itemCount);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  call.calledSystemFunction = calledSystemFunction;
  call.hasOsError = true;
  call.osError = osError;
  const SqlzZrc result = pdi_writeRecord(withItems(call, itemCount, &arguments));
  va_end(arguments);
  return result;
}

SqlzZrc pdLogPrintfEvRecEx(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                           std::uint32_t level, const PdRecorderEvent* event, const char* format, ...) noexcept {
  if (event == nullptr || format == nullptr) return SQLO_INV_PARM;
  std::va_list arguments;
  va_start(arguments, format);
  PdLogCall call = callOf(flags, functionId, returnCode, probe, level);
  call.recorderEvent = event;
  call.format = format;
  call.arguments = &arguments;
  const SqlzZrc result = pdi_writeRecord(call);
  va_end(arguments);
  return result;
}

SqlzZrc pdSetDiagLevel(std::int32_t level) noexcept {
  vek::VekTrace<vek::FID_pdSetDiagLevel> trace;
  if (level < -1 || level > static_cast<std::int64_t>(vek::kHighestLevel)) return trace.exit(SQLO_INV_PARM);
  vek::pdi_attachLog();
  __atomic_store_n(vek::g_levelWord.load(std::memory_order_acquire), static_cast<std::uint32_t>(level + 1),
                   __ATOMIC_RELAXED);
  return trace.exit(vek::regionHeader() == nullptr ? SQLO_REGION_NO_MEMORY : vek::regionSharedStatus());
}

std::int32_t pdGetDiagLevel() noexcept {
  vek::pdi_attachLog();
  const std::uint32_t word = vek::levelWord();
  return word == 0 ? vek::configuredLevel() : static_cast<std::int32_t>(word - 1);
}
