#include "log_query.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <limits>

#include "clock.h"
#include "failure.h"
#include "names.h"
#include "veksys/diag/rc.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kHighest = std::numeric_limits<std::int64_t>::max();
constexpr unsigned kDeepest = 200;  // brackets and "not" inside each other

constexpr LogFieldName kFields[] = {
    {LogField::kTime, LogFieldKind::kTime, "time"},
    {LogField::kLevel, LogFieldKind::kLevel, "level"},
    {LogField::kPid, LogFieldKind::kNumber, "pid"},
    {LogField::kTid, LogFieldKind::kNumber, "tid"},
    {LogField::kProcess, LogFieldKind::kName, "process"},
    {LogField::kInstance, LogFieldKind::kName, "instance"},
    {LogField::kMember, LogFieldKind::kNumber, "member"},
    {LogField::kDatabase, LogFieldKind::kName, "database"},
    {LogField::kHandle, LogFieldKind::kName, "apphdl"},
    {LogField::kApplication, LogFieldKind::kName, "appid"},
    {LogField::kUnitOfWork, LogFieldKind::kNumber, "uowid"},
    {LogField::kActivity, LogFieldKind::kNumber, "actid"},
    {LogField::kTenant, LogFieldKind::kNumber, "tenantid"},
    {LogField::kUser, LogFieldKind::kName, "authid"},
    {LogField::kHost, LogFieldKind::kName, "hostname"},
    {LogField::kEngineUnit, LogFieldKind::kNumber, "eduid"},
    {LogField::kEngineUnitName, LogFieldKind::kName, "eduname"},
    {LogField::kProduct, LogFieldKind::kName, "product"},
    {LogField::kComponent, LogFieldKind::kComponent, "component"},
    {LogField::kFunction, LogFieldKind::kName, "function"},
    {LogField::kProbe, LogFieldKind::kNumber, "probe"},
    {LogField::kMessage, LogFieldKind::kText, "message"},
    {LogField::kCalled, LogFieldKind::kText, "called"},
    {LogField::kCode, LogFieldKind::kCode, "code"},
    {LogField::kOsError, LogFieldKind::kOsError, "oserr"},
    {LogField::kImpact, LogFieldKind::kText, "impact"},
    {LogField::kObject, LogFieldKind::kText, "object"},
    {LogField::kType, LogFieldKind::kName, "type"},
    {LogField::kText, LogFieldKind::kText, "text"},
};

struct RelationName {
  std::string_view text;
  LogRelation relation;
};
constexpr RelationName kRelations[] = {
    // longer ones before their beginnings
    {"<=", LogRelation::kLessOrEqual}, {">=", LogRelation::kGreaterOrEqual},
    {"!=", LogRelation::kUnequal},     {"!~", LogRelation::kHasNot},
    {"=", LogRelation::kEqual},        {"<", LogRelation::kLess},
    {">", LogRelation::kGreater},      {"~", LogRelation::kHas},
};

bool isOrder(LogRelation relation) noexcept {
  return relation >= LogRelation::kLess && relation <= LogRelation::kGreaterOrEqual;
}
bool isPart(LogRelation relation) noexcept { return relation == LogRelation::kHas || relation == LogRelation::kHasNot; }

// Kinds whose values have an order.
bool isOrdered(LogFieldKind kind) noexcept {
  return kind == LogFieldKind::kNumber || kind == LogFieldKind::kLevel || kind == LogFieldKind::kTime;
}

std::string listOfFields() {
  std::string list;
  for (const LogFieldName& field : kFields) list += (list.empty() ? "" : ", ") + std::string(field.name);
  return list;
}

std::optional<std::int64_t> readNumber(std::string_view typed) {
  const bool hex = typed.starts_with("0x") || typed.starts_with("0X");
  if (hex) typed.remove_prefix(2);
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(typed.data(), typed.data() + typed.size(), value, hex ? 16 : 10);
  if (error != std::errc{} || end != typed.data() + typed.size()) return std::nullopt;
  return value;
}

// A level by number or name; 0 is any name that is none of the six.
std::optional<std::int64_t> readLevel(std::string_view typed) {
  for (std::uint32_t level = 0; level <= LOG_LEVEL_MOST; ++level)
    if (equalIgnoringCase(typed, logLevelName(level))) return level;
  const auto number = readNumber(typed);
  return number.has_value() && *number >= 0 && *number <= LOG_LEVEL_MOST ? number : std::nullopt;
}

std::int64_t now() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

char lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

}  // namespace

std::span<const LogFieldName> logFieldNames() { return kFields; }

