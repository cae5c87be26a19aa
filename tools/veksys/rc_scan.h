// Reading codes: one that was typed, or all that stand in running text such as a log record.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "veksys/diag/rc.h"

namespace veksys {

struct FoundCode {
  bool isSqlCode;  // else a return code
  std::int32_t value;
  std::string note;                     // how it was read, when that was a choice; else empty
  const SqlzZrcEntry* named = nullptr;  // the entry whose name was typed or stood there; null: the code is by value
};

// Reads what was typed as one code: eight hex digits with or without 0x, a signed decimal, SQL0911N, or the exact name
// of a return code. Nothing when it is a word; throws Failure when it is a number that no code can be.
std::optional<FoundCode> readCode(const std::string& typed);

// Every code in the text, each once, in the order of their first place: hex codes, decimals of return codes, names,
// SQL codes by message identifier or behind "sqlcode". Other numbers (addresses, process ids, function identifiers)
// are passed over.
std::vector<FoundCode> scanCodes(std::string_view text);

// What a typed code may look like, for messages.
inline constexpr std::string_view CODE_FORMS =
    "a return code (0x8B0F0000, 8B0F0000 or -1961951232), its name (SQLO_NOMEM), an SQL code (-911 or SQL0911N) or "
    "words from its name or text";

}  // namespace veksys
