#include "stanza.h"

#include <veksys/diag/trace_scope.h>

#include <algorithm>

#include "functions.h"

namespace demo {
namespace {

bool isSpace(char c) noexcept { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

char lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool lessIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                      [](char x, char y) { return lower(x) < lower(y); });
}

// Adds lines to a stanza, each to the field it belongs to.
class StanzaBuilder {
 public:
  explicit StanzaBuilder(Stanza& stanza) noexcept : stanza_(stanza) {}

  ConditionSet add(std::string_view line, std::uint64_t number) {
    ConditionSet odd;
    const bool cut = line.size() > kLineMost;
    if (cut) odd.add(Condition::kLineCut);
    line = line.substr(0, kLineMost);
    if (std::any_of(line.begin(), line.end(), isControl)) odd.add(Condition::kControlCharacter);
    const bool continues = line.front() == ' ' || line.front() == '\t';
    if (continues)
      extendField(line, odd);
    else
      beginField(line, number, odd);
    if (cut && last_ == Last::kField) last_ = Last::kClosed;
    return odd;
  }

 private:
  // What a continuation line would continue.
  enum class Last { kNothing, kField, kClosed };

  void beginField(std::string_view line, std::uint64_t number, ConditionSet& odd) {
    const std::size_t colon = line.find(':');
    const bool named = colon != std::string_view::npos && !trimmed(line.substr(0, colon)).empty();
    last_ = named ? Last::kField : Last::kClosed;
    if (named)
      stanza_.fields.push_back({trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)), number});
    else
      odd.add(Condition::kLineWithoutColon);
  }

  void extendField(std::string_view line, ConditionSet& odd) noexcept {
    if (last_ == Last::kNothing) odd.add(Condition::kStrayContinuation);
    if (last_ != Last::kField) return;
    std::string_view& value = stanza_.fields.back().value;
    const char* const end = line.data() + line.size();
    value = trimmed({value.data(), static_cast<std::size_t>(end - value.data())});
  }

  Stanza& stanza_;
  Last last_ = Last::kNothing;
};

struct OddLine {
  std::string_view text;
  std::uint64_t number;
  ConditionSet conditions;
};

template <class Trace>
void noteOddLine(const Trace& trace, const OddLine& odd, Findings& findings) {
  for (const ConditionRow& row : kConditions)
    if (odd.conditions.has(row.condition)) findings.note(trace, row.condition, odd.number, odd.text);
}

template <class Trace>
void noteFieldsTwice(const Trace& trace, const Stanza& stanza, Findings& findings) {
  std::vector<const Field*> sorted;
  for (const Field& field : stanza.fields) sorted.push_back(&field);
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Field* a, const Field* b) { return lessIgnoringCase(a->name, b->name); });
  for (std::size_t i = 1; i < sorted.size(); ++i)
    if (equalIgnoringCase(sorted[i - 1]->name, sorted[i]->name))
      findings.note(trace, Condition::kFieldTwice, sorted[i]->line, sorted[i]->name);
}

}  // namespace

bool isBlank(std::string_view line) noexcept { return std::all_of(line.begin(), line.end(), isSpace); }

bool isControl(char c) noexcept { return (static_cast<unsigned char>(c) < 0x20 && !isSpace(c)) || c == 0x7F; }

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return lower(x) == lower(y); });
}

const Field* Stanza::find(std::string_view name) const noexcept {
  const auto found =
      std::find_if(fields.begin(), fields.end(), [&](const Field& f) { return equalIgnoringCase(f.name, name); });
  return found == fields.end() ? nullptr : &*found;
}

bool LineReader::next() noexcept {
  if (rest_.empty()) return false;
  const std::size_t end = std::min(rest_.find('\n'), rest_.size());
  line_ = rest_.substr(0, end);
  if (!line_.empty() && line_.back() == '\r') line_.remove_suffix(1);
  rest_.remove_prefix(std::min(end + 1, rest_.size()));
  ++nextNumber_;
  return true;
}

bool StanzaReader::next() noexcept {
  do {
    if (!lines_.next()) return false;
  } while (isBlank(lines_.line()));
  const char* const begin = lines_.line().data();
  line_ = lines_.number();
  const char* end = begin + lines_.line().size();
  while (lines_.next() && !isBlank(lines_.line())) end = lines_.line().data() + lines_.line().size();
  text_ = {begin, static_cast<std::size_t>(end - begin)};
  return true;
}

SqlzZrc parseStanza(std::string_view text, std::uint64_t line, Findings& findings, Stanza* out) {
  SqltTraceScope<FID_parseStanza> trace;
  out->line = line;
  out->fields.clear();
  std::vector<OddLine> oddLines;  // noted once the stanza's name is known
  StanzaBuilder builder(*out);
  for (LineReader lines(text, line); lines.next();) {
    const ConditionSet odd = builder.add(lines.line(), lines.number());
    if (!odd.empty()) oddLines.push_back({lines.line(), lines.number(), odd});
  }
  if (const Field* name = out->find("Package"); name != nullptr && !name->value.empty())
    findings.namePackage(name->value);
  for (const OddLine& odd : oddLines) noteOddLine(trace, odd, findings);
  noteFieldsTwice(trace, *out, findings);
  return trace.exit(findings.verdict());
}

}  // namespace demo
