// What the views of the command read per second: a dump far larger than a cache, each view run as a person runs it,
// with its output thrown away. The rate counts bytes of the trace, not of the text made of it.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "instance.h"
#include "measure.h"
#include "veksys/codes.h"
#include "veksys/diag/trace_reader.h"
#include "veksys/diag/trace_scope.h"

namespace {

constexpr std::uint64_t kRingBytes = 128U << 20;
constexpr std::uint64_t kRequests = 1'000'000;  // a little more than the ring holds
constexpr double kBar = 200;                    // MB/s

struct View {
  const char* what;
  std::vector<std::string> arguments;  // behind the name of the command, before the file
};
const View kViews[] = {
    {"format", {"trace", "format"}},
    {"format --json", {"--json", "trace", "format"}},
    {"flow", {"trace", "flow"}},
    {"flow --json", {"--json", "trace", "flow"}},
    {"flow --merged --json", {"--json", "trace", "flow", "--merged"}},
    {"stat", {"trace", "stat"}},
    {"stat --json", {"--json", "trace", "stat"}},
    {"export --chrome -", {"trace", "export", "--chrome", "-"}},
};

// ---- a traced engine --------------------------------------------------------------------------------------------

[[gnu::noinline]] SqlzZrc readPage(std::uint64_t page) {
  SqltTraceScope<ecfFunctionId(0x02, 901)> trace;
  trace.data(10, page, std::string_view("TABLESPACE_ORDERS"));
  if (page % 64 != 0) return trace.exit(0);
  trace.error(20, SQLO_NOMEM, page);
  return trace.exit(SQLO_NOMEM);
}

[[gnu::noinline]] SqlzZrc serve(std::uint64_t request) {
  SqltTraceScope<ecfFunctionId(0x05, 900)> trace;
  trace.data(10, request, std::string_view("select price from orders where customer = ?"));
  return trace.exit(readPage(request));
}

// Whether the ring went round: its beginning is overwritten, so every byte of the dump is read by the views.
bool isFull(SqltTraceReader& reader) {
  SqltTraceRecord record;
  return reader.next(&record) && record.kind == SqltRecordKind::kGap;
}

// Fills the trace of an instance and writes it to the file. False: there is no shared memory for it.
bool makeDump(const std::string& file) {
  const bench::Instance instance(kRingBytes);
  if (!instance.created()) return false;
  const SqltTraceSettings everything = {};
  if (sqltSetTraceFlags(&everything) != 0) return false;
  for (std::uint64_t request = 1; request <= kRequests; ++request) serve(request);
  SqltTraceReader reader;
  return sqlt_dump_trace(file.c_str()) == 0 && reader.openFile(file.c_str()) == 0 && isFull(reader);
}

// ---- running the command ----------------------------------------------------------------------------------------

std::string commandBesideThis() {
  return (std::filesystem::read_symlink("/proc/self/exe").parent_path() / "veksys").string();
}

// The command's exit status; its output is thrown away.
int runView(const std::string& command, const View& view, const std::string& file) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
    ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
    std::vector<char*> argv = {const_cast<char*>(command.c_str())};
    for (const std::string& each : view.arguments) argv.push_back(const_cast<char*>(each.c_str()));
    argv.push_back(const_cast<char*>(file.c_str()));
    argv.push_back(nullptr);
    ::execv(command.c_str(), argv.data());
    ::_exit(127);
  }
  int status = -1;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Megabytes per second of every view, by turns. Empty: a view did not end well, which has been said.
std::vector<bench::Samples> measure(const std::string& file, unsigned runs) {
  const std::string command = commandBesideThis();
  const double megabytes = static_cast<double>(std::filesystem::file_size(file)) / 1e6;
  std::vector<bench::Samples> samples(std::size(kViews));
  for (unsigned run = 0; run < runs; ++run)
    for (std::size_t i = 0; i < std::size(kViews); ++i) {
      int status = -1;
      const double ns = bench::nanosecondsOf([&] { status = runView(command, kViews[i], file); });
      if (status != 0) {
        std::fprintf(stderr, "%s %s ended with %d\n", command.c_str(), kViews[i].what, status);
        return {};
      }
      samples[i].push_back(megabytes * 1e9 / ns);
    }
  return samples;
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = count < 2 ? bench::kRunsLeast : bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  const std::string file =
      (std::filesystem::temp_directory_path() / ("command_bench." + std::to_string(::getpid()))).string();
  std::vector<bench::Samples> samples;
  if (makeDump(file))
    samples = measure(file, runs);
  else
    std::fprintf(stderr, "no full trace of 128 MB can be made: shared memory is missing or full\n");
  std::error_code ignored;
  std::filesystem::remove(file, ignored);
  if (samples.empty()) return 2;
  bench::Table table;
  table.title("Views of the command, bytes of the trace read");
  for (std::size_t i = 0; i < samples.size(); ++i)
    table.row({.what = kViews[i].what, .unit = "MB/s", .ours = samples[i], .bar = kBar});
  return table.passed() ? 0 : 1;
}
