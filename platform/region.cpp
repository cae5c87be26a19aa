#include "platform/region.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstring>
#include <mutex>
#include <new>

#include "platform/dirs.h"
#include "platform/host.h"
#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/semaphore.h"
#include "platform/thread.h"
#include "platform/trcapi.h"
#include "platform/wint.h"
#include "veksys/codes.h"
#include "veksys/host.h"
#include "veksys_functions.h"

namespace vek {
namespace {

constexpr char kMagic[8] = "VEKREGN";
constexpr std::uint64_t kPage = 4096;
constexpr std::size_t kNameMost = 255;
constexpr unsigned kLockWaitMs = 2000;  // an attaching process works for a few milliseconds; longer means it is stopped

struct SectionPlan {
  RegionSectionId id;
  std::uint32_t version;
  std::uint64_t bytes;
};

// The sections of this layout version, in file order. Each starts on a page of its own. The blocks of the last one are
// allocated page by page, when a thread needs its own.
constexpr SectionPlan kPlan[] = {
    {RegionSectionId::kTraceWords, 1, kPage},
    {RegionSectionId::kTraceControl, 1, kPage},
    {RegionSectionId::kProcesses, 1, sizeof(RegionProcess) * REGION_PROCESS_SLOTS},
    {RegionSectionId::kThreads, 1, sizeof(RegionThread) * REGION_THREAD_SLOTS},
    {RegionSectionId::kNames, 1, sizeof(RegionNames)},
    {RegionSectionId::kSemaphores, 1, REGION_SEMAPHORE_BYTES},
    {RegionSectionId::kMemoryController, 1, REGION_MEMORY_CONTROLLER_BYTES},
    {RegionSectionId::kMemorySets, 1, REGION_MEMORY_SETS_BYTES},
    {RegionSectionId::kMemoryRows, 1, REGION_MEMORY_ROWS_BYTES},
    {RegionSectionId::kThreadPages, 1, std::uint64_t{REGION_THREAD_PAGE_BYTES} * REGION_THREAD_SLOTS},
};

constexpr std::uint64_t pages(std::uint64_t bytes) { return (bytes + kPage - 1) / kPage * kPage; }

constexpr std::uint64_t plannedBytes() {
  std::uint64_t total = pages(sizeof(RegionHeader));
  for (const SectionPlan& section : kPlan) total += pages(section.bytes);
  return total;
}

// What this process knows of its region. Guarded by `attach` except where atomic.
struct Attachment {
  LibraryMutex attach;
  LibraryMutex lockHolders;  // record locks do not exclude threads of one process
  std::atomic<char*> base{nullptr};
  int fd = -1;
  dev_t device = 0;  // of the region's file, with `inode`
  ino_t inode = 0;
  std::atomic<bool> isFdLost{false};
  SqlzZrc sharedStatus = 0;
  std::atomic<std::uint32_t> slot{REGION_NO_SLOT};
  std::atomic<std::uint64_t> owner{0};
  std::atomic<bool> reported{false};
  std::atomic<bool> isLossReported{false};
};

constinit Attachment g_region;

// Takes the descriptor of the region into use.
void keepDescriptor(int fd) noexcept {
  struct stat status = {};
  (void)ossCalls().fstat(fd, &status);
  g_region.device = status.st_dev;
  g_region.inode = status.st_ino;
  g_region.isFdLost.store(false, std::memory_order_relaxed);
  g_region.fd = fd;
}

// Whether the descriptor still leads to the region: a program that closes all it did not open itself may have a file of
// its own there by now, which must be left alone.
bool holdsDescriptor() noexcept {
  if (g_region.inode == 0) return true;  // it was not told
  struct stat status;
  const bool holds = ossCalls().fstat(g_region.fd, &status) == 0 && status.st_dev == g_region.device &&
                     status.st_ino == g_region.inode;
  if (!holds) g_region.isFdLost.store(true, std::memory_order_relaxed);
  return holds;
}

RegionHeader* headerAt(char* base) noexcept { return reinterpret_cast<RegionHeader*>(base); }

constexpr std::uint64_t offsetOf(RegionSectionId id) {
  std::uint64_t offset = pages(sizeof(RegionHeader));
  for (const SectionPlan& section : kPlan) {
    if (section.id == id) return offset;
    offset += pages(section.bytes);
  }
  return 0;
}

template <class T>
T* sectionOf(RegionSectionId id) noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  return base == nullptr ? nullptr : reinterpret_cast<T*>(base + offsetOf(id));
}

// ---- building and checking --------------------------------------------------------------------------------------

void buildHeader(RegionHeader* header) noexcept {
  std::memcpy(header->magic, kMagic, sizeof kMagic);
  header->layoutVersion = REGION_LAYOUT_VERSION;
  header->headerBytes = sizeof(RegionHeader);
  header->bytes = plannedBytes();
  header->ownerUser = ossUserId();
  ossBootId(header->bootId, sizeof header->bootId);
  ossCopyText(header->instanceName, sizeof header->instanceName, vekInstanceName());
  header->createdRealtimeNs = ossRealtimeNs();
  header->sectionCount = 0;
  for (const SectionPlan& section : kPlan)
    header->sections[header->sectionCount++] = {static_cast<std::uint32_t>(section.id), section.version,
                                                offsetOf(section.id), section.bytes};
  header->ready.store(1, std::memory_order_release);
}

bool sectionsMatch(const RegionHeader& header) noexcept {
  if (header.sectionCount != sizeof kPlan / sizeof kPlan[0]) return false;
  for (std::uint32_t i = 0; i < header.sectionCount; ++i) {
    const RegionSection& section = header.sections[i];
    if (section.id != static_cast<std::uint32_t>(kPlan[i].id) || section.version != kPlan[i].version ||
        section.offset != offsetOf(kPlan[i].id) || section.bytes != kPlan[i].bytes)
      return false;
  }
  return true;
}

enum class Found { kUsable, kLeftOver, kOtherVersion, kDamaged };

// A boot identifier that could not be read, now or by the builder, tells nothing: no sound region is given up for it.
bool isOfEarlierBoot(const RegionHeader& header) noexcept {
  char bootId[sizeof header.bootId];
  ossBootId(bootId, sizeof bootId);
  return bootId[0] != '\0' && header.bootId[0] != '\0' && std::memcmp(header.bootId, bootId, sizeof bootId) != 0;
}

Found inspectHeader(const RegionHeader& header) noexcept {
  if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0) return Found::kDamaged;
  if (isOfEarlierBoot(header)) return Found::kLeftOver;
  if (header.ready.load(std::memory_order_acquire) != 1) return Found::kLeftOver;
  if (header.layoutVersion != REGION_LAYOUT_VERSION) return Found::kOtherVersion;
  if (header.headerBytes != sizeof(RegionHeader) || header.bytes != plannedBytes() || !sectionsMatch(header))
    return Found::kDamaged;
  return Found::kUsable;
}

