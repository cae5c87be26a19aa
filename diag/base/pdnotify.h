// The administration notification log: what an administrator should know, in the words of the message catalogue.
//
// One file per instance, <instance>.nfy in the diagnostic directory, and the system log as well when the setting
// VEK_EVENT_LOG_CONFIG asks for it:
//
//   SYSLOG             with the facility USER
//   SYSLOG:<facility>  USER, DAEMON or LOCAL0 to LOCAL7
//
// An entry begins in the first column with its time; all its other lines are indented by four blanks, whatever bytes
// its texts hold, and an empty line ends it. Lines end in CR LF:
//
//   2026-01-31-13.59.59.123000+060 Error    prod/003 engine[4711.4712] database SALES
//       Reported by buffer services, sqlbWritePage, probe 20
//       SQL0968C  The file system is full.
//       Tokens: /data/tbsp7
//
// In the system log the same stands on one line.
#pragma once

#include <cstddef>
#include <cstdint>

#include "diag/base/pdlog.h"
#include "diag/base/pdpen.h"

namespace vek {

// An entry without the facts of process and thread, which are those of the caller.
struct PdNotification {
  std::uint32_t level;  // PdLevel: the word in the entry and the priority in the system log
  EcfFunctionId functionId;
  std::uint32_t probe;
  const char* lines;  // what happened, terminated; any bytes; lines ended by LF or CR LF
};

// Writes an entry. 0, or SQLT_DIAGERR_LOGERR when the file could not be written. Not while the logger's mutex is held.
SqlzZrc pdi_writeNotification(const PdNotification& notification) noexcept;

// Reports what kept entries from the file or the system log, once per streak of failures. Outside of a log call; costs
// one load when there is nothing to say.
void pdi_reportNotifyFailures() noexcept;

// The priority of a message in the system log: facility and severity, or -1 when `setting` does not ask for it or
// cannot be understood. `isUnderstood` tells these two apart.
int pdi_systemLogPriority(const char* setting, std::uint32_t level, bool* isUnderstood) noexcept;

}  // namespace vek
