// Which records are chosen: tests of fields, joined by and, or and not.
//
//   level<=2 and (component=SQLO or text~"lock") and not pid=12
//
// A record is tested as a whole. A field that a record does not have passes no test but a negated one.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "log_record.h"
#include "rc_scan.h"

namespace veksys {

// How a field's values are compared and written.
enum class LogFieldKind : std::uint8_t { kNumber, kLevel, kTime, kName, kComponent, kCode, kOsError, kText };

// A field as people name it.
struct LogFieldName {
  LogField field;
  LogFieldKind kind;
  const char* name;
};
std::span<const LogFieldName> logFieldNames();

// The field of a name; throws Failure for a name that none has. `what` says what the name was given to.
const LogFieldName& findLogField(std::string_view name, std::string_view what);

enum class LogRelation : std::uint8_t {
  kEqual,
  kUnequal,
  kLess,
  kLessOrEqual,
  kGreater,
  kGreaterOrEqual,
  kHas,
  kHasNot
};

// A piece of text that is looked for whatever its case.
class LogNeedle {
 public:
  explicit LogNeedle(std::string_view text);
  bool isIn(std::string_view text) const noexcept;

 private:
  bool isAt(const char* at) const noexcept;

  std::string lower_;
};

// One test of one field.
class LogTest {
 public:
  // Throws Failure for values that the field cannot have and relations it knows not. With `list`, commas separate
  // several values, one of which must fit.
  LogTest(const LogFieldName& field, LogRelation relation, std::string_view value, bool list);

  bool passes(LogRecord& record) const;

 private:
  struct Range {
    std::int64_t from;
    std::int64_t to;
  };

  void readValue(const std::string& value);
  void readRange(std::int64_t value);
  void readLevels(const std::string& value);
  void readComponents(const std::string& value);
  [[noreturn]] void refuse(const std::string& value, const char* accepted) const;
  bool holds(LogRecord& record) const;
  bool holdsRange(std::int64_t value) const noexcept;
  bool holdsCode(LogRecord& record) const;
  bool holdsOsError(std::string_view shown) const;
  bool holdsName(std::string_view name) const;

  LogFieldName field_;
  LogRelation relation_;
  std::vector<Range> ranges_;
  std::vector<std::string> names_;
  std::vector<LogNeedle> needles_;
  std::vector<FoundCode> codes_;
  std::unordered_set<std::string> components_;
};

class LogQuery {
 public:
  // Adds a condition that must hold besides the others.
  void require(LogTest test);
  void require(const std::string& expression);  // throws Failure for one that cannot be understood

  bool isEmpty() const noexcept { return roots_.empty(); }
  bool chooses(LogRecord& record) const;

 private:
  friend class LogExpression;

  struct Node {
    enum class Kind : std::uint8_t { kTest, kAnd, kOr, kNot };
    Kind kind;
    std::size_t left;  // of a test, its number
    std::size_t right;
  };
  bool holds(LogRecord& record, std::size_t node) const;
  std::size_t add(Node node);

  std::vector<LogTest> tests_;
  std::vector<Node> nodes_;
  std::vector<std::size_t> roots_;
};

// What a person may type for a moment.
inline constexpr std::string_view LOG_MOMENT_FORMS =
    "a time of day (14:05 or 14:05:30.5), a date and time (2025-11-21T14:05:30, optionally with Z or +01:00), a time "
    "as "
    "the log has it (2025-11-21-14.05.30.123000), or a length back from now (90s, 10m, 2h, 3d)";

// The moment that was typed; throws Failure for anything else. `what` says what it was given to.
std::int64_t parseLogMoment(const std::string& typed, std::string_view what);

}  // namespace veksys
