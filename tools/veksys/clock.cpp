#include "clock.h"

#include <charconv>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <string>

#include "failure.h"

namespace veksys {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kDaySeconds = 86400;

std::int64_t secondOf(std::int64_t moment) noexcept { return moment / kSecond - (moment % kSecond < 0 ? 1 : 0); }
std::uint64_t fractionOf(std::int64_t moment) noexcept {
  const std::int64_t rest = moment % kSecond;
  return static_cast<std::uint64_t>(rest < 0 ? rest + kSecond : rest);
}

void putTwo(char* to, int value) noexcept {
  to[0] = static_cast<char>('0' + value / 10 % 10);
  to[1] = static_cast<char>('0' + value % 10);
}

// Nineteen characters: 2025-11-21 09:14:22.
void writeStamp(char* to, const tm& parts, char between) noexcept {
  const int year = parts.tm_year + 1900;
  putTwo(to, year / 100);
  putTwo(to + 2, year % 100);
  to[4] = to[7] = '-';
  putTwo(to + 5, parts.tm_mon + 1);
  putTwo(to + 8, parts.tm_mday);
  to[10] = between;
  putTwo(to + 11, parts.tm_hour);
  to[13] = to[16] = ':';
  putTwo(to + 14, parts.tm_min);
  putTwo(to + 17, parts.tm_sec);
}

struct Unit {
  std::string_view name;
  std::int64_t ns;
};
constexpr Unit kUnits[] = {
    {"ns", 1},           {"us", 1000},          {"ms", 1'000'000},     {"s", kSecond},
    {"m", 60 * kSecond}, {"min", 60 * kSecond}, {"h", 3600 * kSecond}, {"d", kDaySeconds* kSecond}};

// Takes exactly `digits` digits off the front, as a number from `least` to `most`.
bool takeNumber(std::string_view& text, std::size_t digits, int least, int most, int* value) noexcept {
  if (text.size() < digits) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + digits, *value);
  if (error != std::errc{} || end != text.data() + digits || text[0] == '-' || *value < least || *value > most)
    return false;
  text.remove_prefix(digits);
  return true;
}

bool take(std::string_view& text, char c) noexcept {
  if (text.empty() || text[0] != c) return false;
  text.remove_prefix(1);
  return true;
}

// A fraction of a second behind its point, as nanoseconds.
bool takeFraction(std::string_view& text, std::int64_t* ns) noexcept {
  std::int64_t scale = kSecond / 10;
  std::size_t digits = 0;
  for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; ++digits, scale /= 10)
    *ns += (text[digits] - '0') * scale;
  text.remove_prefix(digits);
  return digits > 0;
}

// HH:MM, HH:MM:SS or HH:MM:SS.fraction, as nanoseconds after midnight.
bool takeTimeOfDay(std::string_view& text, std::int64_t* ns) noexcept {
  int hour = 0;
  int minute = 0;
  int second = 0;
  std::int64_t fraction = 0;
  if (!takeNumber(text, 2, 0, 23, &hour) || !take(text, ':') || !takeNumber(text, 2, 0, 59, &minute)) return false;
  if (take(text, ':') && (!takeNumber(text, 2, 0, 60, &second) || (take(text, '.') && !takeFraction(text, &fraction))))
    return false;
  *ns = (hour * 3600 + minute * 60 + second) * kSecond + fraction;
  return true;
}

// "Z", "+01:00", "-0530" or nothing. `zone` gets the seconds east of Greenwich when there was one.
bool takeZone(std::string_view& text, std::optional<int>* zone) noexcept {
  if (text.empty()) return true;
  if (take(text, 'Z')) {
    *zone = 0;
    return text.empty();
  }
  const bool west = text[0] == '-';
  if (!take(text, '+') && !take(text, '-')) return false;
  int hours = 0;
  int minutes = 0;
  if (!takeNumber(text, 2, 0, 14, &hours)) return false;
  take(text, ':');
  if (!text.empty() && !takeNumber(text, 2, 0, 59, &minutes)) return false;
  *zone = (hours * 3600 + minutes * 60) * (west ? -1 : 1);
  return text.empty();
}

