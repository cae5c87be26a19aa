// The local time zone.
//
// The system's own functions take a lock that a forked child may find held for ever, and may allocate. These do
// neither once the zone is known, and may run in a signal handler.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/file_read.h"

namespace vek {

// A day and a time of day on which clocks are changed every year.
struct TimeZoneChange {
  enum class Day : std::uint8_t { kWeekday, kJulian, kZeroBased };  // Mm.w.d, Jn (no 29 February), n
  Day day;
  std::uint8_t month;       // 1..12
  std::uint8_t week;        // 1..5, 5: the last
  std::uint16_t dayNumber;  // 0..6 (Sunday is 0), 1..365, 0..365
  std::int32_t seconds;     // of local time as it was before, since midnight; may be negative or above a day
};

// A zone rule as the TZ variable holds it: "CET-1CEST,M3.5.0,M10.5.0/3".
struct TimeZoneRule {
  std::int32_t standardOffset = 0;  // seconds east of UTC
  std::int32_t summerOffset = 0;
  bool hasSummer = false;
  TimeZoneChange toSummer = {};
  TimeZoneChange toStandard = {};

  // False, and unchanged, when the text is no rule.
  bool parse(std::string_view text) noexcept;
  std::int32_t offsetAt(std::int64_t seconds) const noexcept;
};

// A zone from a compiled zone file (RFC 8536, versions 1 to 4) or a rule. Bytes are checked once when they are opened.
class TimeZone {
 public:
  // False when the bytes are no zone file; the zone is UTC then. The bytes must outlive it.
  bool openFile(std::span<const char> bytes) noexcept;
  bool openRule(std::string_view text) noexcept;

  // Seconds that local time is ahead of UTC, at a moment in seconds since 1970 UTC.
  std::int32_t offsetAt(std::int64_t seconds) const noexcept;

 private:
  bool openBlock(std::size_t at, std::size_t timeBytes, std::size_t* endOut) noexcept;
  std::int64_t transition(std::uint32_t index) const noexcept;
  std::int32_t typeOffset(std::uint32_t type) const noexcept;
  std::uint32_t firstType() const noexcept;

  std::span<const char> bytes_;
  std::size_t timeBytes_ = 8;
  std::size_t times_ = 0;  // positions of the tables
  std::size_t typeOfTimes_ = 0;
  std::size_t types_ = 0;
  std::uint32_t timeCount_ = 0;
  std::uint32_t typeCount_ = 0;
  bool hasRule_ = false;  // for what comes after the last transition
  TimeZoneRule rule_;
};

// The offset of local time from UTC, in seconds, at that moment. The zone is that of TZ at the first call (a rule, or
// the name of a file, also with a colon in front), else /etc/localtime; UTC when neither is usable.
std::int32_t ossUtcOffset(std::int64_t seconds) noexcept;

// Forgets the zone, so that the next call reads it anew. Only while no other thread uses it.
void ossForgetTimeZone() noexcept;

// The calendar day of a number of days since 1970-01-01, and back (proleptic Gregorian).
struct CivilDay {
  std::int64_t year;
  std::uint32_t month;
  std::uint32_t day;
};
CivilDay ossCivilDay(std::int64_t days) noexcept;
std::int64_t ossDaysOf(std::int64_t year, std::uint32_t month, std::uint32_t day) noexcept;

}  // namespace vek