// Reads as much of the header as there is, without mapping anything that might not be backed.
Found inspectFile(int fd, std::uint64_t fileBytes) noexcept {
  if (fileBytes < sizeof(RegionHeader)) return Found::kLeftOver;
  alignas(RegionHeader) char copy[sizeof(RegionHeader)] = {};
  std::size_t count = 0;
  if (ossReadAt(fd, copy, sizeof copy, 0, &count) != 0 || count != sizeof copy) return Found::kDamaged;
  const RegionHeader& header = *headerAt(copy);
  const Found found = inspectHeader(header);
  return found == Found::kUsable && fileBytes < header.bytes ? Found::kDamaged : found;
}

// The semaphores of a region that is about to be replaced: nobody else will know their names.
void removeSemaphoresOf(int fd) noexcept {
  alignas(RegionHeader) char copy[sizeof(RegionHeader)] = {};
  std::size_t count = 0;
  if (ossReadAt(fd, copy, sizeof copy, 0, &count) != 0 || count != sizeof copy) return;
  RegionHeader& header = *headerAt(copy);
  if (std::memcmp(header.magic, kMagic, sizeof kMagic) != 0) return;
  header.instanceName[sizeof header.instanceName - 1] = '\0';
  char identity[96];
  char prefix[128];
  regionIdentity(header, identity, sizeof identity);
  ossSnprintf(prefix, sizeof prefix, "/%s%s_", REGION_SEMAPHORE_PREFIX, identity);
  ossRemoveSemaphoresOf(prefix);
}

bool anybodyLivesIn(int fd) noexcept { return ossByteLockedElsewhere(fd, REGION_SLOT_LOCK_BASE, REGION_PROCESS_SLOTS); }

