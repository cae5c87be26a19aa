// What a record of the diagnostic log costs, beside the bare sequence of system calls that an appender without shared
// memory makes (open, flock, fstat, write, close), and beside two loggers that keep their file open and so know neither
// the offset of a record nor that of the next process.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "instance.h"
#include "log_peers.h"
#include "measure.h"
#include "veksys/diag/log.h"

namespace {

constexpr EcfFunctionId kFunction = ecfFunctionId(0x04, 7);
constexpr std::size_t kRecordBytes = 547;  // of ours, as it stands in the file

std::string g_directory;
std::string g_barePath;
char g_bytes[kRecordBytes];

// A record of kRecordBytes bytes (a few more with a longer offset, process number and item) with two items.
[[gnu::noinline]] void oursWritten(std::uint64_t number) {
  static constexpr char kText[] =
      "index page refused: its checksum does not match the bytes that were read from the container, which says that it "
      "was written half or changed behind the back of the server";
  bench::keep(pdLog(PD_LOG_RC_ZRC, kFunction, SQLO_FNEX, 20, PD_LEVEL_ERROR, 2, PD_TYPE_STRING,
                    static_cast<std::uint32_t>(sizeof kText - 1), kText, PD_TYPE_UINT, 8U, &number));
}

[[gnu::noinline]] void bareWritten(std::uint64_t) {
  const int fd = ::open(g_barePath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  ::flock(fd, LOCK_EX);
  struct stat status;
  ::fstat(fd, &status);
  bench::keep(status);
  bench::keep(::write(fd, g_bytes, sizeof g_bytes));
  ::close(fd);
}

[[gnu::noinline]] void spdlogWritten(std::uint64_t number) { bench::writeSpdlog(number); }
[[gnu::noinline]] void glogWritten(std::uint64_t number) { bench::writeGlog(number); }

[[gnu::noinline]] SqlzZrc emptyVariadic(std::uint64_t, EcfFunctionId, std::int64_t, std::uint32_t, std::uint32_t,
                                        std::uint64_t, ...) {
  asm volatile("");
  return 0;
}

template <auto Write>
void loop(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) Write(i);
}

void loopFiltered(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) bench::keep(pdLog(1, kFunction, 0, 20, 7, 1, PD_TYPE_UINT, 8U, &i));
}

void loopEmpty(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) bench::keep(emptyVariadic(1, kFunction, 0, 20, 7, 1, PD_TYPE_UINT, 8U, &i));
}

// ---- two processes ----------------------------------------------------------------------------------------------

constexpr std::uint64_t kTogether = 20'000;

// Records per second of `writers` processes that write kTogether records each; negative when one lost a record.
double rateOf(int writers) {
  int gate[2];
  if (::pipe(gate) != 0) return -1;
  for (int i = 0; i < writers; ++i) {
    if (::fork() != 0) continue;
    char go;
    ::close(gate[1]);
    oursWritten(0);
    (void)!::read(gate[0], &go, 1);
    std::uint64_t lost = 0;
    for (std::uint64_t number = 0; number < kTogether; ++number)
      lost += pdLog(PD_LOG_RC_ZRC, kFunction, SQLO_FNEX, 20, PD_LEVEL_ERROR, 1, PD_TYPE_UINT, 8U, &number) != 0;
    ::_exit(lost != 0);
  }
  ::usleep(50'000);  // until all of them wait at the gate: what they do before is not measured
  bool whole = true;
  const double nanoseconds = bench::nanosecondsOf([&] {
    ::close(gate[1]);
    ::close(gate[0]);
    for (int i = 0; i < writers; ++i) {
      int status = 0;
      ::wait(&status);
      whole = whole && status == 0;
    }
  });
  return whole ? writers * static_cast<double>(kTogether) * 1e9 / nanoseconds : -1;
}

void emptyFiles() {
  for (const auto& entry : std::filesystem::recursive_directory_iterator(g_directory))
    if (entry.path().extension() == ".log") std::filesystem::resize_file(entry.path(), 0);
}

void makeDirectory() {
  char pattern[] = "/tmp/veksys_log_bench.XXXXXX";
  g_directory = ::mkdtemp(pattern);
  std::filesystem::create_directory(g_directory + "/diag");
  ::chmod((g_directory + "/diag").c_str(), 0700);
  g_barePath = g_directory + "/diag/bare.log";  // beside ours: the way through the directories is a part of the cost
  std::memset(g_bytes, 'x', sizeof g_bytes);
  ::setenv("VEK_INSTANCE_DIR", g_directory.c_str(), 1);
}

void compareTogether(bench::Table& table, unsigned runs) {
  bench::Samples one;
  bench::Samples two;
  for (unsigned run = 0; run < runs / 6 + 15; ++run) {
    one.push_back(rateOf(1));
    two.push_back(rateOf(2));
    emptyFiles();
  }
  table.title("Two processes in one log");
  table.row({.what = "records of two together; of one alone",
             .unit = "/s",
             .ours = two,
             .peer = one,
             .ratio = bench::ratios(two, one),
             .bar = 0.9});
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  makeDirectory();
  const bench::Instance instance;
  bench::openLogPeers(g_directory);
  constexpr bench::Body kWritten[] = {loop<oursWritten>, loop<bareWritten>, loop<spdlogWritten>, loop<glogWritten>};
  constexpr bench::Body kFiltered[] = {loopFiltered, loopEmpty};
  const auto written = bench::measureInTurn(kWritten, runs);
  const auto filtered = bench::measureInTurn(kFiltered, runs);
  bench::Table table;
  table.title("The diagnostic log");
  table.row({.what = "a record of 500 bytes; open, flock, fstat, write, close",
             .unit = "ns",
             .ours = written[0],
             .peer = written[1],
             .ratio = bench::ratios(written[1], written[0]),
             .bar = 1 / 1.15});
  const char* const peers[] = {"the same; spdlog, its file kept open", "the same; glog, its file kept open"};
  for (std::size_t i = 0; i < 2; ++i)
    if (bench::hasLogPeer(i))
      table.row({.what = peers[i],
                 .unit = "ns",
                 .ours = written[0],
                 .peer = written[2 + i],
                 .ratio = bench::ratios(written[2 + i], written[0])});
  table.row({.what = "a record above the level; an empty variadic call",
             .unit = "ns",
             .ours = filtered[0],
             .peer = filtered[1],
             .ratio = bench::ratios(filtered[1], filtered[0]),
             .bar = 0.5});
  compareTogether(table, runs);
  std::error_code ignored;
  std::filesystem::remove_all(g_directory, ignored);
  return table.passed() ? 0 : 1;
}
