#include "diag/base/pdtime.h"

#include <array>
#include <cstring>

#include "platform/osse.h"
#include "platform/time_zone.h"
#include "veksys/diag/log.h"

namespace vek {
namespace {

constexpr std::uint64_t kMillisecondNs = 1'000'000;
constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr std::int32_t kDaySeconds = 86'400;
constexpr std::int32_t kOffsetMost = 999 * 60 + 59;
constexpr std::int32_t kTwelveHours = 720;
constexpr std::size_t kZoneDigits = 3;

std::int64_t floorDivide(std::int64_t value, std::int64_t by) noexcept {
  const std::int64_t quotient = value / by;
  return quotient * by > value ? quotient - 1 : quotient;
}

// Two digits of each number below 100.
constexpr auto kPairs = [] {
  std::array<char, 200> pairs = {};
  for (std::size_t i = 0; i < pairs.size(); ++i)
    pairs[i] = static_cast<char>('0' + (i % 2 == 0 ? i / 2 / 10 : i / 2 % 10));
  return pairs;
}();

void putPair(char* to, std::uint64_t value) noexcept { std::memcpy(to, kPairs.data() + value % 100 * 2, 2); }

constexpr std::size_t kMillisecondsAt = 20;

void penLocal(PdPen& pen, std::int64_t localSeconds, std::int64_t timeNs) noexcept {
  const std::int64_t days = floorDivide(localSeconds, kDaySeconds);
  const auto second = static_cast<std::uint64_t>(localSeconds - days * kDaySeconds);
  const CivilDay civil = ossCivilDay(days);
  const auto year = static_cast<std::uint64_t>(civil.year);
  char text[PD_TIME_CHARACTERS + 1] = "YYyy-mm-dd-hh.mm.ss.000000";
  putPair(text, year / 100);
  putPair(text + 2, year);
  putPair(text + 5, civil.month);
  putPair(text + 8, civil.day);
  putPair(text + 11, second / 3600);
  putPair(text + 14, second / 60 % 60);
  putPair(text + 17, second % 60);
  pdPutMilliseconds(text, timeNs);
  pen.text({text, PD_TIME_CHARACTERS});
}

// An offset from UTC of three digits, the same but for whole days: the moment stays what it is, a day earlier or later
// by the clock of a zone that no place on earth has.
std::int32_t inColumns(std::int32_t offset) noexcept {
  while (offset > kOffsetMost) offset -= kDaySeconds;
  while (offset < -kOffsetMost) offset += kDaySeconds;
  return offset;
}

// Writes the time and answers the offset of local time, in minutes.
std::int32_t penTime(PdPen& pen, std::int64_t timeNs) noexcept {
  const std::int64_t seconds = pdSecondOf(timeNs);
  const std::int32_t offset = inColumns(ossUtcOffset(seconds));
  penLocal(pen, seconds + offset, timeNs);
  return offset / 60;
}

}  // namespace

void pdPutMilliseconds(char* stamp, std::int64_t timeNs) noexcept {
  const auto milliseconds = static_cast<std::uint64_t>(timeNs - pdSecondOf(timeNs) * kSecondNs) / kMillisecondNs;
  putPair(stamp + kMillisecondsAt, milliseconds / 10);
  stamp[kMillisecondsAt + 2] = static_cast<char>('0' + milliseconds % 10);
}

void pdPenTime(PdPen& pen, std::int64_t timeNs) noexcept { (void)penTime(pen, timeNs); }

void pdPenTimeStamp(PdPen& pen, std::int64_t timeNs) noexcept {
  std::int32_t minutes = penTime(pen, timeNs);
  if (minutes == -kTwelveHours) minutes = kTwelveHours;  // KEEP: readers of these logs expect it
  pen.character(minutes < 0 ? '-' : '+');
  pen.decimalZeros(static_cast<std::uint64_t>(minutes < 0 ? -minutes : minutes), kZoneDigits);
  pen.character(' ');
}

}  // namespace vek

SqlzZrc pdGetTimeStamp(char* buffer, std::size_t size, std::int64_t* utcOut) noexcept {
  if (utcOut != nullptr) {
    *utcOut = vek::ossRealtimeNs();
    return SQLZ_RC_OK;
  }
  if (buffer == nullptr || size <= vek::PD_TIME_CHARACTERS) return SQLO_INV_PARM;
  vek::PdPen pen(buffer, size);
  vek::pdPenTime(pen, vek::ossRealtimeNs());
  pen.finish({});
  return SQLZ_RC_OK;
}
