// veksys trace on, off, mask, clear, dump and status, and what every subcommand refuses.
#include "tools/veksys_support.h"

namespace vektest {
namespace {

using Control = LivingProcesses;

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
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"3m", "ring   2 MB", "3 MB rounded down"},
      {"1048575", "ring   2 MB", "below the least"},
      {"2G", "ring   2 MB", "above the most"},
      {"8192K", "ring   8 MB", ""},
  };
  for (const auto& [asked, ring, remark] : cases) {
    const Answer answer = veksys({"trace", "on", "--size", asked});
    EXPECT_TRUE(holds(answer.out, ring) && holds(answer.out, remark)) << answer.out << answer.err;
    EXPECT_EQ(veksys({"trace", "off", "--discard"}).status, 0);
  }
  ::setenv("VEKTRC_DEF_BUFFSIZE", "3m", 1);
  EXPECT_TRUE(holds(veksys({"trace", "on"}).out, "ring   3 MB\n")) << "the default is taken as it is";
  ::unsetenv("VEKTRC_DEF_BUFFSIZE");
}

TEST_F(Control, MaskIsSetAddedToAndRemovedFrom) {
  EXPECT_EQ(veksys({"trace", "on"}).status, 0);
  const std::tuple<Words, std::uint32_t, std::uint32_t, std::uint32_t> cases[] = {
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
  for (const auto& [options, index, services, pool] : cases) {
    SCOPED_TRACE(::testing::PrintToString(options));
    EXPECT_EQ(veksys(joined({"trace", "mask"}, options)).status, 0);
    EXPECT_EQ(wordOf(9), index);
    EXPECT_EQ(wordOf(15), services);
    EXPECT_EQ(wordOf(2), pool);
  }
  // A prefix stands for every component that has it, a second one for its component.
  EXPECT_EQ(veksys({"trace", "mask", "--component", "SQLZ,SQLUC"}).status, 0);
  for (const std::uint32_t component : {0U, 0x1AU, 0xB0U}) EXPECT_EQ(wordOf(component), 0xFU) << component;
}

TEST_F(Control, RefusesInstancesItMayNotLookAt) {
  for (const char* name : {"", "a/b"})
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
  live([] { sqltinit(); });
  std::fstream(instance_.region(), std::ios::in | std::ios::out | std::ios::binary).seekp(8).write("VEKS", 4);
  for (const char* subcommand : {"status", "on", "format"})
    expectSentence(veksys({"trace", subcommand}), 1, "another layout version");
}

TEST_F(Control, MistakesGetOneSentence) {
  const std::tuple<Words, int, const char*> cases[] = {
      {{}, 2, "needs a subcommand: latch, log, memory, rc, trace"},
      {{"trase"}, 2, "Did you mean trace"},
      {{"trace"}, 2, "needs a subcommand"},
      {{"trace", "flaw"}, 2, "Did you mean flow"},
      {{"trace", "flow", "--error"}, 2, "Did you mean --errors"},
      {{"trace", "format", "a", "b"}, 2, "\"b\""},
      {{"trace", "dump"}, 2, "FILE"},
      {{"trace", "on", "--size", ""}, 2, "no size"},
      {{"trace", "on", "--size=12Q"}, 2, "size"},
      {{"trace", "on", "--size=99999999999999999999"}, 2, "size"},
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
  EXPECT_TRUE(veksys({"--version"}).out.starts_with("veksys "));
  EXPECT_EQ(veksys({"trace", "on"}).status, 0);
  for (const auto& [arguments, status, part] : cases) expectSentence(veksys(arguments), status, part);
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
