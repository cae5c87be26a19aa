// The instance region with real processes: every body that attaches runs in a child.
#include "platform/region.h"

#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <array>
#include <functional>
#include <memory>
#include <random>
#include <set>

#include "platform/ports.h"
#include "platform/semaphore.h"
#include "platform/support.h"
#include "platform/thread.h"
#include "platform/trcapi.h"
#include "platform/wint.h"
#include "veksys/codes.h"
#include "veksys/diag/trace.h"

namespace vek::platformtest {
namespace {

const RegionNames& names() { return *static_cast<RegionNames*>(regionSection(RegionSectionId::kNames)); }
RegionProcess* processes() { return static_cast<RegionProcess*>(regionSection(RegionSectionId::kProcesses)); }
RegionThread* threads() { return static_cast<RegionThread*>(regionSection(RegionSectionId::kThreads)); }

struct stat statusOf(int fd) {
  struct stat status = {};
  EXPECT_EQ(::fstat(fd, &status), 0);
  return status;
}

// Attached, with a slot, usable: what holds after every successful attach, shared or private.
void expectSound() {
  ASSERT_NE(regionHeader(), nullptr);
  ASSERT_LT(regionProcessSlot(), REGION_PROCESS_SLOTS);
  const RegionProcess& mine = processes()[regionProcessSlot()];
  EXPECT_EQ(mine.processId, ossProcessId());
  EXPECT_EQ(mine.state.load(), 1U);
  EXPECT_TRUE(regionOwnerLives(regionProcessOwner()));
  const std::uint32_t slot = regionThreadEnter(ossThreadId(), "sound");
  ASSERT_LT(slot, REGION_THREAD_SLOTS);
  EXPECT_EQ(threads()[slot].owner.load(), regionProcessOwner());
  regionThreadLeave(slot);
  EXPECT_EQ(threads()[slot].owner.load(), 0U);
  regionInternName(77, "seventy-seven");
  EXPECT_STREQ(regionFindName(names(), 77), "seventy-seven");
}

void attachExpecting(SqlzZrc shared) {
  EXPECT_EQ(regionAttach(), 0);
  EXPECT_EQ(regionSharedStatus(), shared);
  expectSound();
}

// A process that has attached, or done something else, and lives to the end of the scope or until it is killed.
class Resident {
 public:
  explicit Resident(const std::function<void()>& attach = [] { attachExpecting(0); }) {
    child_ = start([&] {
      attach();
      attached_.give();
      EXPECT_TRUE(leave_.take());
    });
    EXPECT_TRUE(attached_.take());
  }
  ~Resident() {
    leave_.give();
    EXPECT_EQ(finish(child_), end_);
  }
  void kill() {
    end_ = -SIGKILL;
    ::kill(child_, SIGKILL);
    ::waitid(P_PID, static_cast<id_t>(child_), nullptr, WEXITED | WNOWAIT);
  }

