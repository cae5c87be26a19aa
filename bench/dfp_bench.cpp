// What decimal floating point costs: narrowing beside the compiler's decimal types, text beside libbson and Intel's
// library, which hold the same numbers with binary coefficients. Each peer is measured where it is installed.
#include <array>
#include <cstdio>
#include <cstring>
#include <random>
#include <span>
#include <string>

#include "measure.h"
#include "peer_intel_decimal.h"
#include "veksys/values/decimal_float.h"

#if defined(VEKSYS_BENCH_BSON)
#include <bson/bson.h>
#endif

namespace {

using bench::Body;

constexpr std::size_t kProbes = 1U << 12;  // a power of two

#if defined(__GNUC__) && !defined(__clang__)
#define VEKSYS_BENCH_GCC
using Gcc64 = float __attribute__((mode(DD)));
using Gcc128 = float __attribute__((mode(TD)));
#endif

// One number as everybody holds it.
struct Probe {
  std::string text;
  DfpalDecimal128 ours = {};
#if defined(VEKSYS_BENCH_GCC)
  Gcc128 gcc = {};
#endif
  peer::IntelDecimal intel = {};
#if defined(VEKSYS_BENCH_BSON)
  bson_decimal128_t bson = {};
#endif
};

using Probes = std::array<Probe, kProbes>;
Probes g_short;  // 16 digits: narrowing is exact
Probes g_long;   // 34 digits

std::string randomText(std::mt19937& random, unsigned digits) {
  const std::uint64_t point = 1 + random() % (digits - 1);
  std::string text;
  if (random() % 2 == 0) text += '-';
  for (unsigned i = 0; i < digits; ++i) {
    if (i == point) text += '.';
    text += static_cast<char>(i == 0 ? '1' + random() % 9 : '0' + random() % 10);
  }
  return text;
}

void fill(Probes& probes, unsigned digits) {
  std::mt19937 random(20261121);
  for (Probe& probe : probes) {
    probe.text = randomText(random, digits);
    probe.ours = dfpal_decimal128FromString(probe.text.data(), probe.text.size());
    unsigned flags = 0;
    probe.intel = peer::intelRead(probe.text.c_str(), &flags);
#if defined(VEKSYS_BENCH_GCC)
    std::memcpy(&probe.gcc, &probe.intel, sizeof probe.gcc);  // the compiler holds binary coefficients on this machine
#endif
#if defined(VEKSYS_BENCH_BSON)
    bson_decimal128_from_string(probe.text.c_str(), &probe.bson);
#endif
  }
}

// ---- what is measured, each behind a call -----------------------------------------------------------------------

template <auto Operation, Probes& Source>
void loop(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) Operation(Source[i & (kProbes - 1)]);
}

[[gnu::noinline]] void oursNarrow(const Probe& probe) { bench::keep(dfpal_decimal128ToDecimal64(probe.ours)); }
[[gnu::noinline]] void oursNarrowWithCode(const Probe& probe) {
  DfpalDecimal64 target;
  sqlvdfp2dfpTmpl(&probe.ours, &target);
  bench::keep(target);
}
[[gnu::noinline]] void oursRead(const Probe& probe) {
  bench::keep(dfpal_decimal128FromString(probe.text.data(), probe.text.size()));
}
[[gnu::noinline]] void oursWrite(const Probe& probe) {
  char text[DFPAL_DECIMAL128_TEXT_BYTES];
  dfpal_decimal128ToString(probe.ours, text, sizeof text);
  bench::keep(text);
}
[[gnu::noinline]] void oursAdd(const Probe& probe) { bench::keep(dfpal_decimal128Add(probe.ours, g_long[7].ours)); }
[[gnu::noinline]] void oursMultiply(const Probe& probe) {
  bench::keep(dfpal_decimal128Multiply(probe.ours, g_long[7].ours));
}
[[gnu::noinline]] void oursDivide(const Probe& probe) {
  bench::keep(dfpal_decimal128Divide(probe.ours, g_long[7].ours));
}

