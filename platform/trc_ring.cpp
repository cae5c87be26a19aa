// Creating, mapping, deleting and copying the ring.
#include "platform/trc_ring.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

#include "platform/dirs.h"
#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "platform/region.h"
#include "platform/state_pool.h"
#include "platform/trcapi.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr unsigned kLockWaitMs = 2000;
constexpr const char* kNewRingSuffix = ":trace.new";

struct Rings {
  LibraryMutex lock;
  TrcRing* current = nullptr;
  int privateFd = -1;
};

constinit Rings g_rings;
constinit StatePool<TrcRing, 4> g_mappings;

std::uint64_t stateOf(std::uint64_t generation, bool on) noexcept { return generation << 1 | (on ? 1U : 0U); }

// ---- creating ---------------------------------------------------------------------------------------------------

void fillConstants(TrcRingConstants& constants, std::uint64_t ringBytes, std::uint64_t generation, bool byClient) {
  ::memcpy(constants.magic, TRC_RING_MAGIC, sizeof TRC_RING_MAGIC);
  constants.layoutVersion = TRC_LAYOUT_VERSION;
  constants.ringBytes = ringBytes;
  constants.segmentBytes = trcSegmentBytes(ringBytes);
  constants.segmentCount = static_cast<std::uint32_t>(ringBytes / constants.segmentBytes);
  constants.generation = generation;
  constants.ownerUser = ossUserId();
  constants.ticksPerSecond = ossMeasureTicksPerSecond();
  constants.createdTicks = ossTicks();
  constants.createdRealtimeNs = ossRealtimeNs();
  ossBootId(constants.bootId, sizeof constants.bootId);
  ossCopyText(constants.instance, sizeof constants.instance, vekInstanceName());
  constants.madeByClientInterface = byClient ? 1 : 0;
  constants.check = trcCheckOf(constants);
}

SqlzZrc fillRing(int fd, std::uint64_t ringBytes, std::uint64_t generation, bool byClient) noexcept {
  TrcRingConstants constants = {};
  fillConstants(constants, ringBytes, generation, byClient);
  const int error = ossAllocateFile(fd, trcObjectBytes(constants.segmentCount, constants.segmentBytes));
  if (error == ENOSPC || error == EFBIG || error == EDQUOT) return SQLT_TRACE_NO_SPACE;
  if (error != 0) return SQLT_TRACE_CREATE_FAILED;
  if (ossWriteAt(fd, &constants, sizeof constants, offsetof(TrcRingHeader, constants)) != 0 ||
      ossWriteAt(fd, &constants, sizeof constants, offsetof(TrcRingHeader, again)) != 0)
    return SQLT_TRACE_CREATE_FAILED;
  return 0;
}

// Built under another name and renamed, so that nobody ever opens a half-built ring.
SqlzZrc createObject(std::uint64_t bytes, std::uint64_t generation, bool byClient) noexcept {
  char path[PATH_BYTES];
  char building[PATH_BYTES];
  if (sharedObjectPath(TRC_RING_SUFFIX, path, sizeof path) == 0 ||
      sharedObjectPath(kNewRingSuffix, building, sizeof building) == 0)
    return SQLT_TRACE_CREATE_FAILED;
  ossCalls().unlink(building);
  int fd = -1;
  const int error = ossOpen(building, O_RDWR | O_CREAT | O_EXCL, 0600, &fd);
  if (error != 0) return error == ENOSPC ? SQLT_TRACE_NO_SPACE : SQLT_TRACE_CREATE_FAILED;
  SqlzZrc result = fillRing(fd, bytes, generation, byClient);
  ossClose(fd);
  if (result == 0 && ossCalls().rename(building, path) != 0) result = SQLT_TRACE_CREATE_FAILED;
  if (result != 0) ossCalls().unlink(building);
  return result;
}

SqlzZrc createPrivate(std::uint64_t bytes, std::uint64_t generation, bool byClient) noexcept {
  const int fd = ossAboveStandard(ossCalls().memfd("veksys.trace", MFD_CLOEXEC));
  if (fd < 0) return SQLT_TRACE_CREATE_FAILED;
  const SqlzZrc result = fillRing(fd, bytes, generation, byClient);
  if (result != 0) {
    ossClose(fd);
    return result;
  }
  const std::lock_guard guard(g_rings.lock);
  ossClose(g_rings.privateFd);
  g_rings.privateFd = fd;
  return 0;
}

// ---- mapping ----------------------------------------------------------------------------------------------------

