// The printable description of a return code.
#include <atomic>
#include <string_view>

#include "diag/base/pdpen.h"
#include "diag/base/sqlmsg.h"
#include "diag/base/traced.h"
#include "veksys/diag/rc.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr std::size_t kNarrowWidth = 70;
constexpr std::size_t kWideWidth = 80;
constexpr std::string_view kIndent = "          ";
constexpr SqlzZrc kNoCode = -1;

constinit std::atomic<bool> g_wide{false};

std::size_t lineWidth() noexcept { return pdWideMessages() ? kWideWidth : kNarrowWidth; }

constexpr SqlzZrc withoutComponent(SqlzZrc zrc) noexcept {
  return sqlzZrc(static_cast<std::uint32_t>(zrc) & ~SQLZ_ZRC_COMPONENT_MASK);
}

void penLineAndIndent(PdPen& pen) noexcept {
  pen.newLine();
  pen.text(kIndent);
}

void penNumbers(PdPen& pen, SqlzZrc zrc) noexcept {
  pen.text("ZRC=0x");
  pen.hex(static_cast<std::uint32_t>(zrc), 8);
  pen.character('=');
  pen.signedDecimal(zrc);
}

// Appends the code's name and returns its entry; null when it is catalogued neither as it is nor without component.
const SqlzZrcEntry* penName(PdPen& pen, SqlzZrc zrc) noexcept {
  const SqlzZrcEntry* entry = sqlzFindZrc(zrc);
  const bool exact = entry != nullptr;
  if (!exact) entry = sqlzFindZrc(withoutComponent(zrc));
  if (entry == nullptr) return nullptr;
  pen.text("=");
  pen.text(entry->name);
  const char* shortName = exact ? nullptr : ecfGetComponentShortName(ecfComponentIdOfZrc(zrc));
  if (shortName != nullptr) {
    pen.text(", SQLT_");
    pen.text(shortName);
  }
  return entry;
}

void penQuoted(PdPen& pen, std::string_view description) noexcept {
  constexpr std::size_t kBlankAndQuotes = 3;
  if (pen.written() + description.size() + kBlankAndQuotes <= lineWidth())
    pen.text(" ");
  else
    penLineAndIndent(pen);
  pen.text("\"");
  pen.text(description);
  pen.text("\"");
}

bool isBlank(char c) noexcept { return static_cast<unsigned char>(c) <= ' ' || c == '\x7F'; }

// A word and the number of blanks in front of it; the text comes from a file, so control characters count as blanks.
struct Word {
  std::size_t blanks;
  std::string_view letters;
};

Word takeWord(std::string_view& text) noexcept {
  std::size_t from = 0;
  while (from < text.size() && isBlank(text[from])) ++from;
  std::size_t to = from;
  while (to < text.size() && !isBlank(text[to])) ++to;
  const Word word = {from, text.substr(from, to - from)};
  text.remove_prefix(to);
  return word;
}

// Appends a text word by word to a line that has the indent already. A word that is longer than a line has one alone.
void penWrapped(PdPen& pen, std::string_view text) noexcept {
  const std::size_t width = lineWidth();
  std::size_t column = kIndent.size();
  for (Word word = takeWord(text); !word.letters.empty(); word = takeWord(text)) {
    const bool first = column == kIndent.size();
    const bool fits = column + word.blanks + word.letters.size() <= width;
    if (!first && !fits) {
      penLineAndIndent(pen);
      column = kIndent.size();
    }
    const std::size_t blanks = !first && fits ? word.blanks : 0;
    pen.fill(' ', blanks);
    pen.text(word.letters);
    column += blanks + word.letters.size();
  }
}

}  // namespace
}  // namespace vek

void pdSetWideMessages(bool wide) noexcept { vek::g_wide.store(wide, std::memory_order_relaxed); }

bool pdWideMessages() noexcept { return vek::g_wide.load(std::memory_order_relaxed); }

char* pdZRCGetDescription(SqlzZrc zrc, char* buffer, std::size_t bufferSize) noexcept {
  vek::VekTrace<vek::FID_pdZRCGetDescription> trace;
  if (buffer == nullptr || bufferSize == 0) return trace.exit(buffer);
  vek::PdPen pen(buffer, bufferSize);
  vek::penNumbers(pen, zrc);
  const SqlzZrcEntry* entry = vek::penName(pen, zrc);
  if (entry != nullptr) {
    vek::penQuoted(pen, entry->description);
  } else if (zrc != vek::kNoCode) {
    vek::penLineAndIndent(pen);
    vek::penWrapped(pen, vek::sqlzi_messageOfZrc(zrc));
  }
  pen.newLine();
  pen.finish({});
  return trace.exit(pen.next());
}