const LogFieldName& findLogField(std::string_view name, std::string_view what) {
  std::vector<std::string> names;
  for (const LogFieldName& field : kFields) {
    if (equalIgnoringCase(name, field.name)) return field;
    names.emplace_back(field.name);
  }
  wrongUse(std::string(what) + " knows no field \"" + std::string(name) + "\"; there are " + listOfFields() + "." +
           didYouMean(nearestNames(name, names)));
}

std::int64_t parseLogMoment(const std::string& typed, std::string_view what) {
  if (const auto stamp = parseLogStamp(typed)) return *stamp;
  const auto moment = parseMoment(typed);
  if (!moment.has_value())
    wrongUse(std::string(what) + " does not understand \"" + typed + "\": it takes " + std::string(LOG_MOMENT_FORMS) +
             ".");
  if (moment->kind == TypedMoment::Kind::kBack) return nsBetween(moment->ns, now());
  return moment->kind == TypedMoment::Kind::kMoment ? moment->ns : lastTimeOfDay(moment->ns, now());
}

// ---- text -------------------------------------------------------------------------------------------------------

LogNeedle::LogNeedle(std::string_view text) : lower_(lowerCase(text)) {}

bool LogNeedle::isAt(const char* at) const noexcept {
  for (std::size_t i = 1; i < lower_.size(); ++i)
    if (lower(at[i]) != lower_[i]) return false;
  return true;
}

// Both cases of the first character are looked for one after the other, each with the fast search for one byte.
bool LogNeedle::isIn(std::string_view text) const noexcept {
  if (lower_.empty()) return true;
  const char first = lower_[0];
  const char other = first >= 'a' && first <= 'z' ? static_cast<char>(first - 32) : first;
  for (const char c : {first, other}) {
    std::string_view rest = text;
    while (rest.size() >= lower_.size()) {
      const auto* found = static_cast<const char*>(std::memchr(rest.data(), c, rest.size() - lower_.size() + 1));
      if (found == nullptr) break;
      if (isAt(found)) return true;
      rest.remove_prefix(static_cast<std::size_t>(found - rest.data()) + 1);
    }
    if (first == other) break;
  }
  return false;
}

// ---- one test ---------------------------------------------------------------------------------------------------

LogTest::LogTest(const LogFieldName& field, LogRelation relation, std::string_view value, bool list)
    : field_(field), relation_(relation) {
  if (isOrder(relation) && !isOrdered(field.kind))
    wrongUse(std::string(field.name) + " has no order: it is compared with =, !=, ~ or !~.");
  if (isPart(relation) && isOrdered(field.kind))
    wrongUse(std::string(field.name) + " is no text: it is compared with =, !=, <, <=, > or >=.");
  const std::vector<std::string> values =
      list && !isOrder(relation) ? splitList(value) : std::vector<std::string>{std::string(value)};
  if (values.empty()) wrongUse(std::string(field.name) + " is compared with nothing; give a value.");
  for (const std::string& each : values) readValue(each);
}

void LogTest::refuse(const std::string& value, const char* accepted) const {
  wrongUse("\"" + value + "\" is no value for " + field_.name + ": it takes " + accepted + ".");
}

void LogTest::readRange(std::int64_t value) {
  switch (relation_) {
    case LogRelation::kLess:
      return ranges_.push_back({kLowest, value == kLowest ? value : value - 1});
    case LogRelation::kLessOrEqual:
      return ranges_.push_back({kLowest, value});
    case LogRelation::kGreater:
      return ranges_.push_back({value == kHighest ? value : value + 1, kHighest});
    case LogRelation::kGreaterOrEqual:
      return ranges_.push_back({value, kHighest});
    default:
      return ranges_.push_back({value, value});
  }
}

// A level, or two with a '-' between them.
void LogTest::readLevels(const std::string& value) {
  constexpr const char* kAccepted =
      "1 (Severe), 2 (Error), 3 (Warning), 4 (Info), 5 (Critical), 6 (Event), 0 (Unknown), or a range such as 1-3";
  const std::size_t dash = value.find('-');
  const auto from = readLevel(value.substr(0, dash));
  const auto to = dash == std::string::npos ? from : readLevel(value.substr(dash + 1));
  if (!from.has_value() || !to.has_value() || *to < *from) refuse(value, kAccepted);
  if (dash == std::string::npos) return readRange(*from);
  ranges_.push_back({*from, *to});
}

// A record names components; a name that was cut or that this library does not know can be looked for as text.
void LogTest::readComponents(const std::string& value) {
  const ComponentSet set = parseComponents({value});
  for (std::uint32_t component = 0; component < set.size(); ++component) {
    if (!set.test(component)) continue;
    components_.insert(ecfGetComponentName(ecfFunctionId(component, 0)));
    components_.insert(componentLabel(component));
  }
}

