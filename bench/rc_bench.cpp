// What explaining a return code costs, over random codes of the catalogue; hash maps and sorted arrays of the standard
// library, filled with the same facts, show what is usual.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "instance.h"
#include "measure.h"
#include "veksys/diag/rc.h"

namespace {

using bench::Body;

constexpr std::size_t kProbes = 1U << 16;  // a power of two

struct Info {
  std::int32_t sqlcode;
  std::uint32_t reason;
  std::uint16_t tokenKind;
  std::uint32_t mappedCode;
};

std::vector<const SqlzZrcEntry*> g_probes;
std::unordered_map<SqlzZrc, Info> g_infoMap;
std::vector<std::pair<SqlzZrc, Info>> g_infoArray;
std::unordered_map<std::string_view, const SqlzZrcEntry*> g_nameMap;
std::vector<std::pair<std::string_view, const SqlzZrcEntry*>> g_nameArray;

Info infoOf(SqlzZrc zrc) {
  Info info = {};
  std::uint32_t type = 0;
  info.sqlcode = sqlzGetZRCInfo(zrc, &type, &info.reason, &info.tokenKind, &info.mappedCode);
  return info;
}

void prepare() {
  std::mt19937 random(20261121);
  const SqlzZrcEntry* catalogue = sqlzGetZrcMap();
  for (std::size_t i = 0; i < SQLZ_ZRC_MAP_COUNT; ++i) {
    const SqlzZrcEntry& entry = catalogue[i];
    g_infoMap.emplace(entry.code, infoOf(entry.code));
    g_nameMap.emplace(entry.name, &entry);
  }
  g_infoArray.assign(g_infoMap.begin(), g_infoMap.end());
  g_nameArray.assign(g_nameMap.begin(), g_nameMap.end());
  const auto byKey = [](const auto& left, const auto& right) { return left.first < right.first; };
  std::sort(g_infoArray.begin(), g_infoArray.end(), byKey);
  std::sort(g_nameArray.begin(), g_nameArray.end(), byKey);
  for (std::size_t i = 0; i < kProbes; ++i) g_probes.push_back(&catalogue[random() % SQLZ_ZRC_MAP_COUNT]);
}

// ---- what is measured, each behind a call -----------------------------------------------------------------------

template <auto Operation>
void loop(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) Operation(*g_probes[i & (kProbes - 1)]);
}

[[gnu::noinline]] void oursInfo(const SqlzZrcEntry& probe) { bench::keep(infoOf(probe.code)); }
[[gnu::noinline]] void mapInfo(const SqlzZrcEntry& probe) { bench::keep(g_infoMap.find(probe.code)->second); }

// The entry of a key that is there.
template <class Array, class Key>
const auto& sortedFind(const Array& array, const Key& key) {
  return std::lower_bound(array.begin(), array.end(), key,
                          [](const auto& entry, const Key& wanted) { return entry.first < wanted; })
      ->second;
}
[[gnu::noinline]] void arrayInfo(const SqlzZrcEntry& probe) { bench::keep(sortedFind(g_infoArray, probe.code)); }

[[gnu::noinline]] void oursEntry(const SqlzZrcEntry& probe) { bench::keep(sqlzFindZrc(probe.code)); }

[[gnu::noinline]] void oursName(const SqlzZrcEntry& probe) { bench::keep(sqlzFindZrcByName(probe.name)); }
[[gnu::noinline]] void mapName(const SqlzZrcEntry& probe) { bench::keep(g_nameMap.find(probe.name)->second); }
[[gnu::noinline]] void arrayName(const SqlzZrcEntry& probe) {
  bench::keep(sortedFind(g_nameArray, std::string_view(probe.name)));
}

[[gnu::noinline]] void oursDescription(const SqlzZrcEntry& probe) {
  char text[512];
  pdZRCGetDescription(probe.code, text, sizeof text);
  bench::keep(text);
}
// The same line without looking anything up.
[[gnu::noinline]] void printedDescription(const SqlzZrcEntry& probe) {
  char text[512];
  std::snprintf(text, sizeof text, "ZRC=0x%08X=%d=%s \"%s\"\r\n", static_cast<unsigned>(probe.code), probe.code,
                probe.name, probe.description);
  bench::keep(text);
}

// ---- the table --------------------------------------------------------------------------------------------------

struct Comparison {
  const char* what;
  std::size_t ours;
  std::size_t peer;
  double bar;
};

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  const bench::Instance instance;  // the look-ups are traced: measured where tracing is there and off
  prepare();
  constexpr Body kBodies[] = {loop<oursInfo>,  loop<mapInfo>,         loop<arrayInfo>,
                              loop<oursEntry>, loop<oursName>,        loop<mapName>,
                              loop<arrayName>, loop<oursDescription>, loop<printedDescription>};
  constexpr Comparison kComparisons[] = {
      {"sqlzGetZRCInfo; std::unordered_map", 0, 1, 1.0}, {"sqlzGetZRCInfo; sorted array", 0, 2, 1.0},
      {"sqlzFindZrc; std::unordered_map", 3, 1, 0},      {"sqlzFindZrcByName; std::unordered_map", 4, 5, 0},
      {"sqlzFindZrcByName; sorted array", 4, 6, 0},      {"pdZRCGetDescription; snprintf of the same line", 7, 8, 0},
  };
  const auto samples = bench::measureInTurn(kBodies, runs);
  bench::Table table;
  table.title("Return codes, random ones of the catalogue");
  for (const Comparison& each : kComparisons)
    table.row({.what = each.what,
               .unit = "ns",
               .ours = samples[each.ours],
               .peer = samples[each.peer],
               .ratio = bench::ratios(samples[each.peer], samples[each.ours]),
               .bar = each.bar});
  return table.passed() ? 0 : 1;
}
