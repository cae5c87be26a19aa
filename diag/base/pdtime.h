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
// of exactly 12 hours behind UTC is written as "+720".
//
// The local time zone is that of TZ when the first time stamp is written, else the machine's. Neither takes a lock or
// allocates: the zone is read once and published once.
void pdPenTimeStamp(PdPen& pen, std::int64_t timeNs) noexcept;

}  // namespace vek
