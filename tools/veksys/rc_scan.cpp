#include "rc_scan.h"

#include <algorithm>
#include <charconv>

#include "failure.h"
#include "names.h"
#include "veksys/diag/rc.h"
#include "veksys/types.h"

namespace veksys {
namespace {

constexpr std::int64_t kSqlCodeMost = 32767;

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) noexcept { return isDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'); }
bool isLetter(char c) noexcept { return (c | 0x20) >= 'a' && (c | 0x20) <= 'z'; }
bool isWord(char c) noexcept { return isDigit(c) || isLetter(c) || c == '_'; }

bool allOf(std::string_view text, bool (*test)(char) noexcept) { return std::all_of(text.begin(), text.end(), test); }

bool isCatalogued(std::int32_t value) noexcept { return sqlzFindZrc(value) != nullptr; }

// An error code of a type that exists.
bool looksLikeError(std::int32_t value) noexcept { return value < 0 && sqlzZrcType(value) < SQLZ_ZRC_TYPE_COUNT; }

bool hasSqlMessage(std::int32_t value) noexcept {
  char message[16];
  return sqlzGetSqlMessage(value, message, sizeof message) != 0;
}

std::int32_t fromBits(std::uint64_t bits) noexcept { return sqlzZrc(static_cast<std::uint32_t>(bits)); }

std::uint64_t hexValue(std::string_view digits) noexcept {
  std::uint64_t value = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
  return value;
}

std::string hexOf(std::int32_t value) {
  Text text;
  text.hexCode(static_cast<std::uint32_t>(value));
  return std::string(text.view());
}

FoundCode zrc(std::int32_t value, std::string note = "") { return {false, value, std::move(note)}; }
FoundCode sql(std::int32_t value, std::string note = "") { return {true, value, std::move(note)}; }

// A small number as an SQL code, with what else it may be.
FoundCode smallNumber(std::int32_t value) {
  const std::string typed = std::to_string(value);
  const std::string asCode = "the return code of that value is written " + hexOf(value);
  if (value == -1)
    return sql(value, typed + " is read as an SQL code; " + asCode +
                          ", a special one: it stands for an error that nothing more is known of.");
  if (isCatalogued(value)) return sql(value, typed + " is read as an SQL code; " + asCode + ".");
  if (hasSqlMessage(value)) return sql(value);
  return sql(value, "no SQL code of the message catalogue and no return code of the catalogue is " + typed +
                        "; it is read as an SQL code because it is small, " + asCode + ".");
}

// Small numbers are SQL codes unless only the other catalogue has them, large ones return codes.
FoundCode decide(std::int64_t value) {
  if (value == 0 || value < -kSqlCodeMost || value > kSqlCodeMost)
    return zrc(fromBits(static_cast<std::uint64_t>(value)));
  const auto code = static_cast<std::int32_t>(value);
  return isCatalogued(code) && !hasSqlMessage(code) ? zrc(code) : smallNumber(code);
}

std::optional<FoundCode> readDecimal(const std::string& typed) {
  std::string_view digits = typed;
  const bool negative = digits[0] == '-';
  if (negative || digits[0] == '+') digits.remove_prefix(1);
  if (digits.empty() || !allOf(digits, isDigit)) return std::nullopt;
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (error != std::errc{} || value > (negative ? 0x80000000LL : 0xFFFFFFFFLL))
    wrongUse(typed + " does not fit into 32 bits, so no code has that value. Accepted is " + std::string(CODE_FORMS) +
             ".");
  if (digits.size() == 8 && typed.size() == 8 && !isCatalogued(static_cast<std::int32_t>(value))) {
    const std::int32_t asHex = fromBits(hexValue(digits));
    if (looksLikeError(asHex) || isCatalogued(asHex)) return zrc(asHex, typed + " is read as eight hex digits.");
  }
  return decide(negative ? -value : value);
}

std::optional<FoundCode> readHex(const std::string& typed) {
  const bool prefixed = typed.size() >= 2 && typed[0] == '0' && (typed[1] | 0x20) == 'x';
  const std::string_view digits = std::string_view(typed).substr(prefixed ? 2 : 0);
  const bool isHex = !digits.empty() && allOf(digits, isHexDigit);
  if (prefixed && !isHex)
    wrongUse("\"" + typed + "\" is not a hex number. Accepted is " + std::string(CODE_FORMS) + ".");
  if (prefixed && digits.size() > 8)
    wrongUse(typed + " has more than eight hex digits; a return code has 32 bits. Accepted is " +
             std::string(CODE_FORMS) + ".");
  // Without 0x a number is told from a word by its length and by having digits and letters.
  const bool mixed = std::any_of(digits.begin(), digits.end(), isDigit) && !allOf(digits, isDigit);
  if (!isHex || (!prefixed && !(digits.size() == 8 || (digits.size() >= 6 && digits.size() < 8 && mixed))))
    return std::nullopt;
  if (!prefixed && allOf(digits, isDigit)) return std::nullopt;
  return zrc(fromBits(hexValue(digits)));
}

// SQL0911N, SQL0100W, SQL0911: the letter gives the sign, without one the code that has a message.
std::optional<FoundCode> readMessageId(std::string_view typed) {
  if (typed.size() < 4 || !equalIgnoringCase(typed.substr(0, 3), "SQL") || !isDigit(typed[3])) return std::nullopt;
  std::string_view rest = typed.substr(3);
  const auto letter = static_cast<char>(rest.back() & ~0x20);
  const bool hasLetter = !isDigit(rest.back());
  if (hasLetter) rest.remove_suffix(1);
  std::int32_t number = 0;
  if (rest.empty() || rest.size() > 5 || !allOf(rest, isDigit) ||
      (hasLetter && letter != 'N' && letter != 'W' && letter != 'C'))
    return std::nullopt;
  std::from_chars(rest.data(), rest.data() + rest.size(), number);
  if (hasLetter) return sql(letter == 'W' ? number : -number);
  return sql(!hasSqlMessage(-number) && hasSqlMessage(number) ? number : -number);
}

std::optional<FoundCode> readName(const std::string& typed) {
  const SqlzZrcEntry* entry = sqlzFindZrcByName(typed.c_str());
  if (entry == nullptr) return std::nullopt;
  return FoundCode{false, entry->code, "", entry};
}

// ---- running text -----------------------------------------------------------------------------------------------

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  std::vector<FoundCode> run() {
    while (at_ < text_.size()) {
      if (!isWord(text_[at_])) {
        ++at_;
        continue;
      }
      const std::size_t begin = at_;
      while (at_ < text_.size() && isWord(text_[at_])) ++at_;
      word(begin, text_.substr(begin, at_ - begin));
    }
    return std::move(found_);
  }

 private:
  void add(const FoundCode& code) {
    const bool known = std::any_of(found_.begin(), found_.end(), [&](const FoundCode& each) {
      return each.isSqlCode == code.isSqlCode && each.value == code.value;
    });
    if (!known) found_.push_back(code);
  }

  // The letters right before the number at `begin`, blanks and one of "=:" between: its label.
  std::string_view labelBefore(std::size_t begin) const {
    std::size_t end = begin;
    while (end > 0 && (text_[end - 1] == ' ' || text_[end - 1] == '=' || text_[end - 1] == ':')) --end;
    std::size_t first = end;
    while (first > 0 && isLetter(text_[first - 1])) --first;
    return text_.substr(first, end - first);
  }

  bool labelledAsCode(std::size_t begin) const {
    const std::string_view label = labelBefore(begin);
    return equalIgnoringCase(label, "zrc") || equalIgnoringCase(label, "rc") || equalIgnoringCase(label, "retcode");
  }

  // A small positive number behind such a label is anybody's; nothing says that it is one of ours. -1 is everybody's
  // word for an error.
  static bool isExplained(std::int32_t code, bool hex) {
    return code != 0 &&
           (hex || code == -1 || looksLikeError(code) || isCatalogued(code) || (code < 0 && hasSqlMessage(code)));
  }

  void word(std::size_t begin, std::string_view word) {
    if (labelledAsCode(begin) && word.size() == 8 && allOf(word, isHexDigit) && !allOf(word, isDigit))
      return add(zrc(fromBits(hexValue(word))));
    if (isDigit(word[0])) return number(begin, word);
    const std::string name(word);
    if (const auto code = readMessageId(word))
      add(*code);
    else if (word.find('_') != std::string_view::npos)
      if (const auto named = readName(name)) add(*named);
  }

  void number(std::size_t begin, std::string_view word) {
    const bool hex =
        word.size() == 10 && word[0] == '0' && (word[1] | 0x20) == 'x' && allOf(word.substr(2), isHexDigit);
    const bool decimal = word.size() <= 10 && allOf(word, isDigit);
    if (!hex && !decimal) return;
    std::int64_t value = 0;
    const std::string_view digits = hex ? word.substr(2) : word;
    std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    std::size_t labelEnd = begin;
    if (decimal && begin > 0 && text_[begin - 1] == '-') {
      value = -value;
      --labelEnd;
    }
    if (value < -0x80000000LL || value > 0xFFFFFFFFLL) return;
    const auto code = fromBits(static_cast<std::uint64_t>(value));
    if (equalIgnoringCase(labelBefore(labelEnd), "sqlcode"))
      add(sql(static_cast<std::int32_t>(value)));
    else if (labelledAsCode(labelEnd) && isExplained(code, hex))
      add(hex ? zrc(code) : decide(value));
    else if ((looksLikeError(code) && (hex || value < 0)) || (hex && value != 0 && isCatalogued(code)))
      add(zrc(code));
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::vector<FoundCode> found_;
};

}  // namespace

std::optional<FoundCode> readCode(const std::string& typed) {
  if (typed.empty()) return std::nullopt;
  if (auto code = readHex(typed)) return code;
  if (auto code = readDecimal(typed)) return code;
  if (auto code = readMessageId(typed)) return code;
  return readName(typed);
}

std::vector<FoundCode> scanCodes(std::string_view text) { return Scanner(text).run(); }

}  // namespace veksys
