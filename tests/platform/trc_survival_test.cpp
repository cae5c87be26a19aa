// The trace survives its users: writers killed or stopped anywhere cost at most the record they are in, nobody waits,
// and what is missing is told. Records describe themselves, so that a reader can tell a right one from a wrong one.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>

#include <barrier>
#include <cstring>
#include <map>
#include <random>

#include "platform/trace_support.h"
#include "veksys/pd_types.h"

using namespace vektest;

namespace {

constexpr std::uint64_t kRingBytes = 0x100000;
constexpr std::uint32_t kSegments = 128;
constexpr std::uint32_t kWordsMost = 32;
constexpr std::uint32_t kBulk = 4000;  // two such records fill a segment

struct Stamp {
  std::uint64_t writer;
  std::uint64_t number;
};

using Payload = std::uint64_t[kWordsMost];

// What a record carries besides its stamp follows from that; answers how many bytes of it.
std::uint32_t fillPayload(const Stamp& stamp, Payload& payload) {
  const std::uint64_t seed = mix(stamp.writer * 0x100000001B3U + stamp.number);
  for (std::uint32_t i = 0; i < kWordsMost; ++i) payload[i] = seed * (2 * i + 1);
  return static_cast<std::uint32_t>(seed % sizeof payload);
}

void writeStamped(std::uint64_t writer, std::uint64_t number) {
  const Stamp stamp = {writer, number};
  Payload payload;
  const std::uint32_t bytes = fillPayload(stamp, payload);
  pdtData2(kFunction, static_cast<std::uint32_t>(number), PD_TYPE_HEXDUMP, sizeof stamp, &stamp, PD_TYPE_HEXDUMP, bytes,
           payload);
}

bool isRight(const SqltTraceRecord& record) {
  if (record.itemCount != 2 || record.items[0].stored != sizeof(Stamp)) return false;
  Stamp stamp;
  std::memcpy(&stamp, record.items[0].data, sizeof stamp);
  Payload payload;
  const std::uint32_t bytes = fillPayload(stamp, payload);
  return record.number == stamp.number && record.probe == static_cast<std::uint32_t>(stamp.number) &&
         record.items[1].stored == bytes && std::memcmp(record.items[1].data, payload, bytes) == 0;
}

// Reads a whole trace of stamped records: each is right, and between two of a thread exactly as many are missing as
// the gaps say.
std::uint64_t checkAll(SqltTraceReader& reader) {
  struct Progress {
    std::uint64_t next = 0;
    std::uint64_t missing = 0;
  };
  std::map<std::uint64_t, Progress> threads;
  SqltTraceRecord record = {};
  std::uint64_t count = 0;
  std::uint64_t ticks = 0;
  while (reader.next(&record) && !testing::Test::HasFailure()) {
    Progress& progress = threads[record.thread.serial];
    if (record.kind == SqltRecordKind::kGap) {
      EXPECT_NE(record.gapReason, SqltGapReason::kDamaged)
          << "segment " << record.segment << " offset " << record.offset << " bytes " << record.gapBytes;
      if (record.gapReason == SqltGapReason::kOverwritten || record.gapReason == SqltGapReason::kLost)
        progress.missing += record.gapRecords;
      continue;
    }
    EXPECT_TRUE(isRight(record)) << "thread " << record.thread.serial << " number " << record.number;
    EXPECT_EQ(record.number, progress.next + progress.missing) << "thread " << record.thread.serial;
    EXPECT_GE(record.ticks, ticks);
    ticks = record.ticks;
    progress = {record.number + 1, 0};
    ++count;
  }
  return count;
}

std::uint64_t checkInstance() {
  SqltTraceReader reader;
  EXPECT_EQ(reader.openInstance(), 0);
  return checkAll(reader);
}

void createRing() {
  inProcess([] { ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0); });
}

std::uint32_t segmentsOwned() {
  SqltTraceReader reader;
  EXPECT_EQ(reader.openInstance(), 0);
  return reader.info()->segmentsOwned;
}

void writeBulk() {
  static const char bulk[kBulk] = {};
  sqltData(kFunction, 1, kBulk, bulk);
}

// Goes round the ring `wraps` times with large records.
void wrapRing(unsigned wraps) {
  for (unsigned i = 0; i < wraps * kSegments * 2; ++i) writeBulk();
}

