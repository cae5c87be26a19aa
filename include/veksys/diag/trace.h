// Trace points: what a traced function announces, and the words that decide whether it does.
//
// A traced function reads the trace word of its component once, tests it at entry and at exit, and calls one of the
// points below when a bit asks for it; trace_scope.h does that in one line. A point attaches the process to the
// instance's trace on its first use, writes one record into the shared ring and returns. It never fails towards its
// caller and waits for no other writer. Once its thread has a segment of the ring it takes no lock and makes no system
// call; taking the next segment may look for segments of dead processes, at most ten times a second, when many are
// owned. A record that cannot be written (no segment to be had, a signal handler inside another point or inside the
// library) is left out and counted, not waited for. A process should have made its first call of the library before a
// signal handler makes one: attaching allocates, and waits up to two seconds for a process that was stopped while it
// held the lock of the instance region.
//
// All points: any thread, any time, also inside a latch. Item data is copied during the call. An item whose pointer is
// null is recorded as such; one larger than what a record can hold (about half a segment, 4 KiB at the least) is cut
// and shown as cut.
#pragma once

#include <cstdint>

#include "veksys/diag/trace_items.h"
#include "veksys/export.h"
#include "veksys/types.h"

// Bits of a component's trace word.
inline constexpr std::uint32_t SQLT_TRACE_ENTRY = 0x1;
inline constexpr std::uint32_t SQLT_TRACE_EXIT = 0x2;
inline constexpr std::uint32_t SQLT_TRACE_DATA = 0x4;
inline constexpr std::uint32_t SQLT_TRACE_ERROR = 0x8;
inline constexpr std::uint32_t SQLT_TRACE_PERFORMANCE = 0x80;
inline constexpr std::uint32_t SQLT_TRACE_WORKLOAD_DISPLAY = 0x40000;

inline constexpr std::uint32_t SQLT_TRACE_AT_ENTRY = SQLT_TRACE_ENTRY | SQLT_TRACE_WORKLOAD_DISPLAY;
inline constexpr std::uint32_t SQLT_TRACE_AT_EXIT =
    SQLT_TRACE_EXIT | SQLT_TRACE_PERFORMANCE | SQLT_TRACE_WORKLOAD_DISPLAY;
static_assert(SQLT_TRACE_AT_ENTRY == 0x40001 && SQLT_TRACE_AT_EXIT == 0x40082);

inline constexpr std::uint32_t SQLT_TRACE_COMPONENTS = 242;      // words 0..241
inline constexpr std::uint32_t SQLT_CLIENT_INTERFACE = 191;      // the component with options of its own
inline constexpr std::uint64_t SQLT_NO_ENGINE_UNIT = 1'000'000;  // correlator of a thread that is no engine unit

// What an exit hands to the performance-record hook when bit 0x80 is on.
struct SqltPerformanceRecord {
  std::uint64_t functionId;
  std::int64_t returnCode;
  std::uint64_t reserved[2];  // 0
};

// One item of a point that takes a list.
struct PdtItem {
  std::uint32_t type;  // PD type
  std::uint32_t size;  // bytes
  const void* data;
};

