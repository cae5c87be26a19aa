// Offsets of zones, compared with those of the system's library, and zone files that are damaged.
#include "platform/time_zone.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace vek {
namespace {

constexpr const char* kZones = "/usr/share/zoneinfo/";

std::vector<char> bytesOf(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

long systemOffset(std::int64_t seconds) {
  const time_t moment = seconds;
  struct tm local = {};
  ::localtime_r(&moment, &local);
  return local.tm_gmtoff;
}

constexpr const char* kUnset = "-";

void useZone(const std::string& zone) {
  ::setenv("TZ", zone.c_str(), 1);
  if (zone == kUnset) ::unsetenv("TZ");
  ::tzset();
  ossForgetTimeZone();
}

std::vector<std::string> wordsOf(const char* text) {
  std::istringstream in(text);
  return {std::istream_iterator<std::string>(in), {}};
}

TEST(TimeZone, AgreesWithTheSystem) {
  std::vector<std::string> zones = wordsOf(
      "CET-1CEST,M3.5.0,M10.5.0/3 AEST-10AEDT,M10.1.0,M4.1.0/3 EST5EDT <+0330>-3:30 IST-1GMT0,M10.5.0,M3.5.0/1 "
      "XXX3YYY,J60/1,300/-24 <-02>2<-01>,M3.5.0/-1,M10.5.0/0 :Europe/Berlin America/New_York Asia/Kathmandu "
      "Antarctica/Troll Europe/Dublin Australia/Lord_Howe Africa/Casablanca America/St_Johns Pacific/Apia "
      "/usr/share/zoneinfo/Asia/Tehran UTC");
  zones.insert(zones.end(), {"", kUnset});
  const std::uint32_t seed = std::random_device()();
  std::mt19937_64 random(seed);
  constexpr std::int64_t kYear1971 = 31'536'000;  // the system applies rules to no earlier year
  constexpr std::int64_t kYear2200 = 7'258'118'400;
  std::uniform_int_distribution<std::int64_t> moments(kYear1971, kYear2200);
  for (const std::string& zone : zones) {
    const bool isRule = zone.find_first_of(",<") != std::string::npos;
    if (!isRule && zone.find('/') != std::string::npos && !std::filesystem::exists(kZones)) continue;
    useZone(zone);
    for (int i = 0; i < 5000; ++i) {
      const std::int64_t moment = moments(random);
      ASSERT_EQ(ossUtcOffset(moment), systemOffset(moment)) << zone << " " << moment << ", seed " << seed;
      ASSERT_EQ(ossUtcOffset(moment), systemOffset(moment)) << "from the cache";
    }
  }
  useZone(kUnset);
}

TEST(TimeZone, RulesThatAreNone) {
  std::vector<std::string> wrong = wordsOf(
      "C CET CET- CET-1CEST, CET-25 CE-1 <C>-1 <CET-1 CET-1:60 CET-1CEST,M13.1.0,M1.1.0 CET-1CEST,M1.6.0,M1.1.0 "
      "CET-1CEST,J0,J1 CET-1CEST,J1 CET-1CEST,J1,J366 CET-1CEST,J1,J2x CET-99999999999");
  wrong.emplace_back();
  for (const std::string& text : wrong) {
    TimeZoneRule rule;
    rule.standardOffset = 17;
    EXPECT_FALSE(rule.parse(text)) << text;
    EXPECT_EQ(rule.standardOffset, 17) << text;
  }
  useZone("Nowhere/Land");
  EXPECT_EQ(ossUtcOffset(0), 0);
  useZone(kUnset);
}

// Damaged files are refused or give some offset; nothing outside of them is read (which the sanitizers watch).
TEST(TimeZone, DamagedFiles) {
  const std::vector<char> good = bytesOf(std::string(kZones) + "Europe/Berlin");
  if (good.empty()) GTEST_SKIP() << "no zone files on this machine";
  TimeZone zone;
  ASSERT_TRUE(zone.openFile(good));
  for (std::size_t bytes = 0; bytes < good.size(); bytes += 3) {
    const std::vector<char> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(bytes));
    EXPECT_TRUE(zone.openFile(cut) || zone.offsetAt(2'000'000'000) == 0) << bytes;
    (void)zone.offsetAt(2'000'000'000);
  }
  const std::uint32_t seed = std::random_device()();
  std::mt19937 random(seed);
  for (int i = 0; i < 20'000; ++i) {
    std::vector<char> damaged = good;
    damaged[random() % 60] = static_cast<char>(random());
    damaged[random() % damaged.size()] = static_cast<char>(random());
    if (zone.openFile(damaged)) (void)zone.offsetAt(static_cast<std::int64_t>(random()));
  }
  EXPECT_FALSE(zone.openFile({}));
}

}  // namespace
}  // namespace vek
