#include "measure.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace bench {
namespace {

constexpr double kBodyNs = 2e6;

// How many samples may be left out at each end so that the interval between them still holds the median with 95 %:
// the median divides them as coins do.
std::size_t samplesBelowInterval(std::size_t count) {
  double probability = std::pow(0.5, static_cast<double>(count));
  double below = probability;
  std::size_t left = 0;
  while (below <= 0.025) {
    ++left;
    probability *= static_cast<double>(count - left + 1) / static_cast<double>(left);
    below += probability;
  }
  return left == 0 ? 0 : left - 1;
}

std::uint64_t countFor(Body body) {
  std::uint64_t count = 1000;
  double ns = nanosecondsOf([&] { body(count); });
  while (ns < kBodyNs / 10) {
    count *= 4;
    ns = nanosecondsOf([&] { body(count); });
  }
  return static_cast<std::uint64_t>(static_cast<double>(count) * kBodyNs / ns) + 1;
}

// Text for a column that stays empty without samples.
std::string figure(const Samples& samples, const char* unit) {
  if (samples.empty()) return "";
  char text[48];
  std::snprintf(text, sizeof text, "%.2f %s", spreadOf(samples).median, unit);
  return text;
}

std::string interval(const Spread& spread) {
  char text[48];
  std::snprintf(text, sizeof text, "%.2f .. %.2f", spread.lower, spread.upper);
  return text;
}

std::string verdict(double lower, double bar) {
  if (bar == 0) return "";
  char text[48];
  std::snprintf(text, sizeof text, ">= %-5.1f %s", bar, lower >= bar ? "pass" : "FAIL");
  return text;
}

}  // namespace

Spread spreadOf(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  const std::size_t left = samplesBelowInterval(samples.size());
  return {samples[samples.size() / 2], samples[left], samples[samples.size() - 1 - left]};
}

std::vector<Samples> measureInTurn(std::span<const Body> bodies, unsigned runs) {
  std::vector<std::uint64_t> counts;
  for (const Body body : bodies) counts.push_back(countFor(body));
  std::vector<Samples> samples(bodies.size());
  for (unsigned run = 0; run <= runs; ++run)
    for (std::size_t i = 0; i < bodies.size(); ++i) {
      const double ns = nanosecondsOf([&] { bodies[i](counts[i]); });
      if (run != 0) samples[i].push_back(ns / static_cast<double>(counts[i]));
    }
  return samples;
}

Samples ratios(const Samples& upper, const Samples& lower) {
  Samples result;
  for (std::size_t i = 0; i < upper.size(); ++i) result.push_back(upper[i] / lower[i]);
  return result;
}

Table::Table() {
  std::printf("%-46s %12s %12s %8s  %-19s %s\n", "what", "ours", "peer", "ratio", "95 % interval", "bar");
}

void Table::title(const char* text) { std::printf("\n%s\n", text); }

void Table::row(const Row& row) {
  const Samples& judged = !row.ratio.empty() ? row.ratio : !row.ours.empty() ? row.ours : row.peer;
  const Spread spread = spreadOf(judged);
  passed_ &= spread.lower >= row.bar;
  std::printf("%-46s %12s %12s %8s  %-19s %s\n", row.what, figure(row.ours, row.unit).c_str(),
              figure(row.peer, row.unit).c_str(), figure(row.ratio, "").c_str(), interval(spread).c_str(),
              verdict(spread.lower, row.bar).c_str());
  std::fflush(stdout);
}

unsigned runsFromArguments(int count, char** arguments) {
  if (count < 2) return kRunsUsual;
  const unsigned long runs = std::strtoul(arguments[1], nullptr, 10);
  if (count == 2 && runs >= kRunsLeast && runs <= 10'000) return static_cast<unsigned>(runs);
  std::fprintf(stderr, "usage: %s [RUNS]   RUNS: %u..10000, default %u\n", arguments[0], kRunsLeast, kRunsUsual);
  return 0;
}

}  // namespace bench
