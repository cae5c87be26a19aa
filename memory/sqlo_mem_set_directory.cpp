#include "memory/sqlo_mem_set_directory.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <iterator>

#include "memory/sqlo_mem_pool.h"
#include "memory/sqlo_mem_rows.h"
#include "memory/sqlo_mem_section.h"
#include "platform/address_windows.h"
#include "platform/dirs.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/latch_types.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

SetDirectory& theDirectory() noexcept { return *std::bit_cast<SetDirectory*>(MEMORY_SETS_ADDRESS); }

SqlzZrc repairDirectory(void* /*context*/, void* /*latch*/, std::uint32_t /*typeId*/) noexcept {
  sqloi_tidyDirectory(theDirectory());
  return 0;
}

SqlzZrc repairSet(void* /*context*/, void* latch, std::uint32_t /*typeId*/) noexcept {
  auto* set = reinterpret_cast<SMemSet*>(static_cast<char*>(latch) - offsetof(SMemSet, m_latch));
  set->repair();
  return 0;
}

SqlzZrc repairPool(void* /*context*/, void* latch, std::uint32_t /*typeId*/) noexcept {
  sqloi_repairPool(*MemPool::ofLatch(latch));
  return 0;
}

// In a new run of the instance the directory is empty: what lies where its sets would is left over.
void prepareDirectory() noexcept {
  (void)sqloSetLatchDeathPolicy(SQLO_LT_SMemSetDirectory__entryLatch__latch, SQLO_LATCH_DEATH_REPAIR, repairDirectory,
                                nullptr);
  (void)sqloSetLatchDeathPolicy(SQLO_LT_SMemSet__MemLatchType__latch, SQLO_LATCH_DEATH_REPAIR, repairSet, nullptr);
  (void)sqloSetLatchDeathPolicy(SQLO_LT_SqloMemPool__poolLatch__latch, SQLO_LATCH_DEATH_REPAIR, repairPool, nullptr);
  SetDirectory& directory = theDirectory();
  if (directory.isReady != 0) return;
  for (std::uint32_t entry = 0; entry < MEM_SET_ENTRIES; ++entry) {
    char path[PATH_BYTES];
    if (sqloi_setPath(entry, path, sizeof path)) ossCalls().unlink(path);
  }
  directory.latch.init(SQLO_LT_SMemSetDirectory__entryLatch__latch, SQLO_LATCH_BETWEEN_PROCESSES);
  directory.isReady = 1;
}

constinit MappedSection g_section = {RegionSectionId::kMemorySets, MEMORY_SETS_ADDRESS, REGION_MEMORY_SETS_BYTES,
                                     prepareDirectory};

// Descriptor of each shared set that this process has mapped, plus one; 0: not connected.
constinit std::atomic<int> g_connected[MEM_SET_ENTRIES] = {};

// Of each private window: free, taken by somebody who makes or frees a set, or with a set in it.
enum WindowState : std::uint8_t { kWindowFree, kWindowTaken, kWindowInUse };
constinit std::atomic<std::uint8_t> g_windows[PRIVATE_WINDOWS.windows] = {};

// Frees an entry whose set nobody can use any more.
void freeEntry(SetDirectory& directory, SetEntry& entry) noexcept {
  char path[PATH_BYTES];
  const auto number = static_cast<std::uint32_t>(&entry - directory.entries);
  if (sqloi_setPath(number, path, sizeof path)) ossCalls().unlink(path);
  std::memset(entry.connected, 0, sizeof entry.connected);
  sqloi_freeRowsOf(sharedRowOwner(number, entry.serial));
  entry.state = SetState::kFree;
}

}  // namespace

DirectoryOperation::DirectoryOperation(std::uint32_t line) noexcept {
  (void)theDirectory().latch.captureLatch("sqlo_mem_set_directory", line);
}
DirectoryOperation::~DirectoryOperation() { theDirectory().latch.releaseLatch(); }
SetDirectory& DirectoryOperation::directory() const noexcept { return theDirectory(); }

// A process without a shared region knows of no shared set, and must not take those of others for left-overs.
SqlzZrc sqloi_prepareDirectory() noexcept {
  const SqlzZrc attached = regionAttach();
  if (attached != 0) return attached;
  regionReportOnce();
  return regionSharedStatus() != 0 ? regionSharedStatus() : sqloi_mapSection(g_section);
}

// A set that is ready stays although nobody is connected: the next process finds it as it was left.
void sqloi_tidyDirectory(SetDirectory& directory) noexcept {
  for (SetEntry& entry : directory.entries) {
    if (entry.state == SetState::kFree) continue;
    const bool creatorLives = regionOwnerLives(entry.connected[0]);
    bool anybody = false;
    for (std::uint64_t& owner : entry.connected) {
      if (owner != 0 && !regionOwnerLives(owner)) owner = 0;
      anybody = anybody || owner != 0;
    }
    if ((entry.state == SetState::kCreating && !creatorLives) || (entry.state == SetState::kEnding && !anybody))
      freeEntry(directory, entry);
  }
}