void LogTest::readValue(const std::string& value) {
  if (isPart(relation_)) {
    if (value.empty()) refuse(value, "text to look for");
    needles_.emplace_back(value);
    return;
  }
  switch (field_.kind) {
    case LogFieldKind::kNumber:
      if (const auto number = readNumber(value)) return readRange(*number);
      refuse(value, "a number, decimal or with 0x");
    case LogFieldKind::kLevel:
      return readLevels(value);
    case LogFieldKind::kTime:
      return readRange(parseLogMoment(value, field_.name));
    case LogFieldKind::kComponent:
      return readComponents(value);
    case LogFieldKind::kCode:
      if (auto code = readCode(value)) return codes_.push_back(std::move(*code));
      refuse(
          value,
          ("a return code (0x8B0F0000), its name or an SQL code (-911)" + didYouMean(nearestCodeNames(value))).c_str());
    default:
      names_.push_back(value);
  }
}

bool LogTest::holdsRange(std::int64_t value) const noexcept {
  return std::any_of(ranges_.begin(), ranges_.end(),
                     [value](const Range& range) { return value >= range.from && value <= range.to; });
}

bool LogTest::holdsName(std::string_view name) const {
  return !name.empty() &&
         std::any_of(names_.begin(), names_.end(), [name](const std::string& each) { return globMatches(each, name); });
}

bool LogTest::holdsCode(LogRecord& record) const {
  const LogCode code = record.code();
  if (code.kind != LogCode::Kind::kReturnCode && code.kind != LogCode::Kind::kEcf) return false;
  const auto zrc = static_cast<SqlzZrc>(code.value);
  return std::any_of(codes_.begin(), codes_.end(), [&](const FoundCode& wanted) {
    if (!wanted.isSqlCode) return wanted.value == zrc;
    return code.kind == LogCode::Kind::kReturnCode && zrc != 0 &&
           sqlzGetZRCInfo(zrc, nullptr, nullptr, nullptr, nullptr) == wanted.value;
  });
}

// "ENOSPC (28)" by name or by number; "28" where it has no name.
bool LogTest::holdsOsError(std::string_view shown) const {
  const std::string_view line = takeLogLine(shown);
  const std::string_view name = line.substr(0, line.find(' '));
  const std::size_t open = line.find('(');
  const std::string_view number =
      open == std::string_view::npos ? name : line.substr(open + 1, line.find(')', open) - open - 1);
  return std::any_of(names_.begin(), names_.end(), [&](const std::string& each) {
    return !name.empty() && (each == number || globMatches(each, name));
  });
}

bool LogTest::holds(LogRecord& record) const {
  if (isPart(relation_)) {
    const std::string_view text = record.text(field_.field);
    return std::any_of(needles_.begin(), needles_.end(), [text](const LogNeedle& each) { return each.isIn(text); });
  }
  switch (field_.kind) {
    case LogFieldKind::kTime:
      return holdsRange(record.head().moment);
    case LogFieldKind::kNumber:
    case LogFieldKind::kLevel: {
      const auto number = record.number(field_.field);
      return number.has_value() && holdsRange(static_cast<std::int64_t>(*number));
    }
    case LogFieldKind::kComponent:
      return components_.contains(std::string(record.text(field_.field)));
    case LogFieldKind::kCode:
      return holdsCode(record);
    case LogFieldKind::kOsError:
      return holdsOsError(record.text(field_.field));
    default:
      return holdsName(record.text(field_.field));
  }
}

bool LogTest::passes(LogRecord& record) const {
  const bool negated = relation_ == LogRelation::kUnequal || relation_ == LogRelation::kHasNot;
  return holds(record) != negated;
}

// ---- expressions ------------------------------------------------------------------------------------------------

// Reads an expression from left to right.
class LogExpression {
 public:
  LogExpression(LogQuery& query, const std::string& text) : query_(&query), whole_(text), rest_(text) {}

  std::size_t read() {
    const std::size_t root = readOr();
    skipBlanks();
    if (!rest_.empty()) refuse("\"and\" or \"or\" is missing before \"" + std::string(rest_) + "\"");
    return root;
  }

 private:
  [[noreturn]] void refuse(const std::string& why) const {
    wrongUse("\"" + whole_ + "\" is no condition: " + why +
             ". Conditions are FIELD=VALUE (or !=, <, <=, >, >=, ~, !~) joined by and, or, not and brackets.");
  }
  void skipBlanks() noexcept {
    while (!rest_.empty() && (rest_[0] == ' ' || rest_[0] == '\t' || rest_[0] == '\n')) rest_.remove_prefix(1);
  }
  static bool isWordPart(char c) noexcept { return (lower(c) >= 'a' && lower(c) <= 'z') || c == '_'; }

