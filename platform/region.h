// The instance region: one shared-memory object per instance; everything that several processes share hangs on it.
//
// Finding it. The object is <shared>/veksys.<user>.<instance>, owner-only. Whoever attaches takes the region lock (a
// record lock on one byte of the object, dropped by the kernel with its holder), checks that the path still names the
// object it locked, and then uses, takes over or replaces it:
//
//   owner not this user, other mode, not a regular file    refused
//   empty or half built, or of an earlier boot             replaced: its builder is dead, since the lock was free
//   another layout version, somebody lives in it           refused: SQLO_REGION_VERSION
//   another layout version or damaged, nobody lives in it  replaced
//
// All blocks are allocated at creation, so that a full file system is answered by a code and never by a fault. When
// there can be no shared region the process gets a private one of the same layout, says so once, and shares nothing.
//
// Liveness. A process holds a record lock on the byte of its slot for life. The kernel drops it on death, whatever
// happens to process numbers or name spaces; a slot whose byte is free belongs to a dead process (or a forked child
// that has not called the library yet is holding nothing at all). When the parent of such a child was the last process
// and has ended, the instance has ended as well, and the next process begins a new run of it: a server that turns
// itself into a daemon does so before it uses the library, or has the child call it before the parent ends. The
// descriptor is kept open for life and opened once: closing any descriptor of the object would drop the locks.
//
// Position independence. Sections are found by (identifier, version); they hold offsets, slots and interned ids, never
// a pointer, a vtable or a function address.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "veksys/types.h"

