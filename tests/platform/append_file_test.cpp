#include "platform/append_file.h"

#include <sys/stat.h>

#include <set>

#include "support.h"

namespace vek::platformtest {
namespace {

// A record as these tests write it: "<offset> <length> <key> xxxx\r\n", with the offset stamped in.
void stampOffset(char* bytes, std::uint64_t offset, std::size_t) {
  std::snprintf(bytes, 13, "%012llu", static_cast<unsigned long long>(offset));
  bytes[12] = ' ';
}

std::string recordText(const std::string& key, std::size_t filler) {
  std::string text = "000000000000 ";
  const std::size_t length = text.size() + 7 + key.size() + 1 + filler + 2;
  char number[16];
  std::snprintf(number, sizeof number, "%06zu ", length);
  return text + number + key + ' ' + std::string(filler, 'x') + "\r\n";
}

AppendText newFileText() {
  static std::string text = recordText("new", 10);
  return {text.data(), text.size(), stampOffset};
}

// Files in a directory of their own.
class Log {
 public:
  Log() { ::mkdir(directory().c_str(), 0700); }

  std::string directory() const { return instance_.directory() + "/log/"; }
  std::string path() const { return directory() + "test.log"; }
  std::string lockPath() const { return directory() + ".test.log.lck"; }

 private:
  Instance instance_;
};

// One process's view of a log.
class Writer {
 public:
  explicit Writer(const Log& log, bool isSeries = false, std::uint64_t fileBytes = 0, std::uint64_t filesKept = 0)
      : fileBytes_(fileBytes), filesKept_(filesKept) {
    appendPrepare(file_, log.directory().c_str(), isSeries ? "test" : "test.log", isSeries);
  }
  ~Writer() { appendForget(file_); }

  int write(const std::string& key, std::size_t filler = 100) {
    std::string text = recordText(key, filler);
    return appendToFile(file_, {{text.data(), text.size(), stampOffset}, newFileText, fileBytes_, filesKept_},
                        &outcome);
  }

  AppendOutcome outcome;

