// Latches beside the locks of other libraries: alone, two threads with work of their own between their turns, readers
// with a few writers, and what tracking costs. Ours and the peers are called through the same kind of pointer.
#include <pthread.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iterator>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "instance.h"
#include "latch_peers.h"
#include "measure.h"
#include "veksys/latch_types.h"
#include "veksys/sync.h"

namespace {

using bench::Lock;
using bench::Samples;

// ---- those that are compared ------------------------------------------------------------------------------------

alignas(128) SqloSpinLatch g_spin;
alignas(128) SQLO_SLATCH_CAS32 g_shared;  // readers pass waiting writers
alignas(128) SQLO_SLATCH_CAS32 g_fair;    // they do not

constexpr Lock kOurs[] = {
    {"spin latch", [] { g_spin.captureLatch(__FILE__, __LINE__); }, [] { g_spin.releaseLatch(); }, nullptr, nullptr},
    {"shared latch", [] { g_shared.getExclusive(__FILE__, __LINE__); }, [] { g_shared.release(); },
     [] { g_shared.getShared(__FILE__, __LINE__); }, [] { g_shared.release(); }},
    {"shared latch, no X starvation", [] { g_fair.getExclusive(__FILE__, __LINE__); }, [] { g_fair.release(); },
     [] { g_fair.getShared(__FILE__, __LINE__); }, [] { g_fair.release(); }},
};
enum Ours : std::size_t { kSpin, kShared, kFair, kOursCount };
enum Peers : std::size_t { kStdMutex = kOursCount, kStdSharedMutex };
constexpr std::size_t kMost = 9;
enum Bare : std::size_t { kBareByte = kMost, kBareWord, kRoom };

Lock g_locks[kRoom];  // ours, then the peers
std::size_t g_lockCount = 0;

void gatherLocks() {
  for (const Lock& lock : kOurs) g_locks[g_lockCount++] = lock;
  for (const Lock& lock : bench::latchPeers()) g_locks[g_lockCount++] = lock;
  g_shared.init(SQLO_LT_SQLB_BUFFER_PAGE__pageLatch__latch, SQLO_LATCH_X_STARVATION);
  g_fair.init(SQLO_LT_SQLB_PAGE_HASH__bucketLatch__latch, SQLO_LATCH_NO_X_STARVATION);
  g_spin.init(SQLO_LT_SMemSet__MemLatchType__latch);
}

void stayOnProcessor(unsigned number) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(number, &set);
  (void)::pthread_setaffinity_np(::pthread_self(), sizeof set, &set);  // where it is refused, the system places it
}

// ---- one thread -------------------------------------------------------------------------------------------------

template <std::size_t Index>
void loopExclusive(std::uint64_t count) {
  for (; count != 0; --count) {
    g_locks[Index].lock();
    g_locks[Index].unlock();
  }
}

template <std::size_t Index>
void loopShared(std::uint64_t count) {
  for (; count != 0; --count) {
    g_locks[Index].lockShared();
    g_locks[Index].unlockShared();
  }
}

template <std::size_t... Index>
std::vector<bench::Body> exclusiveLoops(std::index_sequence<Index...>) {
  return {loopExclusive<Index>...};
}
template <std::size_t... Index>
std::vector<bench::Body> sharedLoops(std::index_sequence<Index...>) {
  return {loopShared<Index>...};
}

std::string beside(std::size_t ours, const char* mode, std::size_t peer) {
  return std::string(g_locks[ours].name) + mode + "; " + g_locks[peer].name;
}

// A row for each peer that can do it; the bar holds beside one of them.
void compareAlone(bench::Table& table, const std::vector<std::size_t>& locks, const std::vector<Samples>& samples,
                  std::size_t ours, const char* mode, std::size_t judge) {
  const auto samplesOf = [&](std::size_t lock) {
    return samples[static_cast<std::size_t>(std::find(locks.begin(), locks.end(), lock) - locks.begin())];
  };
  for (const std::size_t peer : locks) {
    if (peer < kOursCount) continue;
    const std::string what = beside(ours, mode, peer);
    table.row({.what = what.c_str(),
               .unit = "ns",
               .ours = samplesOf(ours),
               .peer = samplesOf(peer),
               .ratio = bench::ratios(samplesOf(peer), samplesOf(ours)),
               .bar = peer == judge ? 1.0 : 0.0});
  }
}

