// The catalogue of return codes and the map to SQL codes.

#include <algorithm>
#include <set>

#include "platform/support.h"
#include "veksys/diag/error_category.h"
#include "veksys/diag/rc.h"

namespace {

using Mapped = std::tuple<std::int32_t, std::uint16_t, std::uint32_t>;  // SQL code, kind of its token, mapped code

constexpr Mapped kNoEntry = {-901, 1, 1};

Mapped mappedOf(SqlzZrc zrc) {
  Mapped mapped;
  auto& [sqlcode, tokenKind, mappedCode] = mapped;
  sqlcode = sqlzGetZRCInfo(zrc, nullptr, nullptr, &tokenKind, &mappedCode);
  return mapped;
}

SqlzZrc codeOf(std::uint32_t type, std::uint32_t component, std::uint32_t number) {
  return sqlzZrc(0x80000000U | type << 24 | component << 16 | number);
}

struct TableRow {
  SqlzZrc code;
  std::string name;
  Mapped mapped;
};

// The source table, read independently of the generator.
std::vector<TableRow> tableRows() {
  std::ifstream in(VEKSYS_TEST_SOURCE "/../diag/tables/zrc.tsv");
  std::vector<TableRow> rows;
  for (std::string line; std::getline(in, line);) {
    if (line.empty() || line[0] == '#') continue;
    TableRow row;
    auto& [sqlcode, tokenKind, mappedCode] = row.mapped;
    std::uint32_t code = 0;
    std::istringstream(line) >> std::hex >> code >> row.name >> std::dec >> sqlcode >> tokenKind >> mappedCode;
    row.code = sqlzZrc(code);
    rows.push_back(row);
  }
  return rows;
}

TEST(ZrcCatalogue, HoldsEachCodeAndNameOnceWithATextOfOneLine) {
  std::set<std::int32_t> codes;
  std::set<std::string> names;
  std::set<std::pair<std::uint32_t, std::uint32_t>> numbers;
  ASSERT_EQ(SQLZ_ZRC_MAP_COUNT, 7495U);
  for (std::size_t i = 0; i < SQLZ_ZRC_MAP_COUNT; ++i) {
    const SqlzZrcEntry& entry = sqlzGetZrcMap()[i];
    EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
    EXPECT_EQ(sqlzFindZrcByName(entry.name), &entry);
    const std::string text = entry.description;
    EXPECT_FALSE(text.empty() || text.size() > 110) << text;
    EXPECT_TRUE(std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~' && c != '"'; })) << text;
    if (entry.code == 0) continue;
    EXPECT_TRUE(codes.insert(entry.code).second) << entry.name;
    EXPECT_EQ(sqlzFindZrc(entry.code), &entry);
    EXPECT_LT(sqlzZrcType(entry.code), SQLZ_ZRC_TYPE_COUNT) << entry.name;
    EXPECT_NE(ecfGetComponentShortName(ecfComponentIdOfZrc(entry.code)), nullptr) << entry.name;
    if (sqlzZrcComponent(entry.code) == SQLZ_COMPONENT_SQLNN) continue;
    EXPECT_TRUE(numbers.emplace(sqlzZrcType(entry.code), sqlzZrcNumber(entry.code)).second) << entry.name;
  }
}

TEST(ZrcCatalogue, KnowsTheCodesThatOthersRelyOn) {
  const std::tuple<std::uint32_t, const char*, const char*> rows[] = {
      {0x8B0F0000, "SQLO_NOMEM", "No Memory Available"},
      {0x840F0001, "SQLO_ACCD", "Access Denied"},
      {0x870F0009, "SQLO_EOF", "the data does not exist"},
      {0x860F000A, "SQLO_FNEX", "File not found."},
      {0x800F00FC, "SQLO_INV_PARM", "Invalid input parameter"},
      {0x870F00B9, "SQLO_SEM_TIMEOUT", "Return code from sqlowait when time out value has been reached"},
      {0x8714006F, "SQLT_KRCBP_IS_NULL", "KRCB pointer is null"},
      {0x87140125, "SQLT_OSSE_LOG_FACILITY_FAILED", "Unable to set the default OSSe log facility"},
      {0x87140126, "SQLT_DIAGERR_LOGERR", "Error in logging the diag information"},
      {0x87140127, "SQLT_DIAGERR_DUMPERR", "Error in creating data dump"},
      {0x87140128, "SQLT_NOLOG", "No logging was required because of configuration parameter setting"},
      {0x87140129, "SQLT_OSSE_LOG_SET_LEVEL_FAILED", "Failed to set the OSSe log facility level"},
      {0x8714012A, "SQLT_VEK_INSTALL_LOG_FACILITY_FAILED", "Unable to set the default VEK Install log facility"},
      {0x8714012B, "SQLT_VEK_INSTALL_LOG_SET_LEVEL_FAILED", "Failed to set the VEK Install log facility level"},
  };
  for (const auto& [code, name, text] : rows) {
    const SqlzZrcEntry* entry = sqlzFindZrc(sqlzZrc(code));
    ASSERT_NE(entry, nullptr) << name;
    EXPECT_STREQ(entry->name, name);
    EXPECT_STREQ(entry->description, text);
  }
  // Values that other subsystems answer: fixed for good.
  std::istringstream fixed(
      "0016044A SQLRX_DFP_RANGE 0016044B SQLRX_DFP_INEXACT 0727017B SQLE_SAL_STRUCT_NO_WORKERS "
      "800F003B SQLO_PATH_TOO_LONG 800F005B SQLO_NLS_ENCODING_CLASS 80160008 SQLRX_DEC_OVERFLOW "
      "8016000E SQLRX_DEC_INVALID 80160017 SQLRX_TIME_FORMAT 80160018 SQLRX_TIME_VALUE 8016001F SQLRX_DATE_RANGE "
      "820F0002 SQLO_INV_MEM 820F0004 SQLO_MEM_SIZE 82160001 SQLRX_DFP_INVALID 850F0005 SQLO_NOSEG "
      "850F00C5 SQLO_NO_INS_MEM 8510000A SQLP_LOCK_MEMORY_EXHAUSTED 870F0035 SQLO_NOTAVAIL "
      "870F0091 SQLO_NODELIST_OPEN_FAILED 870F00BC SQLO_NLS_TARGET_FULL 870F00C0 SQLO_NLS_DBCS_CUT "
      "870F00FB SQLO_SLATCH_ERROR_HELDX_WITH_SHARED_HOLDERS 870F00FC SQLO_SLATCH_ERROR_HELDS_WITH_X_HOLDER "
      "870F00FD SQLO_SLATCH_ERROR_HELDS_WITH_SHARED_WAITER "
      "870F00FE SQLO_SLATCH_ERROR_HELDS_WITH_SHARED_WAITER_NO_XWAITER 870F0102 SQLO_ENV_NULL_NAME "
      "870F0103 SQLO_ENV_NO_MEMORY 870F0104 SQLO_ENV_VAR_NOT_SET 870F0108 SQLO_ENV_LEVEL_NOT_FOUND "
      "870F0112 SQLO_SLATCH_ERROR_HELD_WITH_X_RESERVATION 870F0113 SQLO_SLATCH_ERROR_STARVEX_AND_X_RESERVATION "
      "870F0114 SQLO_LATCH_ERROR_UNUSED_BITS_ARE_SET 870F0123 SQLO_SLATCH_ERROR_SEMPOOL_POINTER_CHANGED "
      "870F0124 SQLO_SLATCH_ERROR_SEMPOOL_POINTER_NULL 870F0182 SQLO_LATCH_ERROR_USED_WHILE_FREED "
      "900005CF SQLZ_RC_CIRCBUF_BAD_ARGUMENT 900005D0 SQLZ_RC_CIRCBUF_BAD_INDEX "
      "900005D1 SQLZ_RC_CIRCBUF_INSERT_FAILED 900005D2 SQLZ_RC_CIRCBUF_NOT_VALID");
  std::uint32_t code = 0;
  for (std::string name; fixed >> std::hex >> code >> name;) {
    ASSERT_NE(sqlzFindZrcByName(name.c_str()), nullptr) << name;
    EXPECT_EQ(sqlzFindZrcByName(name.c_str())->code, sqlzZrc(code)) << name;
  }
  EXPECT_STREQ(sqlzFindZrc(0)->name, "SQLZ_RC_OK");
  for (const char* alias : {"HA_ZRC_OK", "PSM_OK"}) {
    EXPECT_EQ(sqlzFindZrcByName(alias)->code, 0);
    EXPECT_STREQ(sqlzFindZrcByName(alias)->description, "Unknown");
  }
}

TEST(ZrcCatalogue, FindsWhateverCaseAndNothingElse) {
  EXPECT_EQ(sqlzFindZrcByName("sqlo_NoMem"), sqlzFindZrc(SQLO_NOMEM));
  for (const char* name : {"", "SQLO_NOME", "SQLO_NOMEMO", "SQLO NOMEM"}) EXPECT_EQ(sqlzFindZrcByName(name), nullptr);
  EXPECT_EQ(sqlzFindZrcByName(nullptr), nullptr);
  for (const std::uint32_t code : {0x8B140000U, 0xFFFFFFFFU, 0x80000000U, 0x0B0F0000U})
    EXPECT_EQ(sqlzFindZrc(sqlzZrc(code)), nullptr);
}

TEST(ZrcErrorTypes, HaveTheirTexts) {
  EXPECT_STREQ(sqlzErrorTypeText(0), "SQL Error, User Error,...");
  EXPECT_STREQ(sqlzErrorTypeText(21), "Cluster caching facility server lock manager errors and warning");
  EXPECT_STREQ(sqlzErrorTypeText(28), "Cluster caching facility server initilization errors and warnings");
  EXPECT_STREQ(sqlzErrorTypeText(34), "Cluster caching facility server suppressed errors and warnings");
  EXPECT_EQ(sqlzErrorTypeText(35), nullptr);
}

TEST_APART(ZrcMap, AnswersWhatEveryRowOfTheTableSays) {
  const std::vector<TableRow> rows = tableRows();
  ASSERT_EQ(rows.size(), SQLZ_ZRC_MAP_COUNT);
  for (const TableRow& row : rows) {
    if (row.code == 0) continue;
    EXPECT_EQ(mappedOf(row.code), row.mapped) << row.name;
    EXPECT_EQ(sqlt_mapzrc(row.code), std::get<2>(row.mapped)) << row.name;
  }
}

TEST_APART(ZrcMap, AnswersTheTellingEntries) {
  const std::pair<std::uint32_t, Mapped> rows[] = {
      {0x80000000, {-902, 1, 1}},      {0x80000001, {100, 0, 8000}},  {0x80000002, {-911, 1, 8002}},
      {0x80000003, {-952, 0, 8003}},   {0x800F0003, {-952, 0, 8003}},  // the component takes no part
      {0x8B000000, {-10003, 0, 8300}}, {0x8C000000, {-1141, 1, 1}},   {0x83000000, {-902, 1, 1}},
      {0x83FFFFFF, {-902, 1, 1}},      {0x83120005, {-902, 1, 1}},  // every type-3 code has the one entry
  };
  for (const auto& [code, mapped] : rows) EXPECT_EQ(mappedOf(sqlzZrc(code)), mapped) << std::hex << code;
  for (std::uint32_t number = 0; number < 128; ++number)
    EXPECT_EQ(std::get<0>(mappedOf(codeOf(6, 0x0F, number))), -980);
  const std::uint32_t transportCounts[] = {52, 24, 49, 17};
  for (std::uint32_t type = 23; type <= 26; ++type)
    for (std::uint32_t number = 0; number < transportCounts[type - 23]; ++number) {
      const auto [sqlcode, tokenKind, mappedCode] = mappedOf(codeOf(type, 0xC9, number));
      EXPECT_TRUE(sqlcode == -2051 && tokenKind == 3) << number;
    }
}

TEST_APART(ZrcMap, EndsWhereEachTypeEnds) {
  const std::uint32_t counts[SQLZ_ZRC_TYPE_COUNT] = {
      3052,  151,   616,   1, 154,  212, 128, 502, 117, 183, 1, 99, 20, 30, 65536, 7428, 307, 41228,
      41478, 34819, 52746, 1, 5136, 52,  24,  49,  17,  52,  6, 1,  1,  1,  1,     344,  314};
  for (std::uint32_t type = 0; type < SQLZ_ZRC_TYPE_COUNT; ++type) {
    if (type == SQLZ_ZRC_TYPE_OS_ERROR) continue;
    EXPECT_NE(mappedOf(codeOf(type, 0, 0)), kNoEntry) << type;
    if (counts[type] > 0xFFFF) continue;
    EXPECT_EQ(mappedOf(codeOf(type, 0, counts[type])), kNoEntry) << type;
    EXPECT_EQ(mappedOf(codeOf(type, 0, 0xFFFF)), kNoEntry) << type;
  }
  for (std::uint32_t type = SQLZ_ZRC_TYPE_COUNT; type < 128; ++type) EXPECT_EQ(mappedOf(codeOf(type, 0, 0)), kNoEntry);
  for (std::uint32_t type = 0; type < 128; ++type)
    for (const std::uint32_t number : {0U, 1U, 3U, 0xFFFFU})
      EXPECT_EQ(mappedOf(codeOf(type, SQLZ_COMPONENT_SQLNN, number)), kNoEntry) << "the compiler's own, type " << type;
  for (const std::uint32_t code : {0x900005CFU, 0x900005D0U, 0x900005D1U, 0x900005D2U, 0xFFFFFFFFU})
    EXPECT_EQ(mappedOf(sqlzZrc(code)), kNoEntry) << std::hex << code;
}

TEST_APART(ZrcMap, TellsTypeAndReason) {
  // The last two: "lock list full" of the list itself, and the same entry under another component.
  const std::tuple<std::uint32_t, std::uint32_t, std::uint32_t> rows[] = {
      {0x8B0F0000, 0x0B000000, 0},        {0x800F00FC, 0, 0xFC},
      {0x83120005, 0x03000000, 0x120005}, {0x07310005, 0x07000000, 5},
      {0xFF12ABCD, 0x7F000000, 0xABCD},   {0x8510000A, 0x05000000, 1},
      {0x850F000A, 0x05000000, 2},
  };
  const auto told = [](SqlzZrc code) {
    std::pair<std::uint32_t, std::uint32_t> typeAndReason;
    sqlzGetZRCInfo(code, &typeAndReason.first, &typeAndReason.second, nullptr, nullptr);
    return typeAndReason;
  };
  for (const auto& [code, type, reason] : rows)
    EXPECT_EQ(told(sqlzZrc(code)), std::pair(type, reason)) << std::hex << code;
  for (const TableRow& row : tableRows()) {
    if (std::get<0>(row.mapped) != -912 || row.code == sqlzZrc(0x8510000A)) continue;
    EXPECT_EQ(told(row.code).second, 2U) << row.name;
  }
  EXPECT_EQ(sqlzGetZRCInfo(sqlzZrc(0x80000002), nullptr, nullptr, nullptr, nullptr), -911);
}

TEST_APART(ErrorCategory, ComparesWithStandardConditions) {
  const std::error_code noMemory = SqlzErrc(SQLO_NOMEM);
  EXPECT_EQ(noMemory, std::errc::not_enough_memory);
  EXPECT_NE(noMemory, std::errc::permission_denied);
  EXPECT_EQ(noMemory.message(), "No Memory Available");
  EXPECT_STREQ(noMemory.category().name(), "veksys");
  EXPECT_EQ(std::error_code(SqlzErrc(sqloMapUnexpectedFileSystemErrorToZRC(EIO))), std::errc::io_error);
  EXPECT_EQ(std::error_code(SqlzErrc(sqlzZrc(0xFFFFFFFF))).message(), "ZRC=0xFFFFFFFF=-1");
  EXPECT_FALSE(std::error_code(SqlzErrc(0)));
  for (int error = 1; error < 134; ++error) {
    const std::error_condition condition(error, std::generic_category());
    EXPECT_EQ(std::error_code(SqlzErrc(sqloMapUnexpectedFileSystemErrorToZRC(error))), condition);
    EXPECT_EQ(std::error_code(SqlzErrc(sqloMapTcpIpErrorToZRC(error))), condition);
  }
}

}  // namespace
