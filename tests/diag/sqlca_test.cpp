// Folding of failures into the SQL communications area.
#include "veksys/diag/sqlca.h"

#include <climits>
#include <cstring>

#include "platform/ports.h"
#include "platform/support.h"
#include "veksys/diag/rc.h"

namespace {

constexpr SqlzZrc kZrc = sqlzZrc(0x80000002);
constexpr char kSeparator = SQLZ_SQLCA_TOKEN_SEPARATOR;

sqlca emptyArea() {
  sqlca area;
  sqlzInitSqlca(&area);
  return area;
}

std::string tokensOf(const sqlca& area) { return {area.sqlerrmc, static_cast<std::size_t>(area.sqlerrml)}; }
std::string stateOf(const sqlca& area) { return {area.sqlstate, sizeof area.sqlstate}; }

TEST(Sqlca, StartsEmpty) {
  const sqlca area = emptyArea();
  EXPECT_EQ(std::string(area.sqlcaid, 8), "SQLCA   ");
  EXPECT_EQ(area.sqlcabc, 136);
  EXPECT_EQ(std::string(area.sqlerrmc, 70), std::string(70, ' '));
  EXPECT_EQ(std::string(area.sqlwarn, 11), std::string(11, ' '));
  EXPECT_EQ(stateOf(area), "00000");
  EXPECT_EQ(area.sqlcode + area.sqlerrml + area.sqlerrd[0] + area.sqlerrd[5], 0);
  sqlzInitSqlca(nullptr);
}

TEST_APART(SqlcaFold, KeepsTheFirstErrorAndTheHigherWarning) {
  const std::tuple<std::int32_t, std::int32_t, bool> cases[] = {
      {-911, -902, false}, {-911, 100, false}, {-911, 0, false},                          // the first error wins
      {0, -902, true},     {0, 100, true},     {0, 0, true},                              // nothing gives way
      {100, -902, true},   {100, -901, true},                                             // an error replaces a warning
      {100, 0, false},     {100, 100, false},  {100, 445, true},      {445, 100, false},  // the higher warning stays
      {100, 99999, false}, {99999, 100, true}, {99999, 99998, false},                     // a code without a rank
  };
  for (const auto& [existing, fresh, replaced] : cases) {
    sqlca area = emptyArea();
    area.sqlcode = existing;
    SqlzCallerContext context = {1, nullptr};
    sqlzSqlcodeToSqlca(&context, &area, kZrc, nullptr, fresh, 0);
    SCOPED_TRACE(std::to_string(existing) + " then " + std::to_string(fresh));
    EXPECT_EQ(area.sqlcode, replaced ? fresh : existing);
    EXPECT_EQ(area.sqlerrd[0], replaced ? kZrc : 0);
    EXPECT_EQ(context.flags, replaced ? 1U | SQLZ_CONTEXT_SQLCA_SET : 1U);
  }
}

TEST_APART(SqlcaFold, WritesCodeStateTokensAndZrc) {
  sqlca area = emptyArea();
  sqlzSqlcodeToSqlca(nullptr, &area, kZrc, nullptr, -911, 2, std::int32_t{3}, "abcdef", std::int32_t{1}, "2");
  EXPECT_EQ(area.sqlcode, -911);
  EXPECT_EQ(stateOf(area), "40001");
  EXPECT_EQ(tokensOf(area), std::string("abc") + kSeparator + "2");
  EXPECT_EQ(area.sqlerrd[0], kZrc);
  EXPECT_EQ(std::string(area.sqlcaid, 8), "SQLCA   ");
  sqlzSqlcodeToSqlca(nullptr, nullptr, kZrc, nullptr, -911, 0);

  area = emptyArea();
  sqlzFoldSqlcode(nullptr, &area, 0, nullptr, 100, "left", std::string("over"));
  EXPECT_EQ(tokensOf(area), std::string("left") + kSeparator + "over");
  sqlzRcToSqlca(nullptr, &area, 0, nullptr, 0);
  EXPECT_EQ(area.sqlcode, 100) << "success folds nothing";
  sqlca other = area;
  sqlzFoldZrc(nullptr, &area, kZrc, nullptr);
  EXPECT_EQ(area.sqlcode, -911);
  EXPECT_EQ(area.sqlerrml, 0) << "those of the warning";
  sqlzRcToSqlca(nullptr, &other, SQLO_FNEX, nullptr, 1, std::int32_t{4}, "file");
  EXPECT_EQ(other.sqlcode, -980);
  EXPECT_EQ(tokensOf(other), "file");
  EXPECT_EQ(other.sqlerrd[0], SQLO_FNEX);
}

TEST_APART(SqlcaFold, CallsBackBeforeItWritesAndDumpsTheEngineUnitOfAnInternalError) {
  using Seen = std::tuple<std::int32_t, SqlzZrc, std::int32_t, std::uint32_t>;
  static std::vector<Seen> seen;
  static std::vector<SqlzZrc> dumped;
  const SqlzErrorCallback note = [](SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, std::int32_t sqlcode) {
    seen.emplace_back(area->sqlcode, zrc, sqlcode, context->flags);
  };
  vek::platformtest::installHost(
      [](VekHost& host) { host.dumpEngineUnit = [](void*, SqlzZrc zrc) { dumped.push_back(zrc); }; });
  SqlzCallerContext context = {0, nullptr};
  sqlca area = emptyArea();
  area.sqlcode = 100;
  for (int i = 0; i < 2; ++i)  // the second time an error stays: no call, no dump
    sqlzSqlcodeToSqlca(&context, &area, kZrc, note, -901, 0);
  EXPECT_EQ(seen, (std::vector<Seen>{{100, kZrc, -901, SQLZ_CONTEXT_SQLCA_SET}}));
  area = emptyArea();
  sqlzSqlcodeToSqlca(nullptr, &area, kZrc, nullptr, -902, 0);
  EXPECT_EQ(dumped, std::vector<SqlzZrc>{kZrc});
}

TEST_APART(SqlcaTokens, AreCutToThirtyFiveAndSeventyBytes) {
  sqlca area = emptyArea();
  std::vector<SqlzToken> tokens(36, SqlzToken{1, "x"});
  std::int32_t count = 36;
  EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(&area, &count, tokens.data()), 0);
  EXPECT_EQ(count, 35);
  EXPECT_EQ(area.sqlerrml, 69);
  EXPECT_EQ(tokensOf(area).substr(66), std::string("x") + kSeparator + "x");
#define FOUR std::int32_t{1}, "a", std::int32_t{1}, "b", std::int32_t{1}, "c", std::int32_t{1}, "d"
  sqlzSqlcodeToSqlca(nullptr, &area, kZrc, nullptr, -911, 36, FOUR, FOUR, FOUR, FOUR, FOUR, FOUR, FOUR, FOUR, FOUR);
#undef FOUR
  EXPECT_EQ(tokensOf(area).substr(66), std::string("b") + kSeparator + "c");