char* mapRegion(int fd) noexcept {
  void* mapped = ossCalls().mmap(nullptr, plannedBytes(), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  return mapped == MAP_FAILED ? nullptr : static_cast<char*>(mapped);
}

SqlzZrc buildInto(int fd) noexcept {
  int error = ossAllocateFile(fd, offsetOf(RegionSectionId::kThreadPages));
  if (error == 0) error = ossTruncate(fd, plannedBytes());
  if (error == ENOSPC || error == EFBIG || error == EDQUOT) return SQLO_REGION_NO_SPACE;
  if (error != 0) return SQLO_REGION_DENIED;
  char* base = mapRegion(fd);
  if (base == nullptr) return SQLO_REGION_NO_MEMORY;
  buildHeader(headerAt(base));
  ossCalls().munmap(base, plannedBytes());
  return 0;
}

// ---- opening the shared object ----------------------------------------------------------------------------------

// Takes the region lock of a descriptor, waiting a little for another process that is building or sweeping.
// Only a lock that another process holds is worth waiting for: a file system without locks is told at once.
SqlzZrc lockRegionByte(int fd, unsigned milliseconds) noexcept {
  const std::int64_t deadline = ossMonotonicNs() + static_cast<std::int64_t>(milliseconds) * 1'000'000;
  for (;;) {
    const int error = ossLockByte(fd, REGION_LOCK_BYTE);
    if (error == 0) return 0;
    if (error != EAGAIN) return SQLO_REGION_DENIED;
    if (ossMonotonicNs() >= deadline) return SQLO_REGION_BUSY;
    ossSleepMs(1);
  }
}

SqlzZrc checkIdentity(const struct stat& status) noexcept {
  if (!S_ISREG(status.st_mode)) return SQLO_REGION_DENIED;
  if (status.st_uid != ossUserId() || (status.st_mode & 077) != 0) return SQLO_REGION_OWNER;
  return 0;
}

bool isSameObject(const struct stat& left, const struct stat& right) noexcept {
  return left.st_dev == right.st_dev && left.st_ino == right.st_ino;
}

bool samePath(const char* path, const struct stat& opened) noexcept {
  struct stat named;
  return ossCalls().stat(path, &named) == 0 && isSameObject(named, opened);
}

enum class Step { kDone, kAgain };

// Works on an opened object whose region lock is held. kAgain: the path names (or will name) another object now.
Step settle(const char* path, int fd, SqlzZrc* result) noexcept {
  struct stat status;
  if (ossCalls().fstat(fd, &status) != 0 || !samePath(path, status)) return Step::kAgain;
  *result = checkIdentity(status);
  if (*result != 0) return Step::kDone;
  if (status.st_size == 0) {
    *result = buildInto(fd);
    if (*result != 0) ossCalls().unlink(path);  // nobody can have used it
    return Step::kDone;
  }
  const Found found = inspectFile(fd, static_cast<std::uint64_t>(status.st_size));
  if (found == Found::kUsable) return Step::kDone;
  if (anybodyLivesIn(fd)) {
    *result = found == Found::kOtherVersion ? SQLO_REGION_VERSION : SQLO_REGION_DAMAGED;
    return Step::kDone;
  }
  // A left-over. It is replaced, not rebuilt: a process that still maps it must keep what it sees.
  removeSemaphoresOf(fd);
  ossCalls().unlink(path);
  return Step::kAgain;
}

SqlzZrc lockIfOurs(int fd) noexcept {
  struct stat status;
  if (ossCalls().fstat(fd, &status) != 0) return SQLO_REGION_DENIED;
  const SqlzZrc result = checkIdentity(status);
  return result != 0 ? result : lockRegionByte(fd, kLockWaitMs);
}

// On success the region lock stays held: until this process has a slot nobody could see that it lives in the region,
// and one of another layout version would replace it.
SqlzZrc openShared(int* fdOut) noexcept {
  char path[PATH_BYTES];
  if (sharedObjectPath("", path, sizeof path) == 0) return SQLO_REGION_DENIED;
  for (int attempt = 0; attempt < 100; ++attempt) {
    int fd = -1;
    const int error = ossOpen(path, O_RDWR | O_CREAT, 0600, &fd);
    if (error == ENOSPC) return SQLO_REGION_NO_SPACE;
    if (error != 0) return SQLO_REGION_DENIED;
    SqlzZrc result = lockIfOurs(fd);
    const Step step = result == 0 ? settle(path, fd, &result) : Step::kDone;
    if (step == Step::kDone && result == 0) {
      *fdOut = fd;
      return 0;
    }
    ossClose(fd);  // drops the lock
    if (step == Step::kDone) return result;
  }
  return SQLO_REGION_BUSY;
}

SqlzZrc openPrivate(int* fdOut) noexcept {
  *fdOut = ossAboveStandard(ossCalls().memfd("veksys", MFD_CLOEXEC));
  if (*fdOut < 0) return SQLO_REGION_NO_MEMORY;
  const SqlzZrc result = buildInto(*fdOut);
  if (result != 0) ossClose(*fdOut);
  return result == 0 ? 0 : SQLO_REGION_NO_MEMORY;
}

SqlzZrc openAndMap() noexcept {
  int fd = -1;
  SqlzZrc shared = openShared(&fd);
  char* base = shared == 0 ? mapRegion(fd) : nullptr;
  if (base == nullptr) {
    if (shared == 0) {
      ossClose(fd);
      shared = SQLO_REGION_NO_MEMORY;
    }
    const SqlzZrc result = openPrivate(&fd);
    if (result != 0) return result;
    base = mapRegion(fd);
    if (base == nullptr) {
      ossClose(fd);
      return SQLO_REGION_NO_MEMORY;
    }
  }
  keepDescriptor(fd);
  g_region.sharedStatus = shared;
  g_region.base.store(base, std::memory_order_release);
  return 0;
}

// ---- slots ------------------------------------------------------------------------------------------------------

// Thread slots of a dead process; those with pins stay, for whoever takes over what they stand for.
void freeThreadsOf(std::uint32_t slot) noexcept {
  auto* threads = sectionOf<RegionThread>(RegionSectionId::kThreads);
  for (std::uint32_t i = 0; i < REGION_THREAD_SLOTS; ++i) {
    std::uint64_t owner = threads[i].owner.load(std::memory_order_relaxed);
    if (owner == 0 || regionOwnerSlot(owner) != slot || threads[i].pins.load(std::memory_order_relaxed) != 0) continue;
    threads[i].owner.compare_exchange_strong(owner, 0);
  }
}

// Nobody else lives here: what dead processes left pinned stands for nothing any more, and no memory is
// granted to anybody.
void beginRun() noexcept {
  std::memset(sectionOf<char>(RegionSectionId::kMemoryController), 0, REGION_MEMORY_CONTROLLER_BYTES);
  std::memset(sectionOf<char>(RegionSectionId::kMemorySets), 0, REGION_MEMORY_SETS_BYTES);
  std::memset(sectionOf<char>(RegionSectionId::kMemoryRows), 0, REGION_MEMORY_ROWS_BYTES);
  auto* threads = sectionOf<RegionThread>(RegionSectionId::kThreads);
  for (std::uint32_t i = 0; i < REGION_THREAD_SLOTS; ++i) {
    threads[i].pins.store(0, std::memory_order_relaxed);
    threads[i].keeps.store(0, std::memory_order_relaxed);
    threads[i].owner.store(0, std::memory_order_relaxed);
  }
  RegionHeader* header = headerAt(g_region.base.load(std::memory_order_relaxed));
  header->untracked.store(0, std::memory_order_relaxed);
  header->run.fetch_add(1, std::memory_order_release);
}

void occupy(RegionProcess& process, std::uint32_t slot) noexcept {
  if (process.state.load(std::memory_order_relaxed) != 0) freeThreadsOf(slot);
  const std::uint32_t generation = process.generation.fetch_add(1, std::memory_order_relaxed) + 1;
  process.processId = ossProcessId();
  process.userId = ossUserId();
  process.attachedRealtimeNs = ossRealtimeNs();
  ossProcessName(process.name, sizeof process.name);
  process.state.store(1, std::memory_order_release);
  g_region.owner.store(regionOwner(slot, generation), std::memory_order_relaxed);
  g_region.slot.store(slot, std::memory_order_release);
}

// The lock on a slot's byte is what makes it ours; of several processes only one gets it.
SqlzZrc takeProcessSlot() noexcept {
  if (!holdsDescriptor()) return SQLO_REGION_DENIED;
  auto* processes = sectionOf<RegionProcess>(RegionSectionId::kProcesses);
  for (std::uint32_t slot = 0; slot < REGION_PROCESS_SLOTS; ++slot) {
    if (ossLockByte(g_region.fd, REGION_SLOT_LOCK_BASE + slot) != 0) continue;
    occupy(processes[slot], slot);
    return 0;
  }
  return SQLO_REGION_SLOTS;
}

// Puts a private region where the shared one is mapped. In its place, since a forked child may already hold pointers
// into the mapping: its trace control and trace words among them, which read "no trace" afterwards.
SqlzZrc replaceByPrivate(SqlzZrc why) noexcept {
  int fd = -1;
  if (openPrivate(&fd) != 0) return SQLO_REGION_NO_MEMORY;
  if (ossCalls().mmap(g_region.base.load(std::memory_order_relaxed), plannedBytes(), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
    ossClose(fd);
    return SQLO_REGION_NO_MEMORY;
  }
  if (holdsDescriptor()) ossClose(g_region.fd);
  keepDescriptor(fd);
  g_region.sharedStatus = why;
  if (trcIsAttached()) wintMapShared(fd, offsetOf(RegionSectionId::kTraceWords));
  return 0;
}

// A region whose 1,024 process slots are all alive is left for a private one.
SqlzZrc takeSlotOrGoPrivate() noexcept {
  SqlzZrc result = takeProcessSlot();
  if (result == 0) return 0;
  result = replaceByPrivate(result);
  return result == 0 ? takeProcessSlot() : result;
}

SqlzZrc attachFirst() noexcept {
  const std::lock_guard guard(g_region.lockHolders);  // no thread of this process may drop the region lock meanwhile
  hostKeepInstanceName();
  SqlzZrc result = openAndMap();
  if (result != 0) return result;
  if (!anybodyLivesIn(g_region.fd)) beginRun();
  result = takeSlotOrGoPrivate();
  ossUnlockByte(g_region.fd, REGION_LOCK_BYTE);
  return result;
}

// A forked child uses its parent's mapping. When the parent ended before the child took a slot, a process of another
// layout version may have replaced the region; the child then works on in what it has, alone.
SqlzZrc attachInherited() noexcept {
  const SqlzZrc result = takeSlotOrGoPrivate();
  if (result != 0 || g_region.sharedStatus != 0) return result;
  char path[PATH_BYTES];
  struct stat opened;
  struct stat named;
  if (sharedObjectPath("", path, sizeof path) != 0 && ossCalls().fstat(g_region.fd, &opened) == 0 &&
      ossCalls().stat(path, &named) == 0 && !isSameObject(named, opened))
    g_region.sharedStatus = SQLO_REGION_VERSION;
  return 0;
}

const char* explain(SqlzZrc status) noexcept {
  switch (status) {
    case SQLO_REGION_NO_SPACE:
      return "no room for the instance region in the shared-memory file system; this process shares nothing";
    case SQLO_REGION_OWNER:
      return "the instance region belongs to another user or is open to others; this process shares nothing";
    case SQLO_REGION_VERSION:
      return "the running instance has another layout version; this process shares nothing";
    case SQLO_REGION_DAMAGED:
      return "the instance region is damaged and in use; this process shares nothing until its users have ended";
    case SQLO_REGION_BUSY:
      return "another process holds the instance region's lock; this process shares nothing";
    case SQLO_REGION_SLOTS:
      return "all process slots of the instance region are taken; this process shares nothing";
    default:
      return "the instance region cannot be opened; this process shares nothing";
  }
}

}  // namespace

SqlzZrc regionAttach() noexcept {
  if (g_region.slot.load(std::memory_order_acquire) != REGION_NO_SLOT) return 0;
  threadFacilityStart();
  const std::lock_guard guard(g_region.attach);
  if (g_region.slot.load(std::memory_order_relaxed) != REGION_NO_SLOT) return 0;
  const bool inherited = g_region.base.load(std::memory_order_relaxed) != nullptr;
  const SqlzZrc result = inherited ? attachInherited() : attachFirst();
  if (result == 0) hostInternNames();
  return result;
}

SqlzZrc regionSharedStatus() noexcept { return g_region.sharedStatus; }

void regionReportOnce() noexcept {
  if (g_region.isFdLost.load(std::memory_order_relaxed) && !g_region.isLossReported.exchange(true))
    g_ports.reportEvent({FID_regionAttach, 20, 3, SQLO_REGION_DENIED,
                         "the descriptor of the instance region was closed by the program; threads that start now are "
                         "not listed, and other processes may take this one for ended"});
  const SqlzZrc status = g_region.sharedStatus;
  if (status == 0 || g_region.reported.exchange(true)) return;
  g_ports.reportEvent({FID_regionAttach, 10, 3, status, explain(status)});
}

std::size_t regionIdentity(const RegionHeader& header, char* text, std::size_t bytes) noexcept {
  return ossSnprintf(text, bytes, "%u.%s.%llx", header.ownerUser, header.instanceName,
                     static_cast<unsigned long long>(header.createdRealtimeNs));
}

const RegionHeader* regionHeader() noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  return base == nullptr ? nullptr : headerAt(base);
}

