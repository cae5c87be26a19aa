// The country-code table as the writers of dates and times look into it: the entry found last stands in the object that
// asks and, for objects that are new, in a pointer of the process.
//
// The latch of that pointer is never waited for. A thread that does not get it at once searches the table, which is
// constant and small; so neither a crowd of threads, nor a fork while another thread holds the latch, stops anybody. A
// thread that has never captured a latch searches the table as well: its first capture would join the process to the
// instance and map memory, which writing a date must not do. Nothing here is initialised at the first use, so that
// no thread waits for another one there either.
#include "values/sqlv_country.h"

#include <atomic>

#include "veksys/latch_types.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

class CountryCodeTable {
 public:
  const G11nTerritory* find(std::uint16_t territory) noexcept {
    const G11nTerritory* entry = last();
    if (entry != nullptr && entry->code == territory) return entry;
    entry = g11nFindTerritory(territory);
    if (entry != nullptr) keep(entry);
    return entry;
  }

 private:
  const G11nTerritory* last() noexcept {
    if (tableLatch_.tryGetShared(__FILE__, __LINE__) != 0) return nullptr;
    const G11nTerritory* entry = last_;
    tableLatch_.release();
    return entry;
  }

  void keep(const G11nTerritory* entry) noexcept {
    if (tableLatch_.tryGetExclusive(__FILE__, __LINE__) != 0) return;
    last_ = entry;
    tableLatch_.release();
  }

  SQLO_SLATCH_CAS32 tableLatch_{SQLO_LT_SqloCountryCodeTable__tableLatch__latch, SQLO_LATCH_X_STARVATION};
  const G11nTerritory* last_ = nullptr;
};

constinit CountryCodeTable g_countryCodes;

const G11nTerritory* find(std::uint16_t territory) noexcept {
  return sqloCurrentLatchTable() != nullptr ? g_countryCodes.find(territory) : g11nFindTerritory(territory);
}

}  // namespace

// Entries are constant, so that threads that share the object may see the one or the other of them: each looks whether
// what it sees is an entry, and the one that it wants.
const G11nTerritory* sqlvi_countryOf(SqlvNationalLanguage* language) noexcept {
  const std::atomic_ref<const void*> kept(language->countryEntry);
  const G11nTerritory* entry = g11nTerritoryIfAt(kept.load(std::memory_order_relaxed));
  if (entry != nullptr && entry->code == language->territory) return entry;
  entry = find(language->territory);
  if (entry != nullptr) kept.store(entry, std::memory_order_relaxed);
  return entry;
}

}  // namespace vek
