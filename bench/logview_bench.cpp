// What `veksys log` reads per second, run as a person runs it: a log far larger than a cache, filters over fields of
// the header that choose little, with the output thrown away. How soon a first screen is there, and whether the memory
// that the command takes grows with the log.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "instance.h"
#include "measure.h"
#include "veksys/diag/log.h"

namespace {

constexpr std::uint64_t kLargeBytes = 512U << 20;
constexpr std::uint64_t kSmallBytes = 16U << 20;
constexpr double kFilterBar = 1000;  // MB/s
constexpr double kScreenBar = 20;    // a second
constexpr double kMemoryBar = 0.9;   // of the small log to that of the large one
constexpr std::size_t kStampColumns = 31;
constexpr std::size_t kIdentifierColumns = 25;

struct View {
  const char* what;
  std::vector<std::string> arguments;  // behind "log"
};
const View kFilters[] = {
    {"--level=severe", {"--level=severe"}},
    {"--until=2000-01-01", {"--until=2000-01-01T00:00"}},
    {"--pid=1", {"--pid=1"}},
    {"--component=SQLP", {"--component=SQLP"}},
    {"--function=nowhere", {"--function=nowhere"}},
    {"--where 'level=1 or pid=1'", {"--where", "level=1 or pid=1"}},
};
const View kScreens[] = {
    {"--limit=40", {"--limit=40"}},
    {"--tail=40", {"--tail=40"}},
};

// ---- a log ------------------------------------------------------------------------------------------------------

// Records as the library writes them, with the empty lines in front.
std::string someRecords(const std::string& directory) {
  ::setenv("VEK_INSTANCE_DIR", directory.c_str(), 1);
  for (std::uint64_t number = 0; number < 100; ++number)
    pdLog(PD_LOG_RC_ZRC, ecfFunctionId(0x04, 7), SQLO_FNEX, 20, PD_LEVEL_ERROR, 1, PD_TYPE_UINT, 8U, &number);
  const std::string path = directory + "/diag/vekdiag.log";
  std::error_code error;
  std::string records(std::filesystem::file_size(path, error), '\0');
  std::ifstream(path, std::ios::binary).read(records.data(), static_cast<std::streamsize>(records.size()));
  return records;
}

// Where each record begins, behind its empty line.
std::vector<std::size_t> placesOf(const std::string& records) {
  std::vector<std::size_t> places;
  std::size_t at = 2;
  while (at < records.size()) {
    places.push_back(at);
    unsigned long long offset = 0;
    unsigned length = 0;
    if (std::sscanf(records.c_str() + at + kStampColumns, "I%lluH%u", &offset, &length) != 2) return {};
    at += length + 2;
  }
  return places;
}

// The same records again and again, each with an identifier that tells its place.
bool makeLog(const std::string& path, std::string records, std::uint64_t bytes) {
  const std::vector<std::size_t> places = placesOf(records);
  std::ofstream out(path, std::ios::binary);
  std::uint64_t written = 0;
  for (; written < bytes && !places.empty(); written += records.size()) {
    for (std::size_t i = 0; i < places.size(); ++i) {
      const std::size_t end = i + 1 < places.size() ? places[i + 1] - 2 : records.size();
      char identifier[kIdentifierColumns + 1];
      const unsigned long long offset = written + places[i];
      const int length = std::snprintf(identifier, sizeof identifier, "I%lluH%zu", offset, end - places[i]);
      std::memset(records.data() + places[i] + kStampColumns, ' ', kIdentifierColumns);
      std::memcpy(records.data() + places[i] + kStampColumns, identifier, static_cast<std::size_t>(length));
    }
    out.write(records.data(), static_cast<std::streamsize>(records.size()));
  }
  return written >= bytes && out.flush().good();
}

// ---- running the command ----------------------------------------------------------------------------------------

struct Run {
  double nanoseconds;
  double peakMegabytes;
};

// Ends this program when the command does not end as it should: 0, or 1 where nothing is chosen.
Run runView(const View& view, const std::string& file) {
  static const std::string command =
      (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "veksys").string();
  int status = -1;
  rusage usage = {};
  const double ns = bench::nanosecondsOf([&] {
    const pid_t child = ::fork();
    if (child == 0) {
      ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
      ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
      std::vector<char*> argv = {const_cast<char*>(command.c_str()), const_cast<char*>("log")};
      for (const std::string& each : view.arguments) argv.push_back(const_cast<char*>(each.c_str()));
      argv.push_back(const_cast<char*>(file.c_str()));
      argv.push_back(nullptr);
      ::execv(command.c_str(), argv.data());
      ::_exit(127);
    }
    ::wait4(child, &status, 0, &usage);
  });
  if (!WIFEXITED(status) || WEXITSTATUS(status) > 1) {
    std::fprintf(stderr, "%s log %s failed\n", command.c_str(), view.what);
    std::exit(2);
  }
  return {ns, static_cast<double>(usage.ru_maxrss) / 1024};
}

template <std::size_t Count>
std::vector<bench::Samples> rates(const View (&views)[Count], const std::string& file, double units, unsigned runs) {
  std::vector<bench::Samples> samples(Count);
  for (unsigned run = 0; run < runs; ++run)
    for (std::size_t i = 0; i < Count; ++i) samples[i].push_back(units * 1e9 / runView(views[i], file).nanoseconds);
  return samples;
}

void report(bench::Table& table, const std::string& small, const std::string& large, unsigned runs) {
  const double megabytes = static_cast<double>(std::filesystem::file_size(large)) / 1e6;
  table.title("veksys log, bytes of the log read");
  const auto filtered = rates(kFilters, large, megabytes, runs);
  for (std::size_t i = 0; i < std::size(kFilters); ++i)
    table.row({.what = kFilters[i].what, .unit = "MB/s", .ours = filtered[i], .bar = kFilterBar});
  table.title("veksys log, first screens of a log of 512 MB");
  const auto screens = rates(kScreens, large, 1, runs);
  for (std::size_t i = 0; i < std::size(kScreens); ++i)
    table.row({.what = kScreens[i].what, .unit = "/s", .ours = screens[i], .bar = kScreenBar});
  bench::Samples ofSmall;
  bench::Samples ofLarge;
  for (unsigned run = 0; run < runs; ++run) {
    ofSmall.push_back(runView(kFilters[0], small).peakMegabytes);
    ofLarge.push_back(runView(kFilters[0], large).peakMegabytes);
  }
  table.title("veksys log, memory at its peak");
  table.row({.what = "a log of 16 MB; of 512 MB",
             .unit = "MB",
             .ours = ofSmall,
             .peer = ofLarge,
             .ratio = bench::ratios(ofSmall, ofLarge),
             .bar = kMemoryBar});
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = count < 2 ? bench::kRunsLeast : bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  char pattern[] = "/tmp/veksys_logview_bench.XXXXXX";
  const std::string directory = ::mkdtemp(pattern);
  int result = 2;
  {
    const bench::Instance instance;
    const std::string records = someRecords(directory);
    const std::string small = directory + "/small.log";
    const std::string large = directory + "/large.log";
    if (makeLog(small, records, kSmallBytes) && makeLog(large, records, kLargeBytes)) {
      bench::Table table;
      report(table, small, large, runs);
      result = table.passed() ? 0 : 1;
    } else {
      std::fprintf(stderr, "no log of 512 MB can be made in /tmp\n");
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(directory, ignored);
  return result;
}