int openRingObject() noexcept {
  if (regionSharedStatus() != 0) return g_rings.privateFd;
  char path[PATH_BYTES];
  int fd = -1;
  if (sharedObjectPath(TRC_RING_SUFFIX, path, sizeof path) == 0 || ossOpen(path, O_RDWR, 0, &fd) != 0) return -1;
  struct stat status;
  if (ossCalls().fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == ossUserId() &&
      (status.st_mode & 077) == 0)
    return fd;
  ossClose(fd);
  return -1;
}

enum class RingObject { kSound, kOther, kUnknown };

// What an opened object is: the ring of that generation, something else, or not to be told (it cannot be read).
RingObject inspectRing(int fd, std::uint64_t generation, TrcRingConstants* constants) noexcept {
  TrcRingHeader header = {};
  struct stat status;
  std::size_t count = 0;
  if (ossCalls().fstat(fd, &status) != 0) return RingObject::kUnknown;
  if (!S_ISREG(status.st_mode)) return RingObject::kOther;
  if (ossReadAt(fd, static_cast<void*>(&header), sizeof header, 0, &count) != 0) return RingObject::kUnknown;
  if (count != sizeof header) return RingObject::kOther;
  const TrcRingConstants* sound = trcSoundConstants(header, static_cast<std::uint64_t>(status.st_size));
  if (sound == nullptr || sound->generation != generation) return RingObject::kOther;
  *constants = *sound;
  return RingObject::kSound;
}

// True when the ring that the region tells of is certainly gone: no object of the name, or another one.
bool ringIsLost(std::uint64_t generation) noexcept {
  char path[PATH_BYTES];
  int fd = g_rings.privateFd;
  if (regionSharedStatus() == 0) {
    if (sharedObjectPath(TRC_RING_SUFFIX, path, sizeof path) == 0) return false;
    const int error = ossOpen(path, O_RDONLY | O_NONBLOCK, 0, &fd);
    if (error != 0) return error == ENOENT || error == ELOOP;
  }
  TrcRingConstants constants;
  const bool lost = fd < 0 || inspectRing(fd, generation, &constants) == RingObject::kOther;
  if (fd != g_rings.privateFd) ossClose(fd);
  return lost;
}

TrcRing* mapDescriptor(int fd, std::uint64_t generation) noexcept {
  TrcRingConstants sound;
  if (inspectRing(fd, generation, &sound) != RingObject::kSound) return nullptr;
  const std::uint64_t bytes = trcObjectBytes(sound.segmentCount, sound.segmentBytes);
  void* base = ossCalls().mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (base == MAP_FAILED) return nullptr;
  TrcRing* ring = g_mappings.make();
  if (ring == nullptr) {
    ossCalls().munmap(base, bytes);
    return nullptr;
  }
  ring->base = static_cast<char*>(base);
  ring->mappedBytes = bytes;
  ring->generation = generation;
  ring->ticksPerSecond = sound.ticksPerSecond;
  ring->segmentBytes = sound.segmentBytes;
  ring->segmentCount = sound.segmentCount;
  ring->users = 1;
  return ring;
}

void dropUser(TrcRing* ring) noexcept {
  if (ring == nullptr || --ring->users != 0) return;
  ossCalls().munmap(ring->base, ring->mappedBytes);
  g_mappings.giveBack(ring);
}

void mapCurrent(std::uint64_t generation) noexcept {
  const int fd = openRingObject();
  if (fd < 0) return;
  TrcRing* ring = mapDescriptor(fd, generation);
  if (fd != g_rings.privateFd) ossClose(fd);
  if (ring == nullptr) return;
  dropUser(g_rings.current);
  g_rings.current = ring;
}

// ---- dumping ----------------------------------------------------------------------------------------------------

// One copy of a segment and its descriptor that belong together, or a descriptor that says it was being replaced. Owner
// and count are read before the bytes: a segment released in between may hold more records than they tell, never fewer.
void copySegment(const TrcRing& ring, std::uint32_t index, char* data, TrcSegmentDescriptor* descriptor) noexcept {
  const TrcSegmentDescriptor& live = *ring.descriptor(index);
  for (int attempt = 0; attempt < 8; ++attempt) {
    const std::uint64_t guard = live.guard.load(std::memory_order_acquire);
    descriptor->owner.store(live.owner.load(std::memory_order_acquire), std::memory_order_relaxed);
    descriptor->recordCount.store(live.recordCount.load(std::memory_order_acquire), std::memory_order_relaxed);
    descriptor->guard.store(guard, std::memory_order_relaxed);
    trcLoadWords(&descriptor->id, &live.id, sizeof live.id);
    trcLoadWords(data, ring.segment(index), ring.segmentBytes);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (live.guard.load(std::memory_order_relaxed) == guard) return;
  }
  descriptor->guard.store(0, std::memory_order_relaxed);
  descriptor->recordCount.store(0, std::memory_order_relaxed);
}

