// veksys rc, run as a person runs it.
#include <iomanip>
#include <span>

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
  const std::pair<Words, Words> forms[] = {
      {{"0x8B0F0000"},
       {"0x8B0F0000", "0X8b0f0000", "8b0f0000", "-1961951232", "2333016064", "SQLO_NOMEM", "sqlo_nomem",
        "ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\"", "rc = -1961951232"}},
      {{"0x80000002"}, {"80000002"}},
      {{"-911"}, {"-911", "SQL0911N", "sql911"}},
      {{"100"}, {"SQL0100W", "+100"}},
      {{"0x00000000"}, {"0"}},
      {{"-1"}, {"RC=-1 failed"}},
      {{"0x8B0F0000", "-911", "0x870F0009"}, {"0x8B0F0000 -911 SQLO_EOF"}},
      {{"0x860F000A", "-911"}, {"PID : 4711 at 0x7ffd12345678 rc=0x860F000A, sqlcode : -911"}},
      {{"0x8B0F0000", "0x870F0009"}, {"FUNCTION 0x18D00008 left with 0x8B0F0000 and SQLO_EOF"}},
  };
  for (const auto& [codes, texts] : forms)
    for (const std::string& text : texts) {
      const Answer answer = veksys({"rc", text});
      EXPECT_EQ(answer.status, 0) << text << answer.err;
      EXPECT_EQ(codesIn(answer), codes) << text << "\n" << answer.out;
    }
  // In words of their own.
  EXPECT_EQ(codesIn(veksys({"rc", "0x8B0F0000", "sqlcode", ":", "-911"})), (Words{"0x8B0F0000", "-911"}));
}

TEST_F(Rc, ExplainsFieldByField) {
  const Answer answer = veksys({"rc", "0x8B0F0000", "--json"});
  std::string fields;
  for (const std::string& line : linesOf(answer.out)) fields += line.substr(line.find_first_not_of(' '));
  EXPECT_EQ(fields,
            R"({"codes": [{"kind": "return_code","hex": "0x8B0F0000","decimal": -1961951232,"name": "SQLO_NOMEM",)"
            R"("text": "No Memory Available","component_cleared": false,"error": true,)"
            R"("type": {"number": 11,"text": "Codes for Heap and Pool Errors"},)"
            R"("component": {"number": 15,"prefix": "SQLO","name": "operating-system services"},"number": 0,)"
            R"("sql": {"sqlcode": -10003,"sqlstate": "57011","message": "SQL10003N  There is not enough system )"
            R"(memory to process the request. The request cannot be processed.","token_kind": 0,)"
            R"("secondary_code": 8300}}]})");
  const std::pair<const char*, const char*> remarks[] = {
      {"0x83000002", "2  ENOENT  No such file or directory"},
      {"0x83FFFFFF", "no error number of this system"},
      {"0x8B990000", "no such component"},
      {"0xFE000001", "no such error type"},
      {"0", "success is not reported"},
      {"-1", "written 0xFFFFFFFF, a special one"},
      {"42", "no return code of the catalogue is 42"},
      {"HA_ZRC_OK", "0x00000000  HA_ZRC_OK\n"},  // the name that was asked for
      {"PSM_OK", "0x00000000  PSM_OK\n"},
      {"PSM_OK", "text              Unknown"},
  };
  for (const auto& [typed, remark] : remarks) EXPECT_TRUE(holds(veksys({"rc", typed}).out, remark)) << typed;
  EXPECT_TRUE(json(veksys({"rc", "0", "--json"}).out)["codes"][0]["sql"].IsNull());
  EXPECT_FALSE(json(veksys({"rc", "-911", "--json"}).out)["codes"][0].HasMember("note"));
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
  std::ostringstream text;
  std::vector<const char*> expected;
  for (const SqlzZrcEntry& entry : std::span(sqlzGetZrcMap(), SQLZ_ZRC_MAP_COUNT)) {
    if (entry.code == 0) continue;
    text << "rc=0x" << std::hex << std::setw(8) << std::setfill('0') << static_cast<std::uint32_t>(entry.code) << "\n";
    expected.push_back(entry.name);
  }
  const Answer answer = veksys({"rc", "--json"}, text.str());
  ASSERT_EQ(answer.status, 0) << answer.err;
  const auto explained = json(answer.out);
  ASSERT_EQ(explained["codes"].Size(), expected.size());
  for (rapidjson::SizeType i = 0; i < explained["codes"].Size(); ++i)
    EXPECT_STREQ(explained["codes"][i]["name"].GetString(), expected[i]);
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
}

TEST_F(Rc, RefusesWhatIsNoCode) {
  const std::tuple<Words, int, const char*> cases[] = {
      {{"SQLO_NOMEN"}, 1, "Did you mean SQLO_NOMEM"},
      {{"0x8B0F0000", "SQLO_NOMEN"}, 1, "Did you mean SQLO_NOMEM"},
      {{"FOO_BAR"}, 1, "\"FOO_BAR\"; accepted is a return code"},
      {{"xyzzy", "plugh"}, 1, "\"xyzzy plugh\""},
      {{"-"}, 1, "no code"},
      {{" "}, 2, "Nothing to explain"},
      {{"--limit", "many", "x"}, 2, "many"},
  };
  for (const auto& [typed, status, part] : cases)
    expectSentence(veksys(joined({"rc"}, typed), "all is well at 0x00007F00\n"), status, part);
  expectSentence(veksys({"rc"}), 1, "no code");
  for (const char* typed : {"0xZZ", "0x", "0x123456789", "99999999999", "-99999999999"})
    expectSentence(veksys({"rc", typed}), 2, typed);
}

TEST_F(Rc, LeavesNothingBehind) {
  veksys({"rc", "0x8B0F0000"});
  for (const auto& entry : std::filesystem::directory_iterator(directoryOfInstance()))
    EXPECT_FALSE(entry.path().filename().string().starts_with("veksys.")) << entry.path();
}

}  // namespace
}  // namespace vektest
