// veksys log: shows the diagnostic log, chooses from it, sums it up and follows it.
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "failure.h"
#include "instance.h"
#include "log_pass.h"
#include "log_query.h"
#include "log_view.h"
#include "veksys/host.h"

namespace veksys {
namespace {

// An option that tests one field.
struct TestOption {
  const char* name;
  LogField field;
  LogRelation relation;
  const char* type;
  const char* about;
};
constexpr TestOption kTestOptions[] = {
    {"--level", LogField::kLevel, LogRelation::kEqual, "LEVELS",
     "Levels by number or name, or a range: 1-3, severe,error"},
    {"--since", LogField::kTime, LogRelation::kGreaterOrEqual, "TIME",
     "From this moment on: 14:05:30, 2025-11-21T14:05:30, or 10m back from now"},
    {"--until", LogField::kTime, LogRelation::kLessOrEqual, "TIME", "Up to this moment, in the same forms"},
    {"--pid", LogField::kPid, LogRelation::kEqual, "NUMBERS", "Processes by id"},
    {"--tid", LogField::kTid, LogRelation::kEqual, "NUMBERS", "Threads by id"},
    {"--function", LogField::kFunction, LogRelation::kEqual, "NAMES", "Functions by name or pattern (sqlo*)"},
    {"--component", LogField::kComponent, LogRelation::kEqual, "NAMES", "Components by prefix, name or number"},
    {"--probe", LogField::kProbe, LogRelation::kEqual, "NUMBERS", "Probes"},
    {"--database", LogField::kDatabase, LogRelation::kEqual, "NAMES", "Databases by name or pattern"},
    {"--member", LogField::kMember, LogRelation::kEqual, "NUMBERS", "Members (partitions) by number"},
    {"--code", LogField::kCode, LogRelation::kEqual, "CODES",
     "Return codes by value or name, or the SQL codes they map to (-911)"},
    {"--text", LogField::kText, LogRelation::kHas, "TEXT", "Records that hold this text, whatever its case"},
};
constexpr std::size_t kTestOptionCount = std::size(kTestOptions);

struct LogOptions {
  std::vector<std::string> names;
  std::vector<std::string> tests[kTestOptionCount];
  std::vector<std::string> where;
  std::optional<std::uint64_t> tail;
  std::optional<std::uint64_t> limit;
  std::string countBy;
  bool follow = false;
  bool fold = false;
  bool perMinute = false;
  bool oneline = false;
  bool csv = false;
};

void refuseTogether(bool a, bool b, const char* sentence) {
  if (a && b) wrongUse(sentence);
}

void checkOptions(const Command& command, const LogOptions& options) {
  const bool sums = options.fold || options.perMinute || !options.countBy.empty();
  refuseTogether(command.json, options.csv, "--json and --csv exclude each other.");
  refuseTogether(options.oneline, command.json || options.csv, "--oneline excludes --json and --csv.");
  refuseTogether(options.fold, options.perMinute || !options.countBy.empty(),
                 "--fold, --count-by and --per-minute exclude each other.");
  refuseTogether(options.perMinute, !options.countBy.empty(),
                 "--fold, --count-by and --per-minute exclude each other.");
  refuseTogether(sums, options.oneline, "--oneline shows records; --fold, --count-by and --per-minute sum them up.");
  refuseTogether(sums, options.follow, "--fold, --count-by and --per-minute need an end, which --follow has not.");
}

LogQuery queryOf(const Command& command, const LogOptions& options) {
  LogQuery query;
  for (std::size_t i = 0; i < kTestOptionCount; ++i) {
    const TestOption& option = kTestOptions[i];
    for (const LogFieldName& field : logFieldNames()) {
      if (field.field != option.field) continue;
      std::string values;
      for (const std::string& value : options.tests[i]) {
        const bool list = option.relation == LogRelation::kEqual;
        if (!list) query.require(LogTest(field, option.relation, value, false));
        values += (values.empty() ? "" : ",") + value;
      }
      if (option.relation == LogRelation::kEqual && !options.tests[i].empty())
        query.require(LogTest(field, option.relation, values, true));
    }
  }
  for (const std::string& expression : options.where) query.require(expression);
  if (!command.instance.empty() && !options.names.empty())
    query.require(LogTest(findLogField("instance", "--instance"), LogRelation::kEqual, command.instance, false));
  return query;
}

std::unique_ptr<LogView> viewOf(Command& command, const LogOptions& options) {
  if (options.fold) return logFoldView(command, options.csv);
  if (options.perMinute) return logMinuteView(command, options.csv);
  if (!options.countBy.empty()) return logCountView(command, findLogField(options.countBy, "--count-by"), options.csv);
  if (command.json) return logJsonView(command);
  if (options.csv) return logCsvView(command);
  return options.oneline ? logLineView(command) : logTextView(command);
}

// The instance's own directory, which only a log makes. Who follows it may wait for that.
std::string ownDirectory(bool mayLack) {
  std::string directory = instanceLogDirectory();
  if (::access(directory.c_str(), F_OK) == 0) return directory;
  const std::string lacks =
      "Instance " + std::string(vekInstanceName()) + " has no log in " + directory +
      ": nothing was logged yet, or it is kept elsewhere (DIAGPATH); name a file or directory then";
  if (!mayLack) sayNo(lacks + ".");
  remark(lacks + ". Waiting for the first record.");
  return directory;
}

int runLog(Command& command, const LogOptions& options) {
  stayDetached();
  checkOptions(command, options);
  LogPassOptions chosen;
  chosen.query = queryOf(command, options);
  chosen.names = options.names.empty() ? std::vector{ownDirectory(options.follow)} : options.names;
  chosen.tail = options.tail;
  chosen.limit = options.limit;
  chosen.follow = options.follow;
  const bool isFiltered = !chosen.query.isEmpty();
  const std::unique_ptr<LogView> view = viewOf(command, options);
  LogPass pass(std::move(chosen));
  pass.run(*view, command.out);
  command.out.flush();
  pass.remarkFaults();
  if (pass.shown() == 0) sayNo(isFiltered ? "No record was chosen." : "The log is empty.");
  return pass.faults().any() ? EXIT_NO : EXIT_DONE;
}

void addTests(CLI::App* log, LogOptions& options) {
  for (std::size_t i = 0; i < kTestOptionCount; ++i)
    log->add_option(kTestOptions[i].name, options.tests[i], kTestOptions[i].about)
        ->type_name(kTestOptions[i].type)
        ->allow_extra_args(false)
        ->group("Which records");
  log->add_option("--where", options.where,
                  "A condition: level<=2 and (component=SQLO or text~\"lock\") and not pid=12")
      ->type_name("CONDITION")
      ->allow_extra_args(false)
      ->group("Which records");
  log->add_option("--limit", options.limit, "The first N of these records")
      ->type_name("N")
      ->check(countOption())
      ->group("Which records");
  log->add_option("--tail", options.tail, "The last N of these records")
      ->type_name("N")
      ->check(countOption())
      ->group("Which records");
}

void addShapes(CLI::App* log, LogOptions& options) {
  log->add_flag("-f,--follow", options.follow, "Go on showing records as they are written, across rotation");
  log->add_flag("--fold", options.fold, "One line for all repeats of a record, with count and time range");
  log->add_option("--count-by", options.countBy, "Count the values of a field")->type_name("FIELD");
  log->add_flag("--per-minute", options.perMinute, "Count records per minute, with bars");
  log->add_flag("--oneline", options.oneline, "One line per record");
  log->add_flag("--csv", options.csv, "Comma-separated values, a line with their names first");
}

}  // namespace

void addLog(CLI::App& app, Command& command) {
  auto options = std::make_shared<LogOptions>();
  CLI::App* log = app.add_subcommand("log", "Show, filter, sum up and follow the diagnostic log");
  log->add_option("FILE|DIR", options->names,
                  "Log files, or directories with those of hosts and members below them, merged by time; the "
                  "instance's diagnostic directory when left out")
      ->type_name("");
  addTests(log, *options);
  addShapes(log, *options);
  addLogLevel(*log, command);
  log->callback([&command, options, log] {
    if (log->get_subcommands().empty()) command.run = [&command, options] { return runLog(command, *options); };
  });
}

}  // namespace veksys