int writeSegments(int fd, const TrcRing& ring) noexcept {
  const std::unique_ptr<char[]> data(new (std::nothrow) char[ring.segmentBytes]);
  if (data == nullptr) return ENOMEM;
  for (std::uint32_t index = 0; index < ring.segmentCount; ++index) {
    TrcSegmentDescriptor descriptor = {};
    copySegment(ring, index, data.get(), &descriptor);
    const std::uint64_t descriptorAt = TRC_HEADER_BYTES * 2 + index * sizeof descriptor;
    const std::uint64_t dataAt = TRC_HEADER_BYTES + trcSegmentsOffset(ring.segmentCount) + index * ring.segmentBytes;
    int error = ossWriteAt(fd, &descriptor, sizeof descriptor, descriptorAt);
    if (error == 0) error = ossWriteAt(fd, data.get(), ring.segmentBytes, dataAt);
    if (error != 0) return error;
  }
  return 0;
}

int writeNames(int fd, std::uint64_t offset, TrcDumpHeader* head) noexcept {
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  head->namesOffset = offset;
  if (names == nullptr) return 0;
  const std::uint32_t count = std::min(names->entryCount.load(std::memory_order_acquire), REGION_NAME_SLOTS);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t key = names->entries[i].key.load(std::memory_order_acquire);
    const std::uint32_t at = names->entries[i].offset;
    if (key == 0 || at >= REGION_NAME_BYTES) continue;
    const auto bytes = static_cast<std::uint32_t>(::strnlen(names->text + at, std::min(255U, REGION_NAME_BYTES - at)));
    const TrcDumpName entry = {key, bytes};
    int error = ossWriteAt(fd, &entry, sizeof entry, offset + head->namesBytes);
    if (error == 0) error = ossWriteAt(fd, names->text + at, bytes, offset + head->namesBytes + sizeof entry);
    if (error != 0) return error;
    head->namesBytes += sizeof entry + bytes;
    ++head->nameCount;
  }
  return 0;
}

int writeHeaderPage(int fd, const TrcRing& ring) noexcept {
  alignas(8) char page[TRC_HEADER_BYTES];
  trcLoadWords(page, ring.base, sizeof page);
  return ossWriteAt(fd, page, sizeof page, TRC_HEADER_BYTES);
}

int writeDump(int fd, const TrcRing& ring) noexcept {
  TrcDumpHeader head = {};
  ::memcpy(head.magic, TRC_DUMP_MAGIC, sizeof TRC_DUMP_MAGIC);
  head.layoutVersion = TRC_LAYOUT_VERSION;
  head.ringOffset = TRC_HEADER_BYTES;
  head.ringBytes = ring.mappedBytes;
  head.dumpedTicks = ossTicks();
  head.dumpedRealtimeNs = ossRealtimeNs();
  int error = writeHeaderPage(fd, ring);
  if (error == 0) error = writeSegments(fd, ring);
  if (error == 0) error = writeNames(fd, TRC_HEADER_BYTES + ring.mappedBytes, &head);
  if (error != 0) return error;
  head.check = trcCheckOf(head);
  return ossWriteAt(fd, &head, sizeof head, 0);  // last: a file cut short by a crash is no dump
}

int syncDirectoryOf(const char* path) noexcept {
  char directory[PATH_BYTES];
  ossCopyText(directory, sizeof directory, path);
  char* slash = ::strrchr(directory, '/');
  if (slash == nullptr)
    ossCopyText(directory, sizeof directory, ".");
  else
    slash[slash == directory ? 1 : 0] = '\0';
  int fd = -1;
  const int error = ossOpen(directory, O_RDONLY | O_DIRECTORY, 0, &fd);
  if (error != 0) return error;
  const int failed = ossSync(fd);
  ossClose(fd);
  return failed;
}

int dumpToFile(const char* target, const TrcRing& ring) noexcept {
  char building[PATH_BYTES];
  if (ossSnprintf(building, sizeof building, "%s.new.%u", target, ossThreadId()) + 1 >= sizeof building)
    return ENAMETOOLONG;
  ossCalls().unlink(building);
  int fd = -1;
  int error = ossOpen(building, O_WRONLY | O_CREAT | O_EXCL, 0600, &fd);
  if (error != 0) return error;
  error = writeDump(fd, ring);
  if (error == 0) error = ossSync(fd);
  ossClose(fd);
  if (error == 0 && ossCalls().rename(building, target) != 0) error = errno;
  if (error != 0) {
    ossCalls().unlink(building);
    return error;
  }
  return syncDirectoryOf(target);
}

