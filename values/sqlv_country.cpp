#include "values/sqlv_country.h"

#include <atomic>

namespace vek {
namespace {

bool isOf(const G11nTerritory* entry, std::uint16_t territory) noexcept {
  return entry != nullptr && entry->code == territory;
}

}  // namespace

// Entries are constant, so that threads that share the object may see the one or the other of them: each looks whether
// what it sees is what it wants.
const G11nTerritory* sqlvi_countryOf(SqlvNationalLanguage* language) noexcept {
  const std::atomic_ref<const void*> kept(language->countryEntry);
  const auto* entry = static_cast<const G11nTerritory*>(kept.load(std::memory_order_relaxed));
  if (isOf(entry, language->territory)) return entry;
  entry = g11nFindTerritory(language->territory);
  if (entry != nullptr) kept.store(entry, std::memory_order_relaxed);
  return entry;
}

}  // namespace vek