void* regionSection(RegionSectionId id) noexcept { return sectionOf<void*>(id); }
int regionDescriptor() noexcept { return g_region.fd >= 0 && holdsDescriptor() ? g_region.fd : -1; }
std::uint64_t regionSectionOffset(RegionSectionId id) noexcept { return offsetOf(id); }
std::uint32_t regionProcessSlot() noexcept { return g_region.slot.load(std::memory_order_relaxed); }
std::uint64_t regionProcessOwner() noexcept { return g_region.owner.load(std::memory_order_relaxed); }

bool regionOwnerLives(std::uint64_t owner) noexcept {
  const auto* processes = sectionOf<RegionProcess>(RegionSectionId::kProcesses);
  const std::uint32_t slot = regionOwnerSlot(owner);
  if (processes == nullptr || slot >= REGION_PROCESS_SLOTS) return false;
  if (processes[slot].generation.load(std::memory_order_acquire) != regionOwnerGeneration(owner)) return false;
  if (slot == regionProcessSlot() || !holdsDescriptor()) return true;  // in doubt the owner lives
  return ossByteLockedElsewhere(g_region.fd, REGION_SLOT_LOCK_BASE + slot);
}

namespace {

// Takes the first free slot from a place on that differs from thread to thread.
std::uint32_t takeThreadSlot(RegionThread* threads, std::uint32_t threadId) noexcept {
  const std::uint64_t mine = regionProcessOwner();
  for (std::uint32_t probe = 0; probe < REGION_THREAD_SLOTS; ++probe) {
    const std::uint32_t slot = (threadId + probe) % REGION_THREAD_SLOTS;
    std::uint64_t expected = 0;
    if (threads[slot].owner.load(std::memory_order_relaxed) == 0 &&
        threads[slot].owner.compare_exchange_strong(expected, mine, std::memory_order_acq_rel)) {
      threads[slot].hasEnded.store(0, std::memory_order_relaxed);
      threads[slot].keeps.store(0, std::memory_order_relaxed);
      threads[slot].paged.store(0, std::memory_order_relaxed);
      return slot;
    }
  }
  return REGION_NO_SLOT;
}

char* threadPageAt(std::uint32_t slot) noexcept {
  return sectionOf<char>(RegionSectionId::kThreadPages) + std::uint64_t{slot} * REGION_THREAD_PAGE_BYTES;
}

}  // namespace

