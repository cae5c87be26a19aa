#include "diag/base/pdtime.h"

#include "platform/osse.h"
#include "platform/time_zone.h"
#include "veksys/diag/log.h"

namespace vek {
namespace {

constexpr std::int64_t kSecondNs = 1'000'000'000;
constexpr std::int64_t kMillisecondNs = 1'000'000;
constexpr std::int64_t kDaySeconds = 86'400;
constexpr std::int32_t kTwelveHours = 720;
constexpr std::size_t kZoneDigits = 3;

std::int64_t floorDivide(std::int64_t value, std::int64_t by) noexcept {
  const std::int64_t quotient = value / by;
  return quotient * by > value ? quotient - 1 : quotient;
}

char* putDigits(char* to, std::uint64_t value, unsigned digits) noexcept {
  for (unsigned i = digits; i > 0; --i, value /= 10) to[i - 1] = static_cast<char>('0' + value % 10);
  return to + digits;
}

void penLocal(PdPen& pen, std::int64_t localSeconds, std::uint64_t milliseconds) noexcept {
  const std::int64_t days = floorDivide(localSeconds, kDaySeconds);
  const auto second = static_cast<std::uint64_t>(localSeconds - days * kDaySeconds);
  const CivilDay civil = ossCivilDay(days);
  char text[PD_TIME_CHARACTERS];
  char* to = putDigits(text, static_cast<std::uint64_t>(civil.year), 4);
  const auto put = [&to](char separator, std::uint64_t value, unsigned digits) {
    *to++ = separator;
    to = putDigits(to, value, digits);
  };
  put('-', civil.month, 2);
  put('-', civil.day, 2);
  put('-', second / 3600, 2);
  put('.', second / 60 % 60, 2);
  put('.', second % 60, 2);
  put('.', milliseconds * 1000, 6);
  pen.text({text, sizeof text});
}

// Writes the time and answers the offset of local time, in minutes.
std::int32_t penTime(PdPen& pen, std::int64_t timeNs) noexcept {
  const std::int64_t seconds = floorDivide(timeNs, kSecondNs);
  const std::int32_t offset = ossUtcOffset(seconds);
  penLocal(pen, seconds + offset, static_cast<std::uint64_t>(timeNs - seconds * kSecondNs) / kMillisecondNs);
  return offset / 60;
}

}  // namespace

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
