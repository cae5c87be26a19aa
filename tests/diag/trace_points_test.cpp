// The trace points: what each forwards, what a scope fires, and points in odd places.
#include <sys/time.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "platform/trace_support.h"
#include "platform/trcapi.h"
#include "veksys/codes.h"
#include "veksys/diag/trace_scope.h"

using namespace vektest;

namespace {

using Kind = SqltRecordKind;

constexpr std::uint64_t kRingBytes = 0x400000;
constexpr std::uint64_t kUnit = 4711;

// ---- every member of every family -------------------------------------------------------------------------------

// Item i has 1 + i bytes, so that every tail of a word occurs.
PdtItem itemAt(std::uint32_t i) {
  static const char bytes[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJ";
  return {100 + i, 1 + i, bytes + i};
}

// What a call must leave behind.
struct Expected {
  const char* name;
  Kind kind;
  std::uint32_t probe;
  std::int64_t value;
  bool hasText;
  std::uint32_t items;
  void (*call)();
};

constexpr std::int64_t kCode = -2045837302;

// Calls a point with type, size and address of the first items behind its other arguments.
template <std::size_t... I, class Point, class... First>
void call(std::index_sequence<I...>, Point point, First... first) {
  std::apply([&](auto... items) { point(kFunction, first..., items...); },
             std::tuple_cat(std::make_tuple(itemAt(I).type, itemAt(I).size, itemAt(I).data)...));
}

// clang-format off
#define ITEMS(n) std::make_index_sequence<n>()
#define ENTRY(n) {"pdtEntry" #n, Kind::kEntry, 0, kUnit, false, n, [] { call(ITEMS(n), pdtEntry##n); }},
#define EXIT(n) {"pdtExit" #n, Kind::kExit, 0, kCode, false, n, [] { call(ITEMS(n), pdtExit##n, &kCode); }},
#define DATA(n) {"pdtData" #n, Kind::kData, n, 0, false, n, [] { call(ITEMS(n), pdtData##n, n##U); }},
#define ERROR(n) {"pdtError" #n, Kind::kError, n, 0, false, n, [] { call(ITEMS(n), pdtError##n, n##U); }},
#define MARKER(n) \
  {"pdtMarker" #n, Kind::kMarker, n, 0, true, n, [] { call(ITEMS(n), pdtMarker##n, n##U, "a marker"); }},

constexpr Expected kCalls[] = {
    {"pdtEntry", Kind::kEntry, 0, kUnit, false, 0, [] { pdtEntry(kFunction); }},
    VEK_COUNTS_TO_16(ENTRY)
    {"pdtExit", Kind::kExit, 0, kCode, false, 0, [] { pdtExit(kFunction, &kCode); }},
    {"pdtExit, no address", Kind::kExit, 0, 0, false, 0, [] { pdtExit(kFunction, nullptr); }},
    VEK_COUNTS_TO_20(EXIT)
    VEK_COUNTS_TO_20(DATA)
    {"pdtError", Kind::kError, 9, 0, false, 0, [] { pdtError(kFunction, 9); }},
    VEK_COUNTS_TO_6(ERROR)
    {"pdtErrorRc", Kind::kError, 9, kCode, false, 0, [] { pdtErrorRc(kFunction, 9, kCode); }},
    {"pdtErrorRc1", Kind::kError, 9, kCode, false, 1, [] { call(ITEMS(1), pdtErrorRc1, 9U, kCode); }},
    {"pdtMarker", Kind::kMarker, 9, 0, true, 0, [] { pdtMarker(kFunction, 9, "a marker"); }},
    VEK_COUNTS_TO_18(MARKER)
    {"pdtEvent", Kind::kEvent, 9, 77, false, 0, [] { pdtEvent(kFunction, 9, 77); }},
    {"pdtCorrelator", Kind::kCorrelator, 9, 78, false, 0, [] { pdtCorrelator(kFunction, 9, 78); }},
};
// clang-format on

TEST_APART(TracePoints, EveryMemberForwardsWhatItWasGiven) {
  installHost([](VekHost& host) { host.currentEngineUnitNumber = [](void*) { return kUnit; }; });
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  for (const Expected& each : kCalls) each.call();
  const std::vector<ReadRecord> records = readInstance();
  ASSERT_EQ(records.size(), std::size(kCalls));
  for (std::size_t i = 0; i < records.size(); ++i) {
    const Expected& wanted = kCalls[i];
    const ReadRecord& record = records[i];
    SCOPED_TRACE(wanted.name);
    EXPECT_EQ(std::tie(record.kind, record.probe, record.value), std::tie(wanted.kind, wanted.probe, wanted.value));
    EXPECT_EQ(record.function, kFunction);
    std::vector<ReadItem> items;
    if (wanted.hasText) items.push_back({PD_TYPE_STRING, 8, false, "a marker"});
    for (std::uint32_t k = 0; k < wanted.items; ++k) {
      const auto [type, size, data] = itemAt(k);
      items.push_back({type, size, false, std::string(static_cast<const char*>(data), size)});
    }
    EXPECT_TRUE(record.items == items);
  }
}

TEST_APART(TracePoints, OlderInterfaceTranslationsAndUnitsWithoutANumber) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  sqltEntry(kFunction);
  sqltData(kFunction, 1, 3, "abc");
  sqltData2(kFunction, 2, 1, "d", 2, "ef");
  sqltData3(kFunction, 3, 1, "g", 2, "hi", 3, "jkl");
  sqltError(kFunction, 4, 2, "mn");
  sqltExit(kFunction, kCode);
  pdtErrorTrans(kFunction, 5, -10, kCode);
  using Told = std::tuple<Kind, std::uint32_t, std::int64_t, std::vector<std::string>>;
  const std::vector<Told> wanted = {
      {Kind::kEntry, 0, SQLT_NO_ENGINE_UNIT, {}},
      {Kind::kData, 1, 0, {"abc"}},
      {Kind::kData, 2, 0, {"d", "ef"}},
      {Kind::kData, 3, 0, {"g", "hi", "jkl"}},
      {Kind::kError, 4, 0, {"mn"}},
      {Kind::kExit, 0, kCode, {}},
      {Kind::kTranslation, 5, -10, {std::string(reinterpret_cast<const char*>(&kCode), sizeof kCode)}},
  };
  std::vector<Told> told;
  for (const ReadRecord& record : readInstance()) {
    std::vector<std::string> items;
    for (const ReadItem& item : record.items) items.push_back(item.bytes);
    told.emplace_back(record.kind, record.probe, record.value, items);
  }
  EXPECT_EQ(told, wanted);
}

TEST_APART(TracePoints, ItemsThatAreNullEmptyOrTooLargeShowAsSuch) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  const std::string large(20'000'000, 'L');
  const PdtItem odd[] = {{1, 8, nullptr}, {2, 0, nullptr}, {3, 0, "x"}, {4, 0x2000000, nullptr}, {5, 1, "y"}};
  pdtEventVar(kFunction, 1, 1, std::size(odd), odd);
  const PdtItem oversized[] = {{6, 20'000'000, large.data()}, {7, 5, nullptr}, {8, 3, "abc"}};
  pdtEventVar(kFunction, 2, 1, std::size(oversized), oversized);
  std::vector<PdtItem> many(25, PdtItem{9, 1000, large.data()});
  pdtEventVar(kFunction, 3, 1, static_cast<std::uint32_t>(many.size()), many.data());
  pdtEventVar(kFunction, 4, 1, 3, nullptr);
  pdtMarker(kFunction, 5, nullptr);

  const std::vector<ReadRecord> records = readInstance();
  ASSERT_EQ(records.size(), 5U);
  const std::vector<ReadItem> oddRead = {
      {1, 8, true, ""}, {2, 0, true, ""}, {3, 0, false, ""}, {4, 0xFFFFFF, true, ""}, {5, 1, false, "y"}};
  EXPECT_EQ(records[0].items, oddRead);

  ASSERT_EQ(records[1].items.size(), 3U);
  EXPECT_EQ(records[1].items[0].size, 0xFFFFFFU);
  EXPECT_GT(records[1].items[0].bytes.size(), 3900U) << "about half a segment";
  EXPECT_EQ(records[1].items[0].bytes, large.substr(0, records[1].items[0].bytes.size()));
  EXPECT_EQ(records[1].items[1], (ReadItem{7, 5, true, ""}));
  EXPECT_EQ(records[1].items[2], (ReadItem{8, 3, false, ""})) << "nothing was left for it";

  ASSERT_EQ(records[2].items.size(), 20U);
  EXPECT_EQ(records[2].items[0], (ReadItem{9, 1000, false, std::string(1000, 'L')}));
  EXPECT_EQ(records[2].items[19], (ReadItem{9, 1000, false, ""}));
  EXPECT_TRUE(records[3].items.empty());
  EXPECT_TRUE(records[4].items.at(0).isNull);
}

std::int32_t tracedFunction() {
  SqltTraceScope<kFunction> trace;
  trace.data(10, 1);
  trace.error(20, kCode, 2, 3);
  return trace.exit(-5);
}

TEST_APART(TraceScope, FiresWhatItsComponentWordAsksFor) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  constexpr std::tuple<unsigned, Kind, std::int64_t> kPoints[] = {
      {1, Kind::kEntry, 1'000'000}, {4, Kind::kData, 0}, {8, Kind::kError, kCode}, {2, Kind::kExit, -5}};
  using Fired = std::vector<std::pair<Kind, std::int64_t>>;
  SqltTraceSettings settings = {};
  settings.options = SQLT_OPTION_COMPONENTS;
  settings.selection = SQLT_SELECT_MASK_BYTES;
  settings.components[9 / 8] = 1U << (9 % 8);
  for (unsigned bits = 0; bits < 32; ++bits) {
    settings.mask[0] = static_cast<std::uint8_t>(bits << 1 & 0x1E);
    settings.mask[1] = bits >> 4 & 1U;
    ASSERT_EQ(sqltSetTraceFlags(&settings), 0);
    pdtClearBuffer();
    EXPECT_EQ(tracedFunction(), -5);
    Fired wanted;
    for (const auto& [bit, kind, value] : kPoints)
      if ((bits & bit) != 0) wanted.emplace_back(kind, value);
    Fired fired;
    for (const ReadRecord& record : readInstance()) fired.emplace_back(record.kind, record.value);
    EXPECT_EQ(fired, wanted) << "bits " << bits;
  }
}

