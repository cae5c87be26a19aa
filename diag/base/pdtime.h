// Time stamps of log records.
#pragma once

#include <cstddef>
#include <cstdint>

#include "diag/base/pdpen.h"

namespace vek {

inline constexpr std::size_t PD_TIME_CHARACTERS = 26;  // 2024-05-01-13.59.59.123000

// Writes a time (nanoseconds since 1970 UTC) as local time, "%04d-%02d-%02d-%02d.%02d.%02d.%06d"; the microseconds are
// those of whole milliseconds. PD_TIME_CHARACTERS characters for the years 0 to 9999.
void pdPenTime(PdPen& pen, std::int64_t timeNs) noexcept;

// The same, followed by the offset of local time from UTC in minutes ("%+.3d") and a blank, as records begin. An offset
// of exactly 12 hours behind UTC is written as "+720"; one of 1,000 minutes or more as one that differs by a whole day,
// as does the date then, so that the columns stay and the moment is the same.
//
// The local time zone is that of TZ when the first time stamp is written, else the machine's. Neither takes a lock or
// allocates: the zone is read once and published once.
void pdPenTimeStamp(PdPen& pen, std::int64_t timeNs) noexcept;

// Puts the milliseconds of a time over those of one of the same second, that stands at `stamp`.
void pdPutMilliseconds(char* stamp, std::int64_t timeNs) noexcept;

// The second of a time, since 1970 UTC.
constexpr std::int64_t pdSecondOf(std::int64_t timeNs) noexcept {
  constexpr std::int64_t kSecondNs = 1'000'000'000;
  return timeNs / kSecondNs - (timeNs % kSecondNs < 0 ? 1 : 0);
}

}  // namespace vek
