#include "platform/time_zone.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "platform/osse.h"

namespace vek {
namespace {

constexpr std::int64_t kDaySeconds = 86'400;
constexpr std::size_t kZoneFileBytesMost = std::size_t{1} << 20;
constexpr const char* kMachineZone = "/etc/localtime";
constexpr const char* kZoneDirectory = "/usr/share/zoneinfo";
constexpr std::size_t kPathBytes = 4096;

std::int64_t floorDivide(std::int64_t value, std::int64_t by) noexcept {
  const std::int64_t quotient = value / by;
  return quotient * by > value ? quotient - 1 : quotient;
}

bool isLeapYear(std::int64_t year) noexcept { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// ---- reading a rule -----------------------------------------------------------------------------------------------

// Takes pieces off the front of a rule; every step answers false on what does not belong there.
class RuleReader {
 public:
  explicit RuleReader(std::string_view text) noexcept : rest_(text) {}

  bool atEnd() const noexcept { return rest_.empty(); }
  bool at(char c) const noexcept { return !rest_.empty() && rest_.front() == c; }
  bool take(char c) noexcept {
    if (!at(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  bool name() noexcept {
    const bool quoted = take('<');
    std::size_t length = 0;
    while (length < rest_.size() && isNameCharacter(rest_[length], quoted)) ++length;
    rest_.remove_prefix(length);
    return length >= 3 && (!quoted || take('>'));
  }

  bool number(std::int32_t least, std::int32_t most, std::int32_t* out) noexcept {
    std::int32_t value = 0;
    std::size_t digits = 0;
    for (; digits < rest_.size() && digits < 4 && rest_[digits] >= '0' && rest_[digits] <= '9'; ++digits)
      value = value * 10 + (rest_[digits] - '0');
    rest_.remove_prefix(digits);
    *out = value;
    return digits != 0 && value >= least && value <= most;
  }

  // [+-]hh[:mm[:ss]]
  bool time(std::int32_t hoursMost, std::int32_t* out) noexcept {
    const bool negative = take('-');
    if (!negative) take('+');
    std::int32_t hours = 0;
    std::int32_t minutes = 0;
    std::int32_t seconds = 0;
    if (!number(0, hoursMost, &hours)) return false;
    if (take(':') && (!number(0, 59, &minutes) || (take(':') && !number(0, 59, &seconds)))) return false;
    *out = (negative ? -1 : 1) * (hours * 3600 + minutes * 60 + seconds);
    return true;
  }

  bool change(TimeZoneChange* out) noexcept {
    constexpr std::int32_t kTwoInTheMorning = 2 * 3600;
    constexpr std::int32_t kWeekHours = 167;
    out->seconds = kTwoInTheMorning;
    return take(',') && day(out) && (!take('/') || time(kWeekHours, &out->seconds));
  }

 private:
  static bool isNameCharacter(char c, bool quoted) noexcept {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z')) return true;
    return quoted && ((c >= '0' && c <= '9') || c == '+' || c == '-');
  }

  bool day(TimeZoneChange* out) noexcept {
    std::int32_t month = 0;
    std::int32_t week = 0;
    std::int32_t day = 0;
    bool read = false;
    if (take('M')) {
      out->day = TimeZoneChange::Day::kWeekday;
      read = number(1, 12, &month) && take('.') && number(1, 5, &week) && take('.') && number(0, 6, &day);
    } else if (take('J')) {
      out->day = TimeZoneChange::Day::kJulian;
      read = number(1, 365, &day);
    } else {
      out->day = TimeZoneChange::Day::kZeroBased;
      read = number(0, 365, &day);
    }
    out->month = static_cast<std::uint8_t>(month);
    out->week = static_cast<std::uint8_t>(week);
    out->dayNumber = static_cast<std::uint16_t>(day);
    return read;
  }

  std::string_view rest_;
};

bool parseRule(std::string_view text, TimeZoneRule* out) noexcept {
  constexpr std::string_view kDefaultChanges = ",M3.2.0,M11.1.0";
  constexpr std::int32_t kOffsetHoursMost = 24;
  RuleReader reader(text);
  std::int32_t west = 0;
  if (!reader.name() || !reader.time(kOffsetHoursMost, &west)) return false;
  out->standardOffset = -west;
  if (reader.atEnd()) return true;
  out->hasSummer = true;
  out->summerOffset = out->standardOffset + 3600;
  if (!reader.name()) return false;
  if (!reader.atEnd() && !reader.at(',')) {
    if (!reader.time(kOffsetHoursMost, &west)) return false;
    out->summerOffset = -west;
  }
  RuleReader changes = reader.atEnd() ? RuleReader(kDefaultChanges) : reader;
  return changes.change(&out->toSummer) && changes.change(&out->toStandard) && changes.atEnd();
}

// ---- applying a rule ----------------------------------------------------------------------------------------------

std::int64_t weekdayOf(const TimeZoneChange& change, std::int64_t year) noexcept {
  constexpr std::int64_t kThursday = 4;  // 1970-01-01
  const std::int64_t first = ossDaysOf(year, change.month, 1);
  const std::int64_t next = change.month == 12 ? ossDaysOf(year + 1, 1, 1) : ossDaysOf(year, change.month + 1U, 1);
  const std::int64_t weekday = ((first + kThursday) % 7 + 7) % 7;
  std::int64_t day = first + (change.dayNumber - weekday + 7) % 7 + std::int64_t{7} * (change.week - 1);
  while (day >= next) day -= 7;
  return day;
}

std::int64_t dayOf(const TimeZoneChange& change, std::int64_t year) noexcept {
  const std::int64_t newYear = ossDaysOf(year, 1, 1);
  switch (change.day) {
    case TimeZoneChange::Day::kWeekday:
      return weekdayOf(change, year);
    case TimeZoneChange::Day::kJulian:
      return newYear + change.dayNumber - 1 + (isLeapYear(year) && change.dayNumber >= 60 ? 1 : 0);
    default:
      return newYear + change.dayNumber;
  }
}

// The moment of a change, in UTC, when clocks were `offset` ahead before it.
std::int64_t momentOf(const TimeZoneChange& change, std::int64_t year, std::int32_t offset) noexcept {
  return dayOf(change, year) * kDaySeconds + change.seconds - offset;
}

}  // namespace

CivilDay ossCivilDay(std::int64_t days) noexcept {
  constexpr std::int64_t kEraDays = 146'097;      // 400 years
  constexpr std::int64_t kDaysToEpoch = 719'468;  // from 0000-03-01, where the year of this reckoning begins
  const std::int64_t shifted = days + kDaysToEpoch;
  const std::int64_t era = floorDivide(shifted, kEraDays);
  const std::int64_t dayOfEra = shifted - era * kEraDays;
  const std::int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36'524 - dayOfEra / 146'096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t month = (5 * dayOfYear + 2) / 153;  // March is 0
  CivilDay civil = {};
  civil.day = static_cast<std::uint32_t>(dayOfYear - (153 * month + 2) / 5 + 1);
  civil.month = static_cast<std::uint32_t>(month < 10 ? month + 3 : month - 9);
  civil.year = era * 400 + yearOfEra + (civil.month <= 2 ? 1 : 0);
  return civil;
}

std::int64_t ossDaysOf(std::int64_t year, std::uint32_t month, std::uint32_t day) noexcept {
  const std::int64_t shifted = month <= 2 ? year - 1 : year;
  const std::int64_t era = floorDivide(shifted, 400);
  const std::int64_t yearOfEra = shifted - era * 400;
  const std::int64_t monthFromMarch = month > 2 ? month - 3 : month + 9;
  const std::int64_t dayOfYear = (153 * monthFromMarch + 2) / 5 + day - 1;
  return era * 146'097 + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear - 719'468;
}

bool TimeZoneRule::parse(std::string_view text) noexcept {
  TimeZoneRule read;
  if (!parseRule(text, &read)) return false;
  *this = read;
  return true;
}

std::int32_t TimeZoneRule::offsetAt(std::int64_t seconds) const noexcept {
  if (!hasSummer) return standardOffset;
  const std::int64_t year = ossCivilDay(floorDivide(seconds + standardOffset, kDaySeconds)).year;
  const std::int64_t begin = momentOf(toSummer, year, standardOffset);
  const std::int64_t end = momentOf(toStandard, year, summerOffset);
  const bool isSummer = begin < end ? seconds >= begin && seconds < end : seconds >= begin || seconds < end;
  return isSummer ? summerOffset : standardOffset;
}

// ---- zone files ---------------------------------------------------------------------------------------------------
//
// A header of 44 bytes (magic, version, six counts), then transition times, the type of each, the types (offset of 4
// bytes, summer time, name), names, leap seconds and two kinds of marks. From version 2 on this comes twice: with times
// of 4 bytes, then of 8; and a rule between line ends follows. All numbers are big-endian.

namespace {

constexpr std::string_view kZoneMagic = "TZif";
constexpr std::size_t kZoneHeaderBytes = 44;
constexpr std::size_t kZoneCountsAt = 20;
constexpr std::size_t kZoneTypeBytes = 6;

std::uint64_t bigEndian(const char* bytes, std::size_t count) noexcept {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < count; ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
  return value;
}

}  // namespace

bool TimeZone::openBlock(std::size_t at, std::size_t timeBytes, std::size_t* endOut) noexcept {
  if (at > bytes_.size() || bytes_.size() - at < kZoneHeaderBytes) return false;
  const char* header = bytes_.data() + at;
  if (std::string_view(header, kZoneMagic.size()) != kZoneMagic) return false;
  std::uint64_t counts[6];  // marks of UTC, marks of standard time, leap seconds, times, types, characters of names
  for (std::size_t i = 0; i < std::size(counts); ++i) counts[i] = bigEndian(header + kZoneCountsAt + 4 * i, 4);
  timeBytes_ = timeBytes;
  timeCount_ = static_cast<std::uint32_t>(counts[3]);
  typeCount_ = static_cast<std::uint32_t>(counts[4]);
  times_ = at + kZoneHeaderBytes;
  typeOfTimes_ = times_ + counts[3] * timeBytes;
  types_ = typeOfTimes_ + counts[3];
  *endOut = types_ + counts[4] * kZoneTypeBytes + counts[5] + counts[2] * (timeBytes + 4) + counts[1] + counts[0];
  if (*endOut > bytes_.size() || typeCount_ == 0) return false;
  const char* types = bytes_.data() + typeOfTimes_;
  return std::all_of(types, types + timeCount_,
                     [this](char type) { return static_cast<unsigned char>(type) < typeCount_; });
}

bool TimeZone::openFile(std::span<const char> bytes) noexcept {
  *this = {};
  bytes_ = bytes;
  std::size_t end = 0;
  bool good = openBlock(0, 4, &end);
  const bool hasSecond = good && bytes_[kZoneMagic.size()] >= '2';
  if (hasSecond) good = openBlock(end, 8, &end);
  if (!good) {
    *this = {};
    return false;
  }
  if (hasSecond && end < bytes_.size() && bytes_[end] == '\n') {
    const std::string_view rest(bytes_.data() + end + 1, bytes_.size() - end - 1);
    hasRule_ = rule_.parse(rest.substr(0, rest.find('\n')));
  }
  return true;
}

bool TimeZone::openRule(std::string_view text) noexcept {
  *this = {};
  hasRule_ = rule_.parse(text);
  return hasRule_;
}

std::int64_t TimeZone::transition(std::uint32_t index) const noexcept {
  const std::uint64_t bits = bigEndian(bytes_.data() + times_ + index * timeBytes_, timeBytes_);
  return timeBytes_ == 8 ? static_cast<std::int64_t>(bits)
                         : static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
}

std::int32_t TimeZone::typeOffset(std::uint32_t type) const noexcept {
  return static_cast<std::int32_t>(
      static_cast<std::uint32_t>(bigEndian(bytes_.data() + types_ + type * kZoneTypeBytes, 4)));
}

std::int32_t TimeZone::offsetAt(std::int64_t seconds) const noexcept {
  std::uint32_t low = 0;  // transitions before `low` are at or before the moment
  for (std::uint32_t high = timeCount_; low < high;) {
    const std::uint32_t middle = low + (high - low) / 2;
    if (transition(middle) <= seconds)
      low = middle + 1;
    else
      high = middle;
  }
  if (low == timeCount_ && hasRule_) return rule_.offsetAt(seconds);
  if (typeCount_ == 0) return 0;
  return typeOffset(low == 0 ? 0 : static_cast<unsigned char>(bytes_[typeOfTimes_ + low - 1]));
}

// ---- the zone of this process -------------------------------------------------------------------------------------

namespace {

struct LocalZone {
  FileBytes file;
  TimeZone zone;
};

// Published once and never changed: threads that come at the same time each read it, the first to publish wins.
constinit std::atomic<const LocalZone*> g_zone{nullptr};

// The last answer: seconds since 1970 (upper 44 bits) and the offset plus half a week (lower 20 bits).
constinit std::atomic<std::uint64_t> g_lastOffset{0};
constexpr unsigned kOffsetBits = 20;
constexpr std::int32_t kOffsetBias = 7 * 86'400 / 2;

bool readZoneFile(const char* path, LocalZone* out) noexcept {
  return ossReadFile(path, kZoneFileBytesMost, &out->file) == 0 && out->zone.openFile(out->file.span());
}

// /etc/localtime is a symbolic link on most machines, which ossReadFile does not follow; it belongs to root.
bool readMachineZone(LocalZone* out) noexcept {
  char* target = ::realpath(kMachineZone, nullptr);
  const bool read = target != nullptr && readZoneFile(target, out);
  std::free(target);
  return read;
}

bool readNamedZone(const char* name, LocalZone* out) noexcept {
  char path[kPathBytes];
  const bool isPath = name[0] == '/';
  const std::size_t length =
      ossSnprintf(path, sizeof path, "%s%s%s", isPath ? "" : kZoneDirectory, isPath ? "" : "/", name);
  if (length + 1 >= sizeof path) return false;
  char* target = ::realpath(path, nullptr);
  const bool read = target != nullptr && readZoneFile(target, out);
  std::free(target);
  return read;
}

void readLocalZone(LocalZone* out) noexcept {
  const char* name = ossEnvironment("TZ");
  if (name == nullptr) {
    (void)readMachineZone(out);
    return;
  }
  if (name[0] == ':') ++name;
  if (name[0] == '\0' || readNamedZone(name, out)) return;
  (void)out->zone.openRule(name);
}

const LocalZone* localZone() noexcept {
  const LocalZone* known = g_zone.load(std::memory_order_acquire);
  if (known != nullptr) return known;
  auto* made = new (std::nothrow) LocalZone;
  if (made == nullptr) return nullptr;
  readLocalZone(made);
  if (g_zone.compare_exchange_strong(known, made, std::memory_order_acq_rel)) return made;
  delete made;
  return known;
}

}  // namespace

std::int32_t ossUtcOffset(std::int64_t seconds) noexcept {
  const std::uint64_t key = static_cast<std::uint64_t>(seconds) << kOffsetBits;
  const std::uint64_t last = g_lastOffset.load(std::memory_order_relaxed);
  constexpr std::uint64_t kOffsetMask = (std::uint64_t{1} << kOffsetBits) - 1;
  if ((last & ~kOffsetMask) == key && (last & kOffsetMask) != 0)
    return static_cast<std::int32_t>(last & kOffsetMask) - kOffsetBias;
  const LocalZone* local = localZone();
  const std::int32_t offset = local == nullptr ? 0 : local->zone.offsetAt(seconds);
  if (offset > -kOffsetBias && offset < kOffsetBias)
    g_lastOffset.store(key | static_cast<std::uint32_t>(offset + kOffsetBias), std::memory_order_relaxed);
  return offset;
}

void ossForgetTimeZone() noexcept {
  delete g_zone.exchange(nullptr, std::memory_order_acq_rel);
  g_lastOffset.store(0, std::memory_order_relaxed);
}

}  // namespace vek
