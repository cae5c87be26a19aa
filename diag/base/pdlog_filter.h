// The filter of the log: the first thing that a call does, one load of the word of the level and, where no level is set
// for the whole instance, one of the host's DIAGLEVEL. The word of a process that has not attached yet lets everything
// pass, so that its first call attaches and sees what is set for the instance. The two pointers are declared hidden:
// the compiler then loads them directly, and not by way of their addresses.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/host.h"
#include "veksys/diag/log.h"

namespace vek {

// The level of the whole instance plus one; 0: each process's own.
[[gnu::visibility("hidden")]] extern std::atomic<std::uint32_t*> g_logLevelWord;

inline std::uint32_t pdi_levelWord() noexcept {
  return __atomic_load_n(g_logLevelWord.load(std::memory_order_relaxed), __ATOMIC_RELAXED);
}

// True when the level of the log keeps records of this level out. Numbers as they stand: a level above the threshold is
// kept out. A threshold below 0 keeps everything out.
bool pdi_isFiltered(std::uint32_t level) noexcept;

// True when a call is over before it has begun: its level is filtered, and its flags name neither the notification log
// nor the trace nor a facility. False where finding out takes more than that, such as a call-back of the host: the call
// goes on, and is filtered by pdi_isFiltered then. So nothing is called here, and callers need not keep anything for
// it. What is written takes microseconds: the code is laid out for what is not.
inline bool pdi_isOver(std::uint64_t flags, std::uint32_t level) noexcept {
  constexpr std::uint64_t kElsewhere = PD_LOG_NOTIFY_MASK | PD_LOG_FACILITY_MASK | PD_LOG_TRACE;
  if ((flags & kElsewhere) != 0) [[unlikely]]
    return false;
  if (const std::uint32_t word = pdi_levelWord(); word != 0) [[unlikely]]
    return std::int64_t{level} > static_cast<std::int64_t>(word) - 1;
  const std::int32_t* own = g_hostDiagLevel.load(std::memory_order_acquire);
  // A number that is none of a level's is negative here and goes on.
  if (static_cast<std::int32_t>(level) > __atomic_load_n(own, __ATOMIC_RELAXED)) [[likely]]
    return true;
  return false;
}

}  // namespace vek
