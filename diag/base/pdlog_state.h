// What the parts of the log share among themselves.
#pragma once

#include <cstddef>
#include <cstdint>

#include "diag/base/pdrecord.h"
#include "platform/append_file.h"
#include "veksys/diag/log.h"

namespace vek {

// Attaches the process to its instance, so that a level set for all of its processes is seen; once per process.
void pdi_attachLog() noexcept;

// Counts a call from inside a log call, which is dropped, and answers what such a call answers.
SqlzZrc pdi_drop() noexcept;

// An object in a dump file, for the record that announces it.
struct PdLogDumpFact {
  std::uint32_t size;
  const void* data;
  const char* label;  // the caller's name for it, or null
  PdDumpedObject object;
  const char* error;  // why it was not dumped, and the code for that
  SqlzZrc code;
};

// Whether a record of this call would be written somewhere, as far as levels tell and files are known.
bool pdi_hasPlace(const PdLogCall& call) noexcept;

// pdi_writeRecord with an object that was dumped, or was not, in place of items.
SqlzZrc pdi_writeDumped(const PdLogCall& call, const PdLogDumpFact* dump) noexcept;

// Records that could not be written to a file, until one can. Guarded by the log mutex.
class PdLogLosses {
 public:
  // Those of a file, by its name. A child of fork begins anew: what its parent lost is told by its parent.
  static PdLogLosses& of(const char* name, std::uint32_t processId) noexcept;

  // Counts a record that was lost, and says so on standard error, once for each reason until a record is written.
  void add(int error, const AppendOutcome& outcome, std::int64_t timeNs) noexcept;

  // Writes what the next record has to say about them, terminated, nothing when there are none. Returns its length.
  std::size_t compose(char* text, std::size_t bytes) const noexcept;

  // That record is in the file.
  void forget() noexcept;

 private:
  std::uint64_t count_ = 0;
  std::int64_t firstNs_ = 0;
  SqlzZrc zrc_ = 0;  // of the last one
  SqlzZrc said_[8] = {};
  std::size_t saidCount_ = 0;
  std::uint32_t processId_ = 0;
  char failed_[16] = {};
  char path_[PATH_BYTES] = {};
};

// On standard error, once: there is no log at all.
void pdi_sayNoLog() noexcept;

}  // namespace vek
