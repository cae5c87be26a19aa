// Facilities: secondary logs by name.
//
// A facility that was opened once keeps its number and its record for the life of the process, so that a thread that
// is about to write to it needs no lock. Records form a list with the newest first; adding one is a compare-and-swap on
// its head, and whoever loses it looks again, since the name may stand in the list by then.
#include <atomic>
#include <cstring>
#include <new>

#include "diag/base/pddiagpath.h"
#include "diag/base/pdlog.h"
#include "diag/base/traced.h"
#include "platform/osse.h"
#include "veksys/codes.h"

namespace vek {
namespace {

constexpr std::size_t kNameMost = 64;
constexpr std::uint32_t kNumberMost = PD_LOG_FACILITY_MASK >> PD_LOG_FACILITY_SHIFT;
constexpr char kMainLog[] = "vekdiag";

struct Facility {
  Facility* next = nullptr;
  std::uint32_t number = 0;
  std::atomic<std::uint32_t> level = 0;
  std::atomic<bool> isOpen = false;
  char name[kNameMost + 1] = {};
};

constinit std::atomic<Facility*> g_facilities = nullptr;

bool isNameCharacter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

// The names of the diagnostic log and of its rotated files stay its own.
bool belongsToMainLog(const char* name) noexcept {
  constexpr std::size_t kLength = sizeof kMainLog - 1;
  return std::strncmp(name, kMainLog, kLength) == 0 && (name[kLength] == '\0' || name[kLength] == '.');
}

bool isName(const char* name) noexcept {
  const std::size_t length = name == nullptr ? 0 : ::strnlen(name, kNameMost + 1);
  if (length == 0 || length > kNameMost || name[0] == '.' || belongsToMainLog(name)) return false;
  for (std::size_t i = 0; i < length; ++i)
    if (!isNameCharacter(name[i])) return false;
  return true;
}

Facility* findByName(Facility* from, const char* name) noexcept {
  while (from != nullptr && std::strcmp(from->name, name) != 0) from = from->next;
  return from;
}

Facility* findOpen(std::uint32_t number) noexcept {
  Facility* facility = g_facilities.load(std::memory_order_acquire);
  while (facility != nullptr && facility->number != number) facility = facility->next;
  return facility != nullptr && facility->isOpen.load(std::memory_order_acquire) ? facility : nullptr;
}

// The facility of that name, added to the list unless it is there; null when there is no memory or no number left.
Facility* findOrAdd(const char* name) noexcept {
  Facility* head = g_facilities.load(std::memory_order_acquire);
  if (Facility* found = findByName(head, name); found != nullptr) return found;
  void* pages = ossMapPages(sizeof(Facility));
  if (pages == nullptr) return nullptr;
  auto* fresh = new (pages) Facility;
  ossCopyText(fresh->name, sizeof fresh->name, name);
  Facility* found = nullptr;
  do {
    found = findByName(head, name);
    fresh->next = head;
    fresh->number = head == nullptr ? 1 : head->number + 1;
  } while (found == nullptr && fresh->number <= kNumberMost &&
           !g_facilities.compare_exchange_weak(head, fresh, std::memory_order_acq_rel));
  if (found == nullptr && fresh->number <= kNumberMost) return fresh;
  ossUnmapPages(pages, sizeof(Facility));
  return found;
}

}  // namespace

bool pdi_facilityTarget(std::uint32_t facility, char* path, std::size_t bytes, std::uint32_t* level) noexcept {
  const Facility* found = findOpen(facility);
  if (found == nullptr) return false;
  const PdDiagDirectory directory = pdiTrustedDirectory();
  if (directory.length + std::strlen(found->name) + sizeof ".log" > bytes) return false;
  ossSnprintf(path, bytes, "%s%s.log", directory.path, found->name);
  *level = found->level.load(std::memory_order_relaxed);
  return true;
}

}  // namespace vek

using vek::Facility;
using vek::VekTrace;

SqlzZrc pdLogFacOpen(const char* name, std::uint32_t level, std::uint32_t* facilityOut) noexcept {
  VekTrace<vek::FID_pdLogFacOpen> trace;
  if (!vek::isName(name) || facilityOut == nullptr) return trace.exit(SQLO_INV_PARM);
  Facility* found = vek::findOrAdd(name);
  if (found == nullptr) return trace.exit(SQLT_DIAGERR_LOGERR);
  if (!found->isOpen.load(std::memory_order_acquire)) {
    found->level.store(level, std::memory_order_relaxed);
    found->isOpen.store(true, std::memory_order_release);
  }
  *facilityOut = found->number;
  return trace.exit(0);
}

SqlzZrc pdLogFacClose(std::uint32_t facility) noexcept {
  VekTrace<vek::FID_pdLogFacClose> trace;
  Facility* found = vek::findOpen(facility);
  const bool wasOpen = found != nullptr && found->isOpen.exchange(false);
  return trace.exit(wasOpen ? 0 : SQLO_INV_PARM);
}

SqlzZrc pdLogFacSetLevel(std::uint32_t facility, std::uint32_t level) noexcept {
  VekTrace<vek::FID_pdLogFacSetLevel> trace;
  Facility* found = vek::findOpen(facility);
  if (found == nullptr) return trace.exit(SQLO_INV_PARM);
  found->level.store(level, std::memory_order_relaxed);
  return trace.exit(0);
}

void pdCloseOpenedFacility() noexcept {
  const VekTrace<vek::FID_pdCloseOpenedFacility> trace;
  for (Facility* each = vek::g_facilities.load(std::memory_order_acquire); each != nullptr; each = each->next)
    each->isOpen.store(false, std::memory_order_release);
}