void measureAlone(bench::Table& table, unsigned runs) {
  std::vector<bench::Body> bodies = exclusiveLoops(std::make_index_sequence<kMost>());
  const std::vector<bench::Body> shared = sharedLoops(std::make_index_sequence<kMost>());
  bodies.resize(g_lockCount);
  std::vector<std::size_t> exclusiveLocks;
  std::vector<std::size_t> sharedLocks;
  for (std::size_t lock = 0; lock < g_lockCount; ++lock) {
    exclusiveLocks.push_back(lock);
    if (g_locks[lock].lockShared == nullptr) continue;
    sharedLocks.push_back(lock);
    bodies.push_back(shared[lock]);
  }
  const std::vector<Samples> all = bench::measureInTurn(bodies, runs);
  const auto split = all.begin() + static_cast<std::ptrdiff_t>(g_lockCount);
  const std::vector<Samples> exclusive(all.begin(), split);
  const std::vector<Samples> readers(split, all.end());
  table.title("One thread, acquired and released, tracked");
  compareAlone(table, exclusiveLocks, exclusive, kSpin, "", kStdMutex);
  compareAlone(table, exclusiveLocks, exclusive, kShared, " in X", kStdSharedMutex);
  compareAlone(table, sharedLocks, readers, kShared, " in S", kStdSharedMutex);
}

// ---- what tracking costs ----------------------------------------------------------------------------------------

// What is left of the latches without tracking: a byte that is exchanged, a word that is compared and swapped.
alignas(128) std::atomic<std::uint8_t> g_byte;
alignas(128) std::atomic<std::uint32_t> g_word;

template <std::uint32_t Mask>
void addToWord(std::uint32_t added) {
  std::uint32_t state = g_word.load(std::memory_order_relaxed);
  while ((state & Mask) == 0 && !g_word.compare_exchange_weak(state, state + added, std::memory_order_acq_rel)) {
  }
}
void takeFromWord(std::uint32_t taken) {
  std::uint32_t state = g_word.load(std::memory_order_relaxed);
  while (!g_word.compare_exchange_weak(state, state - taken, std::memory_order_acq_rel)) {
  }
}

constexpr Lock kBare[] = {
    {"a bare byte", [] { bench::keep(g_byte.exchange(1, std::memory_order_acq_rel)); },
     [] { g_byte.store(0, std::memory_order_release); }, nullptr, nullptr},
    {"a bare word", [] { addToWord<0x1FFFF>(0x10000); }, [] { takeFromWord(0x10000); }, [] { addToWord<0x10000>(1); },
     [] { takeFromWord(1); }},
};

void measureTracking(bench::Table& table, unsigned runs) {
  std::copy(std::begin(kBare), std::end(kBare), g_locks + kBareByte);
  constexpr bench::Body kBodies[] = {loopExclusive<kSpin>,     loopExclusive<kShared>,   loopShared<kShared>,
                                     loopExclusive<kBareByte>, loopExclusive<kBareWord>, loopShared<kBareWord>};
  constexpr const char* kWhat[] = {"spin latch; a bare byte", "shared latch in X; a bare word",
                                   "shared latch in S; a bare word"};
  const std::vector<Samples> samples = bench::measureInTurn(kBodies, runs);
  table.title("What tracking costs: latches beside the instructions on the word alone");
  for (std::size_t i = 0; i < std::size(kWhat); ++i)
    table.row({.what = kWhat[i],
               .unit = "ns",
               .ours = samples[i],
               .peer = samples[i + 3],
               .ratio = bench::ratios(samples[i + 3], samples[i])});
}

// ---- two threads ------------------------------------------------------------------------------------------------

constexpr unsigned kThreads = 2;

struct Round {
  std::uint32_t privateSteps = 0;  // of work that needs no lock
  std::uint32_t writersInHundred = 100;
};

struct Outcome {
  double nsPerTurn = 0;   // of a thread
  double leastShare = 0;  // of the turns, that the slowest thread got
  bool wasDisturbed = false;
};

constexpr auto kRoundTime = std::chrono::milliseconds(2);
constexpr unsigned kTurnsBetweenLooks = 32;  // at the clock
constexpr unsigned kTries = 10;

struct alignas(128) Turns {
  std::uint64_t count = 0;
  bool wasDisturbed = false;
};

