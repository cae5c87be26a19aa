// The core of the diagnostic log, as the library itself uses it.
//
// pdi_writeRecord is the one way into a log file: vekdiag.log, a facility, the administration notification log. The
// steps of a record, in this order:
//
//   filter     one load and one compare, before anything else
//   facts      who calls, for which application, where the file is: settings and the host's call-backs are asked here,
//              while no lock is held
//   the mutex  of the process (platform/log_mutex.h); cancellation is disabled from here to the end
//   format     into the record buffer
//   append     to the file, under the lock between processes (platform/append_file.h)
//
// The last two run under one fault guard. What a caller's pointers lead to is read under a guard everywhere.
#pragma once

#include <cstddef>
#include <cstdint>

#include "diag/base/pdlog_filter.h"
#include "platform/ports.h"
#include "veksys/diag/log.h"

namespace vek {

// The length of a caller's text, cut at that of a record; 0 for null, 1 for one that cannot be read, so that whoever
// prints it meets the fault where it is told of.
std::uint32_t pdi_textBytes(const char* text) noexcept;

// Whether the calling thread is inside a log call: further ones are dropped and counted.
bool pdi_isInsideLog() noexcept;

// Marks the calling thread as inside a log call for the length of a scope; keeps errno, and the thread from being
// cancelled.
class PdInsideLog {
 public:
  PdInsideLog() noexcept;
  ~PdInsideLog();
  PdInsideLog(const PdInsideLog&) = delete;
  PdInsideLog& operator=(const PdInsideLog&) = delete;

 private:
  int error_;
  int cancelState_;
};

// Writes the record of a call. Filters by the level of the log (or of the facility that the flags carry), passes the
// event to a recorder, to the notification log and to the trace when the call asks for it. Results as in log.h.
SqlzZrc pdi_writeRecord(const PdLogCall& call) noexcept;

// What the port reportEvent does: a record, or a line on standard error where none can be written.
void pdi_reportEvent(const PortEvent& event) noexcept;

// Appends lines that are formatted already and are no record of the diagnostic log (the administration notification
// log) to a file: whole, once, serialised like records; the file and its directory are made when they are missing.
// 0 or SQLT_DIAGERR_LOGERR. Not from inside a log call.
SqlzZrc pdi_appendText(const char* path, const char* text, std::size_t bytes) noexcept;

// ---- what the log asks of its neighbours, always before it takes the mutex --------------------------------------

// pddiagpath.h: pdiDiagDirectory, pdiRenewDiagDirectory, pdiIsOnAlternate, pdSwitchToAltDiagPath, pdiReportDiagPath.

// The application fields and the engine unit of the calling thread, as far as they are known and the mask of optional
// header fields wants them; unknown or unwanted ones are empty. False: none at all, and what stands in `out` means
// nothing. Call-backs of the host run.
bool pdi_applicationFields(VekApplication* out) noexcept;
bool pdi_engineUnit(VekEngineUnit* out) noexcept;

// Whether any call-back would run for these.
bool pdi_asksCallBacks() noexcept;

// pdfacility: file and level of an open facility. False: no such facility is open.
bool pdi_facilityTarget(std::uint32_t facility, char* path, std::size_t bytes, std::uint32_t* level) noexcept;

// pdnotify: writes the event of a call whose flags carry a notify level that passed sqltTestNotifyLevel to the
// administration notification log.
void pdi_notify(const PdLogCall& call) noexcept;

}  // namespace vek