extern "C" {

// One word per component, then unused ones; one page of its own. Read it with sqltTraceWord; it is written by
// sqltSetTraceFlags, sqltClearTraceFlags and sqltSetWorkloadDisplay only.
VEK_EXPORT extern std::uint32_t g_sqltCompTraceFlags[1024];

// The global event word: every bit that some component's word has.
VEK_EXPORT extern std::uint32_t* p_sqltevents;

// ---- the older interface ----------------------------------------------------------------------------------------

// Entry, exit, data with one to three items, and error with one, of the function `id`. Items are bytes: `size` of them
// at each pointer, copied before the call returns. Any thread. The caller has tested the component's word: these write
// whenever the trace is on.
VEK_EXPORT void sqltEntry(EcfFunctionId id) noexcept;
VEK_EXPORT void sqltExit(EcfFunctionId id, std::int64_t returnCode) noexcept;
VEK_EXPORT void sqltData(EcfFunctionId id, std::uint32_t probe, std::uint32_t size, const void* data) noexcept;
VEK_EXPORT void sqltData2(EcfFunctionId id, std::uint32_t probe, std::uint32_t size1, const void* data1,
                          std::uint32_t size2, const void* data2) noexcept;
VEK_EXPORT void sqltData3(EcfFunctionId id, std::uint32_t probe, std::uint32_t size1, const void* data1,
                          std::uint32_t size2, const void* data2, std::uint32_t size3, const void* data3) noexcept;
VEK_EXPORT void sqltError(EcfFunctionId id, std::uint32_t probe, std::uint32_t size, const void* data) noexcept;

// ---- the current interface: the number in a name is the count of data items -------------------------------------

// Entry. The correlator of the record is the calling engine unit's number, SQLT_NO_ENGINE_UNIT without one.
VEK_EXPORT void pdtEntry(EcfFunctionId id) noexcept;
#define VEK_DECLARE(n) VEK_EXPORT void pdtEntry##n(EcfFunctionId id, VEK_TRACE_ITEMS_##n) noexcept;
VEK_COUNTS_TO_16(VEK_DECLARE)
#undef VEK_DECLARE

// Exit. `returnCode` is passed by address; null counts as 0.
VEK_EXPORT void pdtExit(EcfFunctionId id, const std::int64_t* returnCode) noexcept;
#define VEK_DECLARE(n) \
  VEK_EXPORT void pdtExit##n(EcfFunctionId id, const std::int64_t* returnCode, VEK_TRACE_ITEMS_##n) noexcept;
VEK_COUNTS_TO_20(VEK_DECLARE)
#undef VEK_DECLARE

// Data at a numbered probe.
#define VEK_DECLARE(n) VEK_EXPORT void pdtData##n(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_##n) noexcept;
VEK_COUNTS_TO_20(VEK_DECLARE)
#undef VEK_DECLARE

// Errors: without a code, with one, and where one code is translated into another on its way up.
VEK_EXPORT void pdtError(EcfFunctionId id, std::uint32_t probe) noexcept;
#define VEK_DECLARE(n) VEK_EXPORT void pdtError##n(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_##n) noexcept;
VEK_COUNTS_TO_6(VEK_DECLARE)
#undef VEK_DECLARE
VEK_EXPORT void pdtErrorRc(EcfFunctionId id, std::uint32_t probe, std::int64_t returnCode) noexcept;
VEK_EXPORT void pdtErrorRc1(EcfFunctionId id, std::uint32_t probe, std::int64_t returnCode, VEK_TRACE_ITEMS_1) noexcept;
VEK_EXPORT void pdtErrorTrans(EcfFunctionId id, std::uint32_t probe, std::int64_t from, std::int64_t to) noexcept;

// Markers: a probe with a fixed text (terminated), which stands in the record before the items.
VEK_EXPORT void pdtMarker(EcfFunctionId id, std::uint32_t probe, const char* text) noexcept;
#define VEK_DECLARE(n) \
  VEK_EXPORT void pdtMarker##n(EcfFunctionId id, std::uint32_t probe, const char* text, VEK_TRACE_ITEMS_##n) noexcept;
VEK_COUNTS_TO_18(VEK_DECLARE)
#undef VEK_DECLARE

// Events: a number of the caller's choosing, with no items or with a list of at most 20 (more are left out).
VEK_EXPORT void pdtEvent(EcfFunctionId id, std::uint32_t probe, std::uint64_t event) noexcept;
VEK_EXPORT void pdtEventVar(EcfFunctionId id, std::uint32_t probe, std::uint64_t event, std::uint32_t itemCount,
                            const PdtItem* items) noexcept;

// Ties what the thread does from here on to a correlator of the caller's (a request, a unit of work).
VEK_EXPORT void pdtCorrelator(EcfFunctionId id, std::uint32_t probe, std::uint64_t correlator) noexcept;

// ---- hooks of a traced function ---------------------------------------------------------------------------------

// Workload display: told to the host (host.h) when the word has SQLT_TRACE_WORKLOAD_DISPLAY.
VEK_EXPORT void sqleWlDispDiagEntry(EcfFunctionId id) noexcept;
VEK_EXPORT void sqleWlDispDiagExit(EcfFunctionId id) noexcept;

// The performance record of an exit. Does nothing, on purpose: a place for a profiler to interpose
// (a function of this name in the program or in a preloaded library; the shared library calls that one).
VEK_EXPORT void sqltPerformanceRecordHook(const SqltPerformanceRecord* record) noexcept;

// What a trace scope calls when its word has a bit for it. The entry form answers the word as it stands after
// attaching, which the exit test must use.
VEK_EXPORT std::uint32_t sqltScopeEntry(EcfFunctionId id, std::uint32_t word) noexcept;
VEK_EXPORT void sqltScopeExit(EcfFunctionId id, std::uint32_t word, std::int64_t returnCode) noexcept;

}  // extern "C"

// The trace word of a component, one relaxed load.
inline std::uint32_t sqltTraceWord(std::uint32_t component) noexcept {
  return __atomic_load_n(&g_sqltCompTraceFlags[component], __ATOMIC_RELAXED);
}