// What the locks guard has a page of its own, since processors fetch lines ahead within a page: a lock, or the table of
// them, that happened to lie beside it would pay for that.
struct alignas(4096) Guarded {
  std::uint64_t value;
};
Guarded g_guarded;
alignas(128) std::atomic<unsigned> g_ready;
alignas(128) std::atomic<bool> g_stop;
alignas(128) double g_roundNs;
unsigned g_rounds = 0;
unsigned g_disturbed = 0;  // rounds that stayed so, however often they were tried

std::uint64_t privateWork(std::uint64_t value, std::uint32_t steps) {
  for (; steps != 0; --steps) {
    value = value * 6364136223846793005U + 1442695040888963407U;
    asm volatile("" : "+r"(value));
  }
  return value;
}

void takeTurn(const Lock& lock, bool isWriter) {
  if (isWriter) {
    lock.lock();
    ++g_guarded.value;
    lock.unlock();
  } else {
    lock.lockShared();
    const std::uint64_t seen = g_guarded.value;
    bench::keep(seen);
    lock.unlockShared();
  }
}

// How often the system took the processor away from the calling thread.
long timesSwitchedAway() {
  rusage usage = {};
  (void)::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_nivcsw;
}

// Half as much up to one and a half times: with turns of one length the threads fall into step, and what is measured is
// whether they happen to meet.
std::uint32_t stepsOfTurn(const Round& round, std::uint64_t random) {
  return round.privateSteps / 2 + static_cast<std::uint32_t>((random >> 40) * round.privateSteps >> 24);
}

// One thread's turns until the round ends. Thread 0 keeps the time, so that nobody else needs a processor meanwhile.
// Without a lock it is the private work alone.
void takeTurns(const Lock* lock, const Round& round, unsigned number, Turns& turns) {
  stayOnProcessor(number);
  std::uint64_t random = number + 1;
  const long before = timesSwitchedAway();
  g_ready.fetch_add(1);
  while (g_ready.load(std::memory_order_acquire) != kThreads) {
  }
  const auto start = std::chrono::steady_clock::now();
  std::uint64_t count = 0;
  for (; !g_stop.load(std::memory_order_relaxed); ++count) {
    random = privateWork(random, stepsOfTurn(round, random) + 1);
    if (lock != nullptr) takeTurn(*lock, (random >> 33) % 100 < round.writersInHundred);
    if (number != 0 || count % kTurnsBetweenLooks != 0) continue;
    const auto passed = std::chrono::steady_clock::now() - start;
    if (passed < kRoundTime) continue;
    g_stop.store(true, std::memory_order_relaxed);
    g_roundNs = std::chrono::duration<double, std::nano>(passed).count();
  }
  turns = {count, timesSwitchedAway() != before};
}

Outcome runOnce(const Lock* lock, const Round& round) {
  g_ready = 0;
  g_stop = false;
  Turns turns[kThreads];
  std::vector<std::thread> threads;
  for (unsigned number = 0; number < kThreads; ++number)
    threads.emplace_back(takeTurns, lock, std::cref(round), number, std::ref(turns[number]));
  for (std::thread& thread : threads) thread.join();
  std::uint64_t all = 0;
  std::uint64_t least = ~std::uint64_t{0};
  bool wasDisturbed = false;
  for (const Turns& of : turns) {
    all += of.count;
    least = std::min(least, of.count);
    wasDisturbed = wasDisturbed || of.wasDisturbed;
  }
  const auto total = static_cast<double>(std::max<std::uint64_t>(all, 1));
  return {g_roundNs * kThreads / total, static_cast<double>(least) / total, wasDisturbed};
}

// A round in which somebody else got one of the processors tells nothing of the lock; it is repeated.
Outcome run(const Lock* lock, const Round& round) {
  Outcome outcome = runOnce(lock, round);
  for (unsigned attempt = 1; attempt < kTries && outcome.wasDisturbed; ++attempt) outcome = runOnce(lock, round);
  g_disturbed += outcome.wasDisturbed ? 1 : 0;
  ++g_rounds;
  return outcome;
}

struct Measured {
  Samples ns;
  Samples leastShare;
};

// Every lock in turn, and at index g_lockCount the private work alone.
std::vector<Measured> runInTurn(const Round& round, unsigned runs) {
  std::vector<Measured> measured(g_lockCount + 1);
  for (unsigned turn = 0; turn <= runs; ++turn)
    for (std::size_t index = 0; index <= g_lockCount; ++index) {
      const Lock* lock = index < g_lockCount ? &g_locks[index] : nullptr;
      if (lock != nullptr && round.writersInHundred < 100 && lock->lockShared == nullptr) continue;
      const Outcome outcome = run(lock, round);
      if (turn == 0) continue;
      measured[index].ns.push_back(outcome.nsPerTurn);
      measured[index].leastShare.push_back(outcome.leastShare);
    }
  return measured;
}

