// The log under fire: every record in it is whole, its identifier is that of its bytes, and what was answered 0 is
// there exactly once.
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <map>
#include <random>

#include "pdlog_support.h"
#include "veksys/sync.h"

namespace vek::logtest {
namespace {

constexpr std::size_t kProcesses = 3;
constexpr std::size_t kThreads = 3;
constexpr std::size_t kRounds = 6;
constexpr int kMostEach = 400;  // all of them together stay in the files that rotation keeps (20 MB)

using Answers = std::array<std::atomic<int>, kRounds * kProcesses * kThreads>;  // by thread, over all rounds

std::string keyOf(std::size_t thread, int number) {
  return "<" + std::to_string(thread) + "." + std::to_string(number) + ">";
}

// Logs until it is killed, from several threads, and notes what was answered 0.
void logUntilKilled(std::size_t firstThread, Answers* answers) {
  inThreads(kThreads, [=](unsigned thread) {
    for (int number = 0; number < kMostEach; ++number) {
      const std::string filler(number % 40 == 0 ? 9000U : 60U, 'x');
      if (logText(keyOf(firstThread + thread, number) + filler) != 0) ::_exit(9);
      (*answers)[firstThread + thread].store(number + 1);
    }
    ::pause();
  });
}

std::vector<std::string> allRecords(const Log& log) {
  std::vector<std::string> all;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(log.directory()))
    if (entry.path().extension() == ".log")
      for (std::string& record : recordsOf(contentOf(entry.path()))) all.push_back(std::move(record));
  return all;
}

void killAtRandom(std::uint32_t diagSize) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const Instance instance;
  const Log log{instance};
  Shared<Answers> answers;
  for (std::size_t first = 0; first < answers->size(); first += kProcesses * kThreads) {
    std::vector<pid_t> writers;
    for (std::size_t process = 0; process < kProcesses; ++process)
      writers.push_back(start([&, process] {
        installControl().DIAGSIZE = diagSize;
        logUntilKilled(first + process * kThreads, &*answers);
      }));
    const int until = static_cast<int>(random() % 200);
    while ((*answers)[first].load() < until) std::this_thread::yield();
    for (const pid_t writer : writers) EXPECT_EQ(finishKilled(writer), -SIGKILL);
  }
  inProcess([&] {
    installControl().DIAGSIZE = diagSize;
    EXPECT_EQ(logText("the last"), 0);
  });
  std::map<std::string, int> found;
  for (const std::string& record : allRecords(log))
    if (const std::size_t at = record.find('<'); at != std::string::npos)
      ++found[record.substr(at, record.find('>', at) + 1 - at)];
  for (std::size_t thread = 0; thread < answers->size(); ++thread) {
    const int written = (*answers)[thread].load();
    for (int number = 0; number <= written; ++number) {
      const int count = found[keyOf(thread, number)];
      EXPECT_TRUE(count == 1 || (count == 0 && number == written)) << keyOf(thread, number);
    }
  }
}

TEST(PdLogSurvival, WritersKilledAtRandomCostOnlyTheirOwnRecord) { killAtRandom(0); }
TEST(PdLogSurvival, AlsoAcrossRotation) { killAtRandom(20); }

TEST_APART(PdLogSurvival, AForkWhileAnotherThreadLogs) {
  const Log log{instance};
  std::atomic<bool> stop{false};
  std::atomic<int> written{0};
  std::jthread logging([&] {
    inThreads(2, [&](unsigned) {
      while (!stop.load()) written += logText("of a thread") == 0 ? 1 : 0;
    });
  });
  for (int i = 0; i < 40; ++i)
    inProcess([] {
      EXPECT_EQ(logText("of a child"), 0);
      endAtOnce();
    });
  stop = true;
  logging.join();
  const auto records = log.records();
  EXPECT_EQ(countOf(records, "of a child"), 40U);
  EXPECT_EQ(countOf(records, "of a thread"), static_cast<std::size_t>(written.load()));
}

