// Measuring: bodies run in turn, again and again, so that whatever disturbs the machine disturbs them alike; what is
// compared is one body with another in the same turn.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

namespace bench {

inline constexpr unsigned kRunsLeast = 15;
inline constexpr unsigned kRunsUsual = 101;

// The median of samples with the interval that holds the true one in 95 of 100 cases, whatever their distribution.
struct Spread {
  double median = 0;
  double lower = 0;
  double upper = 0;
};

Spread spreadOf(std::vector<double> samples);

// A loop over the operation, `count` times.
using Body = void (*)(std::uint64_t count);

using Samples = std::vector<double>;

// Runs every body once per turn and answers their nanoseconds per operation, in the order of the bodies. The counts
// are chosen so that a body takes about 2 ms, less than the time that a scheduler gives at once: on a busy machine most
// bodies run undisturbed. The first turn is not counted.
std::vector<Samples> measureInTurn(std::span<const Body> bodies, unsigned runs);

// Samples of `upper` divided by those of `lower` of the same turn.
Samples ratios(const Samples& upper, const Samples& lower);

// Nanoseconds that a call takes.
template <class Work>
double nanosecondsOf(Work&& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start).count();
}

// A row of the table. `ratio` tells how many times better ours is; with a bar, its lower bound must reach it.
struct Row {
  const char* what;
  const char* unit;
  Samples ours;
  Samples peer = {};
  Samples ratio = {};
  double bar = 0;
};

// The table: rows are printed as they come. The interval is that of the ratio, or of the figure where there is none.
class Table {
 public:
  Table();
  void title(const char* text);
  void row(const Row& row);
  bool passed() const { return passed_; }

 private:
  bool passed_ = true;
};

// The count of turns from the command line: the first argument, kRunsUsual without one. 0: not a count that is
// accepted, which has been said.
unsigned runsFromArguments(int count, char** arguments);

// Keeps the optimiser from seeing that a value is not used.
template <class T>
void keep(const T& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

}  // namespace bench