  std::string_view wordAhead() noexcept {
    skipBlanks();
    std::size_t length = 0;
    while (length < rest_.size() && isWordPart(rest_[length])) ++length;
    return rest_.substr(0, length);
  }
  bool takeWord(std::string_view word) noexcept {
    if (!equalIgnoringCase(wordAhead(), word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }
  bool take(char c) noexcept {
    skipBlanks();
    if (rest_.empty() || rest_[0] != c) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::size_t readOr() {
    std::size_t left = readAnd();
    while (takeWord("or")) {
      const std::size_t right = readAnd();
      left = query_->add({LogQuery::Node::Kind::kOr, left, right});
    }
    return left;
  }
  std::size_t readAnd() {
    std::size_t left = readNot();
    while (takeWord("and")) {
      const std::size_t right = readNot();
      left = query_->add({LogQuery::Node::Kind::kAnd, left, right});
    }
    return left;
  }
  std::size_t readNot() {
    if (++depth_ > kDeepest) refuse("brackets stand more than 200 deep");
    std::size_t node = 0;
    if (takeWord("not")) {
      node = query_->add({LogQuery::Node::Kind::kNot, readNot(), 0});
    } else if (take('(')) {
      node = readOr();
      if (!take(')')) refuse("a closing bracket is missing");
    } else {
      node = readTest();
    }
    --depth_;
    return node;
  }
  std::size_t readTest() {
    const std::string_view name = wordAhead();
    if (name.empty())
      refuse(rest_.empty() ? "it ends where a field should stand"
                           : "a field should stand at \"" + std::string(rest_) + "\"");
    const LogFieldName& field = findLogField(name, "--where");
    rest_.remove_prefix(name.size());
    const LogRelation relation = readRelation(name);
    bool quoted = false;
    const std::string value = readValue(&quoted);
    query_->tests_.emplace_back(field, relation, value, !quoted);
    return query_->add({LogQuery::Node::Kind::kTest, query_->tests_.size() - 1, 0});
  }
  LogRelation readRelation(std::string_view name) {
    skipBlanks();
    for (const RelationName& each : kRelations) {
      if (!rest_.starts_with(each.text)) continue;
      rest_.remove_prefix(each.text.size());
      return each.relation;
    }
    refuse("=, !=, <, <=, >, >=, ~ or !~ is missing behind \"" + std::string(name) + "\"");
  }
  std::string readValue(bool* quoted) {
    skipBlanks();
    *quoted = !rest_.empty() && (rest_[0] == '"' || rest_[0] == '\'');
    if (*quoted) return readQuoted();
    const std::size_t end = std::min(rest_.find_first_of(" \t\n()"), rest_.size());
    std::string value(rest_.substr(0, end));
    rest_.remove_prefix(end);
    if (value.empty()) refuse("a value is missing at its end, or behind a comparison");
    return value;
  }
  // A backslash takes the next character as it is.
  std::string readQuoted() {
    const char quote = rest_[0];
    std::string value;
    for (std::size_t i = 1; i < rest_.size(); ++i) {
      if (rest_[i] == quote) {
        rest_.remove_prefix(i + 1);
        return value;
      }
      if (rest_[i] == '\\' && i + 1 < rest_.size()) ++i;
      value += rest_[i];
    }
    refuse(std::string("the closing ") + quote + " is missing");
  }

  LogQuery* query_;
  std::string whole_;
  std::string_view rest_;
  unsigned depth_ = 0;
};

std::size_t LogQuery::add(Node node) {
  nodes_.push_back(node);
  return nodes_.size() - 1;
}

void LogQuery::require(LogTest test) {
  tests_.push_back(std::move(test));
  roots_.push_back(add({Node::Kind::kTest, tests_.size() - 1, 0}));
}

void LogQuery::require(const std::string& expression) { roots_.push_back(LogExpression(*this, expression).read()); }

bool LogQuery::holds(LogRecord& record, std::size_t node) const {
  const Node& at = nodes_[node];
  switch (at.kind) {
    case Node::Kind::kTest:
      return tests_[at.left].passes(record);
    case Node::Kind::kAnd:
      return holds(record, at.left) && holds(record, at.right);
    case Node::Kind::kOr:
      return holds(record, at.left) || holds(record, at.right);
    case Node::Kind::kNot:
      return !holds(record, at.left);
  }
  return false;
}

bool LogQuery::chooses(LogRecord& record) const {
  return std::all_of(roots_.begin(), roots_.end(), [&](std::size_t root) { return holds(record, root); });
}

}  // namespace veksys