// A cancellation that waits for its thread takes effect behind a call, never inside one, which no unwinding may leave.
TEST(PdLogSurvival, NoCallIsACancellationPoint) {
  static char text[512];
  static void (*const calls[])() = {
      [] { (void)logText("of a cancelled thread"); },
      [] { (void)pdLogDump(1, kFunction, 0, 5, 2, "object", 4, "dump"); },
      [] { (void)sqlt_logadmin(kFunction, 1, 1, -911, 0, nullptr); },
      [] { (void)sqltGetDiagPath(text, sizeof text, false); },
      [] { (void)pdDiagpathVerify("/tmp"); },
      [] { (void)pdMkdirInternal(vekInstallationPath()); },
      [] { (void)sqlzGetSqlMessage(-911, text, sizeof text); },
      [] { (void)vekInstanceStatus(); },
      [] { (void)sqltTraceFacilityCreate(1 << 20); },
      [] {
        static SqloSpinLatch latch;
        latch.captureLatch("here", 1);
        latch.releaseLatch();
      },
  };
  for (std::size_t i = 0; i < 2 * std::size(calls); ++i) {
    SCOPED_TRACE(i);
    const Instance instance;
    ::setenv("VEK_EVENT_LOG_CONFIG", "SYSLOG", 1);
    inProcess([i] {
      EXPECT_TRUE(i < std::size(calls) || vekInstanceStatus() == 0);
      static std::atomic<bool> isBehind = false;
      pthread_t thread;
      const auto run = [](void* call) -> void* {
        ::pthread_cancel(::pthread_self());
        (*static_cast<void (*const*)()>(call))();
        isBehind = true;
        ::pthread_testcancel();
        return nullptr;
      };
      ASSERT_EQ(::pthread_create(&thread, nullptr, run, const_cast<void (**)()>(&calls[i % std::size(calls)])), 0);
      void* result = nullptr;
      ::pthread_join(thread, &result);
      EXPECT_TRUE(isBehind && result == PTHREAD_CANCELED);
    });
    ::unsetenv("VEK_EVENT_LOG_CONFIG");
  }
}

// ---- places that cannot be written ------------------------------------------------------------------------------

bool g_isDiskFull = false;
ssize_t (*g_realWrite)(int, const void*, std::size_t) = nullptr;

// Writes to files take half of what they are given and then fail, as on a disk that fills up.
ssize_t writeToFullDisk(int fd, const void* bytes, std::size_t count) {
  if (!g_isDiskFull || fd <= 2) return g_realWrite(fd, bytes, count);
  if (count > 200) return g_realWrite(fd, bytes, count / 2);
  return errno = ENOSPC, -1;
}