  const std::string text(80, 'y');
  const std::pair<std::vector<std::int32_t>, std::int16_t> cases[] = {
      {{}, 0},       {{0}, 0},      {{69}, 69},     {{70}, 70},     {{71}, 70},
      {{69, 0}, 70}, {{70, 1}, 70}, {{34, 35}, 70}, {{34, 36}, 70}, {{0, 0, 0}, 2}};
  for (const auto& [lengths, stored] : cases) {
    tokens.clear();
    for (const std::int32_t length : lengths) tokens.push_back({length, text.data()});
    count = static_cast<std::int32_t>(tokens.size());
    EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(&area, &count, tokens.data()), 0);
    EXPECT_EQ(area.sqlerrml, stored);
    EXPECT_EQ(count, static_cast<std::int32_t>(lengths.size()));
  }
  EXPECT_EQ(std::string(area.sqlerrp, 6), "VEKSYS");  // the field behind the tokens
}

TEST_APART(SqlcaTokens, WithImpossibleLengthsAreReportedAndNotStored) {
  const std::pair<std::vector<std::int32_t>, const char*> cases[] = {
      {{INT_MAX, 1}, "Invalid token length for SQLCA (token count 2, token index 1)"},
      {{1, -1, 1}, "Invalid token length for SQLCA (token count 3, token index 1)"},
      {{INT_MIN}, "Invalid token length for SQLCA (token count 1, token index 0)"},
  };
  static std::vector<std::string> reported;
  vek::g_ports.reportEvent = [](const vek::PortEvent& event) { reported.emplace_back(event.message); };
  for (const auto& [lengths, event] : cases) {
    reported.clear();
    sqlca area = emptyArea();
    std::vector<SqlzToken> tokens;
    for (const std::int32_t length : lengths) tokens.push_back({length, "z"});
    std::memcpy(area.sqlerrmc, "old", 3);
    area.sqlerrml = 3;
    auto count = static_cast<std::int32_t>(tokens.size());
    EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(&area, &count, tokens.data()), SQLO_INV_PARM);
    EXPECT_EQ(tokensOf(area), "old");
    EXPECT_EQ(reported, std::vector<std::string>{event});
    sqlzSqlcodeToSqlcaTokens(nullptr, &area, kZrc, nullptr, -902, count, tokens.data());
    EXPECT_EQ(area.sqlcode, -902);  // the code is folded without tokens
    EXPECT_EQ(area.sqlerrml, 0);
  }
}

TEST_APART(SqlcaTokens, MayBeMissing) {
  sqlca area = emptyArea();
  const SqlzToken tokens[] = {{5, nullptr}, {2, "ok"}};
  std::int32_t count = 2;
  EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(&area, &count, tokens), 0);
  EXPECT_EQ(tokensOf(area), std::string(1, kSeparator) + "ok");
  count = -3;
  EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(&area, &count, tokens), 0);
  EXPECT_EQ(area.sqlerrml, 0);
  sqlzSqlcodeToSqlcaTokens(nullptr, &area, kZrc, nullptr, -902, 4, nullptr);
  EXPECT_EQ(area.sqlerrml, 0);
  EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(nullptr, &count, tokens), 0);
  EXPECT_EQ(sqlzStoreVariableMsgTokensInSqlca(&area, nullptr, tokens), 0);
}

TEST_APART(SqlState, IsThatOfTheCode) {
  const std::pair<std::int32_t, const char*> cases[] = {
      {0, "00000"},    {100, "02000"},  {-911, "40001"},   {-902, "58005"},  {-803, "23505"},
      {-104, "42601"}, {-952, "57014"}, {-99999, "58004"}, {99998, "01000"}, {INT_MIN, "58004"}};
  for (const auto& [sqlcode, wanted] : cases) {
    char state[6] = "?????";
    sqlzelsc(sqlcode, state);
    EXPECT_STREQ(state, wanted) << sqlcode;
  }
  sqlzelsc(-902, nullptr);
}

// Lost data above substituted values, those above degraded plans, those above no row, that above mere information.
TEST_APART(WarningPrecedence, IsAStrictOrder) {
  const std::int32_t ascending[] = {598, 100, 437, 335, 445};
  for (const std::int32_t& low : ascending)
    for (const std::int32_t& high : ascending) EXPECT_EQ(sqlzewsc(low, high), &low < &high) << low << ' ' << high;
}

}  // namespace