Samples beyond(const Samples& ns, const Samples& alone) {
  Samples result;
  for (std::size_t i = 0; i < ns.size(); ++i) result.push_back(std::max(0.1, ns[i] - alone[i]));
  return result;
}

void comparePrivateWork(bench::Table& table, std::uint32_t steps, unsigned runs) {
  const std::vector<Measured> measured = runInTurn({.privateSteps = steps}, runs);
  const Samples& alone = measured[g_lockCount].ns;
  std::vector<Samples> cost;
  for (std::size_t lock = 0; lock < g_lockCount; ++lock) cost.push_back(beyond(measured[lock].ns, alone));
  std::size_t best = kOursCount;
  for (std::size_t peer = kOursCount; peer < g_lockCount; ++peer)
    if (bench::spreadOf(cost[peer]).median < bench::spreadOf(cost[best]).median) best = peer;
  char title[120];
  (void)std::snprintf(title, sizeof title,
                      "Two threads, %.0f ns of work of their own between turns: the time beyond it",
                      bench::spreadOf(alone).median);
  table.title(title);
  for (std::size_t peer = kOursCount; peer < g_lockCount; ++peer)
    table.row({.what = g_locks[peer].name, .unit = "ns", .ours = {}, .peer = cost[peer]});
  for (const std::size_t ours : {kSpin, kShared, kFair}) {
    const std::string what = beside(ours, "", best);
    table.row({.what = what.c_str(),
               .unit = "ns",
               .ours = cost[ours],
               .peer = cost[best],
               .ratio = bench::ratios(cost[best], cost[ours]),
               .bar = 1 / 1.2});
    table.row({.what = "  share of the slower thread", .unit = "", .ours = measured[ours].leastShare, .bar = 0.4});
  }
}

// The bar holds for the latch whose policy is that of std::shared_mutex here: readers pass.
void compareReaders(bench::Table& table, unsigned runs) {
  const std::vector<Measured> measured = runInTurn({.writersInHundred = 10}, runs);
  table.title("Two threads, 90 readers to 10 writers, tight");
  for (const std::size_t ours : {kShared, kFair})
    for (std::size_t peer = kStdSharedMutex; peer < g_lockCount; ++peer) {
      if (measured[peer].ns.empty()) continue;
      const std::string what = beside(ours, "", peer);
      table.row({.what = what.c_str(),
                 .unit = "ns",
                 .ours = measured[ours].ns,
                 .peer = measured[peer].ns,
                 .ratio = bench::ratios(measured[peer].ns, measured[ours].ns),
                 .bar = ours == kShared && peer == kStdSharedMutex ? 5.0 : 0.0});
    }
}

void compareTight(bench::Table& table, unsigned runs) {
  const std::vector<Measured> measured = runInTurn({}, runs);
  table.title("Two threads, exclusive, tight; no bar");
  for (std::size_t lock = 0; lock < g_lockCount; ++lock) {
    const bool isOurs = lock < kOursCount;
    const Samples& ns = measured[lock].ns;
    table.row(
        {.what = g_locks[lock].name, .unit = "ns", .ours = isOurs ? ns : Samples{}, .peer = isOurs ? Samples{} : ns});
  }
}

}  // namespace

int main(int count, char** arguments) {
  const unsigned runs = bench::runsFromArguments(count, arguments);
  if (runs == 0) return 2;
  const bench::Instance instance;
  gatherLocks();
  bench::Table table;
  // Not on the first thread: in a process that has only one the C library's mutexes do without atomic instructions.
  std::thread([&] {
    measureAlone(table, runs);
    measureTracking(table, runs);
  }).join();
  const unsigned rounds = runs / 6 + bench::kRunsLeast;
  for (const std::uint32_t steps : {50U, 200U}) comparePrivateWork(table, steps, rounds);
  compareReaders(table, rounds);
  compareTight(table, rounds);
  if (g_disturbed != 0)
    std::printf("\n%u of %u rounds of two threads were disturbed by other programs.\n", g_disturbed, g_rounds);
  return table.passed() ? 0 : 1;
}