std::uint64_t checkOfClearing(const TrcCleared& cleared) noexcept {
  if (cleared.sequence == 0 && cleared.ticks == 0) return 0;
  TrcChecksum sum(sizeof cleared);
  sum.add(cleared.sequence);
  sum.add(cleared.ticks);
  return 0x100000000U | sum.value();
}

bool clearingIsSound(const TrcClearing& copy, TrcCleared* cleared) noexcept {
  *cleared = {copy.sequence.load(std::memory_order_relaxed), copy.ticks.load(std::memory_order_relaxed)};
  return copy.check.load(std::memory_order_relaxed) == checkOfClearing(*cleared);
}

void storeClearing(TrcClearing& copy, const TrcCleared& cleared) noexcept {
  copy.sequence.store(cleared.sequence, std::memory_order_relaxed);
  copy.ticks.store(cleared.ticks, std::memory_order_relaxed);
  copy.check.store(checkOfClearing(cleared), std::memory_order_release);
}

bool constantsAreSound(const TrcRingConstants& constants, std::uint64_t objectBytes) noexcept {
  if (::memcmp(constants.magic, TRC_RING_MAGIC, sizeof TRC_RING_MAGIC) != 0) return false;
  if (constants.layoutVersion != TRC_LAYOUT_VERSION || constants.check != trcCheckOf(constants)) return false;
  if (constants.segmentBytes < TRC_SEGMENT_BYTES_LEAST || constants.segmentBytes > TRC_SEGMENT_BYTES_MOST ||
      constants.segmentBytes % 4096 != 0 || constants.segmentCount == 0 || constants.segmentCount > 1U << 20 ||
      constants.ticksPerSecond == 0)
    return false;
  return trcObjectBytes(constants.segmentCount, constants.segmentBytes) <= objectBytes;
}

}  // namespace

TrcControl* trcControl() noexcept { return static_cast<TrcControl*>(regionSection(RegionSectionId::kTraceControl)); }
int trcPrivateRing() noexcept { return g_rings.privateFd; }
void trcLockForFork() noexcept {
  g_rings.lock.lock();
  g_mappings.lockForFork();
}

void trcUnlockAfterFork() noexcept {
  g_mappings.unlockAfterFork();
  g_rings.lock.unlock();
}

TrcRing* trcEnterRing(std::uint64_t generation) noexcept {
  if (generation == 0) return nullptr;
  const std::lock_guard guard(g_rings.lock);
  if (g_rings.current == nullptr || g_rings.current->generation != generation) mapCurrent(generation);
  if (g_rings.current == nullptr || g_rings.current->generation != generation) return nullptr;
  ++g_rings.current->users;
  return g_rings.current;
}

void trcLeaveRing(TrcRing* ring) noexcept {
  const std::lock_guard guard(g_rings.lock);
  dropUser(ring);
}

const TrcRingConstants* trcSoundConstants(const TrcRingHeader& header, std::uint64_t objectBytes) noexcept {
  if (constantsAreSound(header.constants, objectBytes)) return &header.constants;
  return constantsAreSound(header.again, objectBytes) ? &header.again : nullptr;
}

SqlzZrc trcCreateShared(std::uint64_t bytes, bool byClientInterface) noexcept {
  TrcControl* control = trcControl();
  const RegionLock lock(kLockWaitMs);
  if (control == nullptr || !lock.held()) return SQLO_REGION_BUSY;
  const std::uint64_t state = control->state.load(std::memory_order_relaxed);
  if (state != 0 && !ringIsLost(state >> 1)) return SQLT_TRACE_ALREADY_CREATED;
  // Generations grow with the clock too, so that a ring left by an earlier region is never taken for this one's.
  const std::uint64_t generation = std::max(control->lastGeneration.load(std::memory_order_relaxed) + 1,
                                            static_cast<std::uint64_t>(ossRealtimeNs()) >> 10);
  const SqlzZrc result = regionSharedStatus() == 0 ? createObject(bytes, generation, byClientInterface)
                                                   : createPrivate(bytes, generation, byClientInterface);
  if (result != 0) return result;
  control->lastGeneration.store(generation, std::memory_order_relaxed);
  control->state.store(stateOf(generation, true), std::memory_order_release);
  return 0;
}

