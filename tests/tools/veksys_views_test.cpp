// The views of a trace: format, flow, stat, export; filters; traces with holes and hostile dumps.
#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <random>
#include <set>

#include "tools/veksys/histogram.h"
#include "tools/veksys_support.h"

namespace vektest {
namespace {

class Views : public CommandTest {
 protected:
  std::string dump() {
    std::string file = instance_.path("dump");
    EXPECT_EQ(veksys({"trace", "dump", file}).status, 0);
    return file;
  }
};

// Times, durations, process and thread ids as signs of equal width, so that output can be compared byte for byte.
std::string normalised(const std::string& text) {
  static const std::pair<std::regex, const char*> rules[] = {
      {std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}"), "DATE"},
      {std::regex("[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{9}"), "TIME"},
      {std::regex("[ 0-9]{7} ns |[ 0-9]{3}\\.[0-9]{3} ([um]s|s ) "), "   DURATION"},
      {std::regex("process [0-9]+ [^,]*, thread [0-9]+ [^,]*,"), "process P, thread T,"},
      {std::regex("[0-9]+:[0-9]+ +"), "P:T "},
  };
  std::string result = text;
  for (const auto& [pattern, sign] : rules) result = std::regex_replace(result, pattern, sign);
  return result;
}

constexpr const char* kHead = "DATE  process P, thread T, partition 0\n";

std::string served(int request) {
  return "TIME               serve {\n"
         "TIME               | data probe 10  " +
         std::to_string(request) +
         ", \"request\"\n"
         "TIME               | readPage {\n"
         "TIME     DURATION  | | SQLI.902 = 0\n";
}

constexpr const char* kWell =
    "TIME     DURATION  | } readPage = 0\n"
    "TIME     DURATION  } serve = 0\n";
constexpr const char* kFailed =
    "TIME               | | error probe 20 rc 0x8B0F0000 SQLO_NOMEM  3, \"no \\\"room\\\"\\x1B[31m\"\n"
    "TIME     DURATION  | } readPage = 0x8B0F0000 SQLO_NOMEM\n"
    "TIME               | translation probe 30 rc 0x8B0F0000 SQLO_NOMEM became 0x800F00FC SQLO_INV_PARM\n"
    "TIME     DURATION  } serve = 0x800F00FC SQLO_INV_PARM\n";

constexpr const char* kFormat =
    "DATE TIME  P:T entry        SQLE    serve\n"
    "DATE TIME  P:T data         SQLE    serve probe 10  1, \"request\"\n"
    "DATE TIME  P:T entry        SQLB    readPage\n"
    "DATE TIME  P:T entry        SQLI    SQLI.902\n"
    "DATE TIME  P:T exit         SQLI    SQLI.902 rc 0\n"
    "DATE TIME  P:T exit         SQLB    readPage rc 0\n"
    "DATE TIME  P:T exit         SQLE    serve rc 0\n";

TEST_F(Views, ShowWhatHappened) {
  serveInProcess(3);
  const std::string flow = kHead + served(1) + kWell + served(2) + kWell + served(3) + kFailed;
  const std::string errors =
      kHead + std::string("TIME               serve {\nTIME               | readPage {\n") + kFailed;
  EXPECT_EQ(normalised(veksys({"trace", "flow"}).out), flow);
  EXPECT_EQ(normalised(veksys({"trace", "flow", dump()}).out), flow);
  EXPECT_EQ(normalised(veksys({"trace", "flow", "--errors"}).out), errors);
  EXPECT_EQ(normalised(veksys({"trace", "flow", "--rc", "SQLO_NOMEM,SQLO_INV_PARM"}).out), errors);
  EXPECT_EQ(normalised(veksys({"trace", "format", "--limit", "7"}).out), kFormat);
  EXPECT_TRUE(veksys({"trace", "stat", "/dev/fd/9"}).status == 1);
}

TEST_F(Views, MergedFlowInterleavesThreadsByTime) {
  inProcess([&] {
    nameFunctions();
    sqltTraceFacilityCreate(SQLT_TRACE_SIZE_DEFAULT);
    const SqltTraceSettings everything = {};
    sqltSetTraceFlags(&everything);
    pdtEntry(kServe);
    inProcess([] { find(1); });
    const std::int64_t code = 0;
    pdtExit(kServe, &code);
  });
  const std::string expected =
      "TIME  P:T serve {\n"
      "TIME  P:T DURATION  SQLI.902 = 0\n"
      "TIME  P:T DURATION  } serve = 0\n";
  EXPECT_EQ(normalised(veksys({"trace", "flow", "--merged", "--component", "SQLE,SQLI"}).out), expected);
}

// ---- filters ----------------------------------------------------------------------------------------------------

// Each filter against the same judgement made on the unfiltered records.
TEST_F(Views, FiltersChooseTheSameRecordsInEveryView) {
  serveInProcess(30);
  serveInProcess(30);
  const auto all = jsonLines(veksys({"trace", "format", "--json"}).out);
  ASSERT_EQ(all.size(), 2 * (30 * 7 + 10 * 2));
  const auto text = [](const rapidjson::Value& record, const char* name) {
    return std::string(record[name].GetString());
  };
  const auto failed = [&](const rapidjson::Value& record) {
    return text(record, "kind") == "translation" || (record.HasMember("rc") && record["rc"]["failed"].GetBool());
  };
  const std::string process = std::to_string(all.back()["process"].GetInt());
  const std::string middle = text(all[all.size() / 2], "time");
  struct Case {
    Words options;
    std::function<bool(const rapidjson::Value&)> chooses;
  };
  const Case cases[] = {
      {{"--component", "SQLB"}, [&](const auto& r) { return text(r, "component") == "SQLB"; }},
      {{"--component", "SQLB,9"}, [&](const auto& r) { return text(r, "component") != "SQLE"; }},
      {{"--function", "serve"}, [&](const auto& r) { return text(r, "function") == "serve"; }},
      {{"--function", "R*p?ge", "--function", "0x18280384"},
       [&](const auto& r) { return text(r, "function") != "SQLI.902"; }},
      {{"--process", process}, [&](const auto& r) { return std::to_string(r["process"].GetInt()) == process; }},
      {{"--thread", "no*such"}, [](const auto&) { return false; }},
      {{"--thread", "tools_*"}, [](const auto&) { return true; }},
      {{"--since", middle}, [&](const auto& r) { return text(r, "time") >= middle; }},
      {{"--until", middle, "--function", "serve"},
       [&](const auto& r) { return text(r, "time") <= middle && text(r, "function") == "serve"; }},
      {{"--since", "1h"}, [](const auto&) { return true; }},
      {{"--errors"}, failed},
      {{"--rc", "failed"}, failed},
      {{"--rc", "SQLO_NOMEM"}, [&](const auto& r) { return failed(r) && r["rc"]["value"].GetInt() == SQLO_NOMEM; }},
      {{"--rc", "0x800F00FC", "--function", "serve"},
       [&](const auto& r) { return failed(r) && text(r, "function") == "serve"; }},
  };
  const auto mark = [&](const rapidjson::Value& record) { return text(record, "time") + text(record, "kind"); };
  for (const Case& each : cases) {
    SCOPED_TRACE(::testing::PrintToString(each.options));
    Words expected;
    std::map<std::string, std::int64_t> exits;
    for (const auto& record : all) {
      if (!each.chooses(record)) continue;
      expected.push_back(mark(record));
      exits[text(record, "function")] += text(record, "kind") == "exit" ? 1 : 0;
    }
    const auto run = [&](const Words& view) {
      const Answer answer = veksys(joined(joined({"trace"}, view), joined(each.options, {"--json"})));
      EXPECT_EQ(answer.status, expected.empty() ? 1 : 0) << answer.err;
      return answer.out;
    };
    const auto marks = [&](const Words& view) {
      Words shown;
      for (const auto& record : jsonLines(run(view))) shown.push_back(mark(record));
      return shown;
    };
    const std::ptrdiff_t some = std::min<std::ptrdiff_t>(5, std::ssize(expected));
    EXPECT_EQ(marks({"format"}), expected);
    EXPECT_EQ(marks({"format", "--last", "5"}), Words(expected.end() - some, expected.end()));
    EXPECT_EQ(marks({"format", "--limit", "5"}), Words(expected.begin(), expected.begin() + some));
    // The flow adds calls around what was chosen, and leaves out nothing.
    const Words flow = marks({"flow", "--merged"});
    const std::set<std::string> shown(flow.begin(), flow.end());
    for (const std::string& chosen : expected) EXPECT_TRUE(shown.contains(chosen)) << chosen;
    const auto stat = json(run({"stat"}));
    for (const auto& row : stat["functions"].GetArray())
      EXPECT_EQ(row["calls"].GetInt64(), exits[row["function"].GetString()]);
  }
}

TEST_F(Views, MomentsInEveryForm) {
  serveInProcess(1);
  const auto linesWith = [](const char* option, const std::string& moment) {
    const Answer answer = veksys({"trace", "format", option, moment});
    EXPECT_EQ(answer.status, answer.out.empty() ? 1 : 0) << moment << answer.err;
    return linesOf(answer.out).size();
  };
  const std::string now = veksys({"trace", "format", "--last", "1"}).out.substr(0, 29);
  for (const std::string& past :
       {std::string("2001-02-03"), now.substr(0, 10), std::string("10m"), std::string("1.5h"), std::string("2d")})
    EXPECT_EQ(linesWith("--since", past), 7U) << past;
  for (const std::string& moment : {now, now.substr(11), now.substr(0, 10) + "T" + now.substr(11), std::string("0s")}) {
    EXPECT_GE(linesWith("--since", moment), 1U) << moment;
    EXPECT_EQ(linesWith("--until", moment), 7U) << moment;
  }
  EXPECT_EQ(linesWith("--until", "1h"), 0U);
  EXPECT_EQ(linesWith("--until", "2001-02-03T04:05:06.789Z"), 0U);
  EXPECT_EQ(linesWith("--since", "2001-02-03 04:05+01:30"), 7U);
}

// ---- figures ----------------------------------------------------------------------------------------------------

TEST_F(Views, StatAgreesWithTheRecords) {
  serveInProcess(300);
  std::map<std::string, std::vector<std::int64_t>> durations;
  std::map<std::string, std::int64_t> failed;
  for (const auto& record : jsonLines(veksys({"trace", "flow", "--json"}).out)) {
    if (std::string(record["kind"].GetString()) != "exit") continue;
    durations[record["function"].GetString()].push_back(record["duration_ns"].GetInt64());
    failed[record["function"].GetString()] += record["rc"]["failed"].GetBool() ? 1 : 0;
  }
  const auto stat = json(veksys({"trace", "stat", "--json"}).out);
  ASSERT_EQ(stat["functions"].Size(), 3U);
  std::int64_t self = 0;
  for (const auto& row : stat["functions"].GetArray()) {
    auto& each = durations[row["function"].GetString()];
    std::sort(each.begin(), each.end());
    EXPECT_EQ(row["calls"].GetInt64(), 300);
    EXPECT_EQ(row["failed"].GetInt64(), failed[row["function"].GetString()]);
    EXPECT_NEAR(row["total_ns"].GetDouble(), std::accumulate(each.begin(), each.end(), 0.0), 300);
    EXPECT_EQ(row["max_ns"].GetInt64(), each.back());
    for (const auto& [name, exact] : {std::pair("p50_ns", each[149]), std::pair("p99_ns", each[296])})
      EXPECT_NEAR(row[name].GetDouble(), static_cast<double>(exact), 2 + static_cast<double>(exact) / 60) << name;
    self += row["self_ns"].GetInt64();
  }
  // Every moment inside the outermost call belongs to exactly one function.
  EXPECT_NEAR(static_cast<double>(self), stat["functions"][0]["total_ns"].GetDouble(), 2000);
  EXPECT_STREQ(json(veksys({"trace", "stat", "--sort", "name", "--top", "1", "--json"}).out)["functions"][0]["function"]
                   .GetString(),
               "SQLI.902");
}

TEST(HistogramOfDurations, QuantilesAreNearTheExactOnes) {
  std::mt19937_64 random(4711);
  for (const unsigned bits : {6U, 16U, 40U, 64U}) {
    veksys::Histogram histogram;
    std::vector<std::uint64_t> values;
    for (int i = 0; i < 5000; ++i) values.push_back(random() >> (64 - bits) >> (random() % bits));
    for (const std::uint64_t value : values) histogram.add(value);
    std::sort(values.begin(), values.end());
    for (const double share : {0.0002, 0.5, 0.9, 0.99, 1.0}) {
      const auto exact = static_cast<double>(values[static_cast<std::size_t>(std::ceil(share * 5000)) - 1]);
      EXPECT_NEAR(static_cast<double>(histogram.quantile(share)), exact, exact * 0.0157) << bits << " " << share;
    }
  }
}

// ---- traces with holes ------------------------------------------------------------------------------------------

constexpr const char* kBroken =
    "DATE  process P, thread T, partition 0\n"
    "TIME               } SQLI.902 = 0x870F0009 SQLO_EOF  (entry not recorded)\n"
    "TIME               serve {\n"
    "TIME               | readPage  (exit not recorded)\n"
    "TIME     DURATION  } serve = 0\n"
    "TIME               serve {\n"
    "TIME               | readPage  (still open at the end of the trace)\n"
    "TIME               } serve  (still open at the end of the trace)\n";

TEST_F(Views, CallsWithoutEntryOrExit) {
  const int end = runInProcess([] {
    nameFunctions();
    sqltTraceFacilityCreate(SQLT_TRACE_SIZE_DEFAULT);
    const std::int64_t code = SQLO_EOF;
    pdtExit(kFind, &code);
    pdtEntry(kServe);
    pdtEntry(kRead);
    pdtExit(kServe, nullptr);
    pdtEntry(kServe);
    pdtEntry(kRead);
    ::kill(::getpid(), SIGKILL);
  });
  EXPECT_EQ(end, -SIGKILL);
  EXPECT_EQ(normalised(veksys({"trace", "flow"}).out), kBroken);
  const auto stat = json(veksys({"trace", "stat", "--json"}).out);
  EXPECT_EQ(stat["calls_without_entry"].GetInt(), 1);
  EXPECT_EQ(stat["calls_still_open"].GetInt(), 2);
}

TEST_F(Views, GapsStandInTheirPlaceWithTheirCount) {
  serveInProcess(30'000, SQLT_TRACE_SIZE_MINIMUM);
  const Answer flow = veksys({"trace", "flow"});
  std::smatch gap;
  ASSERT_TRUE(std::regex_search(flow.out, gap, std::regex("--- ([0-9,]+) records were overwritten here ---")));
  EXPECT_TRUE(holds(flow.err, gap[1].str() + " records are missing")) << flow.err;
  std::string digits = gap[1].str();
  std::erase(digits, ',');
  const std::size_t left = jsonLines(veksys({"trace", "format", "--json"}).out).size() - 1;
  EXPECT_EQ(std::stoul(digits) + left, 30'000U * 7 + 10'000U * 2);
  EXPECT_EQ(veksys({"trace", "format", "--errors"}).out.find("overwritten"), std::string::npos);
}

// A thread whose exits are not traced nests without end in the records; the views stay within their bounds.
TEST_F(Views, EntriesAloneDoNotNestForever) {
  inProcess([] {
    sqltTraceFacilityCreate(SQLT_TRACE_SIZE_DEFAULT);
    for (int i = 0; i < 10'000; ++i) pdtEntry(kFind);
  });
  for (const auto& line : linesOf(veksys({"trace", "flow"}).out)) EXPECT_LT(line.size(), 200U);
  EXPECT_EQ(veksys({"trace", "stat"}).status, 0);
}

TEST_F(Views, NoContentReachesTheTerminalRaw) {
  inProcess([&] {
    sqltTraceFacilityCreate(SQLT_TRACE_SIZE_DEFAULT);
    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    pdtData2(kServe, 1, PD_TYPE_STRING, 256, all.data(), PD_TYPE_CHAR, 1, "\x07");
    pdtMarker(kServe, 2, "\x1b]0;title\x07 caf\xc3\xa9 \xc2\x9b");
  });
  for (const char* view : {"format", "flow"}) {
    const std::string out = veksys({"trace", view, "--full"}).out + veksys({"trace", view}).out;
    for (const char c : out) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= ' ') << static_cast<int>(c);
    EXPECT_TRUE(holds(out, "caf\xc3\xa9 \\xC2\\x9B")) << out;
    jsonLines(veksys({"trace", view, "--json"}).out);
  }
}

// ---- hostile dumps ----------------------------------------------------------------------------------------------

TEST_F(Views, HostileDumpsNeverCrashThem) {
  serveInProcess(50);
  const std::string whole = contentOf(dump());
  ASSERT_GT(whole.size(), 60'000U) << "no room for a dump";
  const std::string file = instance_.path("hostile");
  std::mt19937 random(static_cast<unsigned>(::getpid()));
  SCOPED_TRACE("seed " + std::to_string(::getpid()));
  const char* const views[] = {"format", "flow", "stat", "status"};
  for (unsigned round = 0; round < 40 * stressFactor(); ++round) {
    std::string bytes = whole;
    if (round % 4 == 0) bytes.resize(random() % bytes.size());
    // Most of a dump is empty segments: what is damaged lies among its heads and first segments.
    for (int i = 0; i < 8 && bytes.size() > 60'000; ++i) bytes[random() % 60'000] = static_cast<char>(random());
    std::ofstream(file, std::ios::binary) << bytes;
    const Answer answer = veksys({"trace", views[round % 4], file});
    EXPECT_TRUE(answer.status == 0 || answer.status == 1) << answer.status << answer.err;
  }
}

// ---- exports ----------------------------------------------------------------------------------------------------

TEST_F(Views, ChromeExportPairsCalls) {
  serveInProcess(20);
  const std::string file = instance_.path("chrome.json");
  EXPECT_EQ(veksys({"trace", "export", "--chrome", file}).status, 0);
  const auto document = json(contentOf(file));
  Words open;
  double last = 0;
  int instants = 0;
  for (const auto& event : document["traceEvents"].GetArray()) {
    const std::string phase = event["ph"].GetString();
    if (phase == "M") continue;
    EXPECT_GE(event["ts"].GetDouble(), last);
    last = event["ts"].GetDouble();
    if (phase == "B") open.emplace_back(event["name"].GetString());
    if (phase == "i") ++instants;
    if (phase != "E") continue;
    ASSERT_FALSE(open.empty());
    EXPECT_EQ(open.back(), event["name"].GetString());
    open.pop_back();
  }
  EXPECT_TRUE(open.empty());
  EXPECT_EQ(instants, 20 + 2 * 6);
  EXPECT_EQ(json(veksys({"trace", "export", "--chrome", "-"}).out)["traceEvents"].Size(),
            document["traceEvents"].Size());
}

TEST_F(Views, CtfExportIsReadByItsReader) {
  if (runProgram("babeltrace2", {"--version"}).status != 0) GTEST_SKIP() << "babeltrace2 is not installed";
  serveInProcess(20);
  const std::string directory = instance_.path("ctf");
  EXPECT_EQ(veksys({"trace", "export", "--ctf", directory}).status, 0);
  expectSentence(veksys({"trace", "export", "--ctf", directory}), 1, "not an empty directory");
  const Answer answer = runProgram("babeltrace2", {directory});
  ASSERT_EQ(answer.status, 0) << answer.err;
  const std::string& read = answer.out;
  EXPECT_EQ(linesOf(read).size(), linesOf(veksys({"trace", "format"}).out).size());
  for (const char* part : {"\"serve\"", "\"SQLO_NOMEM\"", "\"SQLI.902\"", "probe = 20", "signed_number", "\"request\""})
    EXPECT_TRUE(holds(read, part)) << part;
}

}  // namespace
}  // namespace vektest
