// Sections of the instance region that have latches in them: mapped once more, at one address in all processes, because
// a latch between processes is known by its address.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "platform/region.h"
#include "veksys/types.h"

namespace vek {

struct MappedSection {
  RegionSectionId id;
  std::uint64_t address;
  std::size_t bytes;
  void (*prepare)();  // called under the region lock once this process has mapped it
  std::atomic<bool> isThere{false};
  SqlzZrc sharedStatus = 0;  // of the region it belongs to
};

// Maps the section, unless that is done. Cheap when it is.
//
//   Result   0; SQLO_ADDRESS_TAKEN; SQLO_REGION_BUSY, SQLO_REGION_NO_MEMORY
SqlzZrc sqloi_mapSection(MappedSection& section) noexcept;

}  // namespace vek
