// The log under fire: every record in it is whole, its identifier is that of its bytes, and what was answered 0 is
// there exactly once.
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "pdlog_support.h"

namespace vek::logtest {
namespace {

using platformtest::inProcess;
using platformtest::runInProcess;
using platformtest::start;

constexpr int kProcesses = 3;
constexpr int kThreads = 3;
constexpr int kRounds = 6;
constexpr int kMostEach = 400;  // all of them together stay in the files that rotation keeps (20 MB)

struct Answers {
  std::atomic<int> written[kRounds][kProcesses][kThreads];
};

std::string keyOf(int round, int process, int thread, int number) {
  return "<" + std::to_string(round) + "." + std::to_string(process) + "." + std::to_string(thread) + "." +
         std::to_string(number) + ">";
}

// Logs until it is killed, from several threads, and notes what was answered 0.
void logUntilKilled(int round, int process, Answers* answers) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread)
    threads.emplace_back([=] {
      for (int number = 0; number < kMostEach; ++number) {
        const std::string text =
            keyOf(round, process, thread, number) + std::string(number % 40 == 0 ? 9000U : 60U, 'x');
        if (logText(text) != 0) ::_exit(9);
        answers->written[round][process][thread].store(number + 1);
      }
      ::pause();
    });
  for (std::thread& thread : threads) thread.join();
}

std::vector<std::string> allRecords(const Log& log) {
  std::vector<std::string> all;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(log.directory()))
    if (entry.path().extension() == ".log")
      for (std::string& record : recordsOf(readFile(entry.path()))) all.push_back(std::move(record));
  return all;
}

void killAtRandom(std::uint32_t diagSize) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const Log log;
  platformtest::Shared<Answers> answers;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<pid_t> writers;
    for (int process = 0; process < kProcesses; ++process)
      writers.push_back(start([&, process] {
        installHost().DIAGSIZE = diagSize;
        logUntilKilled(round, process, &*answers);
      }));
    const int until = static_cast<int>(random() % 200);
    while (answers->written[round][0][0].load() < until) std::this_thread::yield();
    for (const pid_t writer : writers) EXPECT_EQ(platformtest::finishKilled(writer), -SIGKILL);
  }
  inProcess([&] {
    installHost().DIAGSIZE = diagSize;
    EXPECT_EQ(logText("the last"), 0);
  });
  std::map<std::string, int> found;
  for (const std::string& record : allRecords(log))
    if (const std::size_t at = record.find('<'); at != std::string::npos)
      ++found[record.substr(at, record.find('>', at) + 1 - at)];
  for (int round = 0; round < kRounds; ++round)
    for (int process = 0; process < kProcesses; ++process)
      for (int thread = 0; thread < kThreads; ++thread) {
        const int written = answers->written[round][process][thread].load();
        for (int number = 0; number <= written; ++number) {
          const int count = found[keyOf(round, process, thread, number)];
          EXPECT_TRUE(count == 1 || (count == 0 && number == written)) << keyOf(round, process, thread, number);
        }
      }
}

TEST(PdLogSurvival, WritersKilledAtRandomCostOnlyTheirOwnRecord) { killAtRandom(0); }
TEST(PdLogSurvival, AlsoAcrossRotation) { killAtRandom(20); }

TEST(PdLogSurvival, AForkWhileAnotherThreadLogs) {
  inProcess([] {
    const Log log;
    std::atomic<bool> stop{false};
    std::atomic<int> written{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i)
      threads.emplace_back([&] {
        while (!stop.load()) written += logText("of a thread") == 0 ? 1 : 0;
      });
    for (int i = 0; i < 40; ++i)
      EXPECT_EQ(runInProcess([] {
                  EXPECT_EQ(logText("of a child"), 0);
                  platformtest::endAtOnce();
                }),
                0);
    stop = true;
    for (std::thread& thread : threads) thread.join();
    const auto records = log.records();
    EXPECT_EQ(countOf(records, "of a child"), 40U);
    EXPECT_EQ(countOf(records, "of a thread"), static_cast<std::size_t>(written.load()));
  });
}

// ---- places that cannot be written ------------------------------------------------------------------------------

int g_diskError = 0;
ssize_t (*g_realWrite)(int, const void*, std::size_t) = nullptr;
int (*g_realOpen)(const char*, int, mode_t) = nullptr;

// Writes to files take half of what they are given and then fail, as on a disk that fills up.
ssize_t writeToFullDisk(int fd, const void* bytes, std::size_t count) {
  if (g_diskError == 0 || fd <= 2) return g_realWrite(fd, bytes, count);
  if (count > 200) return g_realWrite(fd, bytes, count / 2);
  errno = g_diskError;
  return -1;
}

int openFailing(const char* path, int flags, mode_t mode) {
  if (g_diskError == 0 || std::string(path).find("/instance/diag") == std::string::npos)
    return g_realOpen(path, flags, mode);
  errno = g_diskError;
  return -1;
}