std::uint32_t regionThreadEnter(std::uint32_t threadId, const char* name) noexcept {
  auto* threads = sectionOf<RegionThread>(RegionSectionId::kThreads);
  if (threads == nullptr || regionProcessSlot() == REGION_NO_SLOT) return REGION_NO_SLOT;
  std::uint32_t slot = takeThreadSlot(threads, threadId);
  if (slot == REGION_NO_SLOT && regionSweep()) slot = takeThreadSlot(threads, threadId);
  if (slot == REGION_NO_SLOT) return REGION_NO_SLOT;
  const RegionProcess& process = sectionOf<RegionProcess>(RegionSectionId::kProcesses)[regionProcessSlot()];
  threads[slot].processId = process.processId;
  ossCopyText(threads[slot].processName, sizeof threads[slot].processName, process.name);
  threads[slot].threadId = threadId;
  ossCopyText(threads[slot].name, sizeof threads[slot].name, name);
  return slot;
}

void regionThreadLeave(std::uint32_t slot) noexcept {
  auto* threads = sectionOf<RegionThread>(RegionSectionId::kThreads);
  if (threads == nullptr || slot >= REGION_THREAD_SLOTS) return;
  if ((threads[slot].pins.load(std::memory_order_relaxed) | threads[slot].keeps.load(std::memory_order_relaxed)) != 0) {
    threads[slot].hasEnded.store(1, std::memory_order_release);
    return;
  }
  std::uint64_t mine = regionProcessOwner();
  threads[slot].owner.compare_exchange_strong(mine, 0, std::memory_order_acq_rel);
}

