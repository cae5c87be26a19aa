#include "package.h"

#include <veksys/diag/trace_scope.h>

#include <algorithm>
#include <charconv>

#include "functions.h"

namespace demo {
namespace {

constexpr std::uint64_t kInstalledKibMost = 1ULL << 32;  // 4 TiB
constexpr const char* kRequired[] = {"Package", "Version", "Status"};
constexpr std::string_view kAbsentStates[] = {"not-installed", "config-files", "half-installed"};

// The value of a field with one blank for each control character, empty when there is no such field.
std::string textOf(const Stanza& stanza, std::string_view name) {
  const Field* field = stanza.find(name);
  std::string text(field == nullptr ? std::string_view() : field->value);
  std::replace_if(text.begin(), text.end(), isControl, ' ');
  return text;
}

std::string lowered(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

std::string sectionOf(const Stanza& stanza) {
  std::string section = textOf(stanza, "Section");
  return section.substr(section.find('/') == std::string::npos ? 0 : section.find('/') + 1);
}

// The last word of the status tells; a file without the field lists packages that are there.
bool isInstalled(const Stanza& stanza) {
  const std::string status = textOf(stanza, "Status");
  const std::string_view state = std::string_view(status).substr(status.find_last_of(" \t") + 1);
  return std::find(std::begin(kAbsentStates), std::end(kAbsentStates), state) == std::end(kAbsentStates);
}

std::string dependsOf(const Stanza& stanza) { return textOf(stanza, "Pre-Depends") + "," + textOf(stanza, "Depends"); }

template <class Trace>
void noteMissing(const Trace& trace, const Stanza& stanza, Findings& findings) {
  std::string missing;
  for (const char* name : kRequired) {
    const Field* field = stanza.find(name);
    if (field != nullptr && !field->value.empty()) continue;
    if (!missing.empty()) missing += ", ";
    missing += name;
  }
  if (!missing.empty()) findings.note(trace, Condition::kFieldMissing, stanza.line, missing);
}

template <class Trace>
std::uint64_t installedSize(const Trace& trace, const Stanza& stanza, Findings& findings) {
  const Field* field = stanza.find("Installed-Size");
  if (field == nullptr) return 0;
  const char* const end = field->value.data() + field->value.size();
  std::uint64_t kib = 0;
  const auto [stop, error] = std::from_chars(field->value.data(), end, kib);
  const bool outOfRange = error == std::errc::result_out_of_range || kib > kInstalledKibMost;
  if (stop == end && error == std::errc() && !outOfRange) return kib;
  const bool numeric = stop == end && outOfRange;
  findings.note(trace, numeric ? Condition::kSizeOutOfRange : Condition::kSizeNotNumeric, field->line, field->value);
  return 0;
}

}  // namespace

SqlzZrc makePackage(const Stanza& stanza, Findings& findings, Package* out) {
  SqltTraceScope<FID_makePackage> trace;
  noteMissing(trace, stanza, findings);
  out->line = stanza.line;
  out->name = lowered(textOf(stanza, "Package"));
  out->architecture = textOf(stanza, "Architecture");
  out->section = sectionOf(stanza);
  out->provides = textOf(stanza, "Provides");
  out->depends = dependsOf(stanza);
  out->recommends = textOf(stanza, "Recommends");
  out->installedKib = installedSize(trace, stanza, findings);
  out->installed = isInstalled(stanza);
  trace.data(1, std::string_view(out->name), out->line, out->installedKib);
  return trace.exit(findings.verdict());
}

SqlzZrc indexPackage(const Package& package, Index& index, Findings& findings) {
  SqltTraceScope<FID_indexPackage> trace;
  SqlzZrc code = index.insert(packageKey(package.name, package.architecture), package.line);
  if (code == 0 && package.installed) code = index.insert(nameKey(package.name), package.line);
  for (ListReader list(package.provides, ','); code == 0 && package.installed && list.next();)
    code = index.insert(nameKey(nameOfItem(list.item())), package.line);
  if (code != 0) findings.note(trace, Condition::kIndexFull, package.line, package.name);
  return trace.exit(code);
}

bool ListReader::next() noexcept {
  do {
    if (rest_.empty()) return false;
    const std::size_t end = std::min(rest_.find(separator_), rest_.size());
    item_ = trimmed(rest_.substr(0, end));
    rest_.remove_prefix(std::min(end + 1, rest_.size()));
  } while (item_.empty());
  return true;
}

std::string_view nameOfItem(std::string_view item) noexcept {
  return item.substr(0, item.find_first_of(" \t\r\n:([<"));
}

}  // namespace demo
