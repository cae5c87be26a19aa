// Zone files and zone rules from anywhere: opening one and asking it touches nothing outside its bytes, and no rule
// moves clocks by more than it can say.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/time_zone.h"

namespace {

constexpr std::int32_t kRuleOffsetMost =
    25 * 3600;  // 24 hours and what minutes and seconds may add, or an hour of summer
constexpr std::int64_t kMoments[] = {INT32_MIN, -1, 0, 951'782'400, 1'714'571'999, INT32_MAX, 32'503'680'000};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  vek::TimeZone zone;
  vek::TimeZoneRule rule;
  const bool isFile = zone.openFile({bytes, size});
  const bool isRule = rule.parse({bytes, size});
  for (const std::int64_t moment : kMoments) {
    if (zone.offsetAt(moment) != 0 && !isFile) std::abort();
    if (isRule && std::abs(rule.offsetAt(moment)) > kRuleOffsetMost) std::abort();
  }
  return 0;
}