// ---- random kills and stops -------------------------------------------------------------------------------------

struct Board {
  std::atomic<bool> stop{false};
  std::atomic<std::uint64_t> nextWriter{0};
  std::atomic<std::uint64_t> written{0};
  std::atomic<std::uint64_t> passes{0};
};

void writeUntilStopped(Board& board) {
  const std::uint64_t writer = board.nextWriter.fetch_add(1) + 1;
  for (std::uint64_t number = 0; !board.stop.load(std::memory_order_relaxed); ++number) {
    writeStamped(writer, number);
    if (number % 256 == 0) board.written.fetch_add(256, std::memory_order_relaxed);
  }
}

pid_t startWriters(Board& board) {
  return start([&board] { inThreads(3, [&board](unsigned) { writeUntilStopped(board); }); });
}

void waitForRecords(const Board& board, std::uint64_t more) {
  const std::uint64_t target = board.written.load() + more;
  while (board.written.load(std::memory_order_relaxed) < target) ::sched_yield();
}

// Kills a writer in each round, or stops one, or has the stopped one go on or die.
void killAndStopWriters(Board& board, std::uint64_t seed, unsigned rounds) {
  std::mt19937_64 random(seed);
  pid_t writers[] = {startWriters(board), startWriters(board), startWriters(board)};
  pid_t stopped = 0;
  std::vector<pid_t> woken;
  for (unsigned i = 0; i < rounds; ++i) {
    pid_t& victim = writers[random() % std::size(writers)];
    waitForRecords(board, random() % 60'000);
    if (random() % 8 == 0 && stopped != 0) {
      ::kill(stopped, random() % 4 == 0 ? SIGKILL : SIGCONT);
      woken.push_back(std::exchange(stopped, 0));
      continue;
    }
    if (random() % 4 == 0 && stopped == 0) {
      ::kill(stopped = victim, SIGSTOP);
    } else {
      EXPECT_EQ(finishKilled(victim), -SIGKILL);
    }
    victim = startWriters(board);
  }
  board.stop = true;
  for (const pid_t writer : writers) EXPECT_EQ(finish(writer), 0);
  if (stopped != 0) ::kill(woken.emplace_back(stopped), SIGCONT);
  for (const pid_t writer : woken) {
    const int end = finish(writer);
    EXPECT_TRUE(end == 0 || end == -SIGKILL) << end;
  }
}

TEST(TraceSurvival, WritersKilledAndStoppedAtRandomCostNothingElse) {
  const Instance instance;
  createRing();
  const Shared<Board> board;
  const pid_t reader = start([&board] {
    while (!board->stop && !testing::Test::HasFailure()) {
      checkInstance();
      board->passes.fetch_add(1);
    }
  });
  killAndStopWriters(*board, 20240611, 60 * stressFactor());
  EXPECT_EQ(finish(reader), 0);
  EXPECT_GT(board->passes, 20U);

  // All writers are dead: the same records from the ring and from a dump of it.
  inProcess([] { EXPECT_GT(checkInstance(), 1000U); });
  inProcess([&instance] {
    const std::string dump = instance.path("dump");
    ASSERT_EQ(sqlt_dump_trace(dump.c_str()), 0);
    EXPECT_EQ(withoutGaps(readFile(dump)), withoutGaps(readInstance()));
  });
}

// ---- a writer held exactly inside a record ----------------------------------------------------------------------

enum class Fate { kKilled, kStopped };

char* g_trap;
Fate g_fate;

// Reached when a point reads the item that lies in the trap: the record is reserved and not finished.
void inTheMiddle(int) {
  if (g_fate == Fate::kKilled) ::kill(::getpid(), SIGKILL);
  ::raise(SIGSTOP);
  ::mprotect(g_trap, 4096, PROT_READ | PROT_WRITE);
  std::memset(g_trap, 'x', 4096);
}

void writeThroughTrap(Fate fate) {
  g_fate = fate;
  g_trap = static_cast<char*>(::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  struct sigaction action = {};
  action.sa_handler = inTheMiddle;
  ::sigaction(SIGSEGV, &action, nullptr);
  for (std::uint32_t i = 0; i < 5; ++i) pdtEvent(kFunction, 1, i);
  pdtData2(kFunction, 2, PD_TYPE_HEXDUMP, sizeof g_trap, &g_trap, PD_TYPE_HEXDUMP, 64, g_trap);
  for (std::uint32_t i = 0; i < 5; ++i) pdtEvent(kFunction, 3, i);
}

// What the writers in the trap left: their records, and the gaps where they are held.
struct Traces {
  std::vector<ReadRecord> records;
  std::vector<ReadRecord> unfinished;
  unsigned damaged = 0;
};

Traces readTrapped(const std::vector<ReadRecord>& all) {
  Traces traces;
  for (const ReadRecord& record : all) {
    if (record.isGap() && record.gapReason == SqltGapReason::kUnfinished) traces.unfinished.push_back(record);
    if (record.isGap() && record.gapReason == SqltGapReason::kDamaged) ++traces.damaged;
    if (!record.isGap() && (record.kind == SqltRecordKind::kEvent || record.items.size() == 2))
      traces.records.push_back(record);
  }
  return traces;
}

TEST(TraceSurvival, WriterStoppedInARecordAndWokenAfterThousandsOfWrapsGoesOn) {
  const Instance instance;
  createRing();
  const pid_t writer = start([] { writeThroughTrap(Fate::kStopped); });
  ASSERT_TRUE(waitUntilStopped(writer));
  inProcess([] { wrapRing(2000 * stressFactor()); });
  inProcess([] {
    const Traces traces = readTrapped(readInstance());
    EXPECT_EQ(traces.records.size(), 5U);
    ASSERT_EQ(traces.unfinished.size(), 1U);
    EXPECT_EQ(traces.unfinished[0].number, 5U);
    EXPECT_EQ(traces.damaged, 0U);
  });
  ::kill(writer, SIGCONT);
  EXPECT_EQ(finish(writer), 0);
  inProcess([] {
    const Traces traces = readTrapped(readInstance());
    ASSERT_EQ(traces.records.size(), 11U);
    EXPECT_EQ(traces.unfinished.size() + traces.damaged, 0U);
    EXPECT_EQ(traces.records[5].items[1].bytes, std::string(64, 'x'));
    for (std::uint64_t i = 0; i < 11; ++i) EXPECT_EQ(traces.records[i].number, i);
  });
}

TEST(TraceSurvival, WritersKilledInARecordLoseThatRecordAloneAndGiveTheirSegmentsBack) {
  constexpr std::size_t kKilled = 40;
  const Instance instance;
  createRing();
  for (std::size_t i = 0; i < kKilled; ++i) {
    ASSERT_EQ(runInProcess([] { writeThroughTrap(Fate::kKilled); }), -SIGKILL);
  }
  const auto check = [](std::size_t leastLeft) {
    const Traces traces = readTrapped(readInstance());
    EXPECT_GE(traces.unfinished.size(), leastLeft);
    EXPECT_EQ(traces.records.size(), traces.unfinished.size() * 5);
    EXPECT_EQ(traces.damaged, 0U);
    return traces.unfinished.size();
  };
  inProcess([&] {
    EXPECT_EQ(check(kKilled), kKilled);
    EXPECT_EQ(segmentsOwned(), kKilled);
  });
  // Enough to come round to the dead writers' segments and find them crowding the ring; what the first of them held is
  // overwritten then, the rest stays readable.
  inProcess([&] {
    for (unsigned i = 0; i < (kSegments - kKilled + 1) * 2 && segmentsOwned() > 1; ++i) writeBulk();
    EXPECT_EQ(segmentsOwned(), 1U) << "only the writer of this process";
    check(kKilled - 2);
    wrapRing(2);
    EXPECT_EQ(check(0), 0U) << "their segments are used again";
  });
}

// ---- nobody waits -----------------------------------------------------------------------------------------------

// From here on any system call kills the process, but for its end, for looking at record locks without waiting, and for
// making sure before that whose descriptor it is.
void forbidSystemCalls() {
  sock_filter rules[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit_group, 6, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_newfstatat, 5, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fstat, 4, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_fcntl, 0, 4),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[1])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_GETLK, 1, 0),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, F_SETLK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
  };
  const sock_fprog program = {static_cast<unsigned short>(std::size(rules)), rules};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

