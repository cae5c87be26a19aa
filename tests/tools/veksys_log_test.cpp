// veksys log, run as a person runs it, over files written byte by byte.

#include <algorithm>
#include <cstring>
#include <map>
#include <random>

#include "tools/veksys_support.h"
#include "veksys/diag/log.h"

namespace vektest {
namespace {

// What a record of a test tells.
struct Told {
  int probe;
  const char* level = "Error";
  const char* time = "2025-11-21-10.00.00.000000";
  const char* zone = "+000";
  int pid = 100;
  const char* database = "SAMPLE";
  const char* function = "operating-system services, sqloOpen";
  std::string body = {};
  int member = 0;
};

std::string recordAt(std::size_t offset, const Told& told) {
  char lines[1024];
  (void)std::snprintf(
      lines, sizeof lines,
      " LEVEL: %s\r\nPID     : %-21uTID : %-15lluPROC : veksysc\r\nINSTANCE: %-21sNODE : %.3d%s%s\r\n"
      "APPHDL  : 0-7                  APPID: *LOCAL.x\r\nAUTHID  : A HOSTNAME: B          HOSTNAME: alpha\r\n"
      "EDUID   : %-21uEDUNAME: agent\r\nFUNCTION: VEK, %s, probe:%d\r\n",
      told.level, told.pid, 140737353922368ULL + static_cast<unsigned>(told.pid), "instance_of_a_long_name_ok",
      told.member, told.database[0] == '\0' ? "" : "           DB   : ", told.database, 17, told.function, told.probe);
  const std::string rest = lines + told.body;
  const std::size_t length = 26 + 4 + 1 + 25 + rest.size();
  char head[128];
  (void)std::snprintf(head, sizeof head, "\r\n%s%s %-25s", told.time, told.zone,
                      ("I" + std::to_string(offset + 2) + "H" + std::to_string(length)).c_str());
  return head + rest;
}

// One that tells nothing but its message.
Told saying(int probe, const std::string& body) {
  return {probe, "Info", "2025-11-21-10.00.00.000000", "+000", 1, "", "c, f", body};
}

std::string logOf(const std::vector<Told>& records, std::string log = "") {
  for (const Told& told : records) log += recordAt(log.size(), told);
  return log;
}

std::vector<Told> numbered(int from, int to, const std::string& body = "") {
  std::vector<Told> records;
  for (int probe = from; probe <= to; ++probe) {
    records.push_back({probe});
    records.back().body = body;
  }
  return records;
}

using Probes = std::vector<int>;

Probes upTo(int from, int to) {
  Probes probes;
  for (int probe = from; probe <= to; ++probe) probes.push_back(probe);
  return probes;
}

class Log : public CommandTest {
 protected:
  std::string write(const std::string& name, const std::string& content) {
    std::string path = instance_.path(name.c_str());
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  static Answer log(const Words& arguments) { return veksys(joined({"log"}, arguments)); }
  // The probe of a record shown; of damage -1.
  static int probeOf(const rapidjson::Value& record) {
    return record.HasMember("probe") ? record["probe"].GetInt() : -1;
  }
  static Probes probesIn(const Answer& answer) {
    Probes probes;
    for (const auto& record : jsonLines(answer.out)) probes.push_back(probeOf(record));
    return probes;
  }
  static Probes probes(const Words& arguments) { return probesIn(log(joined(arguments, {"--json"}))); }
};

// ---- what is shown ----------------------------------------------------------------------------------------------

TEST_F(Log, ShowsRecordsAsTheyStand) {
  const std::string text = logOf({{1}, {2, "Event"}, {3, "Odd"}});
  const Answer answer = log({write("vekdiag.log", text)});
  EXPECT_EQ(answer.status, 0) << answer.err;
  EXPECT_EQ("\r\n" + answer.out, text);
}

TEST_F(Log, TellsEveryFieldInJson) {
  const std::string path =
      write("a", logOf({{7, "Severe (Fatal)", "2025-11-21-10.00.00.123000", "-300", 4711, "SAMPLE",
                         "transactions, locking and logging, sqlpLock",
                         "MESSAGE : first\r\n          second \x1b\xFF\r\n"
                         "CALLED  : OS, -, open OSERR: ENOENT (2)\r\n"
                         "RETCODE : ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\"\r\n"
                         "DATA #1 : String, 3 bytes\r\nabc\r\nARG  #1 : Boolean, 1 bytes\r\ntrue\r\n"}}));
  EXPECT_EQ(
      log({path, "--json"}).out,
      R"-({"time":"2025-11-21T15:00:00.123000000Z","time_ns":1763737200123000000,"utc_offset_minutes":-300,"level":1,)-"
      R"-("level_name":"Severe","second_level":"Fatal","pid":4711,"tid":140737353927079,"process":"veksysc",)-"
      R"-("instance":"instance_of_a_long_name_ok","member":0,"database":"SAMPLE","apphdl":"0-7","appid":"*LOCAL.x",)-"
      R"-("authid":"A HOSTNAME: B","hostname":"alpha","eduid":17,"eduname":"agent","product":"VEK",)-"
      R"-("component":"transactions, locking and logging","function":"sqlpLock","probe":7,)-"
      R"-("message":"first\n          second \u001B\\xFF","message_escaped":true,"called":"OS, -, open",)-"
      R"-("oserr":"ENOENT (2)","code":{"hex":"0x8B0F0000","decimal":-1961951232,"name":"SQLO_NOMEM",)-"
      R"-("text":"ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\""},"sections":[)-"
      R"-({"label":"MESSAGE","text":"first\n          second \u001B\\xFF","text_escaped":true},)-"
      R"-({"label":"CALLED","text":"OS, -, open OSERR: ENOENT (2)"},)-"
      R"-({"label":"RETCODE","text":"ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\""},)-"
      R"-({"label":"DATA #1","text":"String, 3 bytes\nabc"},{"label":"ARG  #1","text":"Boolean, 1 bytes\ntrue"}],)-"
      R"-("file":")-" +
          path + R"-(","offset":2,"length":650,"state":"whole"})-" + "\n");
}