std::optional<TypedMoment> parseDateTime(std::string_view text) {
  tm parts = {};
  std::int64_t ofDay = 0;
  std::optional<int> zone;
  if (!takeNumber(text, 4, 1970, 2261, &parts.tm_year) || !take(text, '-') ||
      !takeNumber(text, 2, 1, 12, &parts.tm_mon) || !take(text, '-') || !takeNumber(text, 2, 1, 31, &parts.tm_mday))
    return std::nullopt;
  if ((take(text, 'T') || take(text, ' ')) && !takeTimeOfDay(text, &ofDay)) return std::nullopt;
  if (!takeZone(text, &zone)) return std::nullopt;
  const std::chrono::year_month_day day{std::chrono::year(parts.tm_year),
                                        std::chrono::month(static_cast<unsigned>(parts.tm_mon)),
                                        std::chrono::day(static_cast<unsigned>(parts.tm_mday))};
  if (!day.ok()) return std::nullopt;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  parts.tm_isdst = -1;
  if (zone.has_value()) return TypedMoment{TypedMoment::Kind::kMoment, (::timegm(&parts) - *zone) * kSecond + ofDay};
  parts.tm_hour = static_cast<int>(ofDay / kSecond / 3600);
  parts.tm_min = static_cast<int>(ofDay / kSecond / 60 % 60);
  parts.tm_sec = static_cast<int>(ofDay / kSecond % 60);
  return TypedMoment{TypedMoment::Kind::kMoment, ::mktime(&parts) * kSecond + ofDay % kSecond};
}

std::optional<TypedMoment> parseBack(std::string_view text) {
  double count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc{} || count < 0) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(end - text.data()));
  for (const Unit& unit : kUnits)
    if (text == unit.name && count * static_cast<double>(unit.ns) < 9e18)
      return TypedMoment{TypedMoment::Kind::kBack, static_cast<std::int64_t>(count * static_cast<double>(unit.ns))};
  return std::nullopt;
}

}  // namespace

void ClockText::turnTo(std::int64_t second) {
  const auto seconds = static_cast<time_t>(second);
  tm parts = {};
  ::localtime_r(&seconds, &parts);
  writeStamp(prefix_, parts, ' ');
  second_ = second;
}

void ClockText::dateTime(Text& text, std::int64_t moment) {
  if (secondOf(moment) != second_) turnTo(secondOf(moment));
  text.put(std::string_view(prefix_, sizeof prefix_));
  text.put('.');
  text.decimalZeros(fractionOf(moment), 9);
}

void ClockText::timeOfDay(Text& text, std::int64_t moment) {
  if (secondOf(moment) != second_) turnTo(secondOf(moment));
  text.put(std::string_view(prefix_ + 11, 8));
  text.put('.');
  text.decimalZeros(fractionOf(moment), 9);
}

void ClockText::date(Text& text, std::int64_t moment) {
  if (secondOf(moment) != second_) turnTo(secondOf(moment));
  text.put(std::string_view(prefix_, 10));
}

void ClockText::iso(Text& text, std::int64_t moment) {
  const std::chrono::sys_seconds second{std::chrono::seconds(secondOf(moment))};
  const auto midnight = std::chrono::floor<std::chrono::days>(second);
  const std::chrono::year_month_day day{midnight};
  const std::chrono::hh_mm_ss ofDay{second - midnight};
  tm parts = {};
  parts.tm_year = static_cast<int>(day.year()) - 1900;
  parts.tm_mon = static_cast<int>(static_cast<unsigned>(day.month())) - 1;
  parts.tm_mday = static_cast<int>(static_cast<unsigned>(day.day()));
  parts.tm_hour = static_cast<int>(ofDay.hours().count());
  parts.tm_min = static_cast<int>(ofDay.minutes().count());
  parts.tm_sec = static_cast<int>(ofDay.seconds().count());
  char stamp[19];
  writeStamp(stamp, parts, 'T');
  text.put(std::string_view(stamp, sizeof stamp));
  text.put('.');
  text.decimalZeros(fractionOf(moment), 9);
  text.put('Z');
}

