#include "trace_filter.h"

#include <algorithm>
#include <charconv>

#include "command.h"
#include "failure.h"
#include "rc_scan.h"
#include "trace_items.h"

namespace veksys {
namespace {

constexpr std::int64_t kDayNs = 86'400LL * 1'000'000'000;
constexpr std::int64_t kLastDay = std::numeric_limits<std::int64_t>::max() - kDayNs;

std::vector<std::string> flatten(const std::vector<std::string>& lists) {
  std::vector<std::string> parts;
  for (const std::string& list : lists)
    for (std::string& part : splitList(list)) parts.push_back(std::move(part));
  return parts;
}

std::optional<TypedMoment> parseOption(const std::string& typed, const char* option) {
  if (typed.empty()) return std::nullopt;
  auto moment = parseMoment(typed);
  if (!moment.has_value())
    wrongUse(std::string(option) + " does not understand \"" + typed + "\": it takes " + std::string(MOMENT_FORMS) +
             ".");
  return moment;
}

bool isNumber(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A number against the id, anything else as a pattern against the name.
bool choosesOne(const std::vector<std::string>& wanted, std::uint32_t id, std::string_view name) {
  if (wanted.empty()) return true;
  return std::any_of(wanted.begin(), wanted.end(), [&](const std::string& each) {
    return isNumber(each) ? each == std::to_string(id) : globMatches(each, name);
  });
}

std::optional<EcfFunctionId> parseFunctionId(const std::string& typed) {
  EcfFunctionId id = 0;
  const char* end = typed.data() + typed.size();
  if (!typed.starts_with("0x") && !typed.starts_with("0X")) return std::nullopt;
  if (std::from_chars(typed.data() + 2, end, id, 16).ptr != end || !ecfIsFunctionId(id))
    wrongUse(typed + " is no function identifier: those are hex from 0x18000000 to 0x1FFFFFFF.");
  return id;
}

}  // namespace

void addFilterOptions(CLI::App* app, FilterOptions* options) {
  const auto add = [app](const char* name, auto& value, const char* about, const char* type) {
    return app->add_option(name, value, about)->type_name(type)->group("Which records");
  };
  // A list takes one argument at each use, so that a file behind it stays a file.
  const auto addList = [&add](const char* name, auto& value, const char* about, const char* type) {
    add(name, value, about, type)->allow_extra_args(false);
  };
  addList("--component", options->components, "Components by prefix, name or number", "NAMES");
  addList("--function", options->functions, "Functions by name, by pattern (sqlo*) or by identifier (0x18780001)",
          "NAMES");
  addList("--process", options->processes, "Processes by id or by name, which may be a pattern", "IDS");
  addList("--thread", options->threads, "Threads by id or by name, which may be a pattern", "IDS");
  add("--since", options->since, "From this moment on: 14:05:30, 2025-11-21T14:05:30, or 5s back from the end", "TIME");
  add("--until", options->until, "Up to this moment, in the same forms", "TIME");
  addList("--rc", options->codes, "Return codes by value or name, or \"failed\" for every error", "CODES");
  app->add_flag("--errors", options->errors, "Only what failed: error points and exits with an error code")
      ->group("Which records");
  add("--limit", options->limit, "The first N of these records", "N")->check(countOption());
  add("--last", options->last, "The last N of these records", "N")->check(countOption());
}

TraceFilter::TraceFilter(const FilterOptions& options)
    : processes_(flatten(options.processes)),
      threads_(flatten(options.threads)),
      typedSince_(parseOption(options.since, "--since")),
      typedUntil_(parseOption(options.until, "--until")),
      failed_(options.errors),
      limit_(options.limit),
      last_(options.last) {
  components_ = options.components.empty() ? ComponentSet().set() : parseComponents(options.components);
  for (const std::string& each : flatten(options.functions)) {
    if (const auto id = parseFunctionId(each))
      functionIds_.push_back(*id);
    else
      functionPatterns_.push_back(each);
  }
  narrowsFunctions_ = !options.components.empty() || !options.functions.empty();
  for (const std::string& each : flatten(options.codes)) {
    if (equalIgnoringCase(each, "failed")) {
      failed_ = true;
      continue;
    }
    const auto code = readCode(each);
    if (!code.has_value())
      wrongUse("--rc does not know \"" + each + "\": it takes return codes by value or name, or \"failed\"." +
               didYouMean(nearestCodeNames(each)));
    codes_.push_back(code->value);
  }
  if (limit_.has_value() && last_.has_value()) wrongUse("--limit and --last exclude each other.");
  if (!needsEnd()) resolveTimes(0);
}

bool TraceFilter::needsEnd() const noexcept {
  const auto depends = [](const std::optional<TypedMoment>& typed) {
    return typed.has_value() && typed->kind != TypedMoment::Kind::kMoment;
  };
  return depends(typedSince_) || depends(typedUntil_);
}

void TraceFilter::resolveTimes(std::int64_t traceEnd) {
  traceEnd = std::clamp<std::int64_t>(traceEnd, 0, kLastDay);  // a damaged trace may end at any time
  const auto resolve = [&](const TypedMoment& typed) {
    if (typed.kind == TypedMoment::Kind::kBack) return nsBetween(typed.ns, traceEnd);
    return typed.kind == TypedMoment::Kind::kMoment ? typed.ns : lastTimeOfDay(typed.ns, traceEnd);
  };
  if (typedSince_.has_value()) since_ = resolve(*typedSince_);
  if (typedUntil_.has_value()) until_ = resolve(*typedUntil_);
  // "--since 23:50 --until 00:10" goes past midnight.
  if (typedUntil_.has_value() && typedUntil_->kind == TypedMoment::Kind::kTimeOfDay && until_ < since_)
    until_ = lastTimeOfDay(typedUntil_->ns, since_ < kLastDay ? since_ + kDayNs : since_);
  if (until_ < since_) wrongUse("--until lies before --since, so no record can be chosen.");
}

bool TraceFilter::choosesFunction(EcfFunctionId id, const char* name) const {
  if (!components_.test(ecfComponent(id))) return false;
  if (functionIds_.empty() && functionPatterns_.empty()) return true;
  if (std::find(functionIds_.begin(), functionIds_.end(), id) != functionIds_.end()) return true;
  return name != nullptr && std::any_of(functionPatterns_.begin(), functionPatterns_.end(),
                                        [&](const std::string& pattern) { return globMatches(pattern, name); });
}

bool TraceFilter::choosesThread(const SqltTraceThread& thread) const {
  return choosesOne(processes_, thread.processId, thread.processName) &&
         choosesOne(threads_, thread.threadId, thread.threadName);
}

bool TraceFilter::choosesValue(std::int64_t value, CodeNames& codes) const {
  if (failed_ && codes.isFailure(value)) return true;
  if (value < -0x80000000LL || value > 0xFFFFFFFFLL) return false;
  return std::find(codes_.begin(), codes_.end(), static_cast<std::int32_t>(value)) != codes_.end();
}

bool TraceFilter::choosesOutcome(const SqltTraceRecord& record, CodeNames& codes) const {
  switch (record.kind) {
    case SqltRecordKind::kExit:
      return choosesValue(record.value, codes);
    case SqltRecordKind::kError:
      return failed_ || choosesValue(record.value, codes);
    case SqltRecordKind::kTranslation: {
      const auto became = translatedTo(record);
      return failed_ || choosesValue(record.value, codes) || (became.has_value() && choosesValue(*became, codes));
    }
    default:
      return false;
  }
}

std::optional<std::int64_t> translatedTo(const SqltTraceRecord& record) {
  std::uint64_t value = 0;
  if (record.itemCount == 0 || !itemInteger(record.items[0], true, &value)) return std::nullopt;
  return static_cast<std::int64_t>(value);
}

}  // namespace veksys
