#include "memory/sqlo_mem_section.h"

#include <cerrno>

#include "platform/address_space.h"
#include "veksys/codes.h"

namespace vek {
namespace {

constexpr unsigned kRegionWaitMs = 2000;

bool isMapped(const MappedSection& section) noexcept {
  return section.isThere.load(std::memory_order_acquire) && section.sharedStatus == regionSharedStatus();
}

}  // namespace

// A forked child that had to leave the shared region for a private one maps that in its parent's place.
SqlzZrc sqloi_mapSection(MappedSection& section) noexcept {
  const SqlzZrc attached = regionAttach();
  if (attached != 0) return attached;
  if (isMapped(section)) return 0;
  regionReportOnce();
  const RegionLock lock(kRegionWaitMs);
  if (!lock.held()) return SQLO_REGION_BUSY;
  if (isMapped(section)) return 0;
  const auto map = section.isThere.load(std::memory_order_relaxed) ? ossRemapSharedAt : ossMapSharedAt;
  const int error = map(section.address, section.bytes, regionDescriptor(), regionSectionOffset(section.id));
  if (error != 0) return error == EEXIST ? SQLO_ADDRESS_TAKEN : SQLO_REGION_NO_MEMORY;
  section.prepare();
  section.sharedStatus = regionSharedStatus();
  section.isThere.store(true, std::memory_order_release);
  return 0;
}

}  // namespace vek