void regionThreadUnpin(std::uint32_t slot, std::uint64_t bits) noexcept {
  RegionThread& thread = sectionOf<RegionThread>(RegionSectionId::kThreads)[slot];
  const std::uint64_t pins = thread.pins.fetch_and(~bits, std::memory_order_acq_rel) & ~bits;
  const std::uint64_t keeps = thread.keeps.fetch_and(~bits, std::memory_order_acq_rel) & ~bits;
  std::uint64_t owner = thread.owner.load(std::memory_order_acquire);
  if ((pins | keeps) != 0 || owner == 0) return;
  if (thread.hasEnded.load(std::memory_order_acquire) != 0 || !regionOwnerLives(owner))
    thread.owner.compare_exchange_strong(owner, 0, std::memory_order_acq_rel);
}

void* regionThreadPage(std::uint32_t slot) noexcept {
  auto* threads = sectionOf<RegionThread>(RegionSectionId::kThreads);
  if (threads == nullptr || slot >= REGION_THREAD_SLOTS) return nullptr;
  char* page = threadPageAt(slot);
  if (threads[slot].paged.load(std::memory_order_relaxed) != 0) return page;
  const std::uint64_t offset = offsetOf(RegionSectionId::kThreadPages) + std::uint64_t{slot} * REGION_THREAD_PAGE_BYTES;
  if (!holdsDescriptor() || ossAllocateRange(g_region.fd, offset, REGION_THREAD_PAGE_BYTES) != 0) return nullptr;
  std::memset(page, 0, REGION_THREAD_PAGE_BYTES);
  threads[slot].paged.store(1, std::memory_order_release);
  return page;
}

