// Which sets there are: the shared ones of the instance in the directory, those of this process in tables of its own.
#pragma once

#include <cstdint>

#include "memory/sqlo_mem_set.h"

namespace vek {

// An operation on the directory of shared sets: its latch for the length of a scope. The directory must be mapped
// (sqloi_prepareDirectory).
class DirectoryOperation {
 public:
  explicit DirectoryOperation(std::uint32_t line = __builtin_LINE()) noexcept;
  ~DirectoryOperation();
  DirectoryOperation(const DirectoryOperation&) = delete;
  DirectoryOperation& operator=(const DirectoryOperation&) = delete;

  SetDirectory& directory() const noexcept;
};

// Makes the directory usable for this process; codes as sqloi_mapSection.
SqlzZrc sqloi_prepareDirectory() noexcept;

// Forgets processes that have ended, and sets that nobody has any more. Needs the latch.
void sqloi_tidyDirectory(SetDirectory& directory) noexcept;

// The entry of a set, MEM_SET_ENTRIES when there is none. Needs the latch.
std::uint32_t sqloi_findEntry(const SetDirectory& directory, std::uint32_t setType, const char* name) noexcept;

// Adds this process to those connected, unless it is one of them, or takes it away; false when there is no room. Need
// the latch.
bool sqloi_addProcess(SetEntry& entry) noexcept;
void sqloi_dropProcess(SetEntry& entry) noexcept;

// ---- this process's own

// How many shared sets there can be, and where each is mapped.
std::uint32_t sqloi_sharedEntries() noexcept;
SMemSet* sqloi_sharedSetAt(std::uint32_t entry) noexcept;

// Notes that this process has mapped a shared set, or that it no longer has; answers its descriptor then, -1 for none.
void sqloi_noteConnected(std::uint32_t entry, int fd) noexcept;
int sqloi_noteDisconnected(std::uint32_t entry) noexcept;
bool sqloi_isConnected(std::uint32_t entry) noexcept;

// Takes a window for a private set from number `from` on, PRIVATE_WINDOWS.windows when all are taken; gives it back;
// notes that a set stands in it.
std::uint32_t sqloi_takeWindow(std::uint32_t from) noexcept;
void sqloi_freeWindow(std::uint32_t window) noexcept;
void sqloi_notePrivate(std::uint32_t window) noexcept;
SMemSet* sqloi_privateSetAt(std::uint32_t window) noexcept;

// Why a pointer is no set of this process, as it stands in the log; null when it is one.
const char* sqloi_complaintAbout(const SMemSet* set) noexcept;

// The path of the memory of a shared set.
bool sqloi_setPath(std::uint32_t entry, char* path, std::size_t bytes) noexcept;

}  // namespace vek