TEST_APART(TraceScope, WorkloadDisplayTellsTheHost) {
  static std::vector<std::pair<EcfFunctionId, bool>> told;
  installHost([](VekHost& host) {
    host.workloadDisplayEntry = [](void*, EcfFunctionId id) { told.emplace_back(id, true); };
    host.workloadDisplayExit = [](void*, EcfFunctionId id) { told.emplace_back(id, false); };
  });
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  sqltSetWorkloadDisplay(true);
  tracedFunction();
  sqltSetWorkloadDisplay(false);
  tracedFunction();
  const std::vector<std::pair<EcfFunctionId, bool>> wanted = {{kFunction, true}, {kFunction, false}};
  EXPECT_EQ(told, wanted);
  EXPECT_TRUE(readInstance().empty());
}

TEST(TraceScope, IdleProcessSeesTracingSwitchedOnLater) {
  const Instance instance;
  Baton go;
  const pid_t idle = start([&go] {
    ASSERT_TRUE(go.take());
    tracedFunction();
  });
  inProcess([] {
    ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
    const SqltTraceSettings all = {};
    ASSERT_EQ(sqltSetTraceFlags(&all), 0);
  });
  go.give();
  EXPECT_EQ(finish(idle), 0);
  inProcess([] {
    const std::vector<ReadRecord> records = readInstance();
    const auto own = [](const ReadRecord& record) { return record.function == kFunction; };
    EXPECT_EQ(std::count_if(records.begin(), records.end(), own), 4) << "entry, data, error and exit of its first call";
  });
}

