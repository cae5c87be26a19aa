// Rotation of the diagnostic log: the directory of its numbered files, and what there is to say about it.
//
// With DIAGSIZE (megabytes) set, records go to <diagnostic directory>/rotate/vekdiag.<number>.log. Numbers grow and
// are never used again; ten files are kept, of a tenth of DIAGSIZE each. A record that would make a file larger goes to
// the next one; the switch itself is platform/append_file.h's. Without a directory that can be used the log stays in
// its one file.
//
// Called with the log mutex held.
#pragma once

#include <cstdint>

#include "diag/base/pdlog_files.h"

namespace vek {

// The rotating-log directory below a diagnostic directory, with a separator at its end; made when it is missing. Null:
// there is none to be had, which is remarked.
const char* pdi_rotatingDirectory(const char* directory, std::uint64_t fileBytes) noexcept;

// Notes how appending to the series went, for the remarks.
void pdi_noteRotation(std::uint64_t fileBytes, int error, const AppendOutcome& outcome) noexcept;

// Whether the series itself, not the file of it or the disk, was what failed: its lock file.
bool pdi_isSetupError(const AppendOutcome& outcome) noexcept;

// The next remark; false: none.
bool pdi_takeRotationRemark(PdLogRemark* out) noexcept;

}  // namespace vek
