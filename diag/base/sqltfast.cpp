// The attach step, the older trace points, and what a trace scope calls.
#include "diag/base/sqltfast.h"

#include <atomic>
#include <bit>

#include "platform/host.h"
#include "platform/osse.h"
#include "platform/trcapi.h"
#include "platform/wint.h"
#include "veksys/diag/trace_scope.h"

namespace vek {
namespace {

enum class Skip : int { kUnknown, kAbsent, kPresent };
constinit std::atomic<Skip> g_skip{Skip::kUnknown};

// Points since the first that could not attach. Of those the 1st, 2nd, 4th, ... try again, so that a process that can
// map nothing at all does not pay for it at every point.
constinit std::atomic<std::uint32_t> g_failedPoints{0};

void ignore() {}

// Switching off clears the words. Nothing here depends on hearing that tracing was switched on (whoever does it writes
// the words) or that the process ends (the detaching flag keeps late points out).
constexpr TrcCallbacks kCallbacks = {.switchedOff = sqltClearTraceFlags, .switchedOn = ignore, .detaching = ignore};

PdtItem untyped(std::uint32_t size, const void* data) noexcept { return {PD_TYPE_DEFAULT, size, data}; }

}  // namespace

bool sqlti_traceIsSkipped() noexcept {
  Skip skip = g_skip.load(std::memory_order_relaxed);
  if (skip == Skip::kUnknown) {
    const Skip looked = ossEnvironment("VEK_SKIP_TRACE") != nullptr ? Skip::kPresent : Skip::kAbsent;
    if (g_skip.compare_exchange_strong(skip, looked)) skip = looked;  // the first look of all threads counts
    if (skip == Skip::kPresent) wintSilence();
  }
  return skip == Skip::kPresent;
}

bool sqlti_attachStep() {
  if (trcIsAttached()) return true;
  return !sqlti_traceIsSkipped() && trcAttachShared(kCallbacks) == 0;
}

bool sqlti_attachAtPoint() {
  if (trcIsAttached()) return true;
  const ErrnoKept kept;
  const std::uint32_t failures = g_failedPoints.load(std::memory_order_relaxed);
  const bool isDue = std::has_single_bit(failures) || failures % 65536 == 0;
  if (isDue && sqlti_attachStep()) return true;
  g_failedPoints.store(failures + 1, std::memory_order_relaxed);
  return false;
}

}  // namespace vek

using vek::TRC_DATA;
using vek::TRC_ERROR;

void sqltEntry(EcfFunctionId id) noexcept { vek::_gtraceEntry(id, vek::hostEngineUnitNumber()); }

void sqltExit(EcfFunctionId id, std::int64_t returnCode) noexcept { vek::_gtraceExit(id, returnCode, 0, nullptr); }

void sqltData(EcfFunctionId id, std::uint32_t probe, std::uint32_t size, const void* data) noexcept {
  const PdtItem items[] = {vek::untyped(size, data)};
  vek::_gtraceVar(id, probe, TRC_DATA, 0, 1, items);
}

void sqltData2(EcfFunctionId id, std::uint32_t probe, std::uint32_t size1, const void* data1, std::uint32_t size2,
               const void* data2) noexcept {
  const PdtItem items[] = {vek::untyped(size1, data1), vek::untyped(size2, data2)};
  vek::_gtraceVar(id, probe, TRC_DATA, 0, 2, items);
}

void sqltData3(EcfFunctionId id, std::uint32_t probe, std::uint32_t size1, const void* data1, std::uint32_t size2,
               const void* data2, std::uint32_t size3, const void* data3) noexcept {
  const PdtItem items[] = {vek::untyped(size1, data1), vek::untyped(size2, data2), vek::untyped(size3, data3)};
  vek::_gtraceVar(id, probe, TRC_DATA, 0, 3, items);
}

void sqltError(EcfFunctionId id, std::uint32_t probe, std::uint32_t size, const void* data) noexcept {
  const PdtItem items[] = {vek::untyped(size, data)};
  vek::_gtraceErrorVar(id, probe, TRC_ERROR, 0, 1, items);
}

void sqleWlDispDiagEntry(EcfFunctionId id) noexcept { vek::hostWorkloadDisplay(id, true); }
void sqleWlDispDiagExit(EcfFunctionId id) noexcept { vek::hostWorkloadDisplay(id, false); }

std::uint32_t sqltScopeEntry(EcfFunctionId id, std::uint32_t word) noexcept {
  // The first point of a process finds the unattached word: what counts is the word behind it.
  if (!vek::trcIsAttached()) word = vek::sqlti_attachAtPoint() ? vek::wintTraceWord(ecfComponent(id)) : 0;
  if ((word & SQLT_TRACE_ENTRY) != 0) pdtEntry(id);
  if ((word & SQLT_TRACE_WORKLOAD_DISPLAY) != 0) sqleWlDispDiagEntry(id);
  return word;
}

void sqltScopeExit(EcfFunctionId id, std::uint32_t word, std::int64_t returnCode) noexcept {
  if ((word & SQLT_TRACE_EXIT) != 0) pdtExit(id, &returnCode);
  if ((word & SQLT_TRACE_PERFORMANCE) != 0) {
    const SqltPerformanceRecord record = {id, returnCode, {0, 0}};
    sqltPerformanceRecordHook(&record);
  }
  if ((word & SQLT_TRACE_WORKLOAD_DISPLAY) != 0) sqleWlDispDiagExit(id);
}
