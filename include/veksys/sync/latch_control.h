// Control of latching: set-up and tuning, types, tracking, what happens when a holder dies, panic.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"
#include "veksys/sync/latch.h"
#include "veksys/types.h"

struct SqloLatchTable;  // a thread's tracking table

// What becomes of a latch whose exclusive holder has died.
enum SqloLatchDeathPolicy : std::uint32_t {
  SQLO_LATCH_DEATH_PANIC = 0,   // the process that finds it stops, with SQLO_LATCH_HOLDER_DIED
  SQLO_LATCH_DEATH_REFUSE = 1,  // requests answer SQLO_LATCH_HOLDER_DIED; the latch stays held
  SQLO_LATCH_DEATH_REPAIR = 2,  // the first thread that finds it gets the latch and repairs the data
};

// Repairs what a latch guards. Called on the requesting thread, which holds the latch exclusively meanwhile. Answers 0
// when the data are sound again; any other code stops the process.
using SqloLatchRepair = SqlzZrc (*)(void* context, void* latch, std::uint32_t typeId);

extern "C" {

// Process-wide set-up of latching: reads the tuning once, attaches to the instance. Latches work without it, with the
// same tuning from their first conflict on; a server calls it so that settings are not read in the middle of its work.
//
//   Result   0; SQLO_REGION_... when the process shares no instance region: latches work within the process
//   Threads  any; the first call counts
VEK_EXPORT SqlzZrc sqlolatchinginit() noexcept;

// Tears down: closes the semaphores that this process has opened. No latch may be in use. It can be set up again.
VEK_EXPORT void sqlolatchingterm() noexcept;

// Reads VEKSPINLATCHES and VEK_LATCH_TUNE again and computes the tuning from them and the number of processors.
//
// VEK_LATCH_TUNE is a list of KEYWORD=number, separated by commas or blanks; of DISABLE_SMT_PRIORITIES and
// ENABLE_ADAPTIVE_SLEEP and the like the keyword alone switches on. Words that are not known, and numbers outside
// 0..1000000, are reported and leave the default as it is.
//
//   Result   0; SQLO_INV_PARM: something was reported
//   Threads  one, while no other thread captures latches
VEK_EXPORT SqlzZrc sqloInitializeLatchTuningInfo() noexcept;

// The name of a latch type, "SQLO_LT_<class>__<member>__latch"; "SQLO_LT_UNKNOWN" from SQLO_LATCH_TYPE_COUNT on. Lives
// as long as the process.
VEK_EXPORT const char* sqloLatchTypeName(std::uint32_t typeId) noexcept;

// Sets what becomes of latches of a type whose exclusive holder died, for this process. `repair` is needed for
// SQLO_LATCH_DEATH_REPAIR and ignored otherwise.
//
//   Result   0; SQLO_INV_PARM: no such type or policy, or no `repair`
//   Threads  any; one of them for a type, before its latches are waited for
VEK_EXPORT SqlzZrc sqloSetLatchDeathPolicy(std::uint32_t typeId, SqloLatchDeathPolicy policy, SqloLatchRepair repair,
                                           void* context) noexcept;

// The calling thread's tracking table, null when it has none (it has never captured a latch, or there is no memory).
VEK_EXPORT SqloLatchTable* sqloCurrentLatchTable() noexcept;

// Looks for latches that a thread still holds; run when an engine thread ends. One log record per latch type with a
// hold count above zero: "Latch leaked on EDU termination: File %s : Line %d (Identity: %d) HoldCount: %hu". Then the
// list of the single latches, where it is present. Nothing for null.
VEK_EXPORT void sqloCheckLatchTable(const SqloLatchTable* table) noexcept;

// Takes one hold of a latch out of the calling thread's table; releasing does that by itself.
VEK_EXPORT void sqloxult_new_track_helper(const void* latch, std::uint32_t typeId) noexcept;

// How many latches of a type the calling thread holds, and where it captured the last of them (any may be null).
VEK_EXPORT std::uint32_t sqloLatchHoldCount(std::uint32_t typeId, const char** file, std::uint32_t* line,
                                            const void** latch) noexcept;

// Stops the process because something is broken beyond repair: writes `zrc` with its text and `text` to the diagnostic
// log and to standard error, tells the host (VekHost::panic), and aborts. `latch` may be null. Does not return.
[[noreturn]] VEK_EXPORT void sqloPanic(SqlzZrc zrc, const char* text, const void* latch) noexcept;

}  // extern "C"
