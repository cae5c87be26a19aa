// The first record of a new log file: what machine this is and what the process may use of it.
#pragma once

#include <cstddef>

#include "diag/base/pdrecord.h"

namespace vek {

inline constexpr std::size_t PD_NEW_FILE_TEXT_BYTES = 16'384;

// Gathers the facts as text, each line ended by CR LF. Reads files, takes no lock and allocates nothing: to be called
// before the mutex of the log is taken. Returns the characters written; what does not fit is cut, and says so.
//
//   text  `bytes` of it, at least 256
std::size_t pdGatherNewFileText(char* text, std::size_t bytes) noexcept;

// Makes the body of the new-file record from such a text: the section START, the text as an item, and the note on how
// long it is valid. The arguments must outlive the body.
struct PdNewFileBody {
  PdRecordBody body;
  PdSection start;
  PdItem item;
};
void pdMakeNewFileBody(const char* text, std::size_t length, PdNewFileBody* out) noexcept;

}  // namespace vek