const void* regionThreadPageOf(std::uint32_t slot) noexcept {
  const auto* threads = sectionOf<RegionThread>(RegionSectionId::kThreads);
  if (threads == nullptr || slot >= REGION_THREAD_SLOTS) return nullptr;
  return threads[slot].paged.load(std::memory_order_acquire) == 0 ? nullptr : threadPageAt(slot);
}

std::uint64_t regionNextThreadSerial() noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  return base == nullptr ? 0 : headerAt(base)->nextThreadSerial.fetch_add(1, std::memory_order_relaxed) + 1;
}

void regionTakeUntracked() noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  if (base != nullptr) headerAt(base)->untracked.fetch_add(1, std::memory_order_acq_rel);
}

void regionGiveBackUntracked() noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  if (base != nullptr) headerAt(base)->untracked.fetch_sub(1, std::memory_order_acq_rel);
}

bool regionHasUntracked() noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  return base == nullptr || headerAt(base)->untracked.load(std::memory_order_relaxed) != 0;
}

std::uint32_t regionRun() noexcept {
  char* base = g_region.base.load(std::memory_order_acquire);
  return base == nullptr ? 0 : headerAt(base)->run.load(std::memory_order_acquire);
}

bool regionSweep() noexcept {
  // Without a slot another thread of this process may be taking one, and record locks would not keep the two apart.
  if (regionProcessSlot() == REGION_NO_SLOT) return false;
  const RegionLock lock(0);
  if (!lock.held()) return false;
  auto* processes = sectionOf<RegionProcess>(RegionSectionId::kProcesses);
  for (std::uint32_t slot = 0; slot < REGION_PROCESS_SLOTS; ++slot) {
    if (slot == regionProcessSlot() || processes[slot].state.load(std::memory_order_relaxed) == 0) continue;
    // Holding the byte keeps a new process from moving in while the old one's belongings are given back.
    if (ossLockByte(g_region.fd, REGION_SLOT_LOCK_BASE + slot) != 0) continue;
    freeThreadsOf(slot);
    processes[slot].generation.fetch_add(1, std::memory_order_relaxed);
    processes[slot].state.store(0, std::memory_order_release);
    ossUnlockByte(g_region.fd, REGION_SLOT_LOCK_BASE + slot);
  }
  return true;
}

void regionLockForFork() noexcept {
  g_region.attach.lock();
  g_region.lockHolders.lock();
}

void regionUnlockAfterFork() noexcept {
  g_region.lockHolders.unlock();
  g_region.attach.unlock();
}

void regionAfterFork() noexcept {
  g_region.slot.store(REGION_NO_SLOT, std::memory_order_relaxed);
  g_region.owner.store(0, std::memory_order_relaxed);
}

// ---- interned names ---------------------------------------------------------------------------------------------