void catchStandardError(const Log& log) {
  ::dup2(::open(log.instance.path("stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
}

TEST_APART(PdLogSurvival, LossesAreCountedAndTold) {
  const Log log{instance};
  catchStandardError(log);
  g_realWrite = ossCalls().write;
  ossCalls().write = writeToFullDisk;
  EXPECT_EQ(logText("first"), 0);
  g_isDiskFull = true;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(logText("lost"), SQLT_DIAGERR_LOGERR);
  std::uint32_t audit = 0;
  EXPECT_EQ(pdLogFacOpen("audit", PD_LEVEL_INFO, &audit), 0);
  const auto toAudit = [audit](const char* text) {
    return pdLogPrintf(std::uint64_t{audit} << PD_LOG_FACILITY_SHIFT, kFunction, 0, 1, 2, "%s", text);
  };
  for (int i = 0; i < 2; ++i) EXPECT_EQ(toAudit("lost"), SQLT_DIAGERR_LOGERR);
  g_isDiskFull = false;
  inProcess([] { EXPECT_EQ(logText("a child has lost nothing"), 0); });
  EXPECT_EQ(logText("resumed"), 0);
  EXPECT_EQ(toAudit("goes on"), 0);
  EXPECT_TRUE(holds(contentOf(log.directory() + "audit.log"), "Before this record 2 records were lost"));
  EXPECT_EQ(logText("second"), 0);
  const auto records = log.records();
  EXPECT_EQ(countOf(records, "\r\nlost\r\n"), 0U);
  EXPECT_EQ(countOf(records, "Before this record"), 1U);
  for (const std::string& record : records)
    EXPECT_EQ(holds(record, "Before this record 3 records were lost, the first at "), holds(record, "resumed"));
  char lines[1024];
  const auto zrc = static_cast<unsigned>(sqloMapUnexpectedFileSystemErrorToZRC(ENOSPC));
  std::snprintf(lines, sizeof lines,
                "Open of log file \"%s\" failed with rc 0x%X\nOpen of log file \"%s\" failed with rc 0x%X\n",
                log.path().c_str(), zrc, (log.directory() + "audit.log").c_str(), zrc);
  EXPECT_EQ(contentOf(log.instance.path("stderr")), lines) << "once for one reason and file";
}

// The real things. Mounts are made in a name space of the process's own and go with it.
bool mayMount(const std::string& directory, const char* options) {
  std::filesystem::create_directories(directory);
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", directory.c_str(), "tmpfs", 0, options) == 0;
}

bool becomeOwner(const std::string& directory) {
  constexpr uid_t kNobody = 65'534;
  std::filesystem::create_directories(directory);
  ::chmod(directory.c_str(), 0700);
  if (::geteuid() != 0) return true;
  for (std::string path = directory; path.starts_with("/dev/shm/"); path.resize(path.rfind('/')))
    if (::chown(path.c_str(), kNobody, kNobody) != 0) return false;
  return ::setresuid(kNobody, kNobody, kNobody) == 0;
}

struct Place {
  const char* name;
  bool (*begin)(const std::string& directory);  // false: this cannot be done here
  void (*spoil)(const std::string& directory);
  void (*repair)(const std::string& directory);
};

const Place kPlaces[] = {
    {"a full file system", [](const std::string& directory) { return mayMount(directory, "size=128k,mode=0700"); },
     [](const std::string& directory) { std::ofstream(directory + "/filler") << std::string(1 << 20, 'x'); },
     [](const std::string& directory) { std::filesystem::remove(directory + "/filler"); }},
    {"a read-only file system", [](const std::string& directory) { return mayMount(directory, "size=1m,mode=0700"); },
     [](const std::string& directory) { ::mount("none", directory.c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr); },
     [](const std::string& directory) { ::mount("none", directory.c_str(), "", MS_REMOUNT, nullptr); }},
    {"a directory without permission", becomeOwner, [](const std::string& directory) { ::chmod(directory.c_str(), 0); },
     [](const std::string& directory) { ::chmod(directory.c_str(), 0700); }},
};

// A record is lost where there is no alternate directory, and told of; none where there is one.
TEST(PdLogSurvival, PlacesThatReallyCannotBeWritten) {
  std::string skipped;
  for (const Place& place : kPlaces)
    for (const bool moves : {false, true}) {
      SCOPED_TRACE(std::string(place.name) + (moves ? ", with an alternate" : ""));
      const Instance instance;
      const Log log{instance};
      const int end = runInProcess([&] {
        const std::string alternate = log.instance.directory() + "/alternate/";
        const std::string directory = log.directory().substr(0, log.directory().size() - 1);
        if (!place.begin(directory)) ::_exit(kSkip);
        catchStandardError(log);
        if (moves)
          ossCopyText(installControl().ALT_DIAGPATH, sizeof VekInstanceControl::ALT_DIAGPATH, alternate.c_str());
        inProcess([] { EXPECT_EQ(logText("first"), 0); });  // whoever keeps a lock file open keeps a mount writable
        place.spoil(directory);
        EXPECT_EQ(logText("spoilt" + std::string(6000, 'x')), moves ? 0 : SQLT_DIAGERR_LOGERR);
        place.repair(directory);
        EXPECT_EQ(logText("repaired"), 0);
        EXPECT_EQ(countOf(log.records(), "first"), 1U);
        const auto records = moves ? recordsOf(contentOf(alternate + "vekdiag.log")) : log.records();
        EXPECT_EQ(countOf(records, "spoilt"), moves ? 1U : 0U);
        EXPECT_EQ(countOf(records, "repaired"), 1U);
        EXPECT_EQ(countOf(records, "Before this record 1 record was lost"), moves ? 0U : 1U);
        endAtOnce();
      });
      if (end == kSkip) skipped = place.name;
      EXPECT_TRUE(end == 0 || end == kSkip);
    }
  if (!skipped.empty()) GTEST_SKIP() << skipped << " cannot be had here";
}

// The log moves to the alternate directory for what ails its path, and for nothing else.
TEST_APART(PdLogSurvival, TheLogStaysForWhatIsNoFaultOfItsPath) {
  const Log log{instance};
  catchStandardError(log);
  const std::string alternate = log.instance.directory() + "/alternate/";
  ossCopyText(installControl().ALT_DIAGPATH, sizeof VekInstanceControl::ALT_DIAGPATH, alternate.c_str());
  EXPECT_EQ(logText("first"), 0);
  static int (*realOpen)(const char*, int, mode_t) = ossCalls().open;
  static int error;
  for (const int each : {EMFILE, ENFILE, ENOMEM}) {
    error = each;
    ossCalls().open = [](const char*, int, mode_t) { return errno = error, -1; };
    EXPECT_EQ(logText("lost"), SQLT_DIAGERR_LOGERR);
    ossCalls().open = realOpen;
  }
  std::uint32_t facility = 0;
  EXPECT_EQ(pdLogFacOpen("audit", PD_LEVEL_INFO, &facility), 0);
  std::filesystem::create_directory(log.directory() + "audit.log");
  EXPECT_EQ(pdLogPrintf(std::uint64_t{facility} << PD_LOG_FACILITY_SHIFT, kFunction, 0, 1, 2, "audited"), 0);
  EXPECT_EQ(countOf(recordsOf(contentOf(alternate + "audit.log")), "audited"), 1U);
  const rlimit little = {65'536, 65'536};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
  const std::string object(100'000, 'o');
  EXPECT_EQ(pdLogDump(1, kFunction, 0, 5, 2, "large", 100'000, object.data()), SQLT_DIAGERR_DUMPERR);
  EXPECT_EQ(logText("last"), 0);
  EXPECT_EQ(countOf(log.records(), "last"), 1U);
  EXPECT_FALSE(std::filesystem::exists(alternate + "vekdiag.log"));
}

TEST_APART(PdLogSurvival, ARemovedDirectoryIsMadeAnewAndALinkIsRefused) {
  const Log log{instance};
  catchStandardError(log);
  EXPECT_EQ(logText("first"), 0);
  std::filesystem::remove_all(log.directory());
  EXPECT_EQ(logText("second"), 0);
  EXPECT_EQ(log.records().size(), 2U);
  const std::string elsewhere = log.instance.directory() + "/elsewhere";
  std::ofstream(elsewhere) << "mine";
  std::filesystem::remove(log.path());
  ASSERT_EQ(::symlink(elsewhere.c_str(), log.path().c_str()), 0);
  EXPECT_EQ(logText("third"), SQLT_DIAGERR_LOGERR);
  EXPECT_EQ(contentOf(elsewhere), "mine");
}

TEST_APART(PdLogRotation, WithoutADirectoryForItTheLogStaysInOneFile) {
  const Log log{instance};
  installControl().DIAGSIZE = 1;
  std::filesystem::create_directories(log.directory());
  ::chmod(log.directory().c_str(), 0700);
  std::ofstream(log.directory() + "rotate") << "a file in its place";
  EXPECT_EQ(logText("first"), 0);
  EXPECT_EQ(logText("second"), 0);
  const auto records = log.records();
  EXPECT_EQ(countOf(records, "Rotating log directory (" + log.directory() + "rotate) is not a directory."), 1U);
  EXPECT_EQ(records.size(), 4U);
  std::filesystem::remove(log.directory() + "rotate");
  EXPECT_EQ(logText("third"), 0);
  EXPECT_EQ(recordsOf(contentOf(log.directory() + "rotate/vekdiag.0.log")).size(), 2U);
}

TEST_APART(PdLogRotation, KeepsTenFilesOfATenthAndWarnsOfLittleSpace) {
  const Log log{instance};
  installControl().DIAGSIZE = 1;
  static int (*realStatvfs)(const char*, struct statvfs*) = ossCalls().statvfs;
  EXPECT_EQ(logText("first"), 0);
  for (int i = 0; i < 40; ++i) EXPECT_EQ(logText(std::string(40'000, 'x')), 0);
  std::size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(log.directory() + "rotate")) {
    if (entry.path().extension() != ".log") continue;
    ++files;
    EXPECT_LE(entry.file_size(), (1U << 20) / 10);
    EXPECT_TRUE(holds(recordsOf(contentOf(entry.path())).at(0), "START   : New Diagnostic Log file"));
  }
  EXPECT_EQ(files, 10U);
  EXPECT_TRUE(std::filesystem::exists(log.directory() + "rotate/.rotate.lck"));
  EXPECT_TRUE(std::filesystem::exists(log.directory() + "rotate/.vekdiag.rotate.lck"));
  ossCalls().statvfs = [](const char* path, struct statvfs* out) {
    const int result = realStatvfs(path, out);
    out->f_bavail = 1;
    return result;
  };
  for (int i = 0; i < 3; ++i) EXPECT_EQ(logText(std::string(40'000, 'x')), 0);
  const auto records = allRecords(log);
  EXPECT_EQ(countOf(records, "WARNING : The free disk space under " + log.directory() + "rotate\r\n"), 1U);
  EXPECT_EQ(countOf(records, "is not enough to hold one full-size rotating log."), 1U);
}

}  // namespace
}  // namespace vek::logtest