namespace vek {

inline constexpr std::uint32_t REGION_LAYOUT_VERSION = 7;
inline constexpr std::uint32_t REGION_PROCESS_SLOTS = 1024;
inline constexpr std::uint32_t REGION_THREAD_SLOTS = 8192;
inline constexpr std::uint32_t REGION_NAME_SLOTS = 8192;
inline constexpr std::uint32_t REGION_NAME_BYTES = 512 * 1024;
inline constexpr std::uint32_t REGION_THREAD_PAGE_BYTES = 4096;
inline constexpr std::uint32_t REGION_SEMAPHORE_BYTES = 1024 * 1024;
inline constexpr std::uint32_t REGION_MEMORY_CONTROLLER_BYTES = 160 * 1024;
inline constexpr std::uint32_t REGION_MEMORY_SETS_BYTES = 160 * 1024;
inline constexpr std::uint32_t REGION_MEMORY_ROWS_BYTES = 512 * 1024;
inline constexpr std::uint32_t REGION_NO_SLOT = 0xFFFFFFFFU;

// Bytes of the object that carry locks, far past its end: the region lock, then one byte per process slot.
inline constexpr std::uint64_t REGION_LOCK_BYTE = 1ULL << 40;
inline constexpr std::uint64_t REGION_SLOT_LOCK_BASE = REGION_LOCK_BYTE + 1;

enum class RegionSectionId : std::uint32_t {
  kTraceWords = 1,  // page-aligned, one page
  kTraceControl = 2,
  kProcesses = 3,
  kThreads = 4,
  kNames = 5,
  kSemaphores = 6,        // semaphore elements of latches between processes
  kThreadPages = 7,       // one page per thread slot, allocated when its thread first needs it
  kMemoryController = 8,  // zeroed at the beginning of each run of the instance
  kMemorySets = 9,        // the directory of shared sets, zeroed likewise
  kMemoryRows = 10,       // counters of all sets and pools, for those who watch; zeroed likewise
};

struct RegionSection {
  std::uint32_t id;
  std::uint32_t version;
  std::uint64_t offset;
  std::uint64_t bytes;
};

struct RegionHeader {
  char magic[8];  // "VEKREGN" and a zero
  std::uint32_t layoutVersion;
  std::uint32_t headerBytes;
  std::uint64_t bytes;
  std::uint32_t ownerUser;
  std::uint32_t sectionCount;
  char bootId[40];
  char instanceName[40];
  std::int64_t createdRealtimeNs;
  RegionSection sections[16];
  std::atomic<std::uint32_t> ready;             // 1 once everything above and every section stands
  std::atomic<std::uint32_t> nextThreadSerial;  // serials of threads that ever entered
  std::atomic<std::uint32_t> run;               // counts the times that a process found nobody else alive in here
  std::atomic<std::uint32_t> untracked;         // what is taken at this moment and no thread page tells of
};

// A process that uses the region. The lock on its byte, not the state, tells whether it lives.
struct RegionProcess {
  std::atomic<std::uint32_t> state;       // 0 free, 1 in use
  std::atomic<std::uint32_t> generation;  // counts the owners of this slot
  std::uint32_t processId;
  std::uint32_t userId;
  std::int64_t attachedRealtimeNs;
  char name[32];
  std::uint8_t reserved[72];
};
static_assert(sizeof(RegionProcess) == 128);

// A thread that uses the region. Later floors publish in its page what it is about to take before they take it. What
// must outlive a thread that dies with it is pinned: the slot is not used again while a bit of `pins` is set, or until
// the instance has no process left.
struct RegionThread {
  std::atomic<std::uint64_t> owner;  // 0 free, else regionOwner() of its process
  std::uint32_t threadId;
  std::atomic<std::uint32_t> hasEnded;  // 1: the thread ended with pins set
  char name[16];
  std::atomic<std::uint64_t> pins;   // outlive the process; cleared by whoever takes over what they stand for
  std::atomic<std::uint64_t> keeps;  // outlive the thread, not the process
  std::atomic<std::uint32_t> paged;  // 1: its page was allocated for this owner
  std::uint32_t processId;           // of the owner, and its name: another process may have its slot by now
  char processName[32];
  std::uint8_t reserved[36];
};
static_assert(sizeof(RegionThread) == 128);

// An owner word: which life of which process slot. Never 0.
constexpr std::uint64_t regionOwner(std::uint32_t slot, std::uint32_t generation) noexcept {
  return (static_cast<std::uint64_t>(generation) << 32) | (slot + 1U);
}
constexpr std::uint32_t regionOwnerSlot(std::uint64_t owner) noexcept { return static_cast<std::uint32_t>(owner) - 1U; }
constexpr std::uint32_t regionOwnerGeneration(std::uint64_t owner) noexcept {
  return static_cast<std::uint32_t>(owner >> 32);
}

// Attaches this process, creating the region if need be; takes a process slot. Cheap when that is done already, and
// the way a forked child gets its own slot.
//
//   Result   0; a private region also answers 0, regionSharedStatus() tells why it is not shared
//            SQLO_REGION_NO_MEMORY: not even a private region; nothing is attached
//   Threads  any; serialised by the attach lock
//   Never logs and never reads a setting: it can happen under a latch. The caller that may log calls
//   regionReportOnce() afterwards.
SqlzZrc regionAttach() noexcept;

// 0 when this process shares a region; else why it works privately (SQLO_REGION_...).
SqlzZrc regionSharedStatus() noexcept;

// Reports a private region through the event port, once per process; and, once, a descriptor that the program has
// closed.
void regionReportOnce() noexcept;

// The header, null while this process is not attached.
const RegionHeader* regionHeader() noexcept;

// The start of a section, null when not attached. The section's size is fixed by its version.
void* regionSection(RegionSectionId id) noexcept;

// The descriptor and offset to map a section once more; -1 when not attached, or when the program has closed it. Never
// close it.
int regionDescriptor() noexcept;
std::uint64_t regionSectionOffset(RegionSectionId id) noexcept;

// This process's slot and owner word; REGION_NO_SLOT and 0 before attaching (or in a fresh child).
std::uint32_t regionProcessSlot() noexcept;
std::uint64_t regionProcessOwner() noexcept;

// True while the process of an owner word lives. System calls for a process other than this.
bool regionOwnerLives(std::uint64_t owner) noexcept;

// Takes or gives back a thread slot. REGION_NO_SLOT when all are taken.
std::uint32_t regionThreadEnter(std::uint32_t threadId, const char* name) noexcept;
void regionThreadLeave(std::uint32_t slot) noexcept;

// Counts what is taken between processes without being published in a thread page, and given back: as long as there is
// any (and for the rest of the run when its process dies with it) nobody can tell what a dead process holds.
void regionTakeUntracked() noexcept;
void regionGiveBackUntracked() noexcept;
bool regionHasUntracked() noexcept;

// The run of the instance: as long as at least one process lives in the region. 0 when not attached.
std::uint32_t regionRun() noexcept;

// Clears a pin or keep of any slot, and frees the slot when it was the last of a thread that has ended or died.
void regionThreadUnpin(std::uint32_t slot, std::uint64_t bits) noexcept;

// The page of a thread slot of this process, zeroed on the first call of its owner; null when no block can be had for
// it.
void* regionThreadPage(std::uint32_t slot) noexcept;

// The page of any slot as its thread publishes it, null when it has none. It may change at any time.
const void* regionThreadPageOf(std::uint32_t slot) noexcept;
std::uint64_t regionNextThreadSerial() noexcept;

// Frees what dead processes left: their thread slots, then their process slots. At most one sweeper works in the
// instance; the others return false at once, and so does a process without a slot.
bool regionSweep() noexcept;

// The text that tells a region from every other one, of all users and times, in names of what belongs to it: user, name
// of the instance, when it was made. Returns the characters.
std::size_t regionIdentity(const RegionHeader& header, char* text, std::size_t bytes) noexcept;

// What the names of a region's semaphores begin with: this, its identity and an underscore.
inline constexpr char REGION_SEMAPHORE_PREFIX[] = "VEKSEM";

// Called by the fork handlers in the child: forgets the parent's slot.
void regionAfterFork() noexcept;
void regionLockForFork() noexcept;
void regionUnlockAfterFork() noexcept;

// ---- interned names ---------------------------------------------------------------------------------------------

struct RegionNames {
  struct Entry {
    std::atomic<std::uint32_t> key;  // 0: not yet complete
    std::uint32_t offset;            // into text
  };
  std::atomic<std::uint32_t> entryCount;  // reserved entries, at most REGION_NAME_SLOTS
  std::atomic<std::uint32_t> textBytes;   // reserved bytes, at most REGION_NAME_BYTES
  std::atomic<std::uint32_t> dropped;     // names that did not fit
  std::uint32_t reserved;
  Entry entries[REGION_NAME_SLOTS];
  char text[REGION_NAME_BYTES];
};

// Copies the name of a function identifier into the region. Already there: nothing happens. Lock-free; a process
// killed in the middle leaves an entry that readers skip.
void regionInternName(std::uint32_t key, const char* name) noexcept;

// Interns a text that has no identifier of its own, its last 255 characters when it is longer. Answers its number,
// 1 to REGION_NAME_SLOTS; 0 when there is no room or no region.
std::uint32_t regionInternText(const char* text) noexcept;

// Interns a text likewise and answers the key that regionFindName knows it by: a hash of the text, whether there was
// room or not.
std::uint32_t regionKeyOfText(const char* text) noexcept;

// The text of such a number, or null.
const char* regionTextOf(const RegionNames& names, std::uint32_t number) noexcept;

// The interned name, or null. `names` may be a copy from a dump: everything is checked against its bounds.
const char* regionFindName(const RegionNames& names, std::uint32_t key) noexcept;

// Takes a lock on the object for the length of a scope: one builder, sweeper or replacer of shared objects at a time.
class RegionLock {
 public:
  // Waits up to `milliseconds` for another process; held() tells the outcome.
  explicit RegionLock(unsigned milliseconds) noexcept;
  ~RegionLock();
  RegionLock(const RegionLock&) = delete;
  RegionLock& operator=(const RegionLock&) = delete;
  bool held() const noexcept { return held_; }

 private:
  bool held_ = false;
};

}  // namespace vek
