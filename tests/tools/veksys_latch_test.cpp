// veksys latch: who waits for whom, told from lists of entries; and an instance of real processes, one of them stopped
// and one dead.
#include <array>

#include "tools/veksys/latch_graph.h"
#include "tools/veksys_support.h"
#include "veksys/latch_types.h"
#include "veksys/sync.h"

namespace vektest {
namespace {

using namespace veksys;

// Entries in short: thread, '+' holds or '-' waits for, latch, mode; then '!' its process is dead, '~' it was not there
// at every look, '@' the latch is in the memory of the thread's own process. Each thread is a process of its own.
std::vector<LatchSight> sightsOf(const std::string& text) {
  std::vector<LatchSight> sights;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    LatchSight sight = {};
    sight.entry.owner = sight.entry.threadId = static_cast<std::uint32_t>(word[0] - '0');
    sight.entry.state = word[1] == '+' ? SQLO_LATCH_ENTRY_HELD : SQLO_LATCH_ENTRY_WAITING;
    sight.entry.latch = static_cast<unsigned char>(word[2]);
    sight.entry.request = word[3] == 'X' ? SQLO_LATCH_EXCLUSIVE : SQLO_LATCH_SHARED;
    sight.entry.sequence = sights.size();
    sight.entry.processIsDead = holds(word, "!");
    sight.entry.isBetweenProcesses = !holds(word, "@");
    sight.isSteady = !holds(word, "~");
    sights.push_back(sight);
  }
  return sights;
}

std::string threadName(const LatchSight& sight) { return std::to_string(sight.entry.threadId); }

std::string threadsOf(const std::vector<std::size_t>& chosen, const std::vector<LatchSight>& sights) {
  std::string text;
  for (const std::size_t sight : chosen) text += threadName(sights[sight]);
  return text;
}

// What a graph tells; of a cycle the threads that wait, the least one first.
Words toldBy(const LatchGraph& graph, const std::vector<LatchSight>& sights) {
  Words told;
  for (const auto& [waiter, blocker] : graph.edges)
    told.push_back(threadName(sights[waiter]) + ">" + threadName(sights[blocker]));
  for (const LatchCycle& cycle : graph.cycles) {
    told.emplace_back("cycle ");
    for (const std::size_t edge : cycle) told.back() += threadName(sights[graph.edges[edge].waiter]);
  }
  if (!graph.deadHolders.empty()) told.push_back("dead " + threadsOf(graph.deadHolders, sights));
  if (!graph.orphans.empty()) told.push_back("orphans " + threadsOf(graph.orphans, sights));
  return told;
}

TEST(LatchGraphOf, EntriesTellsWhoWaitsForWhomAndWhatIsWrong) {
  const std::tuple<const char*, const char*, Words> cases[] = {
      {"nothing", "", {}},
      {"holders alone", "1+aX 2+bS 3+bS", {}},
      {"a queue behind one", "1+aX 2-aX 3-aS", {"2>1", "3>1"}},
      {"a writer behind readers", "1+aS 2+aS 3-aX", {"3>1", "3>2"}},
      {"a reader behind a writer in line", "1+aS 2-aX 3-aS", {"2>1", "3>2"}},
      {"a chain", "1+aX 2-aX 2+bX 3-bS", {"2>1", "3>2"}},
      {"two", "1+aX 1-bX 2+bX 2-aS", {"2>1", "1>2", "cycle 12"}},
      {"three, and one behind them", "1+aX 1-bX 2+bX 2-cX 3+cX 3-aX 4-aX", {"3>1", "4>1", "1>2", "2>3", "cycle 123"}},
      {"two apart", "1+aX 1-bX 2+bX 2-aX 3+cX 3-dX 4+dX 4-cX", {"2>1", "1>2", "4>3", "3>4", "cycle 12", "cycle 34"}},
      {"itself", "1+aX 1-aX", {"1>1", "cycle 1"}},
      {"its own shared hold", "1+aS 1-aX", {"1>1", "cycle 1"}},
      {"an upgrade behind another reader", "1+aS 1-aX 2+aS", {"1>2"}},
      {"two upgrades", "1+aS 1-aX 2+aS 2-aX", {"1>2", "2>1", "cycle 12"}},
      {"a reader again behind a writer", "1+aS 1-aS 2-aX", {"1>2", "2>1", "cycle 12"}},
      {"what was not there all the time", "1+aX 1-bX 2+bX~ 2-aX", {"2>1", "1>2"}},
      {"a dead holder", "1+aX! 2-aS", {"2>1", "dead 1"}},
      {"a dead waiter waits no more", "1+aX 2-aX!", {}},
      {"held by nobody", "1-aX 2-aS 3-bS", {"2>1", "orphans 13"}},
      {"only just", "1-aX~", {}},
      {"the same address in two processes", "1+aX@ 2-aX@ 1-bX 2+bX", {"1>2", "orphans 2"}},
  };
  for (const auto& [about, entries, told] : cases) {
    const std::vector<LatchSight> sights = sightsOf(entries);
    EXPECT_EQ(toldBy(drawLatchGraph(sights), sights), told) << about;
  }
}

LatchLook lookAt(const std::string& text) {
  LatchLook look;
  for (const LatchSight& sight : sightsOf(text)) look.push_back(sight.entry);
  return look;
}

TEST(LatchLooks, TellHowLongAndWhatStaysTrue) {
  LatchLook first = lookAt("1+aX 2-aX 3+bX 4+cX 5-dX");
  LatchLook last = lookAt("1+aX 2-aX 3+bX 4+cX 5+dX 6+eS");
  last[1].hasSince = 1;
  last[1].sinceNs = 400;
  last[3].sequence = 99;         // the same latch once more
  last.erase(last.begin() + 2);  // given back
  const auto sights = compareLooks({first, last}, 100, 1000);
  using Told = std::tuple<std::uint64_t, LatchSpan, std::int64_t, bool>;
  const std::vector<Told> expected = {
      {1, LatchSpan::kAtLeast, 100, true},   {2, LatchSpan::kExact, 600, true},
      {4, LatchSpan::kLessThan, 100, false}, {5, LatchSpan::kLessThan, 100, false},
      {6, LatchSpan::kLessThan, 100, false}, {3, LatchSpan::kGone, 0, false},
      {4, LatchSpan::kGone, 0, false},
  };
  std::vector<Told> told;
  for (const LatchSight& sight : sights) told.emplace_back(sight.entry.threadId, sight.span, sight.ns, sight.isSteady);
  EXPECT_EQ(told, expected);

  // Nobody holds it at one look, somebody does at the next.
  const auto waiters = sightsOf("1-aX 2-bX");
  LatchGraph graph = drawLatchGraph(waiters);
  EXPECT_EQ(threadsOf(graph.orphans, waiters), "12");
  confirmOrphans(&graph, waiters, lookAt("1-aX 2-bX 3+aX"));
  EXPECT_EQ(threadsOf(graph.orphans, waiters), "2");
}

// ---- real processes ---------------------------------------------------------------------------------------------

constexpr std::uint16_t kType = SQLO_LT_SQLB_PAGE_HASH__bucketLatch__latch;

class LatchCommand : public LivingProcesses {
 protected:
  void initialise() {
    for (SQLO_SLATCH_CAS32& latch : *latches_) EXPECT_EQ(latch.init(kType, SQLO_LATCH_BETWEEN_PROCESSES), 0);
  }

