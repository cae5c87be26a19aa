#include "report.h"

#include <sys/wait.h>
#include <unistd.h>
#include <veksys/diag/rc.h>
#include <veksys/host.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string_view>

#include "text.h"

namespace demo {
namespace {

constexpr std::size_t kSectionsShown = 4;
constexpr std::size_t kKindsShown = 6;
constexpr std::size_t kWorkersShown = 6;

template <class... Parts>
void line(const Parts&... parts) {
  std::cout << joined(parts...) << '\n';
}

void heading(std::string_view title) {
  static const bool colour = ::isatty(STDOUT_FILENO) != 0 && std::getenv("NO_COLOR") == nullptr;
  line("\n", colour ? "\033[1m" : "", title, colour ? "\033[0m" : "");
}

// The entry of a code; one without a name for a code that is not in the catalogue.
const SqlzZrcEntry& entryOf(SqlzZrc code) {
  static constexpr SqlzZrcEntry kUnknown = {0, "unnamed code", ""};
  const SqlzZrcEntry* entry = sqlzFindZrc(code);
  return entry == nullptr ? kUnknown : *entry;
}

const char* nameOf(SqlzZrc code) { return entryOf(code).name; }

// ---- what it found ----------------------------------------------------------------------------------------------

std::string traceText(const TraceSetup& trace) {
  if (trace.code != 0) return joined("none: ", nameOf(trace.code), ", ", entryOf(trace.code).description);
  if (trace.bytes == 0) return "none, and none was asked for";
  const std::string size = bytesText(trace.bytes) + (trace.created ? ", new" : ", was there before");
  switch (trace.points) {
    case TracePoints::kSwitchedOn:
      return size + "; the engine's components were switched on and stay on";
    case TracePoints::kWereOn:
      return size + "; the engine's components were on";
    case TracePoints::kOthersOn:
      return size + "; other components are being traced, settings left as they are";
    case TracePoints::kLeft:
      break;
  }
  return size + "; settings left as they are";
}

const char* verifiedText(const Outcome& outcome) {
  if (outcome.packages == 0) return "nothing to verify";
  switch (outcome.verified) {
    case Verified::kAll:
      return "verified for every package";
    case Verified::kPart:
      return "verified in part: a worker that kept packages is gone";
    case Verified::kNothing:
      break;
  }
  return "not verified: part of the file is missing from the index";
}

std::string memoryText(const Outcome& outcome) {
  std::uint64_t bytes = 0;
  for (const WorkerTotal& worker : outcome.workers) bytes += worker.poolPeakBytes;
  return joined(bytesText(bytes), " at most, in a pool per worker; `veksys memory` shows them while they run");
}

void printSummary(const Facts& facts) {
  const Outcome& outcome = facts.outcome;
  const std::uint64_t clean = outcome.requests - outcome.requestsWithError - outcome.requestsWithWarning;
  const auto figure = [](std::uint64_t number) { return right(grouped(number), 9) + "   "; };
  heading(joined(facts.options.workers, " workers x ", facts.options.threads, " threads over ", facts.path));
  line("  Packages      ", figure(outcome.packages), bytesText(outcome.installedKib * 1024), " installed");
  line("  Stanzas       ", figure(outcome.stanzas), "in ", grouped(outcome.linesRead), " lines, ",
       bytesText(outcome.bytesRead));
  line("  Requests      ", figure(outcome.requests), grouped(clean), " clean, ", grouped(outcome.requestsWithWarning),
       " with a warning, ", grouped(outcome.requestsWithError), " failed; ", timeText(facts.elapsed));
  line("  Dependencies  ", verifiedText(outcome));
  line("  Memory        ", memoryText(outcome));
  line("  Trace         ", traceText(facts.trace));
}

void printSections(const Outcome& outcome) {
  std::vector<std::pair<std::string, SectionTotal>> rows(outcome.sections.begin(), outcome.sections.end());
  std::stable_sort(rows.begin(), rows.end(),
                   [](const auto& a, const auto& b) { return a.second.packages > b.second.packages; });
  if (rows.empty()) return;
  heading("Top sections             packages    installed");
  for (std::size_t i = 0; i < std::min(rows.size(), kSectionsShown); ++i)
    line("  ", left(printable(rows[i].first), 22), right(grouped(rows[i].second.packages), 10),
         right(bytesText(rows[i].second.installedKib * 1024), 13));
}

// ---- what was odd -----------------------------------------------------------------------------------------------

struct Kind {
  const ConditionRow* row;
  const Tally* tally;
};

// Kinds that occurred, the most frequent first.
std::vector<Kind> kindsOf(const Outcome& outcome) {
  std::vector<Kind> kinds;
  for (std::size_t i = 0; i < kConditionCount; ++i)
    if (outcome.findings.tallies[i].stanzas != 0) kinds.push_back({&kConditions[i], &outcome.findings.tallies[i]});
  std::stable_sort(kinds.begin(), kinds.end(),
                   [](const Kind& a, const Kind& b) { return a.tally->stanzas > b.tally->stanzas; });
  return kinds;
}

void printKind(const Kind& kind) {
  const std::int32_t sqlcode = sqlzGetZRCInfo(kind.row->code, nullptr, nullptr, nullptr, nullptr);
  line("  ", left(nameOf(kind.row->code), 28), right(std::to_string(sqlcode), 7),
       right(grouped(kind.tally->stanzas), 10), "   ", kind.row->phrase);
  std::string examples;
  for (std::uint32_t i = 0; i < kind.tally->exampleCount; ++i) {
    const Example& example = kind.tally->examples[i];
    examples += joined(i == 0 ? "" : " / ", example.package, ", line ", example.line, ": ", example.detail);
  }
  line("      ", examples);
}

void printKinds(const std::vector<Kind>& kinds) {
  if (kinds.empty()) return heading("No odd stanzas");
  heading("Odd stanzas                  SQL code   stanzas");
  for (std::size_t i = 0; i < std::min(kinds.size(), kKindsShown); ++i) printKind(kinds[i]);
  std::string others;
  for (std::size_t i = kKindsShown; i < kinds.size(); ++i)
    others += joined(others.empty() ? "" : ", ", nameOf(kinds[i].row->code), " ", grouped(kinds[i].tally->stanzas));
  if (!others.empty()) line("  and ", others);
}

// ---- who did it -------------------------------------------------------------------------------------------------

std::string endText(const WorkerState& worker) {
  if (endedWell(worker)) return "ended normally";
  if (!WIFSIGNALED(worker.waitStatus)) return joined("ended with exit code ", WEXITSTATUS(worker.waitStatus));
  const char* name = ::sigabbrev_np(WTERMSIG(worker.waitStatus));
  return joined("killed by signal ", WTERMSIG(worker.waitStatus), " (SIG", name == nullptr ? "?" : name, ")");
}

void printWorkers(const Facts& facts) {
  heading("Workers    process   requests    stanzas         busy   end");
  std::size_t passedOver = 0;
  for (std::size_t i = 0; i < facts.workers.size(); ++i) {
    const WorkerState& worker = facts.workers[i];
    const WorkerTotal& total = facts.outcome.workers[i];
    if (i >= kWorkersShown && endedWell(worker)) {
      ++passedOver;
      continue;
    }
    line("  ", left(std::to_string(i + 1), 6), right(std::to_string(worker.process), 10),
         right(grouped(total.requests), 11), right(grouped(total.stanzas), 11),
         right(timeText(std::chrono::nanoseconds(total.busyNs)), 13), "   ", endText(worker));
  }
  if (passedOver != 0) line("  and ", passedOver, " more that ended normally");
}

std::string shownTitle(const ShownReply& shown) {
  const char* kind = shown.kind == RequestKind::kLoad ? "load" : "verify";
  const char* end = shown.area.sqlcode < 0   ? "the last that failed"
                    : shown.area.sqlcode > 0 ? "none failed, the last with a warning"
                                             : "the last; none failed";
  return joined("sqlca of request ", shown.number, " (", kind, "), ", end);
}

void printSqlca(const ShownReply& shown) {
  if (shown.number == 0) return;
  const sqlca& area = shown.area;
  char message[512] = "success";
  if (area.sqlcode != 0) sqlzGetSqlMessage(area.sqlcode, message, sizeof message);
  const auto field = [](const auto& characters) { return printable({characters, sizeof characters}); };
  std::string words = hexText(static_cast<std::uint32_t>(area.sqlerrd[0]));
  for (std::size_t i = 1; i < std::size(area.sqlerrd); ++i) words += joined(" ", area.sqlerrd[i]);
  heading(shownTitle(shown));
  line("  sqlcaid   \"", field(area.sqlcaid), "\"");
  line("  sqlcabc   ", area.sqlcabc);
  line("  sqlcode   ", left(std::to_string(area.sqlcode), 6), " ", message);
  line("  sqlerrml  ", area.sqlerrml);
  line("  sqlerrmc  ", printable({area.sqlerrmc, static_cast<std::size_t>(area.sqlerrml)}));
  line("  sqlerrp   \"", field(area.sqlerrp), "\"");
  line("  sqlerrd   ", words, area.sqlerrd[0] == 0 ? "" : joined("   ", nameOf(area.sqlerrd[0])));
  line("  sqlwarn   \"", field(area.sqlwarn), "\"");
  line("  sqlstate  ", field(area.sqlstate));
}

// ---- where to go on ---------------------------------------------------------------------------------------------

bool isOnPath(const char* program) {
  const char* path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "" : path;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    if (end > 0 && ::access(joined(rest.substr(0, end), "/", program).c_str(), X_OK) == 0) return true;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return false;
}

// How to call the command from here: by name, else the one that was built beside this program.
std::string commandToType() {
  std::error_code error;
  const auto beside = std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "veksys";
  if (isOnPath("veksys") || error || !std::filesystem::exists(beside, error)) return "veksys";
  const std::string relative = std::filesystem::proximate(beside, error).string();
  return quoted(error || relative.size() >= beside.string().size() ? beside.string() : relative);
}

// Why the command would find no trace of this run to show; empty when it finds one.
std::string whyNoTrace(const TraceSetup& trace) {
  if (std::getenv("VEK_SKIP_TRACE") != nullptr) return "VEK_SKIP_TRACE is set, which keeps processes away from it";
  if (trace.code != 0) return joined(nameOf(trace.code), ", ", entryOf(trace.code).description);
  return trace.bytes == 0 ? "none was asked for" : "";
}

// The option that makes the command work on this instance from any shell; the default needs none.
std::string instanceOption() {
  const std::string name = vekInstanceName();
  return name == "default" ? "" : " --instance " + name;
}

// `code` is the one to be explained.
void printLookCloser(const TraceSetup& setup, SqlzZrc code) {
  using Row = std::pair<std::string, const char*>;
  const std::string veksys = commandToType();
  const std::string ofInstance = veksys + instanceOption();
  const std::string trace = ofInstance + " trace ";
  const std::string why = whyNoTrace(setup);
  std::vector<Row> rows = {{ofInstance + " log --tail 5", "the last records of the diagnostic log"}};
  if (why.empty()) {
    rows.emplace_back(trace + "status", "what is on, how full the ring is");
    rows.emplace_back(trace + "stat", "calls, times and failures by function");
    rows.emplace_back(trace + "flow --errors", "the calls that led to each error");
    rows.emplace_back(trace + "format --function demo::parseStanza", "single records");
  }
  rows.emplace_back(joined(veksys, " rc ", nameOf(code)), "what a code means");
  std::size_t width = 0;
  for (const Row& row : rows) width = std::max(width, row.first.size());
  heading("Look closer:");
  if (!why.empty()) line("  There is no trace to look at: ", why, ".");
  for (const Row& row : rows) line("  ", left(row.first, width), "   # ", row.second);
}

}  // namespace

bool endedWell(const WorkerState& worker) noexcept {
  return WIFEXITED(worker.waitStatus) && WEXITSTATUS(worker.waitStatus) == 0;
}

void printReport(const Facts& facts) {
  printSummary(facts);
  printSections(facts.outcome);
  printKinds(kindsOf(facts.outcome));
  printWorkers(facts);
  printSqlca(facts.outcome.shown);
  const SqlzZrc code = facts.outcome.shown.area.sqlerrd[0];
  printLookCloser(facts.trace, code != 0 ? code : codeOf(Condition::kDependencyMissing));
}

}  // namespace demo
