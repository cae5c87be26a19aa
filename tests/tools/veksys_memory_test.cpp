// veksys memory: growth and sums of made-up looks; an instance of real processes, one of them stopped and one dead; the
// grammar of its metrics.
#include <functional>
#include <map>
#include <set>

#include "memory/memory_support.h"
#include "tools/veksys/memory_picture.h"
#include "tools/veksys_support.h"

namespace vektest {
namespace {

using namespace veksys;
using vek::memorytest::controllerOf;
using vek::memorytest::kMb;

SqloMemEntry entryOf(std::uint32_t kind, std::uint64_t set, std::uint64_t owner, std::uint64_t size,
                     std::uint64_t used) {
  SqloMemEntry entry = {};
  entry.kind = kind;
  entry.set = set;
  entry.owner = owner;
  entry.processId = static_cast<std::uint32_t>(owner);
  entry.sizeBytes = size;
  entry.usedBytes = used;
  return entry;
}

TEST(MemoryPictureOf, LooksTellsSumsAndGrowth) {
  MemoryLook look;
  look.entries = {entryOf(SQLO_MEM_ENTRY_SET, 1, 7, 100, 60),     entryOf(SQLO_MEM_ENTRY_POOL, 1, 7, 20, 15),
                  entryOf(SQLO_MEM_ENTRY_POOL, 1, 7, 40, 15),     entryOf(SQLO_MEM_ENTRY_SET, 2, 0, 300, 50),
                  entryOf(SQLO_MEM_ENTRY_CONNECTION, 2, 7, 0, 0), entryOf(SQLO_MEM_ENTRY_CONNECTION, 2, 8, 0, 0),
                  entryOf(SQLO_MEM_ENTRY_CONSUMER, 2, 8, 300, 0), entryOf(SQLO_MEM_ENTRY_CONSUMER, 0, 8, 5, 0),
                  entryOf(SQLO_MEM_ENTRY_POOL, 99, 7, 1000, 1000)};  // its set has gone
  look.entries[3].isShared = 1;
  look.controller.active = true;
  look.controller.currentSize = 305;
  const MemoryPicture picture = drawMemory(look);
  EXPECT_TRUE(picture.addsUp());
  EXPECT_EQ(picture.sums.reservedBytes, 400U);
  EXPECT_EQ(picture.sums.usedBytes, 110U);
  ASSERT_EQ(picture.processes.size(), 2U);
  EXPECT_EQ(picture.processes[0].owner, 8U);  // the larger one first
  EXPECT_EQ(picture.processes[1].sets[0].pools[0].sizeBytes, 40U);
  EXPECT_EQ(picture.processes[1].sets[0].looseBytes(), 0U);
  ASSERT_EQ(picture.sharedSets.size(), 1U);
  EXPECT_EQ(picture.sharedSets[0].connections.size(), 2U);
  EXPECT_EQ(picture.sharedSets[0].looseBytes(), 50U);

  // Any one of these is a sum that is none.
  const std::function<void(MemoryLook&)> faults[] = {
      [](MemoryLook& each) { each.controller.currentSize = 306; },
      [](MemoryLook& each) { each.entries[1].sizeBytes = 21; },
      [](MemoryLook& each) { each.entries[3].sizeBytes = 301; },
  };
  for (const auto& fault : faults) {
    MemoryLook wrong = look;
    fault(wrong);
    EXPECT_FALSE(drawMemory(wrong).addsUp());
  }

  MemoryLook later = look;
  later.entries[1].usedBytes += 3;  // two pools of one id count as one
  later.entries[2].usedBytes += 4;
  later.entries[3].usedBytes -= 1;
  later.entries[7].sizeBytes += 9;
  later.entries.push_back(entryOf(SQLO_MEM_ENTRY_SET, 3, 9, 10, 5));
  std::vector<std::uint64_t> grown;
  for (const MemoryGrowth& each : compareMemory(look, later)) grown.push_back(each.bytes);
  EXPECT_EQ(grown, (std::vector<std::uint64_t>{9, 7, 5}));
}

// ---- real processes ---------------------------------------------------------------------------------------------

SQLO_MEM_SET* makeSet(std::uint32_t type, const char* name, std::uint32_t bytes) {
  SqloMemSetRequest request = {};
  request.size = sizeof request;
  request.setType = type;
  request.name = name;
  request.bytes = bytes;
  SQLO_MEM_SET* set = nullptr;
  EXPECT_EQ(sqlocshr(&request, &set), 0);
  return set;
}

SQLO_MEM_POOL* makePool(SQLO_MEM_SET* set, std::uint32_t id) {
  SqloMemPoolRequest request = {};
  request.size = sizeof request;
  request.set = set;
  request.poolId = id;
  SQLO_MEM_POOL* pool = nullptr;
  EXPECT_EQ(sqloCreateMemoryPoolEx(&request, &pool), 0);
  return pool;
}

void allocate(SQLO_MEM_POOL* pool, std::uint32_t bytes) {
  void* block = nullptr;
  EXPECT_EQ(sqloMemPoolAllocate(pool, bytes, 0, __FILE__, __LINE__, &block), 0);
}

using MemoryCommand = LivingProcesses;

rapidjson::Document pictureNow() {
  const Answer answer = veksys({"memory", "--json"});
  EXPECT_EQ(answer.status, 0) << answer.out << answer.err;
  return json(answer.out);
}

const rapidjson::Value* processIn(const rapidjson::Document& picture, pid_t number) {
  for (const auto& process : picture["processes"].GetArray())
    if (process["process"].GetInt() == number) return &process;
  return nullptr;
}

TEST_F(MemoryCommand, ShowsRunningStoppedAndDeadProcesses) {
  expectSentence(veksys({"memory"}), 1, "no process of it has run here");
  const pid_t keeper = live([] {
    SqloMemController* controller = controllerOf(512 * kMb);
    SQLO_MEM_SET* set = makeSet(SQLO_SET_DBM_DB, "SAMPLE", 8 * kMb);
    allocate(makePool(set, SQLO_POOL_KRCBH), 2 * kMb);
    SqloMemoryConsumer* consumer = nullptr;
    EXPECT_EQ(
        controller->registerConsumer(&consumer, 3 * kMb, "sort", nullptr, nullptr, false, SQLO_MEM_CONSUMER_INSTANCE),
        0);
  });
  const pid_t stopped = live([] {
    SQLO_MEM_SET* shared = nullptr;
    EXPECT_EQ(sqlogmshr(SQLO_SET_DBM_DB, "SAMPLE", &shared), 0);
    SQLO_MEM_SET* set = makeSet(SQLO_SET_PRIVATE, "mine", 4 * kMb);
    allocate(makePool(set, SQLO_POOL_APMH), kMb);
    SQLO_MEM_POOL* gone = makePool(set, SQLO_POOL_BSUH);
    EXPECT_EQ(sqloMemFreePools(&gone, 1), 0);
    EXPECT_EQ(sqlofshr(makeSet(SQLO_SET_PRIVATE, "gone", kMb)), 0);
    if (::fork() == 0) {  // has a copy, which is listed once it changes that
      allocate(makePool(set, SQLO_POOL_DRI), kMb);
      std::exit(0);  // in order: takes its rows along
    }
    ::wait(nullptr);
  });
  stop(stopped);
  const pid_t dead = live([] { allocate(makePool(makeSet(SQLO_SET_PRIVATE, "lost", kMb), SQLO_POOL_FLH), 100); });
  end(dead);

  const auto seen = pictureNow();
  EXPECT_TRUE(seen["adds_up"].GetBool());
  ASSERT_EQ(seen["processes"].Size(), 3U);
  for (const auto& [number, state] : {std::pair(keeper, "running"), {stopped, "stopped"}, {dead, "dead"}}) {
    const rapidjson::Value* process = processIn(seen, number);
    ASSERT_NE(process, nullptr) << state;
    EXPECT_STREQ((*process)["state"].GetString(), state);
    for (const auto& set : (*process)["sets"].GetArray()) {
      EXPECT_EQ(set["granted_bytes"], set["reserved_bytes"]);
      EXPECT_EQ(set["pools"][0]["owned_bytes"].GetUint64() + set["in_no_pool_bytes"].GetUint64(),
                set["used_bytes"].GetUint64());
    }
  }
  EXPECT_GE(seen["controller"]["granted_bytes"].GetUint64(), 15U * kMb);
  const rapidjson::Value& mine = (*processIn(seen, stopped))["sets"];
  ASSERT_EQ(mine.Size(), 1U);
  EXPECT_STREQ(mine[0]["name"].GetString(), "mine");
  ASSERT_EQ(mine[0]["pools"].Size(), 1U);
  EXPECT_STREQ(mine[0]["pools"][0]["pool"].GetString(), "apmh");
  EXPECT_GE(mine[0]["pools"][0]["used_bytes"].GetUint64(), kMb);
  ASSERT_EQ(seen["shared_sets"].Size(), 1U);
  EXPECT_EQ(seen["shared_sets"][0]["connections"].Size(), 2U);
  EXPECT_EQ(seen["sums"]["reserved_bytes"].GetUint64(), 12U * kMb);

  const Answer text = veksys({"memory"});
  EXPECT_EQ(text.status, 0);
  for (const char* part :
       {"PROCESS IS DEAD", "stopped", "pool apmh", "shared DBM_DB SAMPLE", "connected to DBM_DB SAMPLE",
        "consumer sort", "3 processes, 1 shared set; 12 MB reserved", "granted of 512 MB"})
    EXPECT_TRUE(holds(text.out, part)) << part << "\n" << text.out;
  EXPECT_FALSE(holds(text.out, "\x1b")) << "no colours but on a terminal";

  // The shared set and its pools stay when who made them has died; the next process that makes a set forgets the dead.
  end(keeper);
  live([] { makeSet(SQLO_SET_PRIVATE, "", kMb); });
  const auto after = pictureNow();
  EXPECT_TRUE(processIn(after, dead) == nullptr || (*processIn(after, dead))["sets"].Empty());
  ASSERT_EQ(after["shared_sets"].Size(), 1U);
  EXPECT_EQ(after["shared_sets"][0]["pools"].Size(), 1U);
}

TEST_F(MemoryCommand, ShowsWhatGrows) {
  live([] {});
  livingIn([] {
    SQLO_MEM_POOL* pool = makePool(makeSet(SQLO_SET_PRIVATE, "leaky", 64 * kMb), SQLO_POOL_XMLCACHEH);
    for (unsigned round = 0;; ++round) {
      if (round < 5000) allocate(pool, 10'000);
      ::usleep(5000);
    }
  });
  // Looks until it has grown.
  const char* const stream = R"("$0" memory --json --watch 20ms | sed '/"growth":\[[^]]*"xmlcacheh"/q')";
  const Answer answer = runProgram("sh", {"-c", stream, VEKSYS_TEST_BIN "/veksys"});
  EXPECT_EQ(answer.status, 0) << answer.err;
  const auto looks = jsonLines(answer.out);
  ASSERT_GT(looks.size(), 1U);
  EXPECT_FALSE(looks[0].HasMember("growth"));
}

// A family's name, type, unit and help stand before its samples; no sample occurs twice; the end is marked.
TEST_F(MemoryCommand, PrintsMetricsThatFollowTheirGrammar) {
  live([] {
    controllerOf(64 * kMb);
    SQLO_MEM_SET* set = makeSet(SQLO_SET_PRIVATE, "odd \"name\\\n", 2 * kMb);
    for (const std::uint32_t id : {SQLO_POOL_APMH, SQLO_POOL_APMH, SQLO_POOL_DRI}) makePool(set, id);
  });
  const Answer answer = veksys({"memory", "--openmetrics"});
  ASSERT_EQ(answer.status, 0) << answer.err;
  const std::regex meta("# (TYPE|UNIT|HELP) ([a-z_]+) (.+)");
  const std::regex sample(R"(([a-z_]+)\{(([a-z_]+="([^"\\\n]|\\["\\n])*",?)+)\} ([0-9]+))");
  std::map<std::string, std::string> types;
  std::set<std::string> samples;
  std::string family;
  Words lines = linesOf(answer.out);
  EXPECT_TRUE(answer.out.ends_with("\n# EOF\n"));
  lines.pop_back();
  for (const std::string& line : lines) {
    std::smatch match;
    if (std::regex_match(line, match, meta)) {
      if (match[1] == "TYPE") {
        family = match[2];
        EXPECT_TRUE(types.emplace(family, match[3]).second) << family << " begins twice";
      }
      EXPECT_EQ(match[2], family) << line;
      EXPECT_TRUE(match[1] != "UNIT" || family.ends_with("_" + match[3].str())) << line;
    } else if (std::regex_match(line, match, sample)) {
      EXPECT_EQ(match[1], family + (types[family] == "counter" ? "_total" : "")) << line;
      EXPECT_TRUE(samples.insert(match[1].str() + match[2].str()).second) << line;
    } else {
      ADD_FAILURE() << line;
    }
  }
  for (const char* part : {"veksys_memory_bound_bytes{", "pool=\"apmh\"", "state=\"running\"", "odd \\\"name"})
    EXPECT_TRUE(holds(answer.out, part)) << part;
  for (const char* other : {"--json", "--watch"})
    expectSentence(veksys({"memory", "--openmetrics", other}), 2, "a format of its own");
  expectSentence(veksys({"memory", "--watch=x"}), 2, "is no length of time");
}

}  // namespace
}  // namespace vektest
