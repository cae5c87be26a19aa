// The embedding server's facts as the lower floors ask for them.
#pragma once

#include <atomic>
#include <cstdint>

#include "veksys/host.h"

namespace vek {

// The calling engine unit's number, SQLT_NO_ENGINE_UNIT when it is none or has none. On the way of every traced entry.
std::uint64_t hostEngineUnitNumber() noexcept;

// The calling engine unit, and the application fields of the calling thread. False, and nothing written: none are
// known.
bool hostEngineUnit(VekEngineUnit* out) noexcept;
bool hostApplication(VekApplication* out) noexcept;

// Whether the host answers any of the two.
bool hostHasFields() noexcept;

// The host's DIAGLEVEL where it stands, for what runs too often to ask the host each time. Leads to the highest number
// while the host has no control block to answer: then it is to be asked.
[[gnu::visibility("hidden")]] extern std::atomic<const std::int32_t*> g_hostDiagLevel;

void hostWorkloadDisplay(EcfFunctionId id, bool entry) noexcept;
void hostDumpEngineUnit(SqlzZrc zrc) noexcept;
void hostPanic(SqlzZrc zrc, const char* text) noexcept;

// The name that the host gave to an identifier, or null.
const char* hostFunctionName(EcfFunctionId id) noexcept;

// Keeps the instance name in force for good: called before the process attaches to the instance of that name.
void hostKeepInstanceName() noexcept;

// Copies the host's function names into the instance region; called once the region is attached.
void hostInternNames() noexcept;

}  // namespace vek