#if defined(VEKSYS_BENCH_GCC)
[[gnu::noinline]] void gccNarrow(const Probe& probe) { bench::keep(static_cast<Gcc64>(probe.gcc)); }
[[gnu::noinline]] void gccAdd(const Probe& probe) { bench::keep(probe.gcc + g_long[7].gcc); }
[[gnu::noinline]] void gccMultiply(const Probe& probe) { bench::keep(probe.gcc * g_long[7].gcc); }
[[gnu::noinline]] void gccDivide(const Probe& probe) { bench::keep(probe.gcc / g_long[7].gcc); }
#endif
[[gnu::noinline]] void intelNarrow(const Probe& probe) {
  unsigned flags = 0;
  bench::keep(peer::intelNarrow(probe.intel, peer::kIntelNearest, &flags));
}
[[gnu::noinline]] void intelRead(const Probe& probe) {
  unsigned flags = 0;
  bench::keep(peer::intelRead(probe.text.c_str(), &flags));
}
[[gnu::noinline]] void intelWrite(const Probe& probe) {
  char text[64];
  unsigned flags = 0;
  peer::intelWrite(text, probe.intel, &flags);
  bench::keep(text);
}
#if defined(VEKSYS_BENCH_BSON)
[[gnu::noinline]] void bsonRead(const Probe& probe) {
  bson_decimal128_t value;
  bson_decimal128_from_string_w_len(probe.text.data(), static_cast<int>(probe.text.size()), &value);
  bench::keep(value);
}
[[gnu::noinline]] void bsonWrite(const Probe& probe) {
  char text[BSON_DECIMAL128_STRING];
  bson_decimal128_to_string(&probe.bson, text);
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

// Values of the compiler's types come from Intel's library, which reads them.
constexpr Comparison kWithIntel[] = {
#if defined(VEKSYS_BENCH_GCC)
    {"narrow 16 digits; GCC", loop<oursNarrow, g_short>, loop<gccNarrow, g_short>, 0.5},
    {"narrow 34 digits; GCC", loop<oursNarrow, g_long>, loop<gccNarrow, g_long>, 1.0},
    {"sqlvdfp2dfpTmpl, 16 digits; GCC", loop<oursNarrowWithCode, g_short>, loop<gccNarrow, g_short>, 0.5},
    {"sqlvdfp2dfpTmpl, 34 digits; GCC", loop<oursNarrowWithCode, g_long>, loop<gccNarrow, g_long>, 1.0},
    {"add 34 digits; GCC", loop<oursAdd, g_long>, loop<gccAdd, g_long>, 0},
    {"multiply 34 digits; GCC", loop<oursMultiply, g_long>, loop<gccMultiply, g_long>, 0},
    {"divide 34 digits; GCC", loop<oursDivide, g_long>, loop<gccDivide, g_long>, 0},
#endif
    {"narrow 34 digits; Intel", loop<oursNarrow, g_long>, loop<intelNarrow, g_long>, 0},
    {"read 34 digits; Intel", loop<oursRead, g_long>, loop<intelRead, g_long>, 1.0},
    {"write 34 digits; Intel", loop<oursWrite, g_long>, loop<intelWrite, g_long>, 1.0},
    {"read 16 digits; Intel", loop<oursRead, g_short>, loop<intelRead, g_short>, 1.0},
    {"write 16 digits; Intel", loop<oursWrite, g_short>, loop<intelWrite, g_short>, 1.0},
};

#if defined(VEKSYS_BENCH_BSON)
constexpr Comparison kWithBson[] = {
    {"read 34 digits; libbson", loop<oursRead, g_long>, loop<bsonRead, g_long>, 3.0},
    {"write 34 digits; libbson", loop<oursWrite, g_long>, loop<bsonWrite, g_long>, 3.0},
    {"read 16 digits; libbson", loop<oursRead, g_short>, loop<bsonRead, g_short>, 0},
    {"write 16 digits; libbson", loop<oursWrite, g_short>, loop<bsonWrite, g_short>, 0},
};
#else
constexpr std::span<const Comparison> kWithBson;
#endif

void compare(bench::Table& table, std::span<const Comparison> comparisons, unsigned runs) {
  for (const Comparison& each : comparisons) {
    const Body bodies[] = {each.ours, each.peer};
    const auto samples = bench::measureInTurn(bodies, runs);
    table.row({.what = each.what,
               .unit = "ns",
               .ours = samples[0],
               .peer = samples[1],
               .ratio = bench::ratios(samples[1], samples[0]),
               .bar = each.bar});
  }
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  fill(g_short, 16);
  fill(g_long, 34);
  bench::Table table;
  table.title("Decimal floating point, random numbers");
  if (peer::intelDecimal128() != nullptr)
    compare(table, kWithIntel, runs);
  else
    std::puts("without Intel's decimal library and the compiler's types: libintelrdfpmath-dev is not installed");
  if (std::size(kWithBson) == 0) std::puts("without libbson: libbson-dev is not installed");
  compare(table, kWithBson, runs);
  return table.passed() ? 0 : 1;
}
