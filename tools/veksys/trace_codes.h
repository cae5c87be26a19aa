// Return codes as they stand in trace records.
#pragma once

#include <array>
#include <cstdint>

#include "text.h"
#include "veksys/diag/rc.h"
#include "veksys/types.h"

namespace veksys {

// Looks codes up, remembering the answers: a trace repeats few codes often.
class CodeNames {
 public:
  // The entry of a recorded value, null when the value is no code of the catalogue.
  const SqlzZrcEntry* find(std::int64_t value) {
    if (!isCode(value)) return nullptr;
    Slot& slot = slots_[static_cast<std::uint32_t>(value) * 2654435761U >> 22];
    if (slot.value != value || !slot.filled) slot = {value, sqlzFindZrc(static_cast<SqlzZrc>(value)), true};
    return slot.entry;
  }

  // An error code of a type that exists, also one whose 32 bits were not extended by their sign, or -1. Other negative
  // values are results: SQL codes, differences.
  bool isFailure(std::int64_t value) {
    if (value >= 0 && value <= 0x7FFFFFFF) [[likely]]
      return false;
    if (value == -1) return true;
    return isCode(value) && sqlzZrcType(static_cast<SqlzZrc>(value)) < SQLZ_ZRC_TYPE_COUNT &&
           (value < 0 || find(value) != nullptr);
  }

  // "0", "0x870F0009 SQLO_EOF", "0x83000002 ENOENT", "-1", "17", "0x7F00DEADBEEF".
  void put(Text& text, std::int64_t value) {
    if (value == 0) return text.put('0');
    putOther(text, value);
  }

 private:
  struct Slot {
    std::int64_t value;
    const SqlzZrcEntry* entry;
    bool filled;
  };
  static bool isCode(std::int64_t value) noexcept { return value >= -0x80000000LL && value <= 0xFFFFFFFFLL; }
  void putOther(Text& text, std::int64_t value);

  std::array<Slot, 1024> slots_ = {};
};

}  // namespace veksys