void putDuration(Text& text, std::uint64_t ns) {
  constexpr std::string_view kNames[] = {" us ", " ms ", " s  "};
  if (ns < 1000) {
    text.decimalRight(ns, 7);
    text.put(" ns ");
    return;
  }
  std::uint64_t thousand = 1000;
  unsigned unit = 0;
  for (; unit < 2 && ns / thousand >= 1000; ++unit) thousand *= 1000;
  text.decimalRight(ns / thousand, 3);
  text.put('.');
  text.decimalZeros(ns % thousand / (thousand / 1000), 3);
  text.put(kNames[unit]);
}

void putBytes(Text& text, std::uint64_t bytes) {
  constexpr std::string_view kNames[] = {" B", " KB", " MB", " GB"};
  unsigned unit = 0;
  std::uint64_t size = 1;
  for (; unit < 3 && bytes / size >= 1024; ++unit) size *= 1024;
  text.decimal(bytes / size);
  const std::uint64_t tenths = bytes % size * 10 / size;
  if (tenths != 0) {
    text.put('.');
    text.decimal(tenths);
  }
  text.put(kNames[unit]);
}

void putSpan(Text& text, std::int64_t ns) {
  struct Scale {
    std::int64_t ns;
    std::string_view name;
  };
  constexpr Scale kScales[] = {{kDaySeconds * kSecond, " d"},
                               {3600 * kSecond, " h"},
                               {60 * kSecond, " min"},
                               {kSecond, " s"},
                               {1'000'000, " ms"},
                               {1000, " us"},
                               {1, " ns"}};
  constexpr std::size_t kSeconds = 3;  // the last scale that the next finer one is added to
  if (ns < 0) ns = 0;
  std::size_t scale = 0;
  while (scale + 1 < std::size(kScales) && ns < kScales[scale].ns) ++scale;
  text.signedDecimal(ns / kScales[scale].ns);
  text.put(kScales[scale].name);
  const std::int64_t rest = scale > kSeconds ? 0 : ns % kScales[scale].ns / kScales[scale + 1].ns;
  if (rest == 0) return;
  text.put(' ');
  text.signedDecimal(rest);
  text.put(kScales[scale + 1].name);
}

std::optional<TypedMoment> parseMoment(std::string_view typed) {
  if (auto moment = parseDateTime(typed)) return moment;
  std::string_view text = typed;
  std::int64_t ofDay = 0;
  if (takeTimeOfDay(text, &ofDay) && text.empty()) return TypedMoment{TypedMoment::Kind::kTimeOfDay, ofDay};
  return parseBack(typed);
}

std::int64_t parsePause(const std::string& typed, std::string_view option) {
  constexpr std::int64_t kShortestNs = 1'000'000;
  constexpr std::int64_t kLongestNs = 3'600'000'000'000;
  const bool isBare = !typed.empty() && typed.find_first_not_of("0123456789.") == std::string::npos;
  const auto moment = parseMoment(isBare ? typed + "s" : typed);
  if (!moment || moment->kind != TypedMoment::Kind::kBack || moment->ns < kShortestNs || moment->ns > kLongestNs)
    wrongUse("\"" + typed + "\" is no length of time for " + std::string(option) +
             ": a number of seconds or a length such as 200ms is, from 1ms to 1h.");
  return moment->ns;
}

std::int64_t lastTimeOfDay(std::int64_t nsOfDay, std::int64_t before) {
  const auto seconds = static_cast<time_t>(secondOf(before));
  tm parts = {};
  ::localtime_r(&seconds, &parts);
  parts.tm_hour = static_cast<int>(nsOfDay / kSecond / 3600);
  parts.tm_min = static_cast<int>(nsOfDay / kSecond / 60 % 60);
  parts.tm_sec = static_cast<int>(nsOfDay / kSecond % 60);
  parts.tm_isdst = -1;
  tm dayBefore = parts;
  const std::int64_t sameDay = ::mktime(&parts) * kSecond + nsOfDay % kSecond;
  if (sameDay <= before) return sameDay;
  --dayBefore.tm_mday;
  return ::mktime(&dayBefore) * kSecond + nsOfDay % kSecond;
}

}  // namespace veksys