void catchStandardError(const Log& log) {
  const int fd = ::open((log.instance.directory() + "/stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  ::dup2(fd, 2);
}

// A full disk and its refill; permission taken and given back; a read-only file system.
TEST(PdLogSurvival, LossesAreCountedAndTold) {
  const struct {
    const char* what;
    int error;
    bool atOpen;
  } cases[] = {{"a full disk", ENOSPC, false}, {"permission denied", EACCES, true}, {"read-only", EROFS, true}};
  for (const auto& each : cases)
    inProcess([&each] {
      const Log log;
      catchStandardError(log);
      g_realWrite = ossCalls().write;
      g_realOpen = ossCalls().open;
      if (each.atOpen) ossCalls().open = openFailing;
      if (!each.atOpen) ossCalls().write = writeToFullDisk;
      EXPECT_EQ(logText("first"), 0);
      g_diskError = each.error;
      for (int i = 0; i < 3; ++i) EXPECT_EQ(logText("lost"), SQLT_DIAGERR_LOGERR) << each.what;
      g_diskError = 0;
      EXPECT_EQ(logText("resumed"), 0) << each.what;
      EXPECT_EQ(logText("second"), 0);
      const auto records = log.records();
      EXPECT_EQ(countOf(records, "\r\nlost\r\n"), 0U) << each.what;
      EXPECT_EQ(countOf(records, "Before this record"), 1U);
      for (const std::string& record : records)
        EXPECT_EQ(holds(record, "Before this record 3 records were lost, the first at "), holds(record, "resumed"));
      char line[512];
      std::snprintf(line, sizeof line, "Open of log file \"%s\" failed with rc 0x%X\n", log.path().c_str(),
                    static_cast<unsigned>(sqloMapUnexpectedFileSystemErrorToZRC(each.error)));
      EXPECT_EQ(readFile(log.instance.directory() + "/stderr"), line) << "once for one reason";
    });
}

// The real thing: a small file system, where one may be mounted.
TEST(PdLogSurvival, AFullFileSystemAndItsRefill) {
  const int end = runInProcess([] {
    const Log log;
    std::filesystem::create_directories(log.directory());
    if (::mount("none", log.directory().c_str(), "tmpfs", 0, "size=128k,mode=0700") != 0) ::_exit(platformtest::kSkip);
    catchStandardError(log);
    int written = 0;
    const std::string text(2000, 'x');
    while (logText("fills " + text) == 0) ++written;
    EXPECT_GT(written, 10);
    EXPECT_EQ(recordsOf(readFile(log.path())).size(), static_cast<std::size_t>(written) + 1);
    EXPECT_EQ(::mount("none", log.directory().c_str(), "tmpfs", MS_REMOUNT, "size=1m,mode=0700"), 0);
    EXPECT_EQ(logText("refilled"), 0);
    EXPECT_EQ(countOf(log.records(), "Before this record 1 record was lost"), 1U);
    ::umount2(log.directory().c_str(), MNT_DETACH);
  });
  if (end == platformtest::kSkip) GTEST_SKIP() << "no file system may be mounted here";
  EXPECT_EQ(end, 0);
}

TEST(PdLogSurvival, ARemovedDirectoryIsMadeAnewAndALinkIsRefused) {
  inProcess([] {
    const Log log;
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
    EXPECT_EQ(readFile(elsewhere), "mine");
  });
}

TEST(PdLogSurvival, MovesToTheAlternateDirectoryForGood) {
  inProcess([] {
    const Log log;
    const std::string alternate = log.instance.directory() + "/alternate/";
    ossCopyText(installHost().ALT_DIAGPATH, sizeof VekInstanceControl::ALT_DIAGPATH, alternate.c_str());
    EXPECT_EQ(logText("first"), 0);
    g_realOpen = ossCalls().open;
    ossCalls().open = openFailing;
    g_diskError = EIO;
    EXPECT_EQ(logText("second"), 0);
    g_diskError = 0;
    EXPECT_EQ(logText("third"), 0);
    const auto records = recordsOf(readFile(alternate + "vekdiag.log"));
    EXPECT_EQ(countOf(records, "second") + countOf(records, "third"), 2U);
    EXPECT_EQ(countOf(log.records(), "first"), 1U);
  });
}

// ---- rotation ---------------------------------------------------------------------------------------------------

TEST(PdLogRotation, WithoutADirectoryForItTheLogStaysInOneFile) {
  inProcess([] {
    const Log log;
    installHost().DIAGSIZE = 1;
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
    EXPECT_EQ(recordsOf(readFile(log.directory() + "rotate/vekdiag.0.log")).size(), 2U);
  });
}

TEST(PdLogRotation, KeepsTenFilesOfATenthAndWarnsOfLittleSpace) {
  inProcess([] {
    const Log log;
    installHost().DIAGSIZE = 1;
    static int (*realStatvfs)(const char*, struct statvfs*) = ossCalls().statvfs;
    EXPECT_EQ(logText("first"), 0);
    for (int i = 0; i < 40; ++i) EXPECT_EQ(logText(std::string(40'000, 'x')), 0);
    std::size_t files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(log.directory() + "rotate")) {
      if (entry.path().extension() != ".log") continue;
      ++files;
      EXPECT_LE(entry.file_size(), (1U << 20) / 10);
      EXPECT_TRUE(holds(recordsOf(readFile(entry.path())).at(0), "START   : New Diagnostic Log file"));
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
  });
}

}  // namespace
}  // namespace vek::logtest