// ---- odd places -------------------------------------------------------------------------------------------------

std::atomic<std::uint64_t> g_alarms{0};

void pointInHandler(int) {
  pdtEvent(kFunction, 1, g_alarms.load(std::memory_order_relaxed));
  g_alarms.fetch_add(1, std::memory_order_relaxed);
}

void alarmEveryMicroseconds(suseconds_t interval) {
  struct sigaction action = {};
  action.sa_handler = pointInHandler;
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGALRM, &action, nullptr);
  const itimerval timer = {{0, interval}, {0, interval}};
  ::setitimer(ITIMER_REAL, &timer, nullptr);
}

// The thread's first point of all stands in a handler that interrupts the library inside its locks.
TEST_APART(TracePoints, PointInASignalHandlerInsideTheLibraryWaitsForNothing) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  for (int round = 0; round < 20; ++round)
    inProcess([] {
      alarmEveryMicroseconds(20);
      for (int i = 0; i < 20'000; ++i) sqltInquireTraceBufferSize();
      alarmEveryMicroseconds(0);
    });
}

TEST_APART(TraceScope, TextsAreRecordedAsFarAsTheyGo) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  const SqltTraceSettings all = {};
  ASSERT_EQ(sqltSetTraceFlags(&all), 0);
  struct {
    char full[4] = {'f', 'u', 'l', 'l'};
    char behind[8] = "secret";
  } texts;
  char cut[8] = "cut";
  char* pointer = cut;
  const char* none = nullptr;
  {
    const SqltTraceScope<kFunction> trace;
    trace.data(1, texts.full, cut, pointer, none, std::string("string"), "literal");
  }
  const std::vector<ReadRecord> records = readInstance();
  ASSERT_EQ(records.size(), 3U);
  const char* const expected[] = {"full", "cut", "cut", "", "string", "literal"};
  for (std::size_t i = 0; i < std::size(expected); ++i) EXPECT_EQ(records[1].items[i].bytes, expected[i]);
}

