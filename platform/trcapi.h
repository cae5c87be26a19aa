// The trace library: the shared trace of an instance and the operations on it.
//
// Reserving and writing (trcapi.cpp tells the protocol with its races). A thread owns a segment and writes records
// into it one after the other; a full segment is released and another taken by one compare-and-swap. Nobody waits:
// a thread that finds no free segment counts a lost record and goes on.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/trc_format.h"
#include "veksys/diag/trace.h"
#include "veksys/diag/trace_control.h"
#include "veksys/types.h"

namespace vek {

// Kinds of records.
enum TrcKind : std::uint32_t {
  TRC_ENTRY = 1,
  TRC_EXIT = 2,
  TRC_DATA = 3,
  TRC_ERROR = 4,
  TRC_MARKER = 5,
  TRC_EVENT = 6,
  TRC_CORRELATOR = 7,
  TRC_TRANSLATION = 8,  // an error whose code became another; the new one is the item
  TRC_KINDS_END = 9,
};

// What the attaching library wants to hear. Run by the process that registered them, on the thread that caused it.
struct TrcCallbacks {
  void (*switchedOff)();  // tracing was switched off by this process
  void (*switchedOn)();   // ... or on
  void (*detaching)();    // the process ends
};

// Where the shared trace of the instance lives. Always succeeds; the path is empty when it would be too long.
void trcGetWindowsIPCInfo(SqltSharedIPCInfo* out) noexcept;

// Attaches the process: instance region, trace words, trace state. Repeated calls are cheap and answer 0. The
// call-backs must live as long as the process; those of several threads that attach at once must be the same.
SqlzZrc trcAttachShared(const TrcCallbacks& callbacks) noexcept;
bool trcIsAttached() noexcept;

// Sets the detaching flag, so that late points do nothing, and releases the calling thread's segment.
void trcDetachShared() noexcept;

// Parses a size: decimal or 0x hex digits, optionally followed by K, M or G. False: not a size, or above 2^63.
bool trcGetBuffSizeFromStr(const char* text, std::uint64_t* bytesOut) noexcept;

// Creates the ring and switches it on. Codes as told for sqltTraceFacilityCreate.
SqlzZrc trcCreateShared(std::uint64_t bytes, bool byClientInterface) noexcept;

// Removes it. SQLT_TRACE_NOT_CREATED when there is none; with onlyClientInterface, also when it was made otherwise.
SqlzZrc trcDeleteShared(bool onlyClientInterface) noexcept;

// Switches an existing trace on or off; runs this process's call-back.
void trcSwitch(bool on) noexcept;
bool trcIsOn() noexcept;

void trcClear() noexcept;
std::uint64_t trcInquireTraceBufferSize() noexcept;

// The error of the system behind SQLT_TRACE_DUMP_FAILED goes to *errorOut, which stays as it was without one.
SqlzZrc trcInstantaneousDump(const char* target, int* errorOut) noexcept;
const TrcRingHeader* trcControlBlock() noexcept;

// Partition number and process id for records of this process; process id 0 means its own.
void trcSetGlobals(const std::int16_t* partition, const std::uint32_t* processId) noexcept;

// In a forked child: records carry its own process id again.
void trcAfterFork() noexcept;

// Releases the calling thread's segment; called when a thread ends.
void trcReleaseThread() noexcept;

// Gives free what dead processes hold. False when another process is at it.
bool trcSweep() noexcept;

// The points. Thread and process need no parameters: a record belongs to the segment of the calling thread, which says
// whose it is.
void _gtraceEntry(EcfFunctionId id, std::uint64_t correlator, std::uint32_t itemCount = 0,
                  const PdtItem* items = nullptr) noexcept;
void _gtraceExit(EcfFunctionId id, std::int64_t returnCode, std::uint32_t itemCount, const PdtItem* items) noexcept;
void _gtraceVar(EcfFunctionId id, std::uint32_t probe, TrcKind kind, std::uint64_t value, std::uint32_t itemCount,
                const PdtItem* items) noexcept;
void _gtraceErrorVar(EcfFunctionId id, std::uint32_t probe, TrcKind kind, std::int64_t returnCode,
                     std::uint32_t itemCount, const PdtItem* items) noexcept;

// The data point with two items, as it comes from its caller: the most frequent of those with items, without a list of
// them passed through memory between two functions.
void _gtraceData2(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_2) noexcept;

}  // namespace vek
