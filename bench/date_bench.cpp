// What dates and times cost: days to dates beside the calendar of the standard library, text beside {fmt}, which gets
// the parts of a timestamp as numbers, ready to print.
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>

#include "measure.h"
#include "veksys/values/datetime.h"
#include "veksys/values/datetime_chrono.h"

#if defined(VEKSYS_BENCH_FMT)
#include <fmt/compile.h>
#include <fmt/format.h>
#endif

namespace {

using bench::Body;

constexpr std::size_t kProbes = 1U << 8;  // a power of two; all of them stay in the first cache

// One moment as everybody holds it.
struct Probe {
  std::int32_t day = 0;
  std::chrono::local_days chronoDay;
  std::array<unsigned, 7> parts = {};  // year to second, microseconds
  std::array<std::uint8_t, SQLV_TIMESTAMP_BYTES_MAX> timestamp = {};
};

std::array<Probe, kProbes> g_probes;

void fill() {
  std::mt19937 random(20261121);
  for (Probe& probe : g_probes) {
    probe.day = static_cast<std::int32_t>(random() % SQLV_DAY_MAX) + 1;
    sqlv2dte(probe.day, probe.timestamp.data());
    const std::chrono::year_month_day date = sqlvDateToChrono(probe.timestamp.data());
    const auto second = static_cast<unsigned>(random() % 86400);
    const auto micros = static_cast<unsigned>(random() % 1000000);
    probe.chronoDay = std::chrono::local_days(date);
    probe.parts = {static_cast<unsigned>(static_cast<int>(date.year())),
                   static_cast<unsigned>(date.month()),
                   static_cast<unsigned>(date.day()),
                   second / 3600,
                   second / 60 % 60,
                   second % 60,
                   micros};
    const auto moment = probe.chronoDay + std::chrono::seconds(second) + std::chrono::microseconds(micros);
    sqlvTimestampFromChrono(moment, SQLV_TIMESTAMP_SCALE, probe.timestamp.data());
  }
}

// ---- what is measured, each behind a call -----------------------------------------------------------------------

template <auto Operation>
void loop(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) Operation(g_probes[i & (kProbes - 1)]);
}

[[gnu::noinline]] void dayToDate(const Probe& probe) {
  std::uint8_t date[SQLV_DATE_BYTES];
  sqlv2dte(probe.day, date);
  bench::keep(date);
}
[[gnu::noinline]] std::chrono::year_month_day chronoDate(std::chrono::local_days day) {
  return std::chrono::year_month_day(day);
}
[[gnu::noinline]] void chronoDayToDate(const Probe& probe) { bench::keep(chronoDate(probe.chronoDay)); }

#if defined(VEKSYS_BENCH_FMT)
[[gnu::noinline]] void timestampText(const Probe& probe) {
  char text[SQLV_TIMESTAMP_TEXT_MAX];
  sqlvputs(probe.timestamp.data(), SQLV_TIMESTAMP_SCALE, text);
  bench::keep(text);
}
[[gnu::noinline]] void dateText(const Probe& probe) {
  char text[SQLV_DATE_TEXT];
  sqlvputd(nullptr, SQLV_FORMAT_ISO, probe.timestamp.data(), text);
  bench::keep(text);
}
[[gnu::noinline]] void timeText(const Probe& probe) {
  char text[SQLV_TIME_TEXT];
  sqlvputt(nullptr, SQLV_FORMAT_ISO, probe.timestamp.data() + SQLV_DATE_BYTES, text);
  bench::keep(text);
}
[[gnu::noinline]] void fmtTimestampText(const Probe& probe) {
  char text[SQLV_TIMESTAMP_TEXT_MAX];
  const auto& [year, month, day, hour, minute, second, micros] = probe.parts;
  fmt::format_to(text, "{:04}-{:02}-{:02}-{:02}.{:02}.{:02}.{:06}", year, month, day, hour, minute, second, micros);
  bench::keep(text);
}
[[gnu::noinline]] void fmtCompiledTimestampText(const Probe& probe) {
  char text[SQLV_TIMESTAMP_TEXT_MAX];
  const auto& [year, month, day, hour, minute, second, micros] = probe.parts;
  fmt::format_to(text, FMT_COMPILE("{:04}-{:02}-{:02}-{:02}.{:02}.{:02}.{:06}"), year, month, day, hour, minute, second,
                 micros);
  bench::keep(text);
}
[[gnu::noinline]] void fmtDateText(const Probe& probe) {
  char text[SQLV_TIMESTAMP_TEXT_MAX];
  fmt::format_to(text, "{:04}-{:02}-{:02}", probe.parts[0], probe.parts[1], probe.parts[2]);
  bench::keep(text);
}
[[gnu::noinline]] void fmtTimeText(const Probe& probe) {
  char text[SQLV_TIMESTAMP_TEXT_MAX];
  fmt::format_to(text, "{:02}.{:02}.{:02}", probe.parts[3], probe.parts[4], probe.parts[5]);
  bench::keep(text);
}
#endif

// ---- the table --------------------------------------------------------------------------------------------------

struct Comparison {
  const char* what;
  Body ours;
  Body peer;
  double bar;
};

constexpr Comparison kComparisons[] = {
    {"day to date; std::chrono", loop<dayToDate>, loop<chronoDayToDate>, 1},
#if defined(VEKSYS_BENCH_FMT)
    {"timestamp to text; {fmt}", loop<timestampText>, loop<fmtTimestampText>, 10},
    {"timestamp to text; {fmt}, compiled", loop<timestampText>, loop<fmtCompiledTimestampText>, 10},
    {"date to text; {fmt}", loop<dateText>, loop<fmtDateText>, 0},
    {"time to text; {fmt}", loop<timeText>, loop<fmtTimeText>, 0},
#endif
};

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  fill();
#if !defined(VEKSYS_BENCH_FMT)
  std::puts("without {fmt}: libfmt-dev is not installed");
#endif
  bench::Table table;
  table.title("Dates and times, random moments of the years 1 to 9999, six digits of the second");
  for (const Comparison& each : kComparisons) {
    const Body bodies[] = {each.ours, each.peer};
    const auto samples = bench::measureInTurn(bodies, runs);
    table.row({.what = each.what,
               .unit = "ns",
               .ours = samples[0],
               .peer = samples[1],
               .ratio = bench::ratios(samples[1], samples[0]),
               .bar = each.bar});
  }
  return table.passed() ? 0 : 1;
}
