#include "findings.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace demo {
namespace {

void copyPrintable(char* target, std::size_t bytes, std::string_view text) noexcept {
  const std::size_t length = std::min(text.size(), bytes - 1);
  std::transform(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(length), target,
                 [](char c) { return c < ' ' || c > '~' ? '?' : c; });
  target[length] = '\0';
}

// Keeps the examples that stand first in the file, in order, whatever order the replies come in.
void addExample(Tally& tally, const Example& example) noexcept {
  std::size_t at = tally.exampleCount;
  while (at > 0 && tally.examples[at - 1].line > example.line) --at;
  if (at == kExamplesKept) return;
  tally.exampleCount = std::min<std::uint32_t>(tally.exampleCount + 1, kExamplesKept);
  std::move_backward(tally.examples + at, tally.examples + tally.exampleCount - 1, tally.examples + tally.exampleCount);
  tally.examples[at] = example;
}

// A message token "line 123".
class LineToken {
 public:
  explicit LineToken(std::uint64_t line) noexcept {
    std::memcpy(text_, "line ", 5);
    end_ = std::to_chars(text_ + 5, text_ + sizeof text_, line).ptr;
  }
  [[nodiscard]] std::string_view text() const noexcept { return {text_, static_cast<std::size_t>(end_ - text_)}; }

 private:
  char text_[32];
  char* end_;
};

}  // namespace

void mergeFindings(FindingTable& into, const FindingTable& from) noexcept {
  for (std::size_t i = 0; i < kConditionCount; ++i) {
    into.tallies[i].stanzas += from.tallies[i].stanzas;
    for (std::size_t e = 0; e < std::min<std::size_t>(from.tallies[i].exampleCount, kExamplesKept); ++e)
      addExample(into.tallies[i], from.tallies[i].examples[e]);
  }
}

void Findings::beginStanza() noexcept {
  package_ = kNoName;
  seen_ = {};
  verdict_ = 0;
}

bool Findings::add(Condition condition, std::uint64_t line, std::string_view detail) noexcept {
  if (seen_.has(condition)) return false;
  seen_.add(condition);
  const SqlzZrc code = codeOf(condition);
  if (verdict_ >= 0 && (verdict_ == 0 || code < 0)) verdict_ = code;

  Tally& tally = table_.tallies[static_cast<std::size_t>(condition)];
  ++tally.stanzas;
  Example example;
  example.line = line;
  copyPrintable(example.package, sizeof example.package, package_);
  copyPrintable(example.detail, sizeof example.detail, detail);
  addExample(tally, example);
  sqlzFoldZrc(&context_, &area_, code, nullptr, package_, LineToken(line).text(), detail);
  return true;
}

}  // namespace demo