namespace {

void removeObject() noexcept {
  char path[PATH_BYTES];
  const std::lock_guard guard(g_rings.lock);
  if (regionSharedStatus() == 0 && sharedObjectPath(TRC_RING_SUFFIX, path, sizeof path) != 0) ossCalls().unlink(path);
  ossClose(g_rings.privateFd);
  g_rings.privateFd = -1;
  dropUser(std::exchange(g_rings.current, nullptr));
}

// Gives the memory of all segments that nobody owns back to the system at once: other processes may keep the object
// mapped for long. Each is taken first, so that no writer can be in it or get into it.
void returnMemory(const TrcRing& ring) noexcept {
  for (std::uint32_t index = 0; index < ring.segmentCount; ++index) {
    std::uint64_t expected = 0;
    auto& owner = ring.descriptor(index)->owner;
    if (owner.compare_exchange_strong(expected, regionProcessOwner(), std::memory_order_acquire))
      (void)ossCalls().madvise(ring.segment(index), ring.segmentBytes, MADV_REMOVE);
  }
}

}  // namespace

SqlzZrc trcDeleteShared(bool onlyClientInterface) noexcept {
  TrcControl* control = trcControl();
  if (control == nullptr) return SQLT_TRACE_NOT_CREATED;
  const std::uint64_t state = control->state.load(std::memory_order_acquire);
  if (onlyClientInterface) {
    TrcRing* ring = trcEnterRing(state >> 1);
    const bool theirs = ring != nullptr && ring->header()->constants.madeByClientInterface != 0;
    if (ring != nullptr) trcLeaveRing(ring);
    if (!theirs) return SQLT_TRACE_NOT_CREATED;
  }
  const RegionLock lock(kLockWaitMs);
  if (!lock.held()) return SQLO_REGION_BUSY;
  if (state == 0 || control->state.load(std::memory_order_relaxed) >> 1 != state >> 1) return SQLT_TRACE_NOT_CREATED;
  TrcRing* ring = trcEnterRing(state >> 1);
  control->state.store(0, std::memory_order_release);
  removeObject();
  if (ring != nullptr) {
    returnMemory(*ring);
    trcLeaveRing(ring);
  }
  return 0;
}

const TrcRingHeader* trcCurrentHeader(std::uint64_t generation) noexcept {
  const std::lock_guard guard(g_rings.lock);
  const TrcRing* ring = g_rings.current;
  return ring != nullptr && generation != 0 && ring->generation == generation ? ring->header() : nullptr;
}

SqlzZrc trcInstantaneousDump(const char* target, int* errorOut) noexcept {
  TrcControl* control = trcControl();
  TrcRing* ring = control == nullptr ? nullptr : trcEnterRing(control->state.load(std::memory_order_acquire) >> 1);
  if (ring == nullptr) return SQLT_TRACE_NOT_CREATED;
  *errorOut = dumpToFile(target, *ring);
  trcLeaveRing(ring);
  return *errorOut == 0 ? 0 : SQLT_TRACE_DUMP_FAILED;
}

TrcCleared trcCleared(const TrcRingHeader& header) noexcept {
  TrcCleared cleared;
  if (clearingIsSound(header.cleared, &cleared) || clearingIsSound(header.clearedAgain, &cleared)) return cleared;
  return {};
}

// One copy after the other: whoever dies in between leaves one that is sound.
void trcStoreCleared(TrcRingHeader& header, const TrcCleared& cleared) noexcept {
  storeClearing(header.cleared, cleared);
  std::atomic_thread_fence(std::memory_order_release);
  storeClearing(header.clearedAgain, cleared);
}

std::uint32_t trcCheckRecord(const std::uint64_t* at, std::uint64_t room, std::uint64_t sequence) noexcept {
  const std::uint64_t head = __atomic_load_n(at, __ATOMIC_ACQUIRE);
  const std::uint32_t words = trcHeadWords(head);
  if (words < TRC_RECORD_FIXED_WORDS || words > room) return 0;
  TrcChecksum sum(sequence);
  sum.add(head & 0xFFFFFFFFU);
  for (std::uint32_t i = 1; i < words; ++i) sum.add(__atomic_load_n(at + i, __ATOMIC_RELAXED));
  return sum.value() == trcHeadChecksum(head) ? words : 0;
}

std::uint64_t trcCountRecords(const char* segment, std::uint64_t segmentBytes, std::uint64_t sequence) noexcept {
  const auto* at = reinterpret_cast<const std::uint64_t*>(segment + sizeof(TrcSegmentId));
  std::uint64_t room = (segmentBytes - sizeof(TrcSegmentId)) / 8;
  std::uint64_t count = 0;
  while (room > 0) {
    const std::uint32_t words = trcCheckRecord(at, room, sequence);
    if (words == 0) break;
    at += words;
    room -= words;
    ++count;
  }
  return count;
}

}  // namespace vek
