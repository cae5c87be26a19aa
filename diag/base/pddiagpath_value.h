// Values of diagnostic paths taken apart, and the directories they name. No disk, no lock, no log: what there is to say
// about a value is noted for the caller to report.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "veksys/diag/diagpath.h"

namespace vek {

// Things to report, in their order. Texts are cut to their field, notes beyond the last one are dropped: no value gives
// more than these.
struct PdPathNotes {
  struct Note {
    EcfFunctionId functionId;
    std::uint32_t probe;
    SqlzZrc zrc;
    char text[640];  // two paths or host names and words
  };
  std::uint32_t count = 0;
  Note notes[4] = {};

  void add(EcfFunctionId functionId, std::uint32_t probe, SqlzZrc zrc, const char* format, ...) noexcept
      __attribute__((format(printf, 5, 6)));

  // Hands them to the port for events. Not while a lock is held.
  void report() const noexcept;
};

// A path with a separator at its end; empty when there is none.
struct PdPathName {
  char path[PD_DIAGPATH_BYTES] = {};
  std::size_t length = 0;

  // False, and empty, when the path does not fit.
  bool set(const char* text) noexcept;
};

// Whose directory a split value is asked for.
struct PdMemberChoice {
  const char* host;   // null: of any
  std::int16_t node;  // PD_DIAGPATH_NO_NODE: any
};

// A value taken apart: the path before the pattern, without blanks around it, and the pattern's type.
struct PdDiagPathParts {
  std::string_view base;
  std::string_view pattern;
  std::uint32_t type;
};

// The separator of paths.
inline constexpr char PD_PATH_SEPARATOR = '/';

PdDiagPathParts pdi_diagPathParts(std::string_view value) noexcept;

// The default directories below that of the instance. False: the path does not fit.
bool pdi_defaultDiagPath(PdPathName* out) noexcept;
bool pdi_defaultAltDiagPath(PdPathName* out) noexcept;

// The directory that a value names for a member. Results as of pdDiagpathSplitGet; the notes say what there is to
// report.
SqlzZrc pdi_nameDiagPath(std::string_view value, const PdMemberChoice& member, PdPathName* out,
                         PdPathNotes* notes) noexcept;

// The same for this process's own host and member.
SqlzZrc pdi_nameOwnDiagPath(std::string_view value, PdPathName* out, PdPathNotes* notes) noexcept;

// The directory itself: pdDiagpathVerify and pdMkdirInternal without a trace and a report.
SqlzZrc pdi_verifyDirectory(const char* path) noexcept;
SqlzZrc pdi_makeDirectory(const char* path) noexcept;

}  // namespace vek