// What is told of a text leads back to its bytes, and to no other.
TEST_F(Log, NoTwoTextsLookTheSameInJson) {
  const std::pair<const char*, const char*> cases[] = {
      {"a\\xFF", "a\\xFF"},
      {"a\xFF", "a\\xFF*"},
      {"a\xFF\\xFF", "a\\xFF\\\\xFF*"},
      {"a\r\nb", "a\nb"},
      {"a\nb", R"(a\x0Ab*)"},
      {"a\rb", R"(a\x0Db*)"},
      {"\xC3\xBC\xC2\x80", "\xC3\xBC\\xC2\\x80*"},
      {"\xED\xA0\x80", "\\xED\\xA0\\x80*"},
  };
  for (const auto& [text, shown] : cases) {
    const std::string body = std::string("MESSAGE : ") + text + "\r\n";
    const auto record = json(log({write("a", logOf(numbered(1, 1, body))), "--json"}).out);
    EXPECT_EQ(record["message"].GetString() + std::string(record.HasMember("message_escaped") ? "*" : ""), shown);
  }
}

// What a line shows of a record is what tells most of it.
TEST_F(Log, OneLineHoldsTheGist) {
  const std::pair<const char*, const char*> cases[] = {
      {"MESSAGE : the message\r\nOSERR   : ENOENT (2)\r\n", "the message"},
      {"RETCODE : ZRC=0x1=1\r\nOSERR   : ENOENT (2)\r\nDATA #1 : String, 3 bytes\r\nabc\r\n", "ENOENT (2)"},
      {"CALLED  : VEK, c, f\r\nDATA #1 : String, 3 bytes\r\nabc\r\n", "abc"},
      {"IMPACT  : Potential\r\nCHANGE  : DBM CFG\r\nDATA #1 : <Empty variable list>\r\n", "DBM CFG"},
      {"IMPACT  : Potential\r\nDATA #1 : <Empty variable list>\r\nCALLSTCK: \r\n [0] 0x1 main + 0x2\r\n", "Potential"},
      {"DATA #1 : <preformatted>\r\nabc\r\n", "abc"},
  };
  for (const auto& [body, gist] : cases) {
    const std::string line = log({write("a", logOf(numbered(1, 1, body))), "--oneline"}).out;
    EXPECT_TRUE(line.ends_with(std::string(" ") + gist + "\n")) << line;
  }
}