std::uint32_t sqloi_findEntry(const SetDirectory& directory, std::uint32_t setType, const char* name) noexcept {
  const auto* found =
      std::find_if(std::begin(directory.entries), std::end(directory.entries), [&](const SetEntry& entry) {
        return (entry.state == SetState::kCreating || entry.state == SetState::kReady) && entry.setType == setType &&
               std::strcmp(entry.name, name) == 0;
      });
  return static_cast<std::uint32_t>(found - directory.entries);
}

bool sqloi_addProcess(SetEntry& entry) noexcept {
  std::uint64_t* const end = std::end(entry.connected);
  std::uint64_t* place = std::find(std::begin(entry.connected), end, regionProcessOwner());
  if (place == end) place = std::find(std::begin(entry.connected), end, std::uint64_t{0});
  if (place == end)
    place =
        std::find_if(std::begin(entry.connected), end, [](std::uint64_t owner) { return !regionOwnerLives(owner); });
  if (place == end) return false;
  *place = regionProcessOwner();
  return true;
}

void sqloi_dropProcess(SetEntry& entry) noexcept {
  std::replace(std::begin(entry.connected), std::end(entry.connected), regionProcessOwner(), std::uint64_t{0});
}

// ---- this process's own ----------------------------------------------------------------------------------------

std::uint32_t sqloi_sharedEntries() noexcept { return std::min(MEM_SET_ENTRIES, SHARED_WINDOWS.windows - 1); }

SMemSet* sqloi_sharedSetAt(std::uint32_t entry) noexcept {
  return std::bit_cast<SMemSet*>(addressOfWindow(SHARED_WINDOWS, entry + 1));
}

void sqloi_noteConnected(std::uint32_t entry, int fd) noexcept { g_connected[entry].store(fd + 1); }
int sqloi_noteDisconnected(std::uint32_t entry) noexcept { return g_connected[entry].exchange(0) - 1; }
bool sqloi_isConnected(std::uint32_t entry) noexcept { return g_connected[entry].load() != 0; }

std::uint32_t sqloi_takeWindow(std::uint32_t from) noexcept {
  for (std::uint32_t window = from; window < PRIVATE_WINDOWS.windows; ++window) {
    std::uint8_t expected = kWindowFree;
    if (g_windows[window].compare_exchange_strong(expected, kWindowTaken)) return window;
  }
  return PRIVATE_WINDOWS.windows;
}

void sqloi_freeWindow(std::uint32_t window) noexcept { g_windows[window].store(kWindowFree); }
void sqloi_notePrivate(std::uint32_t window) noexcept { g_windows[window].store(kWindowInUse); }

SMemSet* sqloi_privateSetAt(std::uint32_t window) noexcept {
  return std::bit_cast<SMemSet*>(addressOfWindow(PRIVATE_WINDOWS, window));
}

const char* sqloi_complaintAbout(const SMemSet* set) noexcept {
  const auto address = reinterpret_cast<std::uintptr_t>(set);
  if (set == nullptr) return "Set handle is NULL.";
  if (address % ADDRESS_WINDOW_BYTES != 0) return "Invalid set address.";
  if (address >= PRIVATE_WINDOWS.begin && address < PRIVATE_WINDOWS.end()) {
    const bool isThere = g_windows[(address - PRIVATE_WINDOWS.begin) >> 32].load() == kWindowInUse;
    return isThere && set->m_eyeCatcher == MEM_SET_EYE_CATCHER ? nullptr : "No private set handle.";
  }
  const std::uint64_t window = (address - SHARED_WINDOWS.begin) >> 32;
  if (address < SHARED_WINDOWS.begin || window == 0 || window > sqloi_sharedEntries()) return "Invalid set address.";
  const bool isThere = sqloi_isConnected(static_cast<std::uint32_t>(window) - 1);
  return isThere && set->m_eyeCatcher == MEM_SET_EYE_CATCHER ? nullptr : "NULL shared memory mapping handle.";
}

bool sqloi_isSet(const SMemSet* set) noexcept { return sqloi_complaintAbout(set) == nullptr; }

int sqloi_setDescriptor(const SMemSet& set) noexcept {
  return set.m_window == 0 || set.m_window > MEM_SET_ENTRIES ? -1 : g_connected[set.m_window - 1].load() - 1;
}

bool sqloi_setPath(std::uint32_t entry, char* path, std::size_t bytes) noexcept {
  char suffix[24];
  ossSnprintf(suffix, sizeof suffix, ":set.%u", entry + 1);
  return sharedObjectPath(suffix, path, bytes) != 0;
}

}  // namespace vek
