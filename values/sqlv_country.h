// Which date and time formats a national-language object asks for.
#pragma once

#include "platform/g11n.h"
#include "veksys/values/national_language.h"

namespace vek {

// Whether no territory is named, and so the forms of ISO are meant.
inline bool sqlvi_isNeutral(const SqlvNationalLanguage* language) noexcept {
  return language == nullptr || language->territory == 0;
}

// The entry of the object's territory in the country-code table, or null when the table does not hold it. The object
// keeps what was found.
const G11nTerritory* sqlvi_countryOf(SqlvNationalLanguage* language) noexcept;

}  // namespace vek
