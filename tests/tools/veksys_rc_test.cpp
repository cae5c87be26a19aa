// veksys rc, run as a person runs it.
#include "tools/veksys_support.h"
#include "veksys/diag/rc.h"

namespace vektest {
namespace {

using Rc = CommandTest;

// The hex of every code that an answer explains or lists.
Words codesIn(const Answer& answer) {
  Words codes;
  for (const std::string& line : linesOf(answer.out)) {
    if (line.starts_with("0x")) codes.push_back(line.substr(0, 10));
    if (line.starts_with("SQL code ")) codes.push_back(line.substr(9));
  }
  return codes;
}

TEST_F(Rc, ReadsACodeInEveryForm) {
  const std::pair<Words, Words> cases[] = {
      {{"0x8B0F0000"}, {"0x8B0F0000"}},
      {{"0X8b0f0000"}, {"0x8B0F0000"}},
      {{"8b0f0000"}, {"0x8B0F0000"}},
      {{"-1961951232"}, {"0x8B0F0000"}},
      {{"2333016064"}, {"0x8B0F0000"}},
      {{"80000002"}, {"0x80000002"}},
      {{"SQLO_NOMEM"}, {"0x8B0F0000"}},
      {{"sqlo_nomem"}, {"0x8B0F0000"}},
      {{"-911"}, {"-911"}},
      {{"SQL0911N"}, {"-911"}},
      {{"sql911"}, {"-911"}},
      {{"SQL0100W"}, {"100"}},
      {{"+100"}, {"100"}},
      {{"0"}, {"0x00000000"}},
      {{"0x8B0F0000", "-911", "SQLO_EOF"}, {"0x8B0F0000", "-911", "0x870F0009"}},
      {{"ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\""}, {"0x8B0F0000"}},
      {{"rc", "=", "-1961951232"}, {"0x8B0F0000"}},
      {{"RC=-1 failed"}, {"-1"}},
      {{"PID", ":", "4711", "at", "0x7ffd12345678", "rc=0x860F000A,", "sqlcode", ":", "-911"}, {"0x860F000A", "-911"}},
      {{"FUNCTION 0x18D00008 left with 0x8B0F0000 and SQLO_EOF"}, {"0x8B0F0000", "0x870F0009"}},
  };
  for (const auto& [typed, read] : cases) {
    const Answer answer = veksys(joined({"rc"}, typed));
    EXPECT_EQ(answer.status, 0) << typed[0] << answer.err;
    EXPECT_EQ(codesIn(answer), read) << typed[0] << "\n" << answer.out;
  }
}

TEST_F(Rc, ExplainsFieldByField) {
  const auto answer = json(veksys({"rc", "0x8B0F0000", "--json"}).out);
  const auto& code = answer["codes"][0];
  EXPECT_STREQ(code["name"].GetString(), "SQLO_NOMEM");
  EXPECT_STREQ(code["text"].GetString(), "No Memory Available");
  EXPECT_EQ(code["decimal"].GetInt(), -1961951232);
  EXPECT_TRUE(code["error"].GetBool());
  EXPECT_EQ(code["type"]["number"].GetInt(), 11);
  EXPECT_STREQ(code["type"]["text"].GetString(), "Codes for Heap and Pool Errors");
  EXPECT_STREQ(code["component"]["prefix"].GetString(), "SQLO");
  EXPECT_EQ(code["number"].GetInt(), 0);
  EXPECT_EQ(code["sql"]["sqlcode"].GetInt(), -10003);
  EXPECT_EQ(code["sql"]["secondary_code"].GetInt(), 8300);
  EXPECT_TRUE(std::string(code["sql"]["message"].GetString()).starts_with("SQL10003N  "));

  const std::pair<const char*, const char*> remarks[] = {
      {"0x83000002", "2  ENOENT  No such file or directory"},
      {"0x83FFFFFF", "no error number of this system"},
      {"0x8B990000", "no such component"},
      {"0xFE000001", "no such error type"},
      {"0", "success is not reported"},
  };
  for (const auto& [typed, remark] : remarks) EXPECT_TRUE(holds(veksys({"rc", typed}).out, remark)) << typed;
  EXPECT_TRUE(json(veksys({"rc", "0", "--json"}).out)["codes"][0]["sql"].IsNull());
}

TEST_F(Rc, TellsHowASmallNumberWasRead) {
  const std::pair<const char*, const char*> cases[] = {{"-1", "written 0xFFFFFFFF, a special one"},
                                                       {"42", "no return code of the catalogue is 42"}};
  for (const auto& [typed, note] : cases) {
    const auto answer = json(veksys({"rc", "--json", typed}).out);
    EXPECT_TRUE(holds(answer["codes"][0].FindMember("note")->value.GetString(), note)) << typed;
  }
  EXPECT_FALSE(json(veksys({"rc", "-911", "--json"}).out)["codes"][0].HasMember("note"));
}

TEST_F(Rc, ShowsTheNameThatWasAskedFor) {
  for (const char* name : {"HA_ZRC_OK", "PSM_OK"}) {
    const Answer answer = veksys({"rc", name});
    EXPECT_TRUE(answer.out.starts_with("0x00000000  " + std::string(name))) << answer.out;
    EXPECT_TRUE(holds(answer.out, "text              Unknown")) << answer.out;
  }
}

TEST_F(Rc, NamesTheCodesBehindAnSqlCode) {
  const auto answer = json(veksys({"rc", "-911", "--json", "--limit", "3"}).out);
  const auto& code = answer["codes"][0];
  EXPECT_STREQ(code["kind"].GetString(), "sql_code");
  EXPECT_STREQ(code["sqlstate"].GetString(), "40001");
  EXPECT_GT(code["return_code_count"].GetInt(), 3);
  ASSERT_EQ(code["return_codes"].Size(), 3U);
  for (const auto& each : code["return_codes"].GetArray()) EXPECT_EQ(each["sqlcode"].GetInt(), -911);
}

// Every code of the catalogue, handed over as text, is found and explained by its own name.
TEST_F(Rc, KnowsTheWholeCatalogue) {
  std::string text;
  std::vector<const SqlzZrcEntry*> expected;
  for (std::size_t i = 0; i < SQLZ_ZRC_MAP_COUNT; ++i) {
    const SqlzZrcEntry& entry = sqlzGetZrcMap()[i];
    if (entry.code == 0) continue;
    char line[64];
    (void)std::snprintf(line, sizeof line, "rc=0x%08X\n", static_cast<unsigned>(entry.code));
    text += line;
    expected.push_back(&entry);
  }
  const Answer answer = veksys({"rc", "--json"}, text);
  ASSERT_EQ(answer.status, 0) << answer.err;
  const auto explained = json(answer.out);
  ASSERT_EQ(explained["codes"].Size(), expected.size());
  for (rapidjson::SizeType i = 0; i < explained["codes"].Size(); ++i)
    EXPECT_STREQ(explained["codes"][i]["name"].GetString(), expected[i]->name);
}

TEST_F(Rc, FindsCodesByWords) {
  const auto some = json(veksys({"rc", "lock", "timeout", "--json", "--limit", "5"}).out);
  EXPECT_GT(some["count"].GetInt(), 5);
  ASSERT_EQ(some["matches"].Size(), 5U);
  const auto all = json(veksys({"rc", "LOCK", "TimeOut", "--json", "--limit", "100000"}).out);
  EXPECT_EQ(all["count"].GetInt(), some["count"].GetInt());
  ASSERT_EQ(all["matches"].Size(), static_cast<unsigned>(all["count"].GetInt()));
  for (const auto& each : all["matches"].GetArray()) {
    std::string text = std::string(each["name"].GetString()) + " " + each["text"].GetString();
    for (char& c : text) c = static_cast<char>(std::tolower(c));
    EXPECT_TRUE(holds(text, "lock") && holds(text, "timeout")) << text;
  }
  const auto byName = json(veksys({"rc", "SQLO_NOMEM_", "--json"}).out);
  for (const auto& each : byName["matches"].GetArray())
    EXPECT_TRUE(std::string(each["name"].GetString()).starts_with("SQLO_NOMEM_"));
}

TEST_F(Rc, SaysWhenThereIsNothing) {
  expectSentence(veksys({"rc", "SQLO_NOMEN"}), 1, "Did you mean SQLO_NOMEM");
  EXPECT_EQ(veksys({"rc", "0x8B0F0000", "SQLO_NOMEN"}).err, veksys({"rc", "SQLO_NOMEN"}).err);
  expectSentence(veksys({"rc", "FOO_BAR"}), 1, "\"FOO_BAR\"; accepted is a return code");
  expectSentence(veksys({"rc", "xyzzy", "plugh"}), 1, "\"xyzzy plugh\"");
  expectSentence(veksys({"rc", "-"}, "all is well at 0x00007F00\n"), 1, "no code");
  expectSentence(veksys({"rc"}, ""), 1, "no code");
}

TEST_F(Rc, RefusesWhatNoCodeCanBe) {
  for (const char* typed : {"0xZZ", "0x", "0x123456789", "99999999999", "-99999999999"})
    expectSentence(veksys({"rc", typed}), 2, typed);
  expectSentence(veksys({"rc", " "}), 2, "Nothing to explain");
  expectSentence(veksys({"rc", "--limit", "many", "x"}), 2, "many");
}

TEST_F(Rc, LeavesNothingBehind) {
  veksys({"rc", "0x8B0F0000"});
  for (const auto& entry : std::filesystem::directory_iterator(directoryOfInstance()))
    EXPECT_FALSE(entry.path().filename().string().starts_with("veksys.")) << entry.path();
}

}  // namespace
}  // namespace vektest
