// What a trace point costs: switched off, switched on beside an event of lttng-ust with the same payload, and what
// further writing threads and processes add.
//
// The program makes a trace instance of its own and removes it at its end. Its peer needs a session: bench/run-trace.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "instance.h"
#include "measure.h"
#include "peer.h"
#include "platform/osse.h"
#include "veksys/diag/trace.h"
#include "veksys/diag/trace_control.h"
#include "veksys/diag/trace_scope.h"

namespace {

using bench::Body;
using bench::Samples;

constexpr EcfFunctionId kFunction = ecfFunctionId(9, 17);
constexpr double kPeerBar = 5.0;
constexpr double kSecondWriterBar = 1.8;
constexpr unsigned kWritersMost = 8;
constexpr std::uint64_t kRecordsEach = 200'000;

const char kText[32] = "thirty-two bytes of one text...";

// ---- what is measured -------------------------------------------------------------------------------------------

template <auto Operation>
void loop(std::uint64_t count) {
  for (std::uint64_t i = 0; i < count; ++i) Operation();
}

[[gnu::noinline]] void emptyCall() noexcept { asm volatile(""); }
[[gnu::noinline]] void readTicks() noexcept { bench::keep(vek::ossTicks()); }
[[gnu::noinline]] void oursEmpty() noexcept { pdtEntry(kFunction); }
[[gnu::noinline]] void oursTwo() noexcept {
  static std::int64_t number = 0;
  pdtData2(kFunction, 10, PD_TYPE_SINT, sizeof number, &number, PD_TYPE_STRINGN, sizeof kText, kText);
}
[[gnu::noinline]] int tracedCall() noexcept {
  SqltTraceScope<kFunction> trace;
  asm volatile("");
  return trace.exit(0);
}
void peerTwo() noexcept { bench::peerTwo(0, kText); }

// ---- several writers --------------------------------------------------------------------------------------------

// Where writers meet; in memory that forked children share.
struct Meeting {
  std::atomic<unsigned> ready;
  std::atomic<bool> open;
  std::array<std::atomic<std::int64_t>, kWritersMost> started;
  std::array<std::atomic<std::int64_t>, kWritersMost> ended;
};

Meeting* g_meeting;

std::int64_t monotonicNs() noexcept {
  return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void writeFrom(unsigned writer, Body body) noexcept {
  body(1000);  // attached, with a segment of its own
  g_meeting->ready.fetch_add(1);
  while (!g_meeting->open.load()) std::this_thread::yield();
  g_meeting->started[writer].store(monotonicNs());
  body(kRecordsEach);
  g_meeting->ended[writer].store(monotonicNs());
}

void openWhenReady(unsigned writers) noexcept {
  while (g_meeting->ready.load() != writers) std::this_thread::sleep_for(std::chrono::microseconds(100));
  g_meeting->open.store(true);
}

// Records per microsecond of all writers together, from the first start to the last end.
double totalRate(unsigned writers) noexcept {
  std::int64_t started = g_meeting->started[0].load();
  std::int64_t ended = g_meeting->ended[0].load();
  for (unsigned i = 1; i < writers; ++i) {
    started = std::min(started, g_meeting->started[i].load());
    ended = std::max(ended, g_meeting->ended[i].load());
  }
  g_meeting->ready.store(0);
  g_meeting->open.store(false);
  return static_cast<double>(writers * kRecordsEach) * 1e3 / static_cast<double>(ended - started);
}

template <unsigned Writers, auto Operation>
double rateOfThreads() {
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < Writers; ++i) threads.emplace_back(writeFrom, i, &loop<Operation>);
  openWhenReady(Writers);
  threads.clear();
  return totalRate(Writers);
}

template <unsigned Writers, auto Operation>
double rateOfProcesses() {
  std::array<pid_t, Writers> children;
  for (unsigned i = 0; i < Writers; ++i) {
    children[i] = ::fork();
    if (children[i] != 0) continue;
    writeFrom(i, &loop<Operation>);
    ::_exit(0);
  }
  openWhenReady(Writers);
  for (const pid_t child : children) ::waitpid(child, nullptr, 0);
  return totalRate(Writers);
}

// ---- the table --------------------------------------------------------------------------------------------------

void measureSwitchedOff(bench::Table& table, unsigned runs, bool withPeer) {
  const Body bodies[] = {loop<emptyCall>, loop<readTicks>, loop<tracedCall>, loop<bench::peerOff>};
  const auto samples = bench::measureInTurn(bodies, runs);
  table.title("The floor, and a trace point that is switched off");
  table.row({.what = "a call that does nothing", .unit = "ns", .ours = samples[0]});
  table.row({.what = "reading the tick counter", .unit = "ns", .ours = samples[1]});
  if (!withPeer) return table.row({.what = "a traced function, trace off", .unit = "ns", .ours = samples[2]});
  table.row({.what = "a traced function, trace off; an event, off",
             .unit = "ns",
             .ours = samples[2],
             .peer = samples[3],
             .ratio = bench::ratios(samples[3], samples[2])});
}

void measureRecords(bench::Table& table, unsigned runs, bool withPeer) {
  const Body bodies[] = {loop<oursEmpty>, loop<bench::peerEmpty>, loop<oursTwo>, loop<peerTwo>, loop<tracedCall>};
  const auto samples = bench::measureInTurn(bodies, runs);
  table.title("One record");
  struct Comparison {
    const char* what;
    std::size_t ours;
  };
  for (const Comparison& each :
       {Comparison{"without items (pdtEntry)", 0}, {"two items, 8 and 32 bytes (pdtData2)", 2}}) {
    const Samples& ours = samples[each.ours];
    const Samples& peer = samples[each.ours + 1];
    if (withPeer)
      table.row({.what = each.what,
                 .unit = "ns",
                 .ours = ours,
                 .peer = peer,
                 .ratio = bench::ratios(peer, ours),
                 .bar = kPeerBar});
    else
      table.row({.what = each.what, .unit = "ns", .ours = ours});
  }
  table.row({.what = "a traced function, trace on (entry and exit)", .unit = "ns", .ours = samples[4]});
}

struct Rate {
  const char* what;
  double (*measure)();
  int basis;  // position of the rate it is compared with, -1 for none
  double bar;
  bool ofPeer;
};

void measureWriters(bench::Table& table, unsigned runs, bool withPeer) {
  constexpr Rate kRates[] = {
      {"1 thread that reads ticks only", rateOfThreads<1, readTicks>, -1, 0, false},
      {"2 of them: what the machine gives", rateOfThreads<2, readTicks>, 0, 0, false},
      {"1 thread", rateOfThreads<1, oursEmpty>, -1, 0, false},
      {"2 threads; ratio to 1 thread", rateOfThreads<2, oursEmpty>, 2, kSecondWriterBar, false},
      {"8 threads; ratio to 1 thread", rateOfThreads<8, oursEmpty>, 2, 0, false},
      {"1 process", rateOfProcesses<1, oursEmpty>, -1, 0, false},
      {"2 processes; ratio to 1 process", rateOfProcesses<2, oursEmpty>, 5, kSecondWriterBar, false},
      {"8 threads, two items", rateOfThreads<8, oursTwo>, -1, 0, false},
      {"lttng-ust, 1 thread", rateOfThreads<1, bench::peerEmpty>, -1, 0, true},
      {"lttng-ust, 2 threads; ratio to 1 thread", rateOfThreads<2, bench::peerEmpty>, 8, 0, true},
      {"lttng-ust, 8 threads; ratio to 1 thread", rateOfThreads<8, bench::peerEmpty>, 8, 0, true},
  };
  std::vector<Samples> samples(std::size(kRates));
  for (unsigned run = 0; run < runs; ++run)
    for (std::size_t i = 0; i < std::size(kRates); ++i)
      if (withPeer || !kRates[i].ofPeer) samples[i].push_back(kRates[i].measure());
  table.title("Records per microsecond of all writers together");
  for (std::size_t i = 0; i < std::size(kRates); ++i) {
    const Rate& rate = kRates[i];
    if (samples[i].empty()) continue;
    const Samples ratio =
        rate.basis < 0 ? Samples{} : bench::ratios(samples[i], samples[static_cast<std::size_t>(rate.basis)]);
    table.row({.what = rate.what,
               .unit = "/us",
               .ours = rate.ofPeer ? Samples{} : samples[i],
               .peer = rate.ofPeer ? samples[i] : Samples{},
               .ratio = ratio,
               .bar = rate.bar});
  }
}

void* sharedMemory(std::size_t bytes) {
  void* memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  const bench::Instance instance;
  g_meeting = static_cast<Meeting*>(sharedMemory(sizeof(Meeting)));
  if (!instance.created() || g_meeting == nullptr) {
    std::fprintf(stderr, "trace_bench: there is no shared memory for a trace\n");
    return 2;
  }
  const char* missing = bench::peerMissing();
  if (missing != nullptr) std::printf("No peer: %s.\n", missing);
  const bool withPeer = missing == nullptr;
  bench::Table table;
  measureSwitchedOff(table, runs, withPeer);
  const SqltTraceSettings everything = {};
  sqltSetTraceFlags(&everything);
  measureRecords(table, runs, withPeer);
  measureWriters(table, runs, withPeer);
  return table.passed() ? 0 : 1;
}
