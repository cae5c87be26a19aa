// Globalization: how dates and times are written in a territory.
//
// Constant tables, made by the build from platform/tables/territories.tsv and territory_formats.tsv. Every function is
// pure and may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vek {

inline constexpr std::size_t G11N_TERRITORIES = 132;

// An entry of the country-code table.
struct G11nTerritory {
  std::uint16_t code;       // ISO 3166-1, numeric
  std::uint8_t dateFormat;  // a number that sqlnlsNlsDate2RxDate takes
  std::uint8_t timeFormat;  // a number that sqlnlsNlsTime2RxTime takes
  char letters[3];          // ISO 3166-1, two letters
};

// The entry of a territory, or null when the table has none. Entries live as long as the process.
const G11nTerritory* g11nFindTerritory(std::uint32_t code) noexcept;

// The entry at a place below G11N_TERRITORIES, in ascending order of the codes.
const G11nTerritory& g11nTerritoryAt(std::size_t index) noexcept;

// The entry that lies at an address; null for any other address, also one inside an entry. What the address points to
// is not looked at.
const G11nTerritory* g11nTerritoryIfAt(const void* address) noexcept;

// The date format of the writers, 1..11, in which a territory's date format is written; 0 for a number that is none.
std::uint32_t sqlnlsNlsDate2RxDate(std::uint32_t dateFormat) noexcept;

// The time format of the writers, 1, 3 or 4, in which a territory's time format is written; 0 for a number that is
// none.
std::uint32_t sqlnlsNlsTime2RxTime(std::uint32_t timeFormat) noexcept;

}  // namespace vek
