#include "names.h"

#include <algorithm>
#include <charconv>

#include "failure.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::uint32_t kComponents = 256;

char lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }

EcfFunctionId idOf(std::uint32_t component) noexcept { return ecfFunctionId(component, 0); }

// A component number: 0x and hex digits, or decimal digits. False for anything else.
bool parseNumber(std::string_view typed, std::uint32_t* number) noexcept {
  const bool hex = typed.size() > 2 && typed[0] == '0' && lower(typed[1]) == 'x';
  if (hex) typed.remove_prefix(2);
  const auto [end, error] = std::from_chars(typed.data(), typed.data() + typed.size(), *number, hex ? 16 : 10);
  return error == std::errc{} && end == typed.data() + typed.size() && *number < kComponents;
}

ComponentSet parseComponent(const std::string& typed) {
  ComponentSet found;
  std::uint32_t number = 0;
  if (parseNumber(typed, &number)) return found.set(number);
  if (equalIgnoringCase(typed, "all")) return found.set();
  for (std::uint32_t component = 0; component < kComponents; ++component) {
    if (!isKnownComponent(component)) continue;
    if (equalIgnoringCase(typed, ecfGetComponentShortName(idOf(component))) ||
        equalIgnoringCase(typed, ecfGetComponentName(idOf(component))))
      found.set(component);
  }
  if (const std::int32_t other = ecfFindComponent(typed.c_str()); found.none() && other >= 0)  // by a second prefix
    found.set(static_cast<std::size_t>(other));
  if (found.none())
    wrongUse("\"" + typed + "\" is no component: a prefix such as SQLO, a name, a number from 0 to 255 or \"all\" is." +
             didYouMean(nearestNames(typed, componentNames())));
  return found;
}

// Edits (insert, delete, replace, swap two neighbours) that turn one text into the other; stops counting at `most`.
std::size_t editDistance(std::string_view a, std::string_view b, std::size_t most) {
  if (a.size() > b.size() + most || b.size() > a.size() + most) return most + 1;
  std::vector<std::size_t> before(b.size() + 1);
  std::vector<std::size_t> last(b.size() + 1);
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j <= b.size(); ++j) last[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = last[j - 1] + (lower(a[i - 1]) == lower(b[j - 1]) ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, replaced});
      if (i > 1 && j > 1 && lower(a[i - 1]) == lower(b[j - 2]) && lower(a[i - 2]) == lower(b[j - 1]))
        row[j] = std::min(row[j], before[j - 2] + 1);
    }
    before.swap(last);
    last.swap(row);
  }
  return last[b.size()];
}

}  // namespace

std::vector<std::string> splitList(std::string_view list) {
  std::vector<std::string> parts;
  while (!list.empty()) {
    const std::size_t comma = std::min(list.find(','), list.size());
    std::string_view part = list.substr(0, comma);
    while (!part.empty() && part.front() == ' ') part.remove_prefix(1);
    while (!part.empty() && part.back() == ' ') part.remove_suffix(1);
    if (!part.empty()) parts.emplace_back(part);
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return parts;
}

ComponentSet parseComponents(const std::vector<std::string>& names) {
  ComponentSet all;
  for (const std::string& list : names)
    for (const std::string& name : splitList(list)) all |= parseComponent(name);
  return all;
}

void putComponent(Text& text, std::uint32_t component) {
  const char* shortName = ecfGetComponentShortName(idOf(component));
  if (shortName != nullptr) return text.put(shortName);
  text.put("0x");
  text.hex(component, 2);
}

std::string componentLabel(std::uint32_t component) {
  Text text;
  putComponent(text, component);
  return std::string(text.view());
}

bool isKnownComponent(std::uint32_t component) { return ecfGetComponentShortName(idOf(component)) != nullptr; }

std::vector<std::string> nearestNames(std::string_view typed, const std::vector<std::string>& candidates,
                                      std::size_t most) {
  const std::size_t farthest = std::max<std::size_t>(1, std::min<std::size_t>(typed.size() / 3, 4));
  std::vector<std::pair<std::size_t, std::string>> near;
  for (const std::string& candidate : candidates) {
    const std::size_t distance = editDistance(typed, candidate, farthest);
    if (distance <= farthest) near.emplace_back(distance, candidate);
  }
  std::sort(near.begin(), near.end());
  std::vector<std::string> names;
  for (auto& [distance, name] : near)
    if (names.size() < most && std::find(names.begin(), names.end(), name) == names.end())
      names.push_back(std::move(name));
  return names;
}

std::vector<std::string> nearestCodeNames(std::string_view typed) {
  std::vector<std::string> candidates;
  std::for_each(Catalogue::begin(), Catalogue::end(),
                [&](const SqlzZrcEntry& entry) { candidates.emplace_back(entry.name); });
  return nearestNames(typed, candidates);
}

std::string didYouMean(const std::vector<std::string>& names) {
  if (names.empty()) return "";
  std::string text = " Did you mean " + names[0];
  for (std::size_t i = 1; i < names.size(); ++i) text += (i + 1 == names.size() ? " or " : ", ") + names[i];
  return text + "?";
}

std::vector<std::string> componentNames() {
  std::vector<std::string> names;
  for (std::uint32_t component = 0; component < kComponents; ++component)
    if (isKnownComponent(component)) names.push_back(componentLabel(component));
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

bool globMatches(std::string_view pattern, std::string_view name) {
  std::size_t p = 0;
  std::size_t n = 0;
  std::size_t star = std::string_view::npos;  // the last '*' met, and where the name stood then
  std::size_t mark = 0;
  while (n < name.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      mark = n;
    } else if (p < pattern.size() && (pattern[p] == '?' || lower(pattern[p]) == lower(name[n]))) {
      ++p;
      ++n;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      n = ++mark;
    } else {
      return false;
    }
  }
  while (p < pattern.size() && pattern[p] == '*') ++p;
  return p == pattern.size();
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() &&
         std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return lower(x) == lower(y); });
}

std::string lowerCase(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

const SqlzZrcEntry* Catalogue::begin() { return sqlzGetZrcMap(); }
const SqlzZrcEntry* Catalogue::end() { return sqlzGetZrcMap() + SQLZ_ZRC_MAP_COUNT; }

}  // namespace veksys
