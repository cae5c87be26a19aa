#include "platform/g11n.h"

#include <algorithm>
#include <iterator>

namespace vek {
namespace {

#include "territories.inc"

static_assert(std::size(kTerritories) == G11N_TERRITORIES);

template <std::size_t Count>
std::uint32_t at(const std::uint8_t (&formats)[Count], std::uint32_t number) noexcept {
  return number < Count ? formats[number] : 0;
}

}  // namespace

const G11nTerritory* g11nFindTerritory(std::uint32_t code) noexcept {
  const G11nTerritory* found =
      std::lower_bound(std::begin(kTerritories), std::end(kTerritories), code,
                       [](const G11nTerritory& entry, std::uint32_t wanted) { return entry.code < wanted; });
  return found != std::end(kTerritories) && found->code == code ? found : nullptr;
}

const G11nTerritory& g11nTerritoryAt(std::size_t index) noexcept { return kTerritories[index]; }

// An address before the table has an offset beyond it: the difference wraps round.
const G11nTerritory* g11nTerritoryIfAt(const void* address) noexcept {
  const std::uintptr_t offset =
      reinterpret_cast<std::uintptr_t>(address) - reinterpret_cast<std::uintptr_t>(std::data(kTerritories));
  const bool isEntry = offset < sizeof kTerritories && offset % sizeof(G11nTerritory) == 0;
  return isEntry ? &kTerritories[offset / sizeof(G11nTerritory)] : nullptr;
}

std::uint32_t sqlnlsNlsDate2RxDate(std::uint32_t dateFormat) noexcept { return at(kWrittenDates, dateFormat); }

std::uint32_t sqlnlsNlsTime2RxTime(std::uint32_t timeFormat) noexcept { return at(kWrittenTimes, timeFormat); }

}  // namespace vek
