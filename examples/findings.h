// What can be odd about a stanza, and the notes a request takes of it.
//
// Every odd condition has a return code of the catalogue. Noting one does four things: an error point in the trace, a
// record in the diagnostic log, a fold into the request's communications area, and a count with the first examples for
// the report.
#pragma once

#include <veksys/codes.h>
#include <veksys/diag/log_items.h>
#include <veksys/diag/sqlca.h>
#include <veksys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace demo {

enum class Condition : std::uint8_t {
  kLineWithoutColon,
  kStrayContinuation,
  kFieldMissing,
  kFieldTwice,
  kPackageTwice,
  kSizeNotNumeric,
  kSizeOutOfRange,
  kDependencyMissing,
  kRecommendationMissing,
  kControlCharacter,
  kLineCut,
  kStanzaCut,
  kIndexFull,
};

struct ConditionRow {
  Condition condition;
  SqlzZrc code;
  const char* phrase;  // for the report
};

inline constexpr ConditionRow kConditions[] = {
    {Condition::kLineWithoutColon, SQLEU_COMMAND_FILE_SYNTAX, "a line has no colon"},
    {Condition::kStrayContinuation, SQLUDI_FIELD_UNDEFINED, "a continuation line continues nothing"},
    {Condition::kFieldMissing, SQLDXE_RECORD_REJECTED_NULL, "Package, Version or Status is missing"},
    {Condition::kFieldTwice, SQLUDI_FIELD_DUPLICATE, "a field occurs twice"},
    {Condition::kPackageTwice, SQLI_KEY_DUPLICATE, "the package was there before"},
    {Condition::kSizeNotNumeric, SQLDXE_FIELD_NOT_NUMERIC, "Installed-Size is no number"},
    {Condition::kSizeOutOfRange, SQLDXE_FIELD_NUMERIC_RANGE, "Installed-Size is out of range"},
    {Condition::kDependencyMissing, SQLR_FK_PARENT_MISSING, "a dependency that nothing provides"},
    {Condition::kRecommendationMissing, SQLU_LOAD_INTEGRITY_PENDING, "a recommendation that nothing provides"},
    {Condition::kControlCharacter, SQLNLS_WARN_SUBSTITUTED, "control characters were replaced"},
    {Condition::kLineCut, SQLDXE_INFO_STRING_TRUNCATED, "an over-long line was cut"},
    {Condition::kStanzaCut, SQLDXE_RECORD_TOO_LONG, "an over-long stanza was cut"},
    {Condition::kIndexFull, SQLI_INDEX_PAGES_EXHAUSTED, "no room left in the index"},
};
inline constexpr std::size_t kConditionCount = std::size(kConditions);

constexpr bool conditionsInOrder() noexcept {
  for (std::size_t i = 0; i < kConditionCount; ++i)
    if (static_cast<std::size_t>(kConditions[i].condition) != i) return false;
  return true;
}
static_assert(conditionsInOrder(), "a condition is the index of its row");

constexpr SqlzZrc codeOf(Condition condition) noexcept { return kConditions[static_cast<std::size_t>(condition)].code; }

// A set of conditions.
class ConditionSet {
 public:
  constexpr void add(Condition condition) noexcept { bits_ |= 1U << static_cast<unsigned>(condition); }
  [[nodiscard]] constexpr bool has(Condition condition) const noexcept {
    return (bits_ >> static_cast<unsigned>(condition) & 1U) != 0;
  }
  [[nodiscard]] constexpr bool empty() const noexcept { return bits_ == 0; }

 private:
  std::uint32_t bits_ = 0;
};
static_assert(kConditionCount <= 32);

// One example of a condition. Texts are printable, terminated and cut to their size.
struct Example {
  std::uint64_t line;
  char package[40];
  char detail[40];
};

inline constexpr std::string_view kNoName = "(no name)";
inline constexpr std::size_t kTextMost = 64;  // bytes of a name or a detail in a note
inline constexpr std::size_t kExamplesKept = 2;

// How many stanzas met a condition, and the ones that stand first in the file.
struct Tally {
  std::uint32_t stanzas;
  std::uint32_t exampleCount;
  Example examples[kExamplesKept];
};

// Tallies of all conditions; lies in shared memory as part of a reply.
struct FindingTable {
  Tally tallies[kConditionCount];
};

void mergeFindings(FindingTable& into, const FindingTable& from) noexcept;

// The notes of one request, about one stanza after the other. A condition counts once per stanza.
class Findings {
 public:
  Findings(FindingTable& table, sqlca& area) noexcept : table_(table), area_(area) {}

  // The notes that follow are about another stanza, whose name is not known yet.
  void beginStanza() noexcept;
  void namePackage(std::string_view name) noexcept { package_ = name.substr(0, kTextMost); }

  // Takes a note inside a traced function, whose scope shows the error at a probe of the condition's own.
  template <class Trace>
  void note(const Trace& trace, Condition condition, std::uint64_t line, std::string_view detail) noexcept {
    const std::uint32_t probe = 10 * (static_cast<std::uint32_t>(condition) + 1);
    detail = detail.substr(0, kTextMost);
    trace.error(probe, codeOf(condition), package_, line, detail);
    if (!add(condition, line, detail)) return;
    const SqlzZrc code = codeOf(condition);
    // What the log answers is of no concern here: a record that is lost must not fail the request.
    (void)pdLogValues(PD_LOG_RC_ZRC, Trace::kFunctionId, code, probe, code < 0 ? PD_LEVEL_ERROR : PD_LEVEL_WARNING,
                      package_, line, detail);
  }

  // The code of the stanza so far: its first error, else its first warning, else 0.
  [[nodiscard]] SqlzZrc verdict() const noexcept { return verdict_; }

 private:
  // False: the stanza met that condition before.
  bool add(Condition condition, std::uint64_t line, std::string_view detail) noexcept;

  FindingTable& table_;
  sqlca& area_;
  SqlzCallerContext context_ = {};
  std::string_view package_ = kNoName;
  ConditionSet seen_;
  SqlzZrc verdict_ = 0;
};

}  // namespace demo
