// The printable description of a return code.

#include <cstring>

#include "diag/base/sqlmsg.h"
#include "platform/support.h"
#include "veksys/diag/rc.h"

namespace {

std::string description(SqlzZrc zrc) {
  char buffer[2048];
  char* end = pdZRCGetDescription(zrc, buffer, sizeof buffer);
  EXPECT_EQ(*end, '\0');
  return {buffer, end};
}

class Description : public ::testing::Test {
 protected:
  void SetUp() override { useMessages(std::filesystem::path(VEKSYS_TEST_MESSAGES).parent_path()); }
  void TearDown() override {
    pdSetWideMessages(false);
    SetUp();
  }

  static void useMessages(const std::filesystem::path& directory) {
    ::setenv("VEK_MESSAGE_DIR", directory.c_str(), 1);
    vek::sqlzi_forgetMessages();
  }
};

// Every entry stands on one line exactly when name, text, blank and quotes fit the width.
TEST_APART_F(Description, WrapsAtTheWidthInForce) {
  for (const bool wide : {false, true}) {
    pdSetWideMessages(wide);
    EXPECT_EQ(pdWideMessages(), wide);
    const std::size_t width = wide ? 80 : 70;
    std::size_t wrapped = 0;
    for (std::size_t i = 0; i < SQLZ_ZRC_MAP_COUNT; ++i) {
      const SqlzZrcEntry& entry = sqlzGetZrcMap()[i];
      if (entry.code == 0) continue;
      char head[128];
      const auto code = static_cast<unsigned>(entry.code);
      const auto length =
          static_cast<unsigned>(std::snprintf(head, sizeof head, "ZRC=0x%08X=%d=%s", code, entry.code, entry.name));
      const bool fits = length + std::strlen(entry.description) + 3 <= width;
      wrapped += fits ? 0 : 1;
      EXPECT_EQ(description(entry.code),
                head + std::string(fits ? " \"" : "\r\n          \"") + entry.description + "\"\r\n");
    }
    EXPECT_GT(wrapped, 0U);
    EXPECT_LT(wrapped, SQLZ_ZRC_MAP_COUNT);
  }
}

TEST_APART_F(Description, OfCodesOfEveryKind) {
  const std::string noRow = sqlzFindZrc(sqlzZrc(0x80000001))->description;
  const std::pair<std::uint32_t, std::string> cases[] = {
      {0, "ZRC=0x00000000=0=SQLZ_RC_OK \"The operation completed successfully\"\r\n"},
      {0x800F0001,  // known without its component
       "ZRC=0x800F0001=-2146500607=SQLZ_RC_NO_ROW, SQLT_SQLO\r\n          \"" + noRow + "\"\r\n"},
      {0x80FE0003,  // no component has the number FE
       "ZRC=0x80FE0003=-2130837501=SQLZ_RC_INTERRUPTED\r\n"
       "          \"Request was interrupted by the application\"\r\n"},
      {0xFFFFFFFF, "ZRC=0xFFFFFFFF=-1\r\n"},
      {0xFFFFD8E9, "ZRC=0xFFFFD8E9=-10007\r\n          \r\n"},  // the message that says: none found
      {0x80000000, "ZRC=0x80000000=-2147483648\r\n          \r\n"},
      {0x7FFFFFFF, "ZRC=0x7FFFFFFF=2147483647\r\n          \r\n"},
      {0xFFFFFC7A,  // that of an SQL code is its message
       "ZRC=0xFFFFFC7A=-902\r\n"
       "          SQL0902N  A system error occurred. Later SQL statements\r\n"
       "          cannot be processed. Internal return code: <zrc>.\r\n"},
  };
  for (const auto& [zrc, text] : cases) EXPECT_EQ(description(sqlzZrc(zrc)), text);
  pdSetWideMessages(true);
  EXPECT_EQ(description(-902),
            "ZRC=0xFFFFFC7A=-902\r\n"
            "          SQL0902N  A system error occurred. Later SQL statements cannot be\r\n"
            "          processed. Internal return code: <zrc>.\r\n");
  EXPECT_EQ(description(-100).substr(0, 40), "ZRC=0xFFFFFF9C=-100\r\n          SQL0100W ");
}

TEST_APART_F(Description, WithoutMessages) {
  const auto directory = std::filesystem::path(::testing::TempDir()) / "veksys-no-messages";
  std::filesystem::create_directories(directory);
  const std::string expected = "ZRC=0xFFFFFC7A=-902\r\n          \r\n";
  const std::vector<std::string> damaged = {"", "no message object", std::string(28, '\0'),
                                            std::string("\xDE\x12\x04\x95", 4) + std::string(40, '\xFF')};
  useMessages(directory / "absent");
  EXPECT_EQ(description(-902), expected);
  for (const std::string& content : damaged) {
    std::ofstream(directory / "veksql.mo", std::ios::binary) << content;
    useMessages(directory);
    EXPECT_EQ(description(-902), expected);
  }
  std::filesystem::remove(directory / "veksql.mo");
  std::filesystem::create_directory(directory / "veksql.mo");
  useMessages(directory);
  EXPECT_EQ(description(-902), expected);
  std::filesystem::remove_all(directory);
}

TEST_APART_F(Description, NeverPassesItsBuffer) {
  for (const SqlzZrc zrc : {SQLO_NOMEM, SQLO_SEM_TIMEOUT, sqlzZrc(0x80140001), -1, -902, -77777}) {
    const std::string whole = description(zrc);
    for (std::size_t size = 0; size <= whole.size() + 2; ++size) {
      std::string wanted = size == 0 ? "" : whole.substr(0, size - 1) + '\0';
      const std::size_t length = size == 0 ? 0 : wanted.size() - 1;
      wanted.resize(size + 8, '#');
      std::string buffer(size + 8, '#');
      ASSERT_EQ(pdZRCGetDescription(zrc, buffer.data(), size), buffer.data() + length) << size;
      ASSERT_EQ(buffer, wanted);
    }
  }
  EXPECT_EQ(pdZRCGetDescription(SQLO_NOMEM, nullptr, 100), nullptr);
}

}  // namespace