namespace {

// Reserves `count` of `limit`; answers where they start, or the limit when so many are not left.
std::uint32_t reserve(std::atomic<std::uint32_t>& used, std::uint32_t count, std::uint32_t limit) noexcept {
  std::uint32_t at = used.load(std::memory_order_relaxed);
  do {
    if (at > limit || limit - at < count) return limit;
  } while (!used.compare_exchange_weak(at, at + count, std::memory_order_relaxed));
  return at;
}

// Adds an entry; answers its index, REGION_NAME_SLOTS when there is no room.
std::uint32_t addName(RegionNames* names, std::uint32_t key, const char* name) noexcept {
  const auto bytes = static_cast<std::uint32_t>(::strnlen(name, kNameMost)) + 1;
  // The text first: a name that does not fit must not use up an entry each time it is tried.
  const std::uint32_t offset = reserve(names->textBytes, bytes, REGION_NAME_BYTES);
  const std::uint32_t entry =
      offset == REGION_NAME_BYTES ? REGION_NAME_SLOTS : reserve(names->entryCount, 1, REGION_NAME_SLOTS);
  if (entry == REGION_NAME_SLOTS) {
    names->dropped.fetch_add(1, std::memory_order_relaxed);
    return REGION_NAME_SLOTS;
  }
  ossCopyText(names->text + offset, bytes, name);
  names->entries[entry].offset = offset;
  names->entries[entry].key.store(key, std::memory_order_release);
  return entry;
}

// The text of an entry, or null: everything is checked, since the table may be damaged or a copy from a dump.
const char* textAt(const RegionNames& names, std::uint32_t entry) noexcept {
  const std::uint32_t offset = names.entries[entry].offset;
  if (offset >= REGION_NAME_BYTES) return nullptr;
  return std::memchr(names.text + offset, '\0', REGION_NAME_BYTES - offset) == nullptr ? nullptr : names.text + offset;
}

std::uint32_t entriesOf(const RegionNames& names) noexcept {
  const std::uint32_t count = names.entryCount.load(std::memory_order_acquire);
  return count > REGION_NAME_SLOTS ? REGION_NAME_SLOTS : count;
}

// The key of a text without an identifier: a hash (FNV-1a) in a range that holds no function identifier.
std::uint32_t textKey(const char* text) noexcept {
  std::uint32_t hash = 2166136261U;
  for (; *text != '\0'; ++text) hash = (hash ^ static_cast<unsigned char>(*text)) * 16777619U;
  return 0xF0000000U | hash;
}

}  // namespace

const char* regionFindName(const RegionNames& names, std::uint32_t key) noexcept {
  if (key == 0) return nullptr;  // the key of an entry that is not complete
  for (std::uint32_t i = 0, count = entriesOf(names); i < count; ++i)
    if (names.entries[i].key.load(std::memory_order_acquire) == key)
      if (const char* text = textAt(names, i); text != nullptr) return text;
  return nullptr;
}

void regionInternName(std::uint32_t key, const char* name) noexcept {
  auto* names = sectionOf<RegionNames>(RegionSectionId::kNames);
  if (names == nullptr || key == 0 || regionFindName(*names, key) != nullptr) return;
  addName(names, key, name);
}

std::uint32_t regionInternText(const char* text) noexcept {
  auto* names = sectionOf<RegionNames>(RegionSectionId::kNames);
  if (names == nullptr) return 0;
  const std::size_t length = std::strlen(text);
  if (length > kNameMost) text += length - kNameMost;
  const std::uint32_t key = textKey(text);
  for (std::uint32_t i = 0, count = entriesOf(*names); i < count; ++i) {
    if (names->entries[i].key.load(std::memory_order_acquire) != key) continue;
    if (const char* known = textAt(*names, i); known != nullptr && std::strcmp(known, text) == 0) return i + 1;
  }
  const std::uint32_t entry = addName(names, key, text);
  return entry == REGION_NAME_SLOTS ? 0 : entry + 1;
}

std::uint32_t regionKeyOfText(const char* text) noexcept {
  (void)regionInternText(text);
  const std::size_t length = std::strlen(text);
  return textKey(length > kNameMost ? text + length - kNameMost : text);
}

const char* regionTextOf(const RegionNames& names, std::uint32_t number) noexcept {
  if (number == 0 || number > entriesOf(names)) return nullptr;
  return names.entries[number - 1].key.load(std::memory_order_acquire) == 0 ? nullptr : textAt(names, number - 1);
}

// ---- the region lock --------------------------------------------------------------------------------------------

RegionLock::RegionLock(unsigned milliseconds) noexcept {
  if (g_region.base.load(std::memory_order_acquire) == nullptr) return;
  if (milliseconds == 0 ? !g_region.lockHolders.try_lock() : (g_region.lockHolders.lock(), false)) return;
  held_ = holdsDescriptor() && lockRegionByte(g_region.fd, milliseconds) == 0;
  if (!held_) g_region.lockHolders.unlock();
}

RegionLock::~RegionLock() {
  if (!held_) return;
  if (holdsDescriptor()) ossUnlockByte(g_region.fd, REGION_LOCK_BYTE);
  g_region.lockHolders.unlock();
}

}  // namespace vek

SqlzZrc vekInstanceStatus() noexcept {
  const SqlzZrc attached = vek::regionAttach();
  vek::regionReportOnce();
  return attached != 0 ? attached : vek::regionSharedStatus();
}
