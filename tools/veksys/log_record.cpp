#include "log_record.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <ctime>

namespace veksys {
namespace {

constexpr std::size_t kStampColumns = 26;
constexpr std::size_t kIdentifierColumns = 25;
constexpr std::size_t kLabelColumns = 10;
constexpr std::string_view kLevelLabel = " LEVEL: ";
constexpr std::uint32_t kLeastRecord = kStampColumns + 5 + kIdentifierColumns + kLevelLabel.size();
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::string_view kLevelNames[] = {"Unknown", "Severe", "Error", "Warning", "Info", "Critical", "Event"};

bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
bool isLetter(char c) noexcept { return c >= 'A' && c <= 'Z'; }

// ---- the first line ---------------------------------------------------------------------------------------------

// Days since 1970 of a day of the proleptic Gregorian calendar.
constexpr std::int64_t daysOf(std::int64_t year, unsigned month, unsigned day) noexcept {
  year -= month <= 2 ? 1 : 0;
  const std::int64_t era = year / 400;
  const auto ofEra = static_cast<unsigned>(year - era * 400);
  const unsigned ofYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
  return era * 146097 + static_cast<std::int64_t>(ofEra * 365 + ofEra / 4 - ofEra / 100 + ofYear) - 719468;
}
static_assert(daysOf(1970, 1, 1) == 0 && daysOf(2000, 3, 1) == 11017);

constexpr char kStampForm[] = "0000-00-00-00.00.00.000000";

// The number in the digits of a form; the form was checked.
template <unsigned DIGITS>
unsigned digitsAt(const char* at) noexcept {
  unsigned value = 0;
  for (unsigned i = 0; i < DIGITS; ++i) value = value * 10 + static_cast<unsigned>(at[i] - '0');
  return value;
}

struct Stamp {
  unsigned year;
  unsigned month;
  unsigned day;
  unsigned hour;
  unsigned minute;
  unsigned second;
  unsigned micros;

  // As if the clock showed UTC.
  std::int64_t asUtc() const noexcept {
    const std::int64_t minutes = (daysOf(year, month, day) * 24 + hour) * 60 + minute;
    return (minutes * 60 + second) * kSecond + std::int64_t{micros} * 1000;
  }
};

// The years that nanoseconds in 64 bits reach.
bool isPossible(const Stamp& stamp) noexcept {
  return stamp.year >= 1700 && stamp.year <= 2261 && stamp.month >= 1 && stamp.month <= 12 && stamp.day >= 1 &&
         stamp.day <= 31 && stamp.hour <= 23 && stamp.minute <= 59 && stamp.second <= 60;
}

bool readStamp(const char* at, Stamp* stamp) noexcept {
  unsigned wrong = 0;
  for (std::size_t i = 0; i < kStampColumns; ++i) {
    const auto off = static_cast<unsigned char>(at[i] - kStampForm[i]);
    wrong |= kStampForm[i] == '0' ? (off > 9 ? 1U : 0U) : off;
  }
  if (wrong != 0) return false;
  *stamp = {digitsAt<4>(at),      digitsAt<2>(at + 5),  digitsAt<2>(at + 8), digitsAt<2>(at + 11),
            digitsAt<2>(at + 14), digitsAt<2>(at + 17), digitsAt<6>(at + 20)};
  return isPossible(*stamp);
}

template <class Number>
bool takeDigits(std::string_view& text, Number* number) noexcept {
  if (text.empty() || !isDigit(text[0])) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *number);
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  return error == std::errc{};
}

// "+060": sign and at least three digits.
bool takeZone(std::string_view& text, std::int32_t* minutes) noexcept {
  if (text.size() < 4 || (text[0] != '+' && text[0] != '-')) return false;
  const bool west = text[0] == '-';
  const std::size_t before = text.size();
  text.remove_prefix(1);
  if (!takeDigits(text, minutes) || before - text.size() < 4 || *minutes > 24 * 60) return false;
  if (west) *minutes = -*minutes;
  return true;
}

// "I4711H512", in its columns.
bool readIdentifier(std::string_view columns, LogHead* head) noexcept {
  head->type = columns[0];
  if (!isLetter(columns[0])) return false;
  columns.remove_prefix(1);
  if (!takeDigits(columns, &head->offset) || columns.empty() || !isLetter(columns[0])) return false;
  columns.remove_prefix(1);
  if (!takeDigits(columns, &head->length)) return false;
  return columns.find_first_not_of(' ') == std::string_view::npos && head->length >= kLeastRecord &&
         head->length <= LOG_RECORD_MOST;
}

void readLevel(std::string_view rest, LogHead* head) noexcept {
  rest = takeLogLine(rest);
  head->secondLevel = {};
  head->levelName = rest;
  const std::size_t open = rest.find(" (");
  if (open != std::string_view::npos && rest.back() == ')') {
    head->levelName = rest.substr(0, open);
    head->secondLevel = rest.substr(open + 2, rest.size() - open - 3);
  }
  head->level = 0;
  for (std::uint32_t level = 1; level <= LOG_LEVEL_MOST; ++level)
    if (head->levelName == kLevelNames[level]) head->level = level;
}

// ---- the lines of the header ------------------------------------------------------------------------------------

// A field that stands on a line behind a label, and the columns of the value in front of it, unless that is longer.
struct Place {
  std::string_view label;
  LogField field;
  std::size_t columns;
};

// The lines, by the label they begin with, and what may follow on them in this order. They stand in the order of their
// fields. A value that fills its columns is followed by the next label without a blank.
struct HeaderLine {
  Place first;
  std::array<Place, 2> further;