 private:
  AppendFile file_;
  std::uint64_t fileBytes_;
  std::uint64_t filesKept_;
};

using Keys = std::multiset<std::string>;

// The keys of a file's records; every offset and length must be that of the bytes, and nothing may be left over.
Keys keysOf(const std::string& text) {
  Keys keys;
  for (std::size_t at = 0; at < text.size();) {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    char key[64] = {};
    if (std::sscanf(text.substr(at, 90).c_str(), "%12ju %6ju %63s", &offset, &length, key) != 3 || offset != at ||
        length > text.size() - at || text.compare(at + length - 2, 2, "\r\n") != 0) {
      ADD_FAILURE() << "no record at " << at << " of " << text.size() << ": " << text.substr(at, 60);
      return keys;
    }
    keys.insert(key);
    at += length;
  }
  return keys;
}

Keys keysOf(const Log& log) { return keysOf(contentOf(log.path())); }

// Those of all files of a log.
Keys allKeysOf(const Log& log) {
  Keys keys;
  for (const auto& entry : std::filesystem::directory_iterator(log.directory()))
    if (entry.path().extension() == ".log") keys.merge(keysOf(contentOf(entry.path())));
  return keys;
}

// ---- one writer -------------------------------------------------------------------------------------------------

TEST(AppendFile, BeginsEachNewFileAndStampsOffsets) {
  const Log log;
  Writer writer(log);
  EXPECT_EQ(writer.write("a"), 0);
  EXPECT_EQ(writer.write("b"), 0);
  EXPECT_EQ(::truncate(log.path().c_str(), 0), 0);  // cut by hand
  EXPECT_EQ(writer.write("c"), 0);
  EXPECT_EQ(keysOf(log), (Keys{"c", "new"}));
  EXPECT_EQ(::rename(log.path().c_str(), (log.directory() + "moved").c_str()), 0);
  EXPECT_EQ(writer.write("d"), 0);
  EXPECT_EQ(keysOf(log), (Keys{"d", "new"}));
  struct stat status = {};
  ASSERT_EQ(::stat(log.path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

TEST(AppendFile, FollowsADirectoryThatIsExchanged) {
  const Log log;
  Writer one(log);
  Writer two(log);
  EXPECT_EQ(one.write("before"), 0);
  EXPECT_EQ(two.write("before"), 0);
  const std::string old = log.directory().substr(0, log.directory().size() - 1) + ".old";
  ASSERT_EQ(::rename(log.directory().c_str(), old.c_str()), 0);
  EXPECT_EQ(one.write("gone"), ENOENT);
  EXPECT_STREQ(one.outcome.failed, "open");
  ASSERT_EQ(::mkdir(log.directory().c_str(), 0700), 0);
  for (Writer* writer : {&one, &two, &one}) EXPECT_EQ(writer->write("after"), 0);
  std::filesystem::remove_all(log.directory());  // its inode numbers are soon used again
  ASSERT_EQ(::mkdir(log.directory().c_str(), 0700), 0);
  for (Writer* writer : {&two, &one, &two}) EXPECT_EQ(writer->write("last"), 0);
  EXPECT_EQ(keysOf(log), (Keys{"new", "last", "last", "last"}));
  EXPECT_TRUE(std::filesystem::exists(log.lockPath()));
}

void placeOpenFile(const std::string& path) {
  std::ofstream(path) << "x\r\n";
  ::chmod(path.c_str(), 0666);
}

TEST(AppendFile, RefusesWhatOthersMayHavePlaced) {
  const std::tuple<const char*, void (*)(const Log& log), int> cases[] = {
      {"a symbolic link", [](const Log& log) { (void)!::symlink("/dev/null", log.path().c_str()); }, ELOOP},
      {"a pipe", [](const Log& log) { ::mkfifo(log.path().c_str(), 0600); }, ENXIO},
      {"a directory", [](const Log& log) { ::mkdir(log.path().c_str(), 0700); }, EISDIR},
      {"a file open to others", [](const Log& log) { placeOpenFile(log.path()); }, EPERM},
      {"a link as lock file", [](const Log& log) { (void)!::symlink("/dev/null", log.lockPath().c_str()); }, ELOOP},
      {"a lock file open to others", [](const Log& log) { placeOpenFile(log.lockPath()); }, EPERM},
  };
  for (const auto& [what, place, error] : cases) {
    const Log log;
    place(log);
    Writer writer(log);
    EXPECT_EQ(writer.write("a"), error) << what;
    EXPECT_NE(writer.outcome.failed, nullptr) << what;
  }
}

// A file in use is looked at again before long: not every record pays for it.
TEST(AppendFile, RefusesAFileThatWasOpenedToOthersMeanwhile) {
  const Log log;
  Writer writer(log);
  EXPECT_EQ(writer.write("a"), 0);
  ::chmod(log.path().c_str(), 0666);
  int records = 1;
  while (records < 16 && writer.write("b") == 0) ++records;
  EXPECT_EQ(writer.write("c"), EPERM);
  ::chmod(log.path().c_str(), 0600);
  EXPECT_EQ(writer.write("d"), 0);
}

void stopInTheNextRecord() {
  static off_t (*realSeek)(int, off_t, int) = ossCalls().lseek;
  ossCalls().lseek = [](int fd, off_t offset, int whence) {
    ossCalls().lseek = realSeek;
    ::raise(SIGSTOP);
    return realSeek(fd, offset, whence);
  };
}

// A lock file of any content is laid out anew: one that nobody uses, and one that is damaged while others keep it in
// use, be it by never logging again or by standing still in the middle of a record. They find out.
TEST(AppendFile, TakesOverDamagedLockFiles) {
  enum class Keeper { kNone, kIdle, kInARecord };
  for (const std::size_t bytes : {0U, 1U, 100U, 4096U, 9000U})
    for (const Keeper who : {Keeper::kNone, Keeper::kIdle, Keeper::kInARecord}) {
      SCOPED_TRACE(::testing::Message() << bytes << " bytes, keeper " << static_cast<int>(who));
      const Log log;
      const pid_t keeper = start([&] {
        Writer writer(log);
        EXPECT_EQ(writer.write("keeper.1"), 0);
        if (who == Keeper::kNone) return;
        if (who == Keeper::kInARecord)
          stopInTheNextRecord();
        else
          ::raise(SIGSTOP);
        EXPECT_EQ(writer.write("keeper.2"), 0);
        endAtOnce();
      });
      ASSERT_EQ(waitUntilStopped(keeper), who != Keeper::kNone);
      EXPECT_EQ(::truncate(log.lockPath().c_str(), static_cast<off_t>(bytes)), 0);
      std::ofstream(log.lockPath(), std::ios::in) << std::string(bytes, '\x5A');
      Writer one(log);
      Writer two(log);
      EXPECT_EQ(one.write("one"), 0);
      EXPECT_EQ(two.write("two"), 0);
      Keys keys = {"keeper.1", "new", "one", "one", "two"};
      if (who != Keeper::kNone) {
        ::kill(keeper, SIGCONT);
        EXPECT_EQ(finish(keeper), 0);
        keys.insert("keeper.2");
      }
      EXPECT_EQ(one.write("one"), 0);
      EXPECT_EQ(keysOf(log), keys);
    }
}

// ---- failing services -------------------------------------------------------------------------------------------

// Whatever service fails once: the answer tells, the file holds what was answered 0, and the next record gets through.
TEST(AppendFile, AnyServiceMayFail) {
  for (int call = 0; call < 40; ++call)
    for (const int error : {EIO, ENOSPC})
      inProcess([call, error] {
        const Log log;
        Writer writer(log);
        makeFail<&OssCalls::open, &OssCalls::fstat, &OssCalls::lseek, &OssCalls::stat, &OssCalls::ftruncate,
                 &OssCalls::pwrite, &OssCalls::write, &OssCalls::mmap, &OssCalls::flock>(call, error);
        const int first = writer.write("first");
        Failure::callsLeft = -1;
        EXPECT_EQ(writer.write("second"), 0) << call;
        const auto keys = keysOf(log);
        EXPECT_EQ(keys.count("first"), first == 0 ? 1U : 0U) << "call " << call << ", error " << error;
        EXPECT_EQ(keys.count("second"), 1U);
        EXPECT_EQ(keys.count("new"), 1U);
      });
}

// A disk that takes half a record: it is cut off again, also where the truncation must be left to the next writer.
TEST(AppendFile, HalfARecordIsCutOffOrMarked) {
  for (const bool mayTruncate : {true, false})
    inProcess([mayTruncate] {
      const Log log;
      Writer writer(log);
      EXPECT_EQ(writer.write("whole"), 0);
      static const OssCalls real = ossCalls();
      static int turns = 0;
      ossCalls().write = [](int fd, const void* bytes, std::size_t count) -> ssize_t {
        if (turns++ == 0) return real.write(fd, bytes, count / 2);
        return errno = ENOSPC, -1;
      };
      if (!mayTruncate) ossCalls().ftruncate = [](int, off_t) { return errno = EPERM, -1; };
      EXPECT_EQ(writer.write("half"), ENOSPC);
      ossCalls().write = real.write;
      EXPECT_EQ(writer.write("next"), 0);
      EXPECT_EQ(writer.outcome.repaired, !mayTruncate);
      const std::string text = contentOf(log.path());
      EXPECT_NE(holds(text, "The record above is incomplete"), mayTruncate);
      EXPECT_TRUE(!mayTruncate || keysOf(text).size() == 3);
      ossCalls().ftruncate = real.ftruncate;
      EXPECT_EQ(writer.write("last"), 0);
      EXPECT_FALSE(writer.outcome.repaired);
    });
}

// Without a lock file (no room for one) writers exclude each other by the file, until there is one.
TEST(AppendFile, WorksWithoutALockFile) {
  const Log log;
  inProcess([&] {
    static ssize_t (*realWrite)(int, const void*, std::size_t, off_t) = ossCalls().pwrite;
    ossCalls().pwrite = [](int, const void*, std::size_t, off_t) -> ssize_t { return errno = ENOSPC, -1; };
    Writer writer(log);
    EXPECT_EQ(writer.write("a"), 0);
    EXPECT_EQ(writer.write("b"), 0);
    EXPECT_FALSE(std::filesystem::exists(log.lockPath()));
    std::ofstream(log.path(), std::ios::app) << "half a rec";
    EXPECT_EQ(writer.write("c"), 0);
    ossCalls().pwrite = realWrite;
    EXPECT_EQ(writer.write("d"), 0);
    EXPECT_TRUE(std::filesystem::exists(log.lockPath()));
  });
  EXPECT_NE(contentOf(log.path()).find("half a rec\r\nThe record above is incomplete"), std::string::npos);
}

TEST(AppendFile, WaitsABoundedTimeForAStoppedWriter) {
  const Log log;
  const pid_t holder = start([&] {
    static ssize_t (*realWrite)(int, const void*, std::size_t) = ossCalls().write;
    ossCalls().write = [](int fd, const void* bytes, std::size_t count) {
      ::raise(SIGSTOP);
      return realWrite(fd, bytes, count);
    };
    Writer writer(log);
    EXPECT_EQ(writer.write("stopped"), 0);
  });
  ASSERT_TRUE(waitUntilStopped(holder));
  Writer writer(log);
  EXPECT_EQ(writer.write("late"), ETIMEDOUT);
  EXPECT_EQ(writer.write("late"), ETIMEDOUT);  // soon: nobody waits in full for a writer known to be stopped
  ::kill(holder, SIGCONT);
  ASSERT_TRUE(waitUntilStopped(holder));  // its second text
  finishKilled(holder);
  EXPECT_EQ(writer.write("after"), 0);
  EXPECT_EQ(keysOf(log).count("after"), 1U);
}

// ---- killed writers ---------------------------------------------------------------------------------------------

// Kills this process at the n-th call of a service, before it, in the middle of a write, or behind it.
enum When { kBefore, kHalfWay, kBehind };

void armKiller(int call, int atWhen) {
  static const auto realWrite = ossCalls().write;
  static int when;
  when = atWhen;
  makeFail<&OssCalls::open, &OssCalls::fstat, &OssCalls::lseek, &OssCalls::close>(call, kKilled);
  ossCalls().write = [](int fd, const void* bytes, std::size_t count) {
    const bool isDue = Failure::callsLeft-- == 0;
    const ssize_t written =
        isDue && when == kBefore ? 0 : realWrite(fd, bytes, isDue && when == kHalfWay ? count / 2 : count);
    if (isDue) ::raise(SIGKILL);
    return written;
  };
}

TEST(AppendFile, AKillBetweenAnyTwoStepsLeavesWholeRecords) {
  for (const bool isSeries : {false, true})
    for (const int when : {kBefore, kHalfWay, kBehind}) {
      int killed = 0;
      for (int call = 0; call < 40; ++call) {
        const Log log;
        const int end = runInProcess([&] {
          armKiller(call, when);
          Writer writer(log, isSeries, 300, 100);
          for (int i = 0; i < 4; ++i) EXPECT_EQ(writer.write("victim." + std::to_string(i)), 0);
        });
        killed += end == -SIGKILL ? 1 : 0;
        Writer writer(log, isSeries, 300, 100);
        EXPECT_EQ(writer.write("after"), 0) << "call " << call << ", when " << when;
        const Keys keys = allKeysOf(log);
        EXPECT_EQ(keys.count("after"), 1U);
        for (int i = 0; i < 4; ++i) EXPECT_LE(keys.count("victim." + std::to_string(i)), 1U);
      }
      EXPECT_GT(killed, 15);
    }
}

// What a killed writer left is found, too, when the file was replaced by a copy before its record, and when the lock
// file that knew of it is of no use any more.
TEST(AppendFile, HalfARecordIsFoundWhateverBecomesOfItsFiles) {
  for (const bool isReplaced : {true, false}) {
    const Log log;
    const int end = runInProcess([&] {
      Writer writer(log);
      EXPECT_EQ(writer.write("whole"), 0);
      if (isReplaced) {
        std::filesystem::copy_file(log.path(), log.directory() + "copy");
        std::filesystem::rename(log.directory() + "copy", log.path());
      }
      armKiller(2, kHalfWay);
      writer.write("half");
    });
    EXPECT_EQ(end, -SIGKILL);
    EXPECT_EQ(contentOf(log.path()).back(), 'x');
    if (!isReplaced) std::ofstream(log.lockPath(), std::ios::in) << std::string(100, '\x5A');
    Writer writer(log);
    EXPECT_EQ(writer.write("after"), 0);
    EXPECT_TRUE(writer.outcome.repaired);
    const std::string text = contentOf(log.path());
    EXPECT_EQ(text.find("\r\nThe record above is incomplete") == std::string::npos, isReplaced);
    EXPECT_TRUE(!isReplaced || keysOf(text) == (Keys{"after", "new", "whole"}));
  }
}

// ---- series -----------------------------------------------------------------------------------------------------

TEST(AppendSeries, KeepsTheNewestFilesAndGoesOnWithTheirNumbers) {
  const Log log;
  for (int life = 0; life < 2; ++life) {
    Writer writer(log, true, 400, 3);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(writer.write(std::to_string(life) + "." + std::to_string(i)), 0);
    std::filesystem::remove(log.directory() + ".test.rotate.lck");  // as after a boot: the numbers are looked up
  }
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(log.directory())) {
    names.insert(entry.path().filename());
    EXPECT_TRUE(entry.file_size() <= 400 || entry.path().extension() != ".log") << entry.path();
  }
  EXPECT_EQ(names.count(".rotate.lck"), 1U);
  EXPECT_EQ(names.size(), 4U);  // three files and the lock of the directory
  EXPECT_GE(allKeysOf(log).size(), 7U);
  Writer writer(log, true, 400, 3);
  EXPECT_EQ(writer.write("large", 5000), 0) << "a record larger than a file has one of its own";
  EXPECT_TRUE(writer.outcome.switchedFile);
}

}  // namespace
}  // namespace vek::platformtest
