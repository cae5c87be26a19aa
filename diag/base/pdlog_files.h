// The files that log records go to: which one, what to do when it cannot be written, and what is to be said about it.
//
// Everything here is called with the log mutex held.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/append_file.h"
#include "veksys/types.h"

namespace vek {

// Where a record goes. Texts stay valid for the length of the call.
struct PdLogTarget {
  const char* directory = "";       // with a separator at its end
  const char* name = "";            // of the file
  bool isDiagnosticLog = false;     // it moves to the alternate directory, and may rotate
  std::uint64_t rotatingBytes = 0;  // of all rotating files together; 0: one file that grows
};

inline constexpr char PD_LOG_NAME[] = "vekdiag.log";
inline constexpr char PD_LOG_SERIES[] = "vekdiag";    // vekdiag.<number>.log
inline constexpr char PD_LOG_ROTATING[] = "rotate/";  // the rotating-log directory below the diagnostic one
inline constexpr std::uint64_t PD_LOG_ROTATING_FILES = 10;

// Appends a record. One that cannot be written where it should go is tried again after the directory has been made
// anew, and then in the alternate directory unless the error is the process's own and not one of the path. 0 or an
// errno value; `outcome` tells about the last attempt.
int pdi_appendRecord(const PdLogTarget& target, const AppendText& text, AppendText (*firstText)(),
                     AppendOutcome* outcome) noexcept;

// What has to be said in a record of its own about the files, once each time that it becomes true; false when there is
// nothing (more). To be asked for without the mutex having been given back in between.
struct PdLogRemark {
  std::uint32_t probe;
  std::uint32_t level;
  SqlzZrc zrc;
  char text[PATH_BYTES + 256];
};
bool pdi_takeRemark(PdLogRemark* out) noexcept;

// After a fault while a file was in use: gives it up, and completes what is told about the attempt.
void pdi_abandonFiles(AppendOutcome* outcome) noexcept;

}  // namespace vek