TEST_APART(TracePoints, PointInASignalHandlerInsideAPointIsLostAndCountedAndDamagesNothing) {
  ASSERT_EQ(sqltTraceFacilityCreate(0x4000000), 0);
  pdtEvent(kFunction, 1, 0);
  alarmEveryMicroseconds(20);
  std::uint64_t written = 0;
  std::uint64_t words[40] = {};
  while (g_alarms < 2000 && written < 400'000) {
    std::fill(std::begin(words), std::end(words), written);
    pdtData1(kFunction, 2, 4, written % 9 == 0 ? sizeof words : 8, words);
    ++written;
  }
  alarmEveryMicroseconds(0);
  std::uint64_t events = 0;
  std::uint64_t data = 0;
  std::uint64_t lostBetween = 0;
  for (const ReadRecord& record : readInstance()) {
    EXPECT_TRUE(!record.isGap() || record.gapReason == SqltGapReason::kLost);
    lostBetween += record.gapRecords;
    events += record.kind == Kind::kEvent ? 1 : 0;
    if (record.kind != Kind::kData) continue;
    std::fill(std::begin(words), std::end(words), data);
    ASSERT_EQ(std::memcmp(record.items[0].bytes.data(), words, record.items[0].bytes.size()), 0);
    ++data;
  }
  SqltTraceReader reader;
  ASSERT_EQ(reader.openInstance(), 0);
  EXPECT_EQ(data, written) << "the interrupted point is never the one that is lost";
  EXPECT_EQ(events + reader.info()->lostRecords, g_alarms + 1);
  EXPECT_GT(reader.info()->lostRecords, 0U) << "no alarm ever came inside a point";
  EXPECT_LE(lostBetween, reader.info()->lostRecords);
}

TEST(TracePoints, PointsOfAProcessThatDetachesWriteNothing) {
  const Instance instance;
  inProcess([] {
    installControl().partition = 7;
    ASSERT_EQ(sqltTraceFacilityCreate(SQLT_TRACE_SIZE_MINIMUM), 0);
    pdtEvent(kFunction, 98, 1);
    vek::trcDetachShared();
    pdtEvent(kFunction, 99, 1);
    const SqltTraceScope<kFunction> trace;
  });
  inProcess([] {
    SqltTraceReader reader;
    SqltTraceRecord record;
    ASSERT_EQ(reader.openInstance(), 0);
    ASSERT_TRUE(reader.next(&record));
    EXPECT_EQ(record.probe, 98U);
    EXPECT_EQ(record.thread.partition, 7) << "that of the host";
    EXPECT_FALSE(reader.next(&record));
  });
}

TEST(TracePoints, SkipSwitchIsReadOnceAndForGood) {
  const Instance instance;
  inProcess([] { ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0); });
  inProcess([] {
    ::setenv("VEK_SKIP_TRACE", "", 1);
    tracedFunction();
    ::unsetenv("VEK_SKIP_TRACE");
    tracedFunction();
    pdtEvent(kFunction, 1, 1);
    EXPECT_EQ(sqltinit(), 1ULL << 32);
    EXPECT_EQ(sqltTraceFacilityDelete(), SQLT_TRACE_SKIPPED);
    EXPECT_FALSE(sqltTraceActive());
    EXPECT_EQ(sqltTraceWord(9), 0U);
  });
  inProcess([] { EXPECT_TRUE(readInstance().empty()); });
}

}  // namespace