  LogField last() const noexcept {
    return !further[1].label.empty() ? further[1].field : !further[0].label.empty() ? further[0].field : first.field;
  }
};
constexpr Place kNowhere = {"", LogField::kText, 0};
constexpr HeaderLine kHeaderLines[] = {
    {{"PID     : ", LogField::kPid, 0}, {{{"TID : ", LogField::kTid, 21}, {"PROC : ", LogField::kProcess, 15}}}},
    {{"INSTANCE: ", LogField::kInstance, 0},
     {{{"NODE : ", LogField::kMember, 21}, {"DB   : ", LogField::kDatabase, 14}}}},
    {{"APPHDL  : ", LogField::kHandle, 0}, {{{"APPID: ", LogField::kApplication, 21}, kNowhere}}},
    {{"APPID   : ", LogField::kApplication, 0}, {{kNowhere, kNowhere}}},
    {{"UOWID   : ", LogField::kUnitOfWork, 0},
     {{{"ACTID: ", LogField::kActivity, 21}, {"TENANTID: ", LogField::kTenant, 15}}}},
    {{"ACTID   : ", LogField::kActivity, 0}, {{{"TENANTID: ", LogField::kTenant, 21}, kNowhere}}},
    {{"TENANTID: ", LogField::kTenant, 0}, {{kNowhere, kNowhere}}},
    {{"AUTHID  : ", LogField::kUser, 0}, {{{"HOSTNAME: ", LogField::kHost, 21}, kNowhere}}},
    {{"HOSTNAME: ", LogField::kHost, 0}, {{kNowhere, kNowhere}}},
    {{"EDUID   : ", LogField::kEngineUnit, 0}, {{{"EDUNAME: ", LogField::kEngineUnitName, 21}, kNowhere}}},
};

// Where a label stands on the rest of a line. A user's name may hold anything; the host behind it holds no blank.
std::size_t labelOn(std::string_view line, const Place& place) noexcept {
  if (place.field == LogField::kHost) return line.rfind(place.label);
  const bool isInColumns = line.size() > place.columns && line.substr(place.columns).starts_with(place.label);
  return isInColumns ? place.columns : line.find(place.label);
}

std::string_view trimmed(std::string_view text) noexcept {
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  return text;
}

// Sections of the body that are fields.
constexpr Place kSections[] = {
    {"MESSAGE : ", LogField::kMessage, 0}, {"CALLED  : ", LogField::kCalled, 0}, {"RETCODE : ", LogField::kCode, 0},
    {"OSERR   : ", LogField::kOsError, 0}, {"IMPACT  : ", LogField::kImpact, 0}, {"OBJECT  : ", LogField::kObject, 0},
};

bool isItem(std::string_view label) noexcept { return label.starts_with("DATA #") || label.starts_with("ARG  #"); }

struct CodeForm {
  std::string_view start;
  LogCode::Kind kind;
  int base;
};
constexpr CodeForm kCodeForms[] = {
    {"ZRC=0x", LogCode::Kind::kReturnCode, 16},
    {"ECF=0x", LogCode::Kind::kEcf, 16},
    {"MARKER=", LogCode::Kind::kMarker, 10},
    {"CA RC= ", LogCode::Kind::kCa, 10},
};

}  // namespace

