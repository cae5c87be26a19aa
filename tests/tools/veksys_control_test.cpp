// veksys trace on, off, mask, clear, dump and status, and what every subcommand refuses.
#include <sys/stat.h>

#include "tools/veksys_support.h"

namespace vektest {
namespace {

using Control = CommandTest;

// The trace words as another process of the instance sees them.
std::uint32_t wordOf(std::uint32_t component) {
  const Shared<std::uint32_t> word;
  inProcess([&] {
    sqltinit();
    *word = sqltTraceWord(component);
  });
  return *word;
}

TEST_F(Control, LifeOfATrace) {
  expectSentence(veksys({"trace", "status"}), 1, "no process of it has run here");
  EXPECT_FALSE(json(veksys({"trace", "status", "--json"}).out)["exists"].GetBool());
  for (const char* subcommand : {"off", "clear", "mask", "format", "flow", "stat"})
    expectSentence(veksys({"trace", subcommand}), 1, "has no shared memory");

  const auto on =
      json(veksys({"trace", "on", "--size", "4M", "--component", "SQLO,9", "--type", "entry,exit", "--json"}).out);
  EXPECT_TRUE(on["created"].GetBool());
  EXPECT_EQ(on["ring_bytes"].GetInt(), 4 << 20);
  EXPECT_EQ(on["components"].Size(), 2U);
  EXPECT_EQ(wordOf(15), 3U);
  EXPECT_EQ(wordOf(9), 3U);
  EXPECT_EQ(wordOf(2), 0U);
  const auto status = json(veksys({"trace", "status", "--json"}).out);
  EXPECT_TRUE(status["active"].GetBool());
  EXPECT_EQ(status["ring_bytes"].GetInt(), 4 << 20);

  // Switching on what is on changes nothing; another size is refused, since records would go.
  EXPECT_FALSE(json(veksys({"trace", "on", "--json"}).out)["created"].GetBool());
  EXPECT_EQ(wordOf(9), 3U);
  expectSentence(veksys({"trace", "on", "--size", "8M"}), 1, "There is a trace of 4 MB");
  EXPECT_EQ(veksys({"trace", "on", "--size", "4M"}).status, 0);

  serveInProcess(3);
  EXPECT_EQ(veksys({"trace", "off"}).status, 0);
  EXPECT_EQ(wordOf(15), 0U);
  const auto off = json(veksys({"trace", "status", "--json"}).out);
  EXPECT_FALSE(off["active"].GetBool());
  EXPECT_GT(off["records"].GetInt(), 0);
  EXPECT_TRUE(holds(veksys({"trace", "off"}).out, "was off already"));

  const std::string file = instance_.path("dump");
  EXPECT_EQ(veksys({"trace", "dump", file}).status, 0);
  EXPECT_EQ(veksys({"trace", "clear"}).status, 0);
  EXPECT_EQ(json(veksys({"trace", "status", "--json"}).out)["records"].GetInt(), 0);
  EXPECT_EQ(json(veksys({"trace", "status", file, "--json"}).out)["records"].GetInt(), off["records"].GetInt());

  EXPECT_EQ(veksys({"trace", "off", "--discard"}).status, 0);
  expectSentence(veksys({"trace", "status"}), 1, "There is no trace");
  EXPECT_EQ(veksys({"trace", "on"}).status, 0);
  EXPECT_EQ(wordOf(0), 0xFU);
}

TEST_F(Control, SizesAreTold) {
  struct Case {
    const char* asked;
    int becameMegabytes;
    const char* remark;
  };
  const Case cases[] = {
      {"1M", 1, ""},
      {"3m", 2, "3 MB rounded down"},
      {"0x400000", 4, ""},
      {"8192K", 8, ""},
      {"1048575", 2, "below the least"},
      {"2G", 2, "above the most"},
      {"5MB", 4, "5 MB rounded down"},
  };
  for (const Case& each : cases) {
    const Answer answer = veksys({"trace", "on", "--size", each.asked});
    EXPECT_EQ(answer.status, 0) << each.asked << answer.err;
    EXPECT_TRUE(holds(answer.out, "ring   " + std::to_string(each.becameMegabytes) + " MB")) << answer.out;
    EXPECT_TRUE(holds(answer.out, each.remark)) << answer.out;
    EXPECT_EQ(veksys({"trace", "off", "--discard"}).status, 0);
  }
  ::setenv("VEKTRC_DEF_BUFFSIZE", "3m", 1);
  EXPECT_TRUE(holds(veksys({"trace", "on"}).out, "ring   3 MB\n")) << "the default is taken as it is";
  ::unsetenv("VEKTRC_DEF_BUFFSIZE");
  for (const char* typed : {"", "M", "-1", "12Q", "0x", "99999999999999999999"})
    expectSentence(veksys({"trace", "on", "--size=" + std::string(typed)}), 2, "size");
}

TEST_F(Control, MaskIsSetAddedToAndRemovedFrom) {
  EXPECT_EQ(veksys({"trace", "on"}).status, 0);
  struct Case {
    std::vector<std::string> options;
    std::uint32_t index, services, pool;  // words of components 9, 15, 2
  };
  const Case cases[] = {
      {{}, 0xF, 0xF, 0xF},
      {{"--component", "SQLI,SQLO"}, 0xF, 0xF, 0},
      {{"--component", "SQLI,SQLO", "--type", "entry"}, 1, 1, 0},
      {{"--add", "--type", "error,perf"}, 0x89, 0x89, 0},
      {{"--add", "--component", "buffer pool services"}, 0x89, 0x89, 0x89},
      {{"--remove", "--type", "0x80"}, 9, 9, 9},
      {{"--remove", "--component", "0x09"}, 0, 9, 9},
      {{"--type", "0x400,0x800"}, 0xC00, 0xC00, 0xC00},
      {{"--component", "all", "--type", "all"}, 0x23FFFF, 0x23FFFF, 0x23FFFF},
      {{"--remove", "--component", "all"}, 0, 0, 0},
  };
  for (const Case& each : cases) {
    std::vector<std::string> arguments = {"trace", "mask"};
    arguments.insert(arguments.end(), each.options.begin(), each.options.end());
    EXPECT_EQ(veksys(arguments).status, 0);
    EXPECT_EQ(wordOf(9), each.index) << ::testing::PrintToString(each.options);
    EXPECT_EQ(wordOf(15), each.services) << ::testing::PrintToString(each.options);
    EXPECT_EQ(wordOf(2), each.pool) << ::testing::PrintToString(each.options);
  }
  const auto shared = json(veksys({"trace", "mask", "--component", "SQLZ", "--json"}).out);
  const auto second = json(veksys({"trace", "mask", "--component", "SQLUC,SQLPR", "--json"}).out);
  ASSERT_EQ(second["components"].Size(), 2U) << "a second prefix stands for its component";
  EXPECT_EQ(second["components"][1]["number"].GetInt(), 0xB0);
  ASSERT_EQ(shared["components"].Size(), 2U) << "a prefix stands for every component that has it";
  EXPECT_EQ(shared["components"][0]["number"].GetInt(), 0);
  EXPECT_EQ(shared["components"][1]["number"].GetInt(), 0x1A);
}

TEST_F(Control, RefusesInstancesItMayNotLookAt) {
  for (const char* name : {"", "a/b", "..", ".hidden", "with blank", "name-of-more-than-thirty-two-characters"})
    expectSentence(veksys({"--instance", name, "trace", "status"}), 2, "no instance name");
  const std::string foreign = directoryOfInstance() + "/veksys." + std::to_string(::getuid() + 4711) + ".platformtest";
  std::ofstream(foreign) << "theirs";
  for (const char* subcommand : {"status", "flow", "mask", "off"})
    expectSentence(veksys({"trace", subcommand}), 1, std::to_string(::getuid() + 4711));

  EXPECT_EQ(veksys({"trace", "on", "--instance", "mine"}).status, 0);
  EXPECT_EQ(veksys({"--instance", "mine", "trace", "status"}).status, 0);
  ::setenv("VEK_SKIP_TRACE", "1", 1);
  expectSentence(veksys({"trace", "status", "--instance", "mine"}), 1, "VEK_SKIP_TRACE");
  ::unsetenv("VEK_SKIP_TRACE");
}

// The running instance's shared memory claims another layout while a process lives in it.
TEST_F(Control, SaysWhenTheLayoutIsAnother) {
  const Shared<std::atomic<int>> stage;
  const pid_t living = start([&] {
    sqltinit();
    stage->store(1);
    while (stage->load() != 2) ::usleep(1000);
  });
  while (stage->load() != 1) ::usleep(1000);
  const std::string region = directoryOfInstance() + "/veksys." + std::to_string(::getuid()) + ".platformtest";
  const int fd = ::open(region.c_str(), O_RDWR);
  const std::uint32_t version = 4711;
  EXPECT_EQ(::pwrite(fd, &version, sizeof version, 8), 4);
  ::close(fd);
  for (const char* subcommand : {"status", "on", "format"})
    expectSentence(veksys({"trace", subcommand}), 1, "another layout version");
  stage->store(2);
  finish(living);
}

TEST_F(Control, MistakesGetOneSentence) {
  struct Case {
    std::vector<std::string> arguments;
    int status;
    const char* part;
  };
  const Case cases[] = {
      {{}, 2, "needs a subcommand: latch, log, memory, rc, trace"},
      {{"trase"}, 2, "Did you mean trace"},
      {{"trace"}, 2, "needs a subcommand"},
      {{"trace", "flaw"}, 2, "Did you mean flow"},
      {{"trace", "flow", "--error"}, 2, "Did you mean --errors"},
      {{"trace", "format", "a", "b"}, 2, "\"b\""},
      {{"trace", "dump"}, 2, "FILE"},
      {{"trace", "on", "--size", ""}, 2, "no size"},
      {{"trace", "format", ""}, 2, "no name of a file"},
      {{"trace", "on", "--component", "SQLX"}, 2, "SQLX"},
      {{"trace", "on", "--type", "exits"}, 2, "Did you mean exit"},
      {{"trace", "mask", "--add"}, 2, "--component or --type"},
      {{"trace", "format", "--since", "25:00"}, 2, "25:00"},
      {{"trace", "format", "--until", "yesterday"}, 2, "yesterday"},
      {{"trace", "format", "--rc", "SQLO_NOMEN"}, 2, "Did you mean SQLO_NOMEM"},
      {{"trace", "format", "--function", "0x1"}, 2, "no function identifier"},
      {{"trace", "format", "--limit", "1", "--last", "1"}, 2, "exclude each other"},
      {{"trace", "format", "--limit", "-1"}, 2, "\"-1\" is no count"},
      {{"trace", "stat", "--top", "0"}, 2, "\"0\" is no count"},
      {{"trace", "format", "--since", "2025-02-30T01:00:00"}, 2, "2025-02-30"},
      {{"trace", "format", "--process", "nosuch"}, 1, "No record"},
      {{"trace", "stat", "--sort", "size"}, 2, "size"},
      {{"trace", "export"}, 2, "--chrome FILE or to --ctf DIR"},
      {{"trace", "format", "/no/such/file"}, 1, "No such file"},
      {{"trace", "format", "/dev/null"}, 1, "no trace that this command can read"},
      {{"trace", "dump", "/no/such/directory/file"}, 1, "cannot be written"},
      {{"trace", "export", "--chrome", "/no/such/directory/file"}, 1, "cannot be written"},
      {{"trace", "export", "--ctf", "/"}, 1, "not an empty directory"},
  };
  EXPECT_EQ(veksys({"trace", "on"}).status, 0);
  for (const Case& each : cases) expectSentence(veksys(each.arguments), each.status, each.part);
}

TEST_F(Control, HelpIsThereForEverything) {
  for (const char* subcommand : {"on", "off", "mask", "dump", "clear", "status", "format", "flow", "stat", "export"}) {
    const Answer help = veksys({"trace", subcommand, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_TRUE(holds(help.out, "--json")) << subcommand;
  }
  EXPECT_TRUE(veksys({"--version"}).out.starts_with("veksys "));
}

// `veksys ... | head`: the reader goes, the command ends without a word.
TEST_F(Control, EndsQuietlyWhenItsReaderGoes) {
  serveInProcess(2000);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  const Answer answer = answerOf(startProgram(VEKSYS_TEST_BIN "/veksys", {"trace", "flow"}, ends[1]));
  ::close(ends[1]);
  EXPECT_EQ(answer.status, 0);
  EXPECT_EQ(answer.err, "");
}

}  // namespace
}  // namespace vektest