 private:
  Baton attached_;
  Baton leave_;
  pid_t child_ = 0;
  int end_ = 0;
};

// Waits until so many processes are here.
void meet(std::atomic<unsigned>& here, unsigned count) {
  for (++here; here < count;) std::this_thread::yield();
}

// ---- left-overs -------------------------------------------------------------------------------------------------

template <class T>
void patch(const char* path, std::size_t offset, T value) {
  const int fd = ::open(path, O_RDWR);
  EXPECT_EQ(::pwrite(fd, &value, sizeof value, static_cast<off_t>(offset)), static_cast<ssize_t>(sizeof value));
  ::close(fd);
}

void resize(const char* path, off_t bytes) { EXPECT_EQ(::truncate(path, bytes), 0); }

struct LeftOver {
  const char* what;
  void (*spoil)(const char* path);  // applied to a sound region
  bool replaced;                    // when nobody lives in it
  SqlzZrc whileInUse;
};

constexpr std::size_t kVersionAt = offsetof(RegionHeader, layoutVersion);

const LeftOver kLeftOvers[] = {
    {"sound", [](auto) {}, false, 0},
    {"none", [](auto path) { ::unlink(path); }, true, 0},
    {"half built", [](auto path) { resize(path, 0), resize(path, 1 << 20); }, true, SQLO_REGION_DAMAGED},
    {"not ready", [](auto path) { patch(path, offsetof(RegionHeader, ready), 0U); }, true, SQLO_REGION_DAMAGED},
    {"other boot", [](auto path) { patch(path, offsetof(RegionHeader, bootId), 'z'); }, true, SQLO_REGION_DAMAGED},
    {"unknown boot", [](auto path) { patch(path, offsetof(RegionHeader, bootId), '\0'); }, false, 0},
    {"garbage", [](auto path) { patch(path, 0, 0x5A5A5A5A5A5A5A5AULL); }, true, SQLO_REGION_DAMAGED},
    {"cut in the header", [](auto path) { resize(path, 100); }, true, SQLO_REGION_DAMAGED},
    {"cut behind the header", [](auto path) { resize(path, 8192); }, true, SQLO_REGION_DAMAGED},
    {"other size", [](auto path) { patch(path, offsetof(RegionHeader, bytes), 4096ULL); }, true, SQLO_REGION_DAMAGED},
    {"other section", [](auto path) { patch(path, offsetof(RegionHeader, sections) + 8, 0ULL); }, true,
     SQLO_REGION_DAMAGED},
    {"other version", [](auto path) { patch(path, kVersionAt, REGION_LAYOUT_VERSION + 1); }, true, SQLO_REGION_VERSION},
};

void raceToAttach(unsigned count) {
  struct Race {
    std::atomic<unsigned> started, attached;
    std::array<ino_t, 64> regions;
    std::array<std::uint32_t, 64> slots;
  };
  const Shared<Race> race;
  inProcesses(count, [&](unsigned i) {
    meet(race->started, count);
    attachExpecting(0);
    race->regions[i] = statusOf(regionDescriptor()).st_ino;
    race->slots[i] = regionProcessSlot();
    meet(race->attached, count);
  });
  EXPECT_EQ(std::set(race->regions.begin(), race->regions.begin() + count).size(), 1U);
  EXPECT_EQ(std::set(race->slots.begin(), race->slots.begin() + count).size(), count);
}

TEST(RegionAttach, RacingProcessesShareOneRegionWhateverWasLeft) {
  for (const LeftOver& leftOver : kLeftOvers) {
    SCOPED_TRACE(leftOver.what);
    const Instance instance;
    inProcess([] { attachExpecting(0); });
    const int old = ::open(instance.region().c_str(), O_RDONLY);
    leftOver.spoil(instance.region().c_str());
    raceToAttach(::strcmp(leftOver.what, "none") == 0 ? 40 : 8);
    EXPECT_EQ(statusOf(old).st_nlink == 0, leftOver.replaced);
    ::close(old);
  }
}

TEST(RegionAttach, TakesTheSemaphoresOfAReplacedRegionAway) {
  const Instance instance;
  const Shared<std::array<char, 200>> name;
  const auto attachAndTell = [&] {
    inProcess([&] {
      attachExpecting(0);
      const std::size_t prefix = ossSnprintf(name->data(), name->size(), "/%s", REGION_SEMAPHORE_PREFIX);
      regionIdentity(*regionHeader(), name->data() + prefix, name->size() - prefix);
      ::strcat(name->data(), "_7");
    });
    return std::string("/dev/shm/sem.") + (name->data() + 1);
  };
  const std::string path = attachAndTell();
  OssSemaphore* semaphore = nullptr;
  ASSERT_EQ(ossOpenSemaphore(name->data(), &semaphore), 0);
  ossCloseSemaphore(semaphore);
  EXPECT_EQ(attachAndTell(), path);
  EXPECT_TRUE(std::filesystem::exists(path));
  patch(instance.region().c_str(), kVersionAt, REGION_LAYOUT_VERSION + 1);
  EXPECT_NE(attachAndTell(), path);
  EXPECT_FALSE(std::filesystem::exists(path));
}

void expectOneReport(SqlzZrc code) {
  static std::vector<SqlzZrc> reported;
  g_ports.reportEvent = [](const PortEvent& event) { reported.push_back(event.zrc); };
  regionReportOnce();
  regionReportOnce();
  EXPECT_EQ(reported, code == 0 ? std::vector<SqlzZrc>{} : std::vector{code});
}

TEST(RegionAttach, NothingOfALivingProcessIsReplaced) {
  for (const LeftOver& leftOver : kLeftOvers) {
    SCOPED_TRACE(leftOver.what);
    const Instance instance;
    Resident resident;
    leftOver.spoil(instance.region().c_str());
    inProcess([&] {
      attachExpecting(leftOver.whileInUse);
      expectOneReport(leftOver.whileInUse);
      EXPECT_EQ(vekInstanceStatus(), leftOver.whileInUse);
    });
    resident.kill();  // what it stands on may be gone
    inProcess([] { attachExpecting(0); });
  }
}

// ---- objects that are not taken ---------------------------------------------------------------------------------

TEST(RegionAttach, ObjectsOfOthersAndOtherKindsAreRefused) {
  const struct {
    const char* what;
    void (*make)(const char* path);
    SqlzZrc expected;
  } rows[] = {
      {"open to others", [](auto path) { ::close(::creat(path, 0)), ::chmod(path, 0666); }, SQLO_REGION_OWNER},
      {"foreign owner",
       [](auto path) { ::close(::creat(path, ::geteuid() == 0 ? 0600 : 0640)), (void)!::chown(path, 65534, 65534); },
       SQLO_REGION_OWNER},
      {"symbolic link", [](auto path) { (void)!::symlink("/dev/null", path); }, SQLO_REGION_DENIED},
      {"dangling link", [](auto path) { (void)!::symlink("nowhere", path); }, SQLO_REGION_DENIED},
      {"directory", [](auto path) { ::mkdir(path, 0700); }, SQLO_REGION_DENIED},
      {"pipe", [](auto path) { ::mkfifo(path, 0600); }, SQLO_REGION_DENIED},
      {"no directory", [](auto) { ::setenv("VEK_SHM_DIR", "/nonexistent", 1); }, SQLO_REGION_DENIED},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    const Instance instance;
    const std::string path = instance.region();
    row.make(path.c_str());
    struct stat before = {};
    struct stat after = {};
    const int found = ::lstat(path.c_str(), &before);
    inProcess([&] {
      attachExpecting(row.expected);
      expectOneReport(row.expected);
    });
    EXPECT_EQ(::lstat(path.c_str(), &after), found);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_size, before.st_size);
  }
}

// A program that closes all descriptors it did not open may get that of the region for a file of its own.
TEST_APART(RegionAttach, AFileInThePlaceOfTheDescriptorIsLeftAlone) {
  ASSERT_EQ(regionAttach(), 0);
  ASSERT_NE(regionThreadPage(regionThreadEnter(1, "before")), nullptr);
  const int place = regionDescriptor();
  const int fd = ::open(instance.path("data").c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(::write(fd, "hello", 5), 5);
  ASSERT_EQ(::dup2(fd, place), place);
  EXPECT_EQ(regionThreadPage(regionThreadEnter(2, "behind")), nullptr);
  EXPECT_FALSE(RegionLock(0).held());
  EXPECT_TRUE(regionOwnerLives(regionOwner(regionProcessSlot() + 1, 0))) << "in doubt an owner lives";
  EXPECT_EQ(regionDescriptor(), -1);
  inProcess([] { EXPECT_EQ(regionAttach(), 0) << "a child works in a region of its own"; });
  struct stat status;
  ASSERT_EQ(::fstat(place, &status), 0);
  EXPECT_EQ(status.st_size, 5);
  expectOneReport(SQLO_REGION_DENIED);
}

TEST_APART(RegionAttach, DirectoryOfAnotherUserIsDenied) {
  if (::setuid(65534) == 0) attachExpecting(SQLO_REGION_DENIED);  // only the superuser can become another user
}

TEST(RegionAttach, FullFileSystemIsAnsweredByACode) {
  const Instance instance;
  const int code = runInProcess([&] {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", instance.directory().c_str(), "tmpfs", 0, "size=64k") != 0)
      ::_exit(kSkip);
    attachExpecting(SQLO_REGION_NO_SPACE);
    EXPECT_FALSE(std::filesystem::exists(instance.region()));
    expectOneReport(SQLO_REGION_NO_SPACE);
  });
  if (code == kSkip) GTEST_SKIP() << "no file system can be mounted here";
  EXPECT_EQ(code, 0);
}

// ---- failing services -------------------------------------------------------------------------------------------

std::ptrdiff_t openDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

// Attaches while the n-th service fails, then once more; answers whether there were so many calls.
bool attachWithFailure(int call, int error) {
  const std::ptrdiff_t before = openDescriptors();
  makeFail<&OssCalls::open, &OssCalls::fstat, &OssCalls::stat, &OssCalls::unlink, &OssCalls::ftruncate,
           &OssCalls::fallocate, &OssCalls::pread, &OssCalls::lockByte, &OssCalls::mmap, &OssCalls::munmap,
           &OssCalls::memfd>(call, error);
  const SqlzZrc result = regionAttach();
  const bool failed = Failure::callsLeft < 0;
  Failure::callsLeft = -1;
  if (result != 0) {
    EXPECT_EQ(result, SQLO_REGION_NO_MEMORY);
    EXPECT_EQ(regionProcessSlot(), REGION_NO_SLOT);
    EXPECT_EQ(regionAttach(), 0);
  }
  expectSound();
  EXPECT_EQ(openDescriptors(), before + 1);
  return failed;
}

// The process whose service fails and one that comes later: the later one always gets a shared region.
bool failingRound(const LeftOver& leftOver, int call, int error) {
  SCOPED_TRACE(testing::Message() << leftOver.what << " call " << call << " error " << error);
  const Instance instance;
  inProcess([] { attachExpecting(0); });
  leftOver.spoil(instance.region().c_str());
  const Shared<bool> failed;
  const Resident first([&] { *failed = attachWithFailure(call, error); });
  inProcess([] { attachExpecting(0); });
  return *failed;
}

TEST(RegionAttach, AnyServiceMayFail) {
  for (const int start : {0, 1, 6})
    for (const int error : {ENOSPC, EMFILE, EINTR}) {
      int call = 0;
      while (failingRound(kLeftOvers[start], call, error) && call < 2000) call += call < 30 ? 1 : 101;
      EXPECT_GT(call, 8);
    }
}

// Nobody may find the region empty between its opening and the first slot in it.
TEST_APART(RegionAttach, TheFirstSlotIsTakenUnderTheRegionLock) {
  static bool regionLocked;
  static const auto realLock = ossCalls().lockByte;
  ossCalls().lockByte = [](int fd, int command, short type, off_t offset, off_t bytes, int* conflict) {
    if (offset == static_cast<off_t>(REGION_LOCK_BYTE))
      regionLocked = type == F_WRLCK;
    else
      EXPECT_TRUE(regionLocked);
    return realLock(fd, command, type, offset, bytes, conflict);
  };
  EXPECT_EQ(regionAttach(), 0);
  EXPECT_FALSE(regionLocked);
}

TEST(RegionAttach, StoppedLockHolderDelaysForABoundedTime) {
  const Instance instance;
  const pid_t holder = start([] {
    attachExpecting(0);
    const RegionLock lock(0);
    EXPECT_TRUE(lock.held());
    ::raise(SIGSTOP);
  });
  ASSERT_TRUE(waitUntilStopped(holder));
  inProcess([] {
    attachExpecting(SQLO_REGION_BUSY);
    expectOneReport(SQLO_REGION_BUSY);
  });
  ::kill(holder, SIGCONT);
  EXPECT_EQ(finish(holder), 0);
  inProcess([] { attachExpecting(0); });
}

TEST_APART(RegionLock, ExcludesThreadsOfOneProcessToo) {
  EXPECT_FALSE(RegionLock(0).held());
  EXPECT_EQ(regionAttach(), 0);
  const RegionLock lock(0);
  EXPECT_TRUE(lock.held());
  std::thread([] {
    EXPECT_FALSE(RegionLock(0).held());
    EXPECT_FALSE(regionSweep());
  }).join();
}

// ---- fork -------------------------------------------------------------------------------------------------------

TEST_APART(RegionFork, ChildTakesASlotOfItsOwnAndLeavesTheParentsAlone) {
  attachExpecting(0);
  const std::uint64_t parent = regionProcessOwner();
  const ThreadState thread = *threadSelf();
  inProcess([&] {
    EXPECT_EQ(t_self, nullptr);
    EXPECT_EQ(regionProcessSlot(), REGION_NO_SLOT);
    EXPECT_EQ(regionProcessOwner(), 0U);
    EXPECT_FALSE(regionSweep());
    EXPECT_TRUE(regionOwnerLives(parent));
    attachExpecting(0);
    EXPECT_NE(regionOwnerSlot(regionProcessOwner()), regionOwnerSlot(parent));
    ASSERT_NE(threadSelf(), nullptr);
    EXPECT_NE(threadSelf()->threadSlot, thread.threadSlot);
    EXPECT_NE(threadSelf()->serial, thread.serial);
    EXPECT_NE(threadSelf()->threadId, thread.threadId);
  });
  expectSound();
  EXPECT_EQ(threads()[thread.threadSlot].owner.load(), parent);
  EXPECT_EQ(regionProcessOwner(), parent);
  inProcess([&] {
    attachExpecting(0);
    EXPECT_TRUE(regionSweep());
    EXPECT_TRUE(regionOwnerLives(parent));
  });
}

// The parent of a child that has not used the library yet ends, and another version replaces the empty region.
TEST(RegionFork, ChildOfAReplacedRegionWorksAlone) {
  const Instance instance;
  Baton replaced;
  Baton done;
  Shared<int> failures;
  inProcess([&] {
    attachExpecting(0);
    if (::fork() != 0) return;
    EXPECT_TRUE(replaced.take());
    attachExpecting(SQLO_REGION_VERSION);
    *failures = expectationsFailed();
    done.give();
    endAtOnce();
  });
  patch(instance.region().c_str(), kVersionAt, REGION_LAYOUT_VERSION + 1);
  const Resident other;
  replaced.give();
  EXPECT_TRUE(done.take());
  EXPECT_EQ(*failures, 0);
}

TEST(RegionFork, WhileOtherThreadsAttachAndEnd) {
  for (int round = 0; round < 150; ++round) {
    SCOPED_TRACE(round);
    const Instance instance;
    inProcess([] {
      std::vector<std::jthread> churn;
      for (int i = 0; i < 3; ++i)
        churn.emplace_back([](const std::stop_token& over) {
          do {
            std::thread([] { EXPECT_NE(threadSelf(), nullptr); }).join();
          } while (!over.stop_requested());
        });
      for (int i = 0; i < 3; ++i)
        inProcess([] {
          EXPECT_NE(threadSelf(), nullptr);
          attachExpecting(0);
          endAtOnce();
        });
      churn.clear();
      attachExpecting(0);
    });
  }
}

// ---- slots ------------------------------------------------------------------------------------------------------

// Holds the bytes of all process slots that are still free.
void takeAllSlots(const Instance& instance) {
  const int fd = ::open(instance.region().c_str(), O_RDWR);
  for (std::uint32_t slot = 0; slot < REGION_PROCESS_SLOTS; ++slot) ossLockByte(fd, REGION_SLOT_LOCK_BASE + slot);
}

TEST(RegionSlots, WhenAllAreTakenAProcessWorksPrivately) {
  const Instance instance;
  inProcess([&] {
    attachExpecting(0);
    EXPECT_TRUE(g_ports.attachTrace());
    EXPECT_EQ(trcCreateShared(1 << 20, false), 0);
    wintStore(9, SQLT_TRACE_ENTRY);
    Resident holder([&] { takeAllSlots(instance); });
    inProcess([] {  // a forked child, with pointers into its parent's mapping
      EXPECT_EQ(wintTraceWord(9), SQLT_TRACE_ENTRY);
      sqltEntry(ecfFunctionId(9, 17));
      attachExpecting(SQLO_REGION_SLOTS);
      expectOneReport(SQLO_REGION_SLOTS);
      sqltEntry(ecfFunctionId(9, 17));
      EXPECT_FALSE(trcIsOn());
      EXPECT_EQ(wintTraceWord(9), 0U);
    });
    EXPECT_TRUE(trcIsOn());
    EXPECT_EQ(wintTraceWord(9), SQLT_TRACE_ENTRY);
    holder.kill();
    inProcess([] { attachExpecting(0); });
  });
  const Resident holder([&] { takeAllSlots(instance); });
  inProcess([] { attachExpecting(SQLO_REGION_SLOTS); });
}

std::uint32_t takeAllThreadSlots() {
  std::uint32_t taken = 0;
  while (regionThreadEnter(taken, "filler") != REGION_NO_SLOT) ++taken;
  return taken;
}

TEST_APART(RegionSlots, ThreadSlotsRunOutAndComeBack) {
  EXPECT_EQ(regionThreadEnter(1, "early"), REGION_NO_SLOT);
  attachExpecting(0);
  EXPECT_EQ(takeAllThreadSlots(), REGION_THREAD_SLOTS);
  EXPECT_NE(threadSelf(), nullptr);
  EXPECT_EQ(threadSelf()->threadSlot, REGION_NO_SLOT);
  regionThreadLeave(REGION_NO_SLOT);
  regionThreadLeave(4711);
  EXPECT_EQ(regionThreadEnter(9, "again"), 4711U);
  inProcess([] {
    EXPECT_EQ(regionAttach(), 0);
    regionThreadLeave(4711);  // not this process's
    EXPECT_EQ(takeAllThreadSlots(), 0U);
  });
}

TEST(RegionSlots, ThreadsOfAKilledProcessAreReclaimedWhenNeeded) {
  const Instance instance;
  const Resident other;  // takes the first slot, so that nobody moves into that of the dead
  inProcess([] {
    Resident user([] {
      EXPECT_EQ(regionAttach(), 0);
      EXPECT_EQ(takeAllThreadSlots(), REGION_THREAD_SLOTS);
    });
    EXPECT_EQ(regionAttach(), 0);
    EXPECT_EQ(regionThreadEnter(1, "none"), REGION_NO_SLOT);
    user.kill();
    EXPECT_LT(regionThreadEnter(1, "found"), REGION_THREAD_SLOTS);
  });
}

// ---- killed at random -------------------------------------------------------------------------------------------

constexpr int kWorkers = 4;

struct Arena {
  struct Worker {
    std::atomic<std::uint64_t> owner;
    std::atomic<bool> doomed;
  };
  Worker workers[kWorkers];
  std::atomic<bool> over;
  std::atomic<std::uint64_t> checks;
};

// Attaches and lets threads come and go until it is killed.
void work(Arena::Worker& worker) {
  attachExpecting(0);
  worker.owner = regionProcessOwner();
  for (std::uint32_t i = 1;; ++i) {
    std::thread([] {
      const ThreadState* self = threadSelf();
      ASSERT_NE(self, nullptr);
      EXPECT_EQ(threads()[self->threadSlot].owner.load(), regionProcessOwner());
    }).join();
    regionInternName(i % 1000 + 1, "name");
    EXPECT_EQ(processes()[regionProcessSlot()].processId, ossProcessId());
    if (expectationsFailed() != 0) return;
  }
}

// Sweeps all the time and never takes a worker for dead that is not being killed.
void watch(Arena& arena) {
  attachExpecting(0);
  while (!arena.over) {
    regionSweep();
    for (Arena::Worker& worker : arena.workers) {
      const std::uint64_t owner = worker.owner;
      if (owner == 0) continue;
      EXPECT_TRUE(regionOwnerLives(owner) || worker.doomed || worker.owner != owner) << "taken for dead";
      ++arena.checks;
    }
  }
}

void expectNothingLeft() {
  attachExpecting(0);
  EXPECT_TRUE(regionSweep());
  for (std::uint32_t slot = 0; slot < REGION_PROCESS_SLOTS; ++slot)
    EXPECT_EQ(processes()[slot].state.load() != 0, slot == regionProcessSlot()) << slot;
  for (std::uint32_t slot = 0; slot < REGION_THREAD_SLOTS; ++slot) EXPECT_EQ(threads()[slot].owner.load(), 0U) << slot;
}

TEST(RegionKill, NothingIsLostAndNoLivingProcessIsTakenForDead) {
  const Instance instance;
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  Shared<Arena> arena;
  const pid_t watcher = start([&] { watch(*arena); });
  std::vector<pid_t> workers(kWorkers);
  const auto startWorker = [&](std::size_t i) {
    arena->workers[i].owner = 0;
    arena->workers[i].doomed = false;
    workers[i] = start([&, i] { work(arena->workers[i]); });
  };
  const auto killWorker = [&](std::size_t i) {
    arena->workers[i].doomed = true;
    EXPECT_EQ(finishKilled(workers[i]), -SIGKILL);
  };
  for (std::size_t i = 0; i < kWorkers; ++i) startWorker(i);
  for (int round = 0; round < 300; ++round) {
    ::usleep(static_cast<useconds_t>(random() % 6000));  // when the next one dies
    const std::size_t victim = random() % kWorkers;
    killWorker(victim);
    startWorker(victim);
  }
  for (std::size_t i = 0; i < kWorkers; ++i) killWorker(i);
  arena->over = true;
  EXPECT_EQ(finish(watcher), 0);
  EXPECT_GT(arena->checks.load(), 300U);
  inProcess([] { expectNothingLeft(); });
}

TEST(RegionKill, KilledBuilderIsReplaced) {
  std::mt19937 random(std::random_device{}());
  for (int round = 0; round < 60; ++round) {
    const Instance instance;
    Baton started;
    const pid_t builder = start([&] {
      started.give();
      regionAttach();
      ::pause();
    });
    EXPECT_TRUE(started.take());
    ::usleep(static_cast<useconds_t>(random() % 1500));  // when it dies
    EXPECT_EQ(finishKilled(builder), -SIGKILL);
    inProcess([] { attachExpecting(0); });
  }
}

// ---- interned names ---------------------------------------------------------------------------------------------

TEST(RegionNames, InternedByManyProcessesAtOnce) {
  const Instance instance;
  const Shared<std::atomic<unsigned>> attached;
  inProcesses(4, [&](unsigned who) {
    EXPECT_EQ(regionAttach(), 0);
    meet(*attached, 4);
    for (std::uint32_t key = 1; key <= 300; ++key) {
      regionInternName(key, ("common" + std::to_string(key)).c_str());
      const std::uint32_t own = (who + 1) * 1000 + key;
      regionInternName(own, ("own" + std::to_string(own)).c_str());
    }
  });
  inProcess([] {
    EXPECT_EQ(regionAttach(), 0);
    for (std::uint32_t key = 1; key <= 300; ++key) {
      EXPECT_EQ(regionFindName(names(), key), "common" + std::to_string(key));
      for (std::uint32_t own = 1000 + key; own < 5000; own += 1000)
        EXPECT_EQ(regionFindName(names(), own), "own" + std::to_string(own));
    }
    EXPECT_EQ(names().dropped.load(), 0U);
    const std::uint32_t before = names().entryCount;
    regionInternName(1, "another");
    EXPECT_STREQ(regionFindName(names(), 1), "common1");
    EXPECT_EQ(names().entryCount.load(), before);
  });
}

TEST(RegionNames, WhatDoesNotFitIsCounted) {
  const struct {
    std::size_t length;
    std::uint32_t fit;
  } rows[] = {{1, REGION_NAME_SLOTS}, {255, REGION_NAME_BYTES / 256}, {300, REGION_NAME_BYTES / 256}};
  for (const auto& row : rows) {
    const Instance instance;
    inProcess([&] {
      EXPECT_EQ(regionAttach(), 0);
      const std::string name(row.length, 'n');
      for (std::uint32_t key = 1; key <= row.fit + 3; ++key) regionInternName(key, name.c_str());
      EXPECT_EQ(regionFindName(names(), row.fit), name.substr(0, 255));
      EXPECT_EQ(regionFindName(names(), row.fit + 1), nullptr);
      EXPECT_EQ(names().dropped.load(), 3U);
      EXPECT_EQ(names().entryCount.load(), row.fit) << "a name that does not fit uses nothing up";
    });
  }
}

TEST(RegionNames, DamagedAndIncompleteEntriesAreSkipped) {
  const auto table = std::make_unique<RegionNames>();
  ::strcpy(table->text, "first");
  ::memset(table->text + REGION_NAME_BYTES - 8, 'x', 8);  // no terminator
  const std::uint32_t offsets[] = {0, REGION_NAME_BYTES, 0xFFFFFFFFU, REGION_NAME_BYTES - 8, 0};
  const std::uint32_t keys[] = {0, 5, 6, 7, 8};
  for (std::size_t i = 0; i < 5; ++i) table->entries[i].key = keys[i], table->entries[i].offset = offsets[i];
  table->entryCount = 0xFFFFFFFFU;
  for (const std::uint32_t key : {0U, 5U, 6U, 7U, 9U}) EXPECT_EQ(regionFindName(*table, key), nullptr) << key;
  EXPECT_STREQ(regionFindName(*table, 8), "first");
}

}  // namespace
}  // namespace vek::platformtest
