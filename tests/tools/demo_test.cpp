// The example engine, run as a person runs it: its report, its exit code, and the trace it leaves behind.
#include <sys/stat.h>

#include <iterator>
#include <set>

#include "tools/veksys_support.h"

namespace vektest {
namespace {

// The number that the report prints behind a code's name: stanzas that met the condition.
int countOf(const Answer& report, const std::string& name) {
  std::smatch match;
  if (std::regex_search(report.out, match, std::regex(name + " +-?[0-9]+ +([0-9]+) ")) ||
      std::regex_search(report.out, match, std::regex(name + " ([0-9]+)")))
    return std::stoi(match[1]);
  return 0;
}

// The value of a line of the report, without the blanks around it.
std::string valueOf(const Answer& report, const std::string& label) {
  std::smatch match;
  return std::regex_search(report.out, match, std::regex("\n  " + label + " +([^\n]*)")) ? match[1].str() : "";
}

std::vector<pid_t> childrenOf(pid_t parent) {
  const std::string process = "/proc/" + std::to_string(parent);
  std::ifstream in(process + "/task/" + std::to_string(parent) + "/children");
  return {std::istream_iterator<pid_t>(in), {}};
}

class Demo : public CommandTest {
 protected:
  std::string fileOf(const std::string& text) {
    std::ofstream(instance_.path("input")) << text;
    return instance_.path("input");
  }
  static pid_t startDemo(const Words& arguments) { return startProgram(VEKSYS_TEST_BIN "/veksys_demo", arguments); }
  static Answer runDemo(const Words& arguments) { return answerOf(startDemo(arguments)); }
};

std::string stanza(const std::string& name, const std::string& rest = "", const std::string& version = "Version: 1\n") {
  return "Package: " + name + "\nStatus: install ok installed\nArchitecture: amd64\n" + version + rest + "\n";
}

// One stanza for each odd condition, among sound ones.
std::string oddFile() {
  return stanza("alpha", "Installed-Size: 1024\nSection: libs\nDepends: beta (>= 1), nothing | thing:any,\n zeta\n") +
         stanza("beta", "Installed-Size: 2048\nSection: contrib/libs\nProvides: other, thing (= 2)\n") +
         stanza("gamma", "Depends: absent-one | absent-two\nPre-Depends: absent-three\n") +
         stanza("delta", "Recommends: absent-four\n") + stanza("alpha", "Section: net\n") +
         stanza("epsilon", "this line has none\n and goes on\n") + stanza("zeta", "version: 2\n") +
         stanza("eta", "Installed-Size: many\n") + stanza("theta", "Installed-Size: 99999999999999999999\n") +
         stanza("iota", "", "") + " nothing before this\n" + stanza("kappa") +
         stanza("lambda", "Maintainer: a\x01z\n") + stanza("mu", "Description: " + std::string(40'000, 'x') + "\n") +
         "Package: nu\nStatus: deinstall ok config-files\nArchitecture: amd64\nVersion: 1\nDepends: absent-five\n\n" +
         stanza("xi", "Depends: nu\n") + "\r\n \n" + stanza("omikron", "Description:\n" + std::string(300'000, '\n'));
}

TEST_F(Demo, FindsEveryOddCondition) {
  std::string huge = "Description: long\n";
  for (int i = 0; i < 30'000; ++i) huge += " continued\n";
  const Answer report = runDemo({fileOf(oddFile() + stanza("huge", huge) + stanza("last"))});
  EXPECT_EQ(0, report.status) << report.err;
  const std::pair<const char*, int> expected[] = {
      {"SQLEU_COMMAND_FILE_SYNTAX", 1},  {"SQLUDI_FIELD_UNDEFINED", 1},       {"SQLDXE_RECORD_REJECTED_NULL", 1},
      {"SQLUDI_FIELD_DUPLICATE", 1},     {"SQLI_KEY_DUPLICATE", 1},           {"SQLDXE_FIELD_NOT_NUMERIC", 1},
      {"SQLDXE_FIELD_NUMERIC_RANGE", 1}, {"SQLR_FK_PARENT_MISSING", 2},       {"SQLU_LOAD_INTEGRITY_PENDING", 1},
      {"SQLNLS_WARN_SUBSTITUTED", 1},    {"SQLDXE_INFO_STRING_TRUNCATED", 1}, {"SQLDXE_RECORD_TOO_LONG", 1},
      {"SQLI_INDEX_PAGES_EXHAUSTED", 0},
  };
  for (const auto& [name, count] : expected) EXPECT_EQ(count, countOf(report, name)) << name << report.out;
  EXPECT_TRUE(valueOf(report, "Packages").starts_with("18   3.0 MiB installed")) << report.out;
  EXPECT_TRUE(valueOf(report, "libs").starts_with("2      3.0 MiB")) << report.out;
  EXPECT_TRUE(valueOf(report, "Dependencies").starts_with("verified for every package"));
  EXPECT_TRUE(holds(report.out, "gamma, line 18: absent-three / xi, line ")) << report.out;
  EXPECT_LT(std::count(report.out.begin(), report.out.end(), '\n'), 60);
}

TEST_F(Demo, FoldsTheFirstErrorOfARequest) {
  const std::string clean = stanza("a");
  const std::string warning = stanza("b", "Maintainer: \x02\n");
  const std::string error = stanza("c", "Installed-Size: x y\n");
  const std::string laterError = stanza("d", "no colon\n");
  const std::tuple<std::string, std::string, const char*, const char*, const char*> cases[] = {
      {clean, "0", "00000", "", "0x00000000 0 0 0 0 0"},
      {clean + warning, "445", "01004", "b | line 10 | Maintainer: ?", "0x09380068"},
      {warning + clean + error + laterError, "-420", "22018", "c | line 16 | x y", "0x804806EC"},
      {laterError + error + warning, "-2048", "58004", "d | line 5 | no colon", "0x803405F7"},
  };
  for (const auto& [file, sqlcode, state, tokens, rc] : cases) {
    const Answer report = runDemo({"--workers", "1", fileOf(file)});
    EXPECT_EQ(0, report.status);
    EXPECT_TRUE((valueOf(report, "sqlcode") + " ").starts_with(sqlcode + " ")) << report.out;
    EXPECT_EQ(state, valueOf(report, "sqlstate"));
    EXPECT_EQ(tokens, valueOf(report, "sqlerrmc"));
    EXPECT_TRUE(valueOf(report, "sqlerrd").starts_with(rc)) << report.out;
  }
}

TEST_F(Demo, LeavesATraceThatCanBeReadAfterwards) {
  ::unsetenv("VEKINSTANCE");
  ASSERT_EQ(0, runDemo({"--workers", "2", fileOf(oddFile())}).status);
  ::setenv("VEKINSTANCE", "demo", 1);  // what it is called when nobody says
  inProcess([] {
    ASSERT_EQ(0, vekInstanceStatus());  // names that other processes registered are in the region
    SqltTraceReader reader;
    ASSERT_EQ(0, reader.openInstance());
    std::set<std::uint32_t> processes;
    std::multiset<std::int64_t> verdicts;
    std::set<std::int64_t> errors;
    SqltTraceRecord record;
    while (reader.next(&record)) {
      ASSERT_NE(SqltRecordKind::kGap, record.kind);
      processes.insert(record.thread.processId);
      const char* name = reader.functionName(record.functionId);
      if (record.kind == SqltRecordKind::kError) errors.insert(record.value);
      if (name == nullptr || std::string(name) != "demo::parseStanza") continue;
      if (record.kind == SqltRecordKind::kExit) verdicts.insert(record.value);
      const bool byWorker = record.value > 100 && record.value < 300;
      EXPECT_TRUE(record.kind != SqltRecordKind::kEntry || byWorker) << record.value;
    }
    EXPECT_EQ(3U, processes.size());
    EXPECT_EQ(16U, verdicts.size());
    EXPECT_EQ(1U, verdicts.count(SQLUDI_FIELD_DUPLICATE));
    for (const SqlzZrc code : {SQLR_FK_PARENT_MISSING, SQLI_KEY_DUPLICATE, SQLNLS_WARN_SUBSTITUTED})
      EXPECT_EQ(1U, errors.count(code)) << code;
  });
}

TEST_F(Demo, LeavesTheSettingsOfOthersAlone) {
  inProcess([] {
    EXPECT_EQ(0, sqltTraceFacilityCreate(SQLT_TRACE_SIZE_DEFAULT));
    traceOnly({0x0F}, 0x02);
  });
  const Answer report = runDemo({fileOf(stanza("a"))});
  EXPECT_TRUE(holds(valueOf(report, "Trace"), "other components are being traced")) << report.out;
  inProcess([] {
    sqltinit();
    EXPECT_EQ(SQLT_TRACE_ENTRY, sqltTraceWord(0x0F));
    EXPECT_EQ(0U, sqltTraceWord(0x05));
  });
}

TEST_F(Demo, GoesOnWithoutWorkersThatWereKilled) {
  const std::string fifo = instance_.path("pipe");
  std::string block;
  for (int i = 0; block.size() < 100'000; ++i) block += stanza("p" + std::to_string(i));
  for (const auto& [killed, code] : {std::pair(1U, "SQLE_AGENT_PARTNER_PART_DOWN"), {3U, "SQLE_SUBAGENTS_EXHAUSTED"}}) {
    ASSERT_EQ(0, ::mkfifo(fifo.c_str(), 0600));
    const pid_t process = startDemo({fifo});
    std::ofstream pipe(fifo);
    for (int i = 0; i < 10; ++i) pipe << block;
    pipe.flush();
    const std::vector<pid_t> workers = childrenOf(process);
    ASSERT_EQ(3U, workers.size());
    for (std::size_t i = 0; i < killed; ++i) ::kill(workers[i], SIGKILL);
    for (int i = 0; i < 40; ++i) pipe << block;
    pipe.close();
    const Answer report = answerOf(process);
    EXPECT_EQ(1, report.status) << report.err;
    EXPECT_TRUE(holds(report.out, "killed by signal 9 (SIGKILL)")) << report.out;
    EXPECT_TRUE(holds(valueOf(report, "sqlerrd"), code)) << report.out;
    EXPECT_TRUE(valueOf(report, "Dependencies").starts_with(killed == 1 ? "" : "not verified")) << report.out;
    ::unlink(fifo.c_str());
  }
}

TEST_F(Demo, RefusesWrongUseInASentence) {
  const std::pair<Words, const char*> cases[] = {
      {{"--frobnicate"}, "not expected: --frobnicate"},
      {{"--workers", "0"}, "accepted: [FILE] [--workers 1..16]"},
      {{"--threads", "many"}, "--threads"},
      {{instance_.path("absent")}, "No such file or directory. Name a file of `Key: value` stanzas"},
      {{instance_.directory()}, "Is a directory"},
      {{fileOf(""), "second"}, "not expected: second"},
  };
  for (const auto& [arguments, sentence] : cases) {
    const Answer report = runDemo(arguments);
    EXPECT_EQ(2, report.status) << arguments[0];
    EXPECT_TRUE(holds(report.err, sentence)) << report.err;
    EXPECT_EQ("", report.out);
  }
  ::setenv("VEKINSTANCE", "a/b", 1);
  EXPECT_EQ(2, runDemo({fileOf("")}).status);
}

TEST_F(Demo, ReadsWhatHoldsNoStanzas) {
  for (const char* file : {"/dev/null", VEKSYS_TEST_BIN "/veksys_demo"}) {
    const Answer report = runDemo({"--keep-trace-settings", file});
    EXPECT_EQ(0, report.status) << report.err;
    EXPECT_TRUE(valueOf(report, "Trace").starts_with("none, and none was asked for")) << report.out;
  }
}

}  // namespace
}  // namespace vektest