  // The picture once so many threads wait.
  rapidjson::Document pictureWith(std::size_t waiters, int status) {
    for (int tries = 0; tries < 100; ++tries) {
      const Answer answer = veksys({"latch", "--json", "--interval", "20ms"});
      auto picture = json(answer.out);
      std::size_t found = 0;
      for (const auto& entry : picture["entries"].GetArray())
        found += entry["state"].GetString() == std::string("waiting") ? 1U : 0U;
      if (found == waiters && answer.status == status) return picture;
    }
    ADD_FAILURE() << "no picture with " << waiters << " waiters and status " << status;
    return json(veksys({"latch", "--json"}).out);
  }

  Shared<std::array<SQLO_SLATCH_CAS32, 4>> latches_;
};

int threadOf(const rapidjson::Value& picture, const rapidjson::Value& id) {
  for (const auto& entry : picture["entries"].GetArray())
    if (entry["id"].GetInt() == id.GetInt()) return entry["process"].GetInt();
  return 0;
}

TEST_F(LatchCommand, ShowsStoppedAndDeadHoldersAndWhoWaitsForThem) {
  expectSentence(veksys({"latch"}), 1, "no process of it has run here");
  const pid_t stopped = live([&] {
    initialise();
    EXPECT_EQ((*latches_)[0].getExclusive("pool/fix.cpp", 812), 0);
  });
  stop(stopped);
  EXPECT_EQ(veksys({"latch"}).status, 0) << "a stopped holder that nobody waits for is no problem";

  const pid_t waiting = livingIn([&] { (void)(*latches_)[0].getShared("pool/read.cpp", 99); });
  const auto picture = pictureWith(1, 0);
  const auto edges = picture["edges"].GetArray();
  ASSERT_EQ(edges.Size(), 1U);
  EXPECT_EQ(threadOf(picture, edges[0]["waiter"]), waiting);
  EXPECT_EQ(threadOf(picture, edges[0]["blocker"]), stopped);
  for (const auto& entry : picture["entries"].GetArray()) {
    const bool isHolder = entry["process"].GetInt() == stopped;
    EXPECT_EQ(entry["stopped"].GetBool(), isHolder);
    EXPECT_STREQ(entry["type"].GetString(), sqloLatchTypeName(kType));
    EXPECT_STREQ(entry["mode"].GetString(), isHolder ? "X" : "S");
    EXPECT_STREQ(entry["file"].GetString(), isHolder ? "pool/fix.cpp" : "pool/read.cpp");
    EXPECT_EQ(entry["line"].GetInt(), isHolder ? 812 : 99);
    EXPECT_TRUE(entry.HasMember(isHolder ? "at_least_ns" : "for_ns"));
    EXPECT_TRUE(entry["between_processes"].GetBool());
  }
  const Answer text = veksys({"latch", "--waiting"});
  EXPECT_EQ(text.status, 0) << text.out;
  for (const char* part : {"pool/fix.cpp:812", "at least ", ", waited for ", ", stopped", "Who waits for whom", "`- ",
                           "pool/read.cpp:99", "1 hold and 1 wait of 2 threads in 2 processes."})
    EXPECT_TRUE(holds(text.out, part)) << part << "\n" << text.out;
  EXPECT_FALSE(holds(text.out, "\x1b")) << "no colours but on a terminal";

  const pid_t dead = live([&] { EXPECT_EQ((*latches_)[1].getExclusive("pool/write.cpp", 7), 0); });
  end(dead);
  const auto after = pictureWith(1, 1);
  ASSERT_EQ(after["dead_holders"].Size(), 1U);
  EXPECT_EQ(after["dead_holders"][0]["process"].GetInt(), dead);
  EXPECT_TRUE(holds(veksys({"latch"}).out, "whose process is dead, holds")) << veksys({"latch"}).out;

  // Filters choose what is shown, not what is wrong.
  EXPECT_TRUE(holds(veksys({"latch", "--process", std::to_string(waiting)}).out, "pool/fix.cpp:812"));
  const Answer others = veksys({"latch", "--type", "SQLO_LT_SMem*", "--json"});
  EXPECT_EQ(others.status, 1);
  EXPECT_EQ(json(others.out)["entries"].Size(), 0U);
  EXPECT_EQ(json(others.out)["dead_holders"].Size(), 1U);
}

TEST_F(LatchCommand, NamesThreadsThatWaitForEachOther) {
  Baton held;
  Baton go;
  const pid_t one = livingIn([&] {
    initialise();
    EXPECT_EQ((*latches_)[2].getExclusive("a.cpp", 1), 0);
    held.give();
    EXPECT_TRUE(go.take());
    (void)(*latches_)[3].getExclusive("a.cpp", 2);
  });
  ASSERT_TRUE(held.take());
  const pid_t two = livingIn([&] {
    EXPECT_EQ((*latches_)[3].getExclusive("b.cpp", 1), 0);
    go.give();
    (void)(*latches_)[2].getShared("b.cpp", 2);
  });
  const auto picture = pictureWith(2, 1);
  ASSERT_EQ(picture["cycles"].Size(), 1U);
  const auto& waits = picture["cycles"][0]["waits"];
  ASSERT_EQ(waits.Size(), 2U);
  for (unsigned i = 0; i < 2; ++i) {
    const bool isOne = waits[i]["waiter"]["process"].GetInt() == one;
    EXPECT_EQ(waits[i]["blocker"]["process"].GetInt(), isOne ? two : one);
    EXPECT_STREQ(waits[i]["waiter"]["file"].GetString(), isOne ? "a.cpp" : "b.cpp");
    EXPECT_EQ(waits[i]["waiter"]["line"].GetInt(), 2);
    EXPECT_EQ(waits[i]["blocker"]["line"].GetInt(), 1);
  }
  EXPECT_TRUE(holds(veksys({"latch"}).out, "DEADLOCK: 2 threads wait for each other"));

  // As a stream: one line per look, until the reader goes.
  const Answer stream =
      runProgram("sh", {"-c", "\"$0\" latch --json --watch 1ms | head -n 2", VEKSYS_TEST_BIN "/veksys"});
  for (const auto& line : jsonLines(stream.out)) EXPECT_TRUE(line["problem"].GetBool());
}

TEST_F(LatchCommand, RefusesLengthsThatAreNone) {
  for (const char* typed : {"x", "-1", "0", "2h", "14:05"})
    for (const char* option : {"--interval=", "--watch="})
      expectSentence(veksys({"latch", std::string(option) + typed}), 2, "is no length of time");
}

}  // namespace
}  // namespace vektest
