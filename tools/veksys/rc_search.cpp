#include "rc_search.h"

#include <algorithm>
#include <string_view>
#include <tuple>

#include "names.h"

namespace veksys {
namespace {

bool isLetterOrDigit(char c) noexcept { return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'); }

bool holds(const std::string& text, const std::string& word) { return text.find(word) != std::string::npos; }

bool holdsWhole(const std::string& text, const std::string& word) {
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    const bool begins = at == 0 || !isLetterOrDigit(text[at - 1]);
    const std::size_t end = at + word.size();
    if (begins && (end == text.size() || !isLetterOrDigit(text[end]))) return true;
  }
  return false;
}

constexpr int kNoMatch = 9;

int rankOf(const std::string& name, const std::string& text, const std::vector<std::string>& words) {
  const auto all = [&](auto test) { return std::all_of(words.begin(), words.end(), test); };
  if (!all([&](const std::string& word) { return holds(name, word) || holds(text, word); })) return kNoMatch;
  if (words.size() == 1 && name == words[0]) return 0;
  if (name.starts_with(words[0])) return 1;
  if (all([&](const std::string& word) { return holds(name, word); })) return 2;
  return all([&](const std::string& word) { return holdsWhole(text, word) || holds(name, word); }) ? 3 : 4;
}

}  // namespace

std::vector<const SqlzZrcEntry*> searchCodes(const std::vector<std::string>& words) {
  std::vector<std::string> wanted;
  wanted.reserve(words.size());
  for (const std::string& word : words) wanted.push_back(lowerCase(word));
  std::vector<std::tuple<int, std::uint32_t, const SqlzZrcEntry*>> matches;
  for (const SqlzZrcEntry* entry = Catalogue::begin(); entry != Catalogue::end(); ++entry) {
    const int rank = rankOf(lowerCase(entry->name), lowerCase(entry->description), wanted);
    if (rank != kNoMatch) matches.emplace_back(rank, static_cast<std::uint32_t>(entry->code), entry);
  }
  std::sort(matches.begin(), matches.end());
  std::vector<const SqlzZrcEntry*> codes;
  for (const auto& match : matches) codes.push_back(std::get<2>(match));
  return codes;
}

}  // namespace veksys
