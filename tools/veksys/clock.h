// Times and durations: as they are written, and as a person types them.
//
// A moment is nanoseconds since 1970 UTC. People read and type local time; JSON carries UTC in ISO 8601.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "text.h"

namespace veksys {

// Writes moments. Keeps the text of the last second, so that neighbours cost their fraction only.
class ClockText {
 public:
  void dateTime(Text& text, std::int64_t moment);    // 2025-11-21 09:14:22.123456789, local
  void timeOfDay(Text& text, std::int64_t moment);   // 09:14:22.123456789, local
  void date(Text& text, std::int64_t moment);        // 2025-11-21, local
  static void iso(Text& text, std::int64_t moment);  // 2025-11-21T08:14:22.123456789Z

 private:
  void turnTo(std::int64_t second);

  std::int64_t second_ = std::numeric_limits<std::int64_t>::min();
  char prefix_[19] = {};
};

// The nanoseconds from one moment to another, as far as 64 bits hold them: moments of a damaged trace can be anything.
constexpr std::int64_t nsBetween(std::int64_t from, std::int64_t to) noexcept {
  std::int64_t ns = 0;
  if (!__builtin_sub_overflow(to, from, &ns)) return ns;
  return to > from ? std::numeric_limits<std::int64_t>::max() : std::numeric_limits<std::int64_t>::min();
}

// A duration in eleven characters: "    123 ns ", " 12.345 us ", "  1.234 s  ".
inline constexpr std::size_t DURATION_WIDTH = 11;
void putDuration(Text& text, std::uint64_t ns);

// "512 B", "8 KB", "2 MB", "1.5 GB": powers of 1024.
void putBytes(Text& text, std::uint64_t bytes);

// "350 us", "12 ms", "12 s 40 ms", "4 min 3 s", "2 h 5 min", "3 d 4 h"; 0 for a span that is negative.
void putSpan(Text& text, std::int64_t ns);

// What a person may type for a moment: a time of day, a date with or without a time, or a length of time back from
// the end of the trace.
inline constexpr std::string_view MOMENT_FORMS =
    "a time of day (14:05 or 14:05:30.5), a date and time (2025-11-21T14:05:30, optionally with Z or +01:00), or a "
    "length back from the end of the trace (5s, 200ms, 10m)";

struct TypedMoment {
  enum class Kind { kMoment, kTimeOfDay, kBack };
  Kind kind;
  std::int64_t ns;  // the moment, nanoseconds after local midnight, or nanoseconds back
};

std::optional<TypedMoment> parseMoment(std::string_view typed);

// A length of time that `option` got, in nanoseconds from 1 ms to 1 h; a bare number counts seconds. Throws Failure for
// anything else.
std::int64_t parsePause(const std::string& typed, std::string_view option);

// The latest moment not after `before` at which local clocks showed this time of day.
std::int64_t lastTimeOfDay(std::int64_t nsOfDay, std::int64_t before);

}  // namespace veksys