TEST_F(Log, MergesDirectoriesByTimeAndRotatedFilesInOrder) {
  write("diag/rotate/vekdiag.10.log", logOf({{30, "Info", "2025-11-21-10.00.05.000000"}}));
  write("diag/rotate/vekdiag.9.log", logOf({{10, "Info", "2025-11-21-10.00.01.000000"}}));
  write("diag/vekdiag.9.log.gz", "no log");
  // Listed, and gone when it is opened: as a file that rotation takes away in between.
  std::filesystem::create_symlink("nowhere", instance_.path("diag/rotate/vekdiag.8.log"));
  write("diag/HOST_a/NODE0003/vekdiag.log", logOf({{20, "Info", "2025-11-21-11.00.02.000000", "+060"},
                                                   {40, "Info", "2025-11-21-11.00.06.000000", "+060"}}));
  EXPECT_EQ(probes({instance_.path("diag")}), (Probes{10, 20, 30, 40}));
  EXPECT_EQ(probes({instance_.path("diag/"), "--tail", "2"}), (Probes{30, 40}));
  EXPECT_EQ(probes({instance_.path("diag"), "--limit", "3"}), (Probes{10, 20, 30}));
  ::setenv("VEK_INSTANCE_DIR", instance_.path("").c_str(), 1);
  EXPECT_EQ(probes({}), (Probes{10, 20, 30, 40}));
  ::unsetenv("VEK_INSTANCE_DIR");
}

TEST_F(Log, ChoosesByEveryField) {
  const std::string path = write(
      "a", logOf({{1, "Severe", "2025-11-21-10.00.00.000000", "+000", 11, "SALES", "buffer pool services, sqlbRead",
                   "MESSAGE : page Lock\r\nRETCODE : ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM\r\n"},
                  {2, "Error", "2025-11-21-10.00.01.000000", "+000", 12, "SALES2", "index manager, sqliFind",
                   "RETCODE : ZRC=0x80100002=-2146435070=SQLP_LDED\r\n", 1},
                  {3, "Warning", "2025-11-21-10.00.02.000000", "+000", 13, "", "operating-system services, sqloOpen",
                   "OSERR   : ENOSPC (28) \"No space left on device\"\r\n", 2},
                  {4, "Info", "2025-11-21-10.00.03.000000", "+000", 14, "", "operating-system services, sqloClose"},
                  {5, "Event"}}));
  const std::pair<Words, Probes> cases[] = {
      {{"--level", "1-2"}, {1, 2}},
      {{"--level", "severe,4"}, {1, 4}},
      {{"--since", "2025-11-21-10.00.02.000000+000", "--until", "2025-11-21T10:00:02Z"}, {3}},
      {{"--pid", "11,13"}, {1, 3}},
      {{"--tid", "140737353922380"}, {2}},
      {{"--function", "SQLO*"}, {3, 4, 5}},
      {{"--component", "SQLB", "--component", "index manager"}, {1, 2}},
      {{"--probe", "0x4"}, {4}},
      {{"--database", "sales"}, {1}},
      {{"--member", "1"}, {2}},
      {{"--code", "SQLO_NOMEM"}, {1}},
      {{"--code", "0x80100002"}, {2}},
      {{"--code", "-10003"}, {1}},
      {{"--text", "LOCK"}, {1}},
      {{"--instance", "instance_of_a_long_name_ok", "--level", "5,6"}, {5}},
      {{"--where", "level<=2 and (component=SQLI or text~\"page lock\") and not pid=12"}, {1}},
      {{"--where", "not level<3 and not (probe>=4 or probe=3)"}, {}},
      {{"--where", "oserr=28 or oserr=eno* or code~LDED"}, {2, 3}},
      {{"--where", "function!=sqloOpen and time>2025-11-21-10.00.00.000000+000"}, {2, 4}},
      {{"--where", "message !~ 'lock'", "--limit", "2"}, {2, 3}},
      {{"--where", "text~\"a quote \\\" in it\" or probe=4,5"}, {4, 5}},
  };
  for (const auto& [arguments, chosen] : cases) EXPECT_EQ(probes(joined({path}, arguments)), chosen) << arguments[1];
  expectSentence(log({path, "--pid", "1"}), 1, "No record was chosen");
}

