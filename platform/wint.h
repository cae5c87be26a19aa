// Process-wide words that the whole product shares: the per-component trace words and the global event word.
//
// Two page-sized arrays stand for one shared page. `g_sqltCompTraceFlags` is exported: an executable that refers to
// it may own it through a copy relocation, so this library itself must reach it through the global offset table.
// `i_compTraceWords` is the library's own view, hidden, one direct load away. Attaching maps the page of the instance
// region over both; until then both hold WINT_UNATTACHED, which sends a process's first trace point into the slow
// path that attaches. So a process that never traced sees tracing switched on later, with no constructor before and
// no cost after.
//
// Words are read and written as relaxed atomics: a stale read costs at most one missed or one extra point.
#pragma once

#include <cstdint>

#include "veksys/diag/trace.h"
#include "veksys/types.h"

namespace vek {

inline constexpr std::uint32_t WINT_PAGE_WORDS = 1024;
inline constexpr std::uint32_t WINT_EVENT_WORD = 1008;       // the global event word stands behind the components
inline constexpr std::uint32_t WINT_DIAG_LEVEL_WORD = 1009;  // the level of the log for all processes, plus 1; 0: none
inline constexpr std::uint32_t WINT_UNATTACHED = SQLT_TRACE_ENTRY | SQLT_TRACE_DATA | SQLT_TRACE_ERROR;

static_assert(SQLT_TRACE_COMPONENTS <= WINT_EVENT_WORD && WINT_DIAG_LEVEL_WORD < WINT_PAGE_WORDS);

extern std::uint32_t i_compTraceWords[WINT_PAGE_WORDS] __attribute__((visibility("hidden")));

inline std::uint32_t wintTraceWord(std::uint32_t component) noexcept {
  return __atomic_load_n(&i_compTraceWords[component], __ATOMIC_RELAXED);
}

// Maps the shared page over both arrays. False: the second, or none of them, is still the process's own; the caller
// does without a shared trace then.
bool wintMapShared(int fd, std::uint64_t offset) noexcept;

// Writes one word (both views, which are one after mapping); component words and the event word alike.
void wintStore(std::uint32_t index, std::uint32_t value) noexcept;
std::uint32_t wintEvents() noexcept;

// Switches every point of this process off: used when it must never attach.
void wintSilence() noexcept;

}  // namespace vek
