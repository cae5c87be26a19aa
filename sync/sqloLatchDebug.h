// Debug checks of latching, switched on by the setting VEK_LATCH_DEBUG: the first time that two latch types are taken
// in both orders, that a thread asks for a latch it holds and can never get, and that it asks to share once more a
// latch that lets waiting exclusive requesters go first while one waits. Each is logged with both places.
//
// An inversion is noted when it is met and written when the thread holds no latch any more; what would block the thread
// for good is written at once.
#pragma once

#include <cstdint>

#include "sync/sqloLatchTable.h"

namespace vek {

// Whether the checks are on; the setting is read once per process.
enum class LatchDebug { kUnknown, kOff, kOn };
LatchDebug sqloi_latchDebug() noexcept;

// Reads the setting unless it is known. Of threads that come at once each reads, so that none waits for another and all
// know when they return.
void sqloi_readLatchDebug() noexcept;

// A capture is about to be made.
void sqloi_debugCapture(SqloLatchTable* table, const LatchSubject& subject, const char* file,
                        std::uint32_t line) noexcept;

// Writes what was noted: when the thread has given its last latch back, or when it waits, which may be for good.
void sqloi_debugReport(SqloLatchTable* table) noexcept;

}  // namespace vek