TEST_F(Log, SumsUp) {
  const std::string lock = "MESSAGE : lock\r\n";
  const std::string path =
      write("a", logOf({{1, "Error", "2025-11-21-10.00.00.000000", "+000", 1, "A", "index manager, f", lock},
                        {1, "Error", "2025-11-21-10.00.59.999000", "+000", 2, "B", "index manager, f", lock},
                        {2, "Info", "2025-11-21-10.05.00.000000", "+000", 2, "A", "index manager, f", lock},
                        {1, "Error", "2025-11-21-09.00.00.000000", "+000", 3, "A", "index manager, f", lock}}));
  const auto folds = jsonLines(log({path, "--fold", "--json"}).out);
  ASSERT_EQ(folds.size(), 2U);
  EXPECT_EQ(folds[0]["count"].GetInt(), 3);
  EXPECT_STREQ(folds[0]["first"].GetString(), "2025-11-21T09:00:00.000000000Z");
  EXPECT_STREQ(folds[0]["last"].GetString(), "2025-11-21T10:00:59.999000000Z");
  EXPECT_EQ(linesOf(log({path, "--count-by", "database", "--csv"}).out)[1],
            "3,2025-11-21T09:00:00.000000000Z,2025-11-21T10:05:00.000000000Z,A");
  EXPECT_EQ(linesOf(log({path, "--per-minute", "--csv"}).out),
            (Words{"time,severe_and_error,warning,other", "2025-11-21T09:00:00.000000000Z,1,0,0",
                   "2025-11-21T10:00:00.000000000Z,2,0,0", "2025-11-21T10:05:00.000000000Z,0,0,1"}));
  EXPECT_TRUE(holds(log({path, "--per-minute"}).out, "(nothing for 59 min)"));
  const Answer spilt = log({write("b", logOf(numbered(1, 66'000))), "--count-by", "probe"});
  EXPECT_EQ(linesOf(spilt.out).size(), 65'536U);
  EXPECT_TRUE(holds(spilt.err, "464 records are counted together")) << spilt.err;
}

TEST_F(Log, RefusesWhatItDoesNotUnderstand) {
  const std::string path = write("a", logOf({{1}}));
  const std::pair<Words, const char*> cases[] = {
      {{"--level", "9"}, "1 (Severe)"},
      {{"--since", "soon"}, "a length back from now"},
      {{"--pid", "x"}, "a number"},
      {{"--component", "SQLOO"}, "Did you mean SQLO"},
      {{"--code", "SQLO_NOMEN"}, "SQLO_NOMEM"},
      {{"--where", "colour=red"}, "knows no field \"colour\""},
      {{"--where", "pid=1 or"}, "ends where a field should stand"},
      {{"--where", "(pid=1"}, "closing bracket"},
      {{"--where", "pid=1 tid=2"}, "\"and\" or \"or\" is missing"},
      {{"--where", "text~\"open"}, "closing \" is missing"},
      {{"--where", "pid~1"}, "is no text"},
      {{"--where", "function<a"}, "has no order"},
      {{"--where", std::string(300, '(')}, "200 deep"},
      {{"--fold", "--follow"}, "need an end"},
      {{"--csv", "--json"}, "exclude each other"},
      {{"--tail", "-1"}, "no count"},
      {{"--count-by", "size"}, "knows no field"},
  };
  for (const auto& [arguments, part] : cases) expectSentence(log(joined({path}, arguments)), 2, part);
  expectSentence(log({instance_.path("none")}), 1, "No such file");
  expectSentence(log({write("empty", "")}), 1, "empty");
}

// What the library itself writes, from several processes, at the level that the command sets.
TEST_F(Log, ReadsWhatTheLibraryWritesAtTheLevelSet) {
  expectSentence(log({"level", "loud"}), 2, "0 (nothing) to 6 (everything)");
  EXPECT_EQ(log({"level", "warning"}).status, 0);
  EXPECT_TRUE(holds(log({"level"}).out, "up to level 3 (Warning)"));
  for (std::uint32_t probe = 1; probe <= 3; ++probe)
    inProcess([probe] {
      EXPECT_EQ(pdLogPrintf(1, kRead, SQLO_NOMEM, probe, 1, "page %u\nof \x1b[31m", probe), 0);
      EXPECT_EQ(pdLogPrintf(1, kRead, 0, probe, 4, "nobody asked"), SQLT_NOLOG);
    });
  EXPECT_EQ(log({"level", "default"}).status, 0);
  inProcess([] { EXPECT_EQ(pdLogSysRC(0, kFind, 0, 4, 4, "open", ENOSPC, 0), 0); });

  const Answer answer = log({"--json", "--where", "not text~'New Diagnostic Log file'"});
  EXPECT_EQ(answer.status, 0) << answer.err;
  const auto records = jsonLines(answer.out);
  ASSERT_EQ(records.size(), 4U) << answer.out;
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(records[i]["probe"].GetUint(), i + 1);
    EXPECT_STREQ(records[i]["code"]["name"].GetString(), "SQLO_NOMEM");
    EXPECT_TRUE(holds(records[i]["message"].GetString(), "page " + std::to_string(i + 1)));
  }
  EXPECT_EQ(probes({"--where", "oserr=ENOSPC and called~open and component=SQLI"}), Probes{4});
}

// ---- what is not as it was written ------------------------------------------------------------------------------

// A message that holds whole records, at the very places they tell, stays a message.
TEST_F(Log, TextsForgeNoRecord) {
  std::string text = logOf(numbered(1, 40, "MESSAGE : " + std::string(20'000, 'x') + "\r\n"));
  for (int forged = 41; forged <= 60; ++forged) {
    const std::string before = recordAt(text.size(), saying(forged, "MESSAGE : "));
    const std::string inside = recordAt(text.size() + before.size(), {-forged});
    // The length has as many digits with the forgery inside, so that its offset is right.
    const std::string whole = recordAt(text.size(), saying(forged, "MESSAGE : " + inside));
    ASSERT_EQ(whole.find(inside), before.size());
    text += whole;
  }
  const std::string path = write("a", text);
  const Answer answer = log({path, "--json"});
  EXPECT_EQ(answer.status, 0) << answer.err;
  EXPECT_EQ(probesIn(answer), upTo(1, 60));
  EXPECT_EQ(probes({path, "--tail", "3"}), upTo(58, 60));
  EXPECT_EQ(probes({path, "--tail", "25"}), upTo(36, 60));
}

struct Broken {
  const char* what;
  std::string text;
  const char* shown;  // records by probe and state: whole, scanned, half-written; x: damage; ?: the probe is missing
  const char* remark;
};

std::vector<Broken> brokenLogs() {
  const std::string text = logOf(numbered(1, 4));
  const std::size_t one = text.size() / 4;
  const auto first = [&](std::size_t count) { return text.substr(0, count * one); };
  std::string noReturns = text;
  std::erase(noReturns, '\r');
  std::string wrongLength = text;
  wrongLength[text.find('H', one) + 1] = '9';
  const std::string killed = logOf({{3}}, first(1) + text.substr(one, 200));
  const std::string rubbish = logOf({{3}}, first(2) + "\r\nrubbish \x1b[2J\n");
  return {
      {"the front is cut off", text.substr(one / 2), "x 2s 3w 4w", "was cut"},
      {"the end is cut off", text.substr(0, 4 * one - 50), "1w 2w 3w ?h", "half-written"},
      {"a writer was killed and nobody repaired it", killed, "1w ?h 3s", "half-written"},
      {"rubbish between two records", rubbish, "1w 2w x 3s", "in 1 place"},
      {"two logs joined", text + text, "1w 2w 3w 4w 1s 2w 3w 4w", "elsewhere"},
      {"zeros behind the last record", text + std::string(200'000, '\0'), "1w 2w 3w 4w x", "200,000 bytes"},
      {"a length that is wrong", wrongLength, "1w 2h 3s 4w", "half-written"},
      {"line ends changed", noReturns, "1h 2h 3h 4h", "4 records"},
  };
}

std::string shownIn(const Answer& answer) {
  std::string shown;
  for (const auto& record : jsonLines(answer.out)) {
    const std::string state = record["state"].GetString();
    shown += shown.empty() ? "" : " ";
    if (state != "damaged") shown += record.HasMember("probe") ? std::to_string(record["probe"].GetInt()) : "?";
    shown += state == "damaged" ? 'x' : state[0];
  }
  return shown;
}

TEST_F(Log, ShowsDamageAndReadsTheRest) {
  for (const Broken& broken : brokenLogs()) {
    SCOPED_TRACE(broken.what);
    const std::string path = write("a", broken.text);
    const Answer answer = log({path, "--json"});
    EXPECT_EQ(answer.status, 1);
    EXPECT_TRUE(holds(answer.err, broken.remark)) << answer.err;
    EXPECT_EQ(shownIn(answer), broken.shown);
    EXPECT_TRUE(holds(log({path}).out, "<< veksys: "));
  }
}

// Whatever is written over a stretch of a log, every record outside of it is shown, whole and once.
TEST_F(Log, DamageCostsWhatItTouches) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 30; ++round) {
    std::string text;
    std::vector<std::size_t> starts = {0};
    for (int probe = 0; probe < 200; ++probe) {
      text += recordAt(text.size(), saying(probe, "MESSAGE : " + std::string(random() % 3000, 'm') + "\r\n"));
      starts.push_back(text.size());
    }
    const std::size_t from = random() % text.size();
    const std::size_t to = std::min<std::size_t>(text.size(), from + random() % 5000 + 1);
    for (std::size_t i = from; i < to; ++i) text[i] = static_cast<char>(random());
    // By place: what a damaged record tells of itself may be anything, another record's number too.
    std::map<std::uint64_t, int> untouched;
    for (std::size_t i = 0; i < 200; ++i)
      if (starts[i + 1] <= from || to <= starts[i]) untouched[starts[i] + std::strlen("\r\n")] = static_cast<int>(i);
    std::map<std::uint64_t, int> shown;
    for (const auto& record : jsonLines(log({write("a", text), "--json"}).out))
      if (const std::uint64_t place = record["offset"].GetUint64(); untouched.contains(place)) {
        EXPECT_TRUE(shown.emplace(place, probeOf(record)).second) << place << " is shown twice";
      }
    EXPECT_EQ(shown, untouched) << "from " << from << " to " << to;
  }
}

TEST_F(Log, TailIsTheEndOfAll) {
  for (int file = 0; file < 3; ++file)
    write("diag/vekdiag." + std::to_string(file) + ".log",
          logOf(numbered(file * 1000, file * 1000 + 999, "MESSAGE : " + std::string(700, 'm') + "\r\n")));
  write("diag/NODE0001/vekdiag.log", logOf({{5000, "Info", "2025-11-21-10.00.00.000000"}}));
  const std::string directory = instance_.path("diag");
  for (const Words& arguments : {Words{directory}, Words{directory, "--where", "probe=3,700,999,1001,2000"}}) {
    const Probes all = probes(arguments);
    for (const std::size_t count : {1U, 2U, 3U, 5U, 700U, 1001U, 100000U}) {
      const auto shown = static_cast<std::ptrdiff_t>(std::min(count, all.size()));
      EXPECT_EQ(probes(joined(arguments, {"--tail", std::to_string(count)})), Probes(all.end() - shown, all.end()));
    }
  }
}

// ---- following and terminals ------------------------------------------------------------------------------------

void append(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::app) << text;
}

TEST_F(Log, FollowsAcrossRotation) {
  const std::string text = logOf(numbered(1, 3));
  const std::size_t one = text.size() / 3;
  const std::string first = write("diag/vekdiag.1.log", text.substr(0, one));
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = startProgram(VEKSYS_TEST_BIN "/veksys",
                                   {"log", instance_.path("diag"), "--follow", "--csv", "--limit", "10"}, ends[1]);
  ::close(ends[1]);
  FILE* shown = ::fdopen(ends[0], "r");
  const auto expectProbe = [&](int probe) {
    char line[1024];
    ASSERT_NE(std::fgets(line, sizeof line, shown), nullptr);
    EXPECT_TRUE(holds(line, "," + std::to_string(probe) + ",")) << line;
    EXPECT_TRUE(holds(line, ",whole")) << line;
  };
  char names[1024];
  ASSERT_NE(std::fgets(names, sizeof names, shown), nullptr);
  expectProbe(1);
  append(first, text.substr(one, one + 100));  // record 2, and a part of the next
  expectProbe(2);
  append(first, text.substr(2 * one + 100));
  write("diag/vekdiag.2.log", logOf(numbered(4, 4)));
  expectProbe(3);
  expectProbe(4);
  write("diag/NODE0001/vekdiag.log", logOf(numbered(5, 5)));
  expectProbe(5);
  append(instance_.path("diag/vekdiag.2.log"), recordAt(one, {6}));
  expectProbe(6);
  // A record that is being written holds the text of another one.
  const std::string growing =
      recordAt(2 * one, saying(8, "DATA #1 : " + recordAt(2 * one + 300, {-8}) + std::string(5000, 'x') + "\r\n"));
  append(instance_.path("diag/vekdiag.2.log"), growing.substr(0, 2000));
  append(instance_.path("diag/NODE0001/vekdiag.log"), recordAt(logOf(numbered(5, 5)).size(), {7}));
  expectProbe(7);
  append(instance_.path("diag/vekdiag.2.log"), growing.substr(2000));
  expectProbe(8);
  const std::string last = write("diag/vekdiag.5.log", logOf(numbered(9, 9)));
  expectProbe(9);
  append(last, recordAt(logOf(numbered(9, 9)).size(), {10}));
  expectProbe(10);
  (void)std::fclose(shown);
  EXPECT_EQ(finish(child), 0);
  EXPECT_EQ(contentOf(streamOf("err")),
            "veksys: 2 files in front of \"" + last + "\" went with rotation before they could be read.\n");
}

// What a terminal gets for a command.
std::string onTerminal(const std::string& path, const char* shape) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_EQ(::grantpt(terminal), 0);
  EXPECT_EQ(::unlockpt(terminal), 0);
  const int other = ::open(::ptsname(terminal), O_RDWR | O_NOCTTY | O_CLOEXEC);
  ::setenv("TERM", "xterm", 1);
  ::unsetenv("NO_COLOR");
  const pid_t child = startProgram(VEKSYS_TEST_BIN "/veksys", {"log", path, shape}, other);
  ::close(other);
  std::string shown;
  char chunk[4096];
  for (ssize_t count = 0; (count = ::read(terminal, chunk, sizeof chunk)) > 0;)
    shown.append(chunk, static_cast<std::size_t>(count));
  ::close(terminal);
  finish(child);
  return shown;
}

TEST_F(Log, TerminalGetsColoursButNoControlsOfTexts) {
  const std::string path = write("a", logOf({{1, "Severe", "2025-11-21-10.00.00.000000", "+000", 1, "", "c, f\x1b[2J",
                                              "MESSAGE : \x1b]0;title\x07\x9b 2J\r\n"}}));
  for (const char* shape : {"--limit=9", "--oneline", "--fold", "--count-by=function", "--csv", "--json"}) {
    const std::string shown = onTerminal(path, shape);
    EXPECT_FALSE(holds(shown, "\x1b]0;") || holds(shown, "\x1b[2J") || holds(shown, "\x9b")) << shape << shown;
  }
  EXPECT_TRUE(holds(onTerminal(path, "--oneline"), "\x1b[1;31mSevere"));
  EXPECT_FALSE(holds(log({path, "--oneline"}).out, "\x1b"));
}

// ---- lnav -------------------------------------------------------------------------------------------------------

// The rows that it finds, with the format file that is installed, in records of every shape; skipped where it is not
// there.
TEST_F(Log, LnavReadsIt) {
  if (runProgram("lnav", {"-V"}).status != 0) GTEST_SKIP() << "lnav is not installed";
  const std::string path = write(
      "vekdiag.log",
      logOf({{1, "Severe (Fatal)"},
             {2, "Info"},
             {3, "Warning", "2025-11-21-10.00.00.000000", "+000", 77, "", "c, f", "MESSAGE : two\r\nlines\r\n"}}));
  inProcess([] { EXPECT_EQ(pdLogPrintf(1, kRead, SQLO_NOMEM, 5, 2, "page %u", 9U), 0); });
  write("lnav/formats/veksys/veksys.lnav.json", contentOf(VEKSYS_TEST_SOURCE "/../tools/veksys/veksys.lnav.json"));
  const auto rowsOf = [&](const std::string& file) {
    const Answer answer =
        runProgram("env", {"HOME=" + directoryOfInstance(), "lnav", "-n", "-I", instance_.path("lnav"), "-c",
                           ";select log_level, pid, component, probe from vekdiag_log where pid is not null", "-c",
                           ":write-csv-to -", file});
    EXPECT_EQ(answer.status, 0) << answer.err;
    return linesOf(answer.out);
  };
  EXPECT_EQ(rowsOf(path), (Words{"log_level,pid,component,probe", "fatal,100,operating-system services,1",
                                 "info,100,operating-system services,2", "warning,77,c,3"}));
  const Words rows = rowsOf(instance_.path("instance/diag/vekdiag.log"));
  ASSERT_FALSE(rows.empty());
  EXPECT_TRUE(rows.back().starts_with("error,") && rows.back().ends_with(",buffer pool services,5")) << rows.back();
}

}  // namespace
}  // namespace vektest