std::string_view logLevelName(std::uint32_t level) noexcept { return kLevelNames[level <= LOG_LEVEL_MOST ? level : 0]; }

std::string_view takeLogLine(std::string_view& text) noexcept {
  const auto* found = static_cast<const char*>(text.empty() ? nullptr : std::memchr(text.data(), '\n', text.size()));
  const std::size_t end = found == nullptr ? text.size() : static_cast<std::size_t>(found - text.data());
  std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

bool opensLogSection(std::string_view line) noexcept {
  if (line.size() < kLabelColumns || !isLetter(line[0]) || line[8] != ':' || line[9] != ' ') return false;
  return std::all_of(line.begin(), line.begin() + 8,
                     [](char c) { return isLetter(c) || isDigit(c) || c == ' ' || c == '#'; });
}

bool parseLogHead(std::string_view bytes, LogHead* head) noexcept {
  if (bytes.size() < kLeastRecord) return false;
  Stamp stamp;
  if (!readStamp(bytes.data(), &stamp)) return false;
  std::string_view rest = bytes.substr(kStampColumns, LOG_HEAD_MOST);
  if (!takeZone(rest, &head->zoneMinutes) || !rest.starts_with(' ')) return false;
  rest.remove_prefix(1);
  if (rest.size() < kIdentifierColumns || !readIdentifier(rest.substr(0, kIdentifierColumns), head)) return false;
  rest.remove_prefix(kIdentifierColumns);
  if (!rest.starts_with(kLevelLabel)) return false;
  rest.remove_prefix(kLevelLabel.size());
  readLevel(rest, head);
  head->stamp = bytes.substr(0, kStampColumns);
  head->moment = stamp.asUtc() - head->zoneMinutes * kMinute;
  return true;
}

std::optional<std::int64_t> parseLogStamp(std::string_view typed) {
  Stamp stamp;
  if (typed.size() < kStampColumns || !readStamp(typed.data(), &stamp)) return std::nullopt;
  typed.remove_prefix(kStampColumns);
  std::int32_t zone = 0;
  if (!typed.empty())
    return takeZone(typed, &zone) && typed.empty() ? std::optional(stamp.asUtc() - zone * kMinute) : std::nullopt;
  tm parts = {};
  parts.tm_year = static_cast<int>(stamp.year) - 1900;
  parts.tm_mon = static_cast<int>(stamp.month) - 1;
  parts.tm_mday = static_cast<int>(stamp.day);
  parts.tm_hour = static_cast<int>(stamp.hour);
  parts.tm_min = static_cast<int>(stamp.minute);
  parts.tm_sec = static_cast<int>(stamp.second);
  parts.tm_isdst = -1;
  return ::mktime(&parts) * kSecond + static_cast<std::int64_t>(stamp.micros) * 1000;
}

// Reads lines of the header until those of a field have been passed: most questions are about the first ones.
void LogRecord::readHeader(LogField upTo) noexcept {
  if (state_ == State::kNothing) {
    texts_.fill({});
    state_ = State::kInHeader;
    passed_ = 0;
    body_ = bytes_;
    takeLogLine(body_);
  }
  while (state_ == State::kInHeader && passed_ <= static_cast<std::size_t>(upTo)) {
    std::string_view rest = body_;
    const std::string_view line = rest.empty() ? rest : takeLogLine(rest);
    const bool isLast = line.starts_with("FUNCTION: ");
    if (isLast) readFunction(line.substr(kLabelColumns));
    if (isLast || !readLine(line)) state_ = State::kHeader;
    if (isLast || state_ == State::kInHeader) body_ = rest;
  }
}

// False for a line that is none of the header's: the body begins there.
bool LogRecord::readLine(std::string_view line) noexcept {
  const auto* known = std::find_if(std::begin(kHeaderLines), std::end(kHeaderLines),
                                   [&](const HeaderLine& each) { return line.starts_with(each.first.label); });
  if (known == std::end(kHeaderLines)) return false;
  passed_ = static_cast<std::size_t>(known->last()) + 1;
  LogField field = known->first.field;
  line.remove_prefix(kLabelColumns);
  for (const Place& place : known->further) {
    if (place.label.empty()) break;
    const std::size_t found = labelOn(line, place);
    if (found == std::string_view::npos) continue;
    at(field) = trimmed(line.substr(0, found));
    line.remove_prefix(found + place.label.size());
    field = place.field;
  }
  at(field) = trimmed(line);
  return true;
}

// "product, component, function, probe:10"; names of components may hold commas.
void LogRecord::readFunction(std::string_view line) noexcept {
  const std::size_t probe = line.rfind(", probe:");
  if (probe == std::string_view::npos) return;
  at(LogField::kProbe) = trimmed(line.substr(probe + 8));
  line = line.substr(0, probe);
  const std::size_t first = line.find(", ");
  if (first == std::string_view::npos) return;
  at(LogField::kProduct) = line.substr(0, first);
  line.remove_prefix(first + 2);
  const std::size_t last = line.rfind(", ");
  if (last != std::string_view::npos) at(LogField::kComponent) = line.substr(0, last);
  at(LogField::kFunction) = line.substr(last == std::string_view::npos ? 0 : last + 2);
}

// A message may hold lines that look like sections; the logger's own stand behind it and before the items, so that the
// last one counts.
void LogRecord::keepSection(std::string_view label, std::string_view text) noexcept {
  while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
  for (const Place& section : kSections) {
    if (label != section.label) continue;
    if (section.field == LogField::kMessage && !at(section.field).empty()) return;
    at(section.field) = text;
    if (section.field != LogField::kCalled) return;
    const std::size_t error = text.rfind(" OSERR: ");
    if (error == std::string_view::npos) return;
    at(LogField::kOsError) = trimmed(text.substr(error + 8));
    at(section.field) = trimmed(text.substr(0, error));
    return;
  }
}

void LogRecord::readBody() noexcept {
  readHeader(LogField::kMessage);
  state_ = State::kBody;
  std::string_view rest = body_;
  std::string_view label;
  const char* begin = rest.data();
  while (!rest.empty()) {
    const char* here = rest.data();
    const std::string_view line = takeLogLine(rest);
    if (!opensLogSection(line)) continue;
    if (!label.empty()) keepSection(label, {begin, static_cast<std::size_t>(here - begin)});
    label = line.substr(0, kLabelColumns);
    begin = here + kLabelColumns;
    if (isItem(label)) return;
  }
  if (!label.empty()) keepSection(label, {begin, static_cast<std::size_t>(body_.data() + body_.size() - begin)});
}

std::string_view LogRecord::text(LogField field) noexcept {
  if (field == LogField::kText) return bytes_;
  if (field == LogField::kTime) return head_.stamp;
  if (field == LogField::kLevel) return head_.levelName;
  if (field == LogField::kType) return {&head_.type, 1};
  readHeader(field);
  if (static_cast<std::size_t>(field) >= LOG_HEADER_FIELDS && state_ == State::kHeader) readBody();
  return at(field);
}

std::optional<std::uint64_t> LogRecord::number(LogField field) noexcept {
  if (field == LogField::kLevel) return head_.level;
  std::string_view digits = text(field);
  const bool negative = digits.starts_with('-');
  std::uint64_t value = 0;
  if (negative) digits.remove_prefix(1);
  if (!takeDigits(digits, &value) || !digits.empty()) return std::nullopt;
  return negative ? 0 - value : value;
}

LogCode LogRecord::code() noexcept {
  const std::string_view shown = text(LogField::kCode);
  for (const CodeForm& form : kCodeForms) {
    if (!shown.starts_with(form.start)) continue;
    LogCode code;
    const char* end = shown.data() + shown.size();
    if (std::from_chars(shown.data() + form.start.size(), end, code.value, form.base).ec == std::errc{})
      code.kind = form.kind;
    return code;
  }
  return {};
}

std::string_view LogRecord::body() noexcept {
  readHeader(LogField::kMessage);
  return body_;
}

}  // namespace veksys