struct LockLooks {
  std::atomic<std::uint64_t> count{0};
  std::atomic<std::int64_t> elapsedNs{0};
};

LockLooks* g_looks;
const auto g_lockByte = vek::ossCalls().lockByte;

// Writes 200,000 records over many wraps and tells how often it looked at record locks meanwhile.
int writeWithoutSystemCalls(LockLooks& looks) {
  g_looks = &looks;
  return runInProcess([] {
    writeStamped(1, 0);
    vek::ossCalls().lockByte = [](int fd, int command, short type, off_t offset, off_t bytes, int* conflict) {
      g_looks->count.fetch_add(1);
      return g_lockByte(fd, command, type, offset, bytes, conflict);
    };
    const std::int64_t start = vek::ossMonotonicNs();
    forbidSystemCalls();
    for (std::uint64_t number = 1; number < 200'000; ++number) writeStamped(1, number);
    g_looks->elapsedNs = vek::ossMonotonicNs() - start;
    ::_exit(0);
  });
}

// Alone a writer makes no system call at all. Beside another's segment it looks for dead owners, three calls (the lock,
// the other process, the lock's end) at most ten times a second, and none that waits.
TEST(TraceSurvival, WritingAcrossManyWrapsNeedsNoSystemCallAndNeverWaits) {
  if (kSanitized) GTEST_SKIP() << "the instrumentation makes system calls of its own";
  const Instance instance;
  createRing();
  const Shared<LockLooks> alone;
  EXPECT_EQ(writeWithoutSystemCalls(*alone), 0) << "a record made a system call";
  EXPECT_EQ(alone->count, 0U);

  const pid_t holder = start([] { writeThroughTrap(Fate::kStopped); });
  ASSERT_TRUE(waitUntilStopped(holder));
  const Shared<LockLooks> besides;
  EXPECT_EQ(writeWithoutSystemCalls(*besides), 0) << "a record made a system call";
  const auto sweeps = static_cast<std::uint64_t>(besides->elapsedNs / 100'000'000 + 2);
  EXPECT_LE(besides->count, sweeps * 3);
  finishKilled(holder);
}

TEST(TraceSurvival, WithoutAFreeSegmentRecordsAreCountedLostAtTheirPlace) {
  const Instance instance;
  createRing();
  inProcess([] {
    constexpr std::uint64_t kLost = 200;
    std::barrier together(kSegments + 1);
    std::vector<std::jthread> holders;
    for (std::uint32_t i = 0; i < kSegments; ++i)
      holders.emplace_back([&] {
        pdtEvent(kFunction, 1, 1);
        together.arrive_and_wait();  // all segments are taken
        together.arrive_and_wait();  // and go back
      });
    together.arrive_and_wait();
    for (std::uint64_t number = 0; number < kLost; ++number) writeStamped(7, number);
    together.arrive_and_wait();
    holders.clear();
    for (std::uint64_t number = kLost; number < kLost + 100; ++number) writeStamped(7, number);

    std::uint64_t lost = 0;
    std::uint64_t first = 0;
    for (const ReadRecord& record : readInstance()) {
      EXPECT_TRUE(!record.isGap() || record.gapReason == SqltGapReason::kLost);
      if (record.isGap()) lost += record.gapRecords;
      if (record.kind == SqltRecordKind::kData && first == 0) first = record.number;
    }
    EXPECT_GE(first, kLost);
    EXPECT_LT(first, kLost + 65) << "found again soon after a segment was free";
    EXPECT_EQ(lost, first);
    SqltTraceReader reader;
    ASSERT_EQ(reader.openInstance(), 0);
    EXPECT_EQ(reader.info()->lostRecords, lost);
  });
}

TEST(TraceSurvival, ForkedChildWritesAsAThreadOfItsOwn) {
  const Instance instance;
  createRing();
  inProcess([] {
    writeStamped(1, 0);
    const pid_t child = start([] {
      for (std::uint64_t number = 0; number < 100; ++number) writeStamped(2, number);
    });
    for (std::uint64_t number = 1; number < 100; ++number) writeStamped(1, number);
    EXPECT_EQ(finish(child), 0);
    EXPECT_EQ(checkInstance(), 200U);
  });
}

}  // namespace
