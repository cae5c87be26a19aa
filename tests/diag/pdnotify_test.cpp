// The administration notification log: entries, levels, tokens, the system log, and what happens when it fails.
#include "diag/base/pdnotify.h"

#include <sys/socket.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <regex>

#include "diag/base/pddiagpath.h"
#include "platform/ports.h"
#include "platform/support.h"
#include "veksys/codes.h"
#include "veksys/diag/sqlca.h"

using namespace vek;
using namespace vek::platformtest;

namespace {

constexpr EcfFunctionId kFunction = ecfFunctionId(0x0F, 1);

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  for (std::size_t at = 0, end = 0; at < text.size(); at = end + 2) {
    end = std::min(text.find("\r\n", at), text.size());
    lines.push_back(text.substr(at, end - at));
  }
  return lines;
}

class NotifyLog : public ::testing::Test {
 protected:
  void SetUp() override {
    ::setenv("VEK_MESSAGE_DIR", std::filesystem::path(VEKSYS_TEST_MESSAGES).parent_path().c_str(), 1);
    ::unsetenv("VEK_EVENT_LOG_CONFIG");
  }
  static std::string file() { return std::string(::getenv("VEK_INSTANCE_DIR")) + "/diag/platformtest.nfy"; }
  static std::string entries() { return contentOf(file()); }
};

constexpr char kHead[] = R"(\d{4}-\d\d-\d\d-\d\d\.\d\d\.\d\d\.\d{6}[+-]\d{3} Error    platformtest/000 )"
                         R"(\S+\[\d+\.\d+\])";

bool isHead(const std::string& line) { return std::regex_match(line, std::regex(kHead)); }

// ---- entries ----------------------------------------------------------------------------------------------------

TEST_F(NotifyLog, TokensStandInTheirPlacesInTheMessage) {
  const Instance instance;
  const struct {
    std::int32_t sqlcode;
    std::vector<const char*> tokens;
    std::string lines;
  } cases[] = {
      {-104,
       {"SELEC", "FROM", "SELECT"},
       "    SQL0104N  The token SELEC is not expected after FROM. Tokens that could stand here include: SELECT.\r\n"},
      {-107, {"NAME"}, "    SQL0107N  The name NAME is too long. The maximum length is <length>.\r\n"},
      {-29,
       {"a", nullptr, "b\r\nc"},
       "    SQL0029N  An INTO clause is required for this statement.\r\n    Tokens: a, , b  c\r\n"},
      {-31999, {"x"}, "    SQL code -31999\r\n    Tokens: x\r\n"},
  };
  for (const auto& each : cases)
    inProcess([&] {
      SCOPED_TRACE(each.sqlcode);
      std::filesystem::remove(file());
      EXPECT_EQ(sqlt_logadmin(kFunction, 20, 1, each.sqlcode, static_cast<std::uint32_t>(each.tokens.size()),
                              each.tokens.data()),
                0);
      const std::string text = entries();
      const std::size_t behindHead = text.find("\r\n");
      EXPECT_TRUE(isHead(text.substr(0, behindHead))) << text;
      EXPECT_EQ(text.substr(behindHead),
                "\r\n    Reported by operating-system services, regionAttach, probe 20\r\n" + each.lines + "\r\n");
    });
}

TEST_APART_F(NotifyLog, ACommunicationsAreaIsWrittenWithTheTokensItHolds) {
  sqlca area;
  sqlzInitSqlca(&area);
  EXPECT_EQ(sqlt_logadmin_api(kFunction, 20, 1, &area), SQLT_NOLOG);
  for (const sqlca* none : {static_cast<const sqlca*>(nullptr), reinterpret_cast<const sqlca*>(8)})
    EXPECT_EQ(sqlt_logadmin_api(kFunction, 20, 1, none), SQLO_INV_PARM);
  area.sqlcode = -107;
  std::memcpy(area.sqlerrmc,
              "T\xFF"
              "18xxxx",
              8);
  area.sqlerrml = 4;
  EXPECT_EQ(sqlt_logadmin_api(kFunction, 20, 1, &area), 0);
  std::memset(area.sqlerrmc, 'z', sizeof area.sqlerrmc);
  area.sqlerrml = 32000;  // damaged: the area has 70 bytes
  EXPECT_EQ(sqlt_logadmin_api(kFunction, 20, 1, &area), 0);
  const std::string text = entries();
  EXPECT_NE(text.find("The name T is too long. The maximum length is 18."), std::string::npos);
  EXPECT_NE(text.find("The name " + std::string(70, 'z') + " is too long."), std::string::npos);
}

TEST_APART_F(NotifyLog, TheInstancesLevelDecides) {
  VekInstanceControl& control = installControl();
  std::size_t written = 0;
  for (std::int32_t instanceLevel = 0; instanceLevel <= 4; ++instanceLevel)
    for (std::uint32_t level = 0; level <= 5; ++level) {
      SCOPED_TRACE(testing::Message() << level << " at " << instanceLevel);
      control.NOTIFYLEVEL = instanceLevel;
      const bool isKnown = level >= 1 && level <= 4;
      const bool passes = isKnown && static_cast<std::int32_t>(level) <= instanceLevel;
      EXPECT_EQ(sqltTestNotifyLevel(pdLogNotify(level)), static_cast<std::int32_t>(level) <= instanceLevel);
      EXPECT_EQ(sqlt_logadmin(kFunction, 1, level, -104, 0, nullptr), passes    ? 0
                                                                      : isKnown ? SQLT_NOLOG
                                                                                : SQLT_NOTIFY_LEVEL_RANGE);
      written += passes ? 1 : 0;
    }
  const std::vector<std::string> lines = linesOf(entries());
  EXPECT_EQ(static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), isHead)), written);
}

// Whatever a text holds, no line of it can be taken for the beginning of another entry, and a long one is cut visibly.
TEST_APART_F(NotifyLog, NoTextForgesAnEntry) {
  const std::string forged = "2026-01-01-00.00.00.000000+000 Error    platformtest/000 x[1.1]";
  const std::string text = "first\r\n" + forged + "\n\r" + forged + "\v\x7F\x1B[31m\n\n" + std::string(20000, 'y');
  EXPECT_EQ(pdi_writeNotification({PD_LEVEL_ERROR, kFunction, 1, text.c_str()}), 0);
  EXPECT_EQ(pdi_writeNotification({PD_LEVEL_ERROR, kFunction, 1, "second"}), 0);
  std::size_t heads = 0;
  bool afterEmpty = true;
  for (const std::string& line : linesOf(entries())) {
    EXPECT_TRUE(std::none_of(line.begin(), line.end(), [](char c) { return c < ' '; })) << line;
    if (isHead(line)) ++heads;
    EXPECT_TRUE(line.empty() || isHead(line) == afterEmpty) << line;
    EXPECT_TRUE(line.empty() || isHead(line) || line.starts_with("    ")) << line;
    afterEmpty = line.empty();
  }
  EXPECT_EQ(heads, 2U);
  EXPECT_NE(entries().find("y...(cut)\r\n\r\n2"), std::string::npos);
}

// ---- with a record of the log -----------------------------------------------------------------------------------

TEST_APART_F(NotifyLog, ARecordThatCarriesALevelStandsInBothLogs) {
  const std::uint32_t pages = 77;
  const std::uint64_t flags = PD_LOG_RC_ZRC | pdLogNotify(3);
  EXPECT_EQ(pdLog(flags, kFunction, SQLO_NOMEM, 5, PD_LEVEL_ERROR, 3, PD_TYPE_STRING, 9, "no memory", PD_TYPE_UINT, 4,
                  &pages, PD_TYPE_STRUCTURES + 9, 4, &pages),
            0);
  EXPECT_EQ(pdLog(PD_LOG_RC_ZRC | pdLogNotify(4), kFunction, SQLO_NOMEM, 6, PD_LEVEL_ERROR, 0), 0);
  EXPECT_EQ(pdLogPrintf(pdLogNotify(1), kFunction, 0, 7, PD_LEVEL_ERROR, "%d of %s", 7, "eight"), 0);
  const std::vector<std::string> lines = linesOf(entries());
  ASSERT_EQ(lines.size(), 11U) << entries();
  EXPECT_EQ(lines[9], "    7 of eight");
  EXPECT_EQ(lines[2], "    ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\"");
  EXPECT_EQ(lines[3], "    no memory");
  EXPECT_EQ(lines[4], "    unsigned integer: 77");
  EXPECT_EQ(lines[5].find("    "), 0U) << "bytes of a structure without a formatter";
  const std::string log = contentOf(instance.directory() + "/instance/diag/vekdiag.log");
  EXPECT_NE(log.find("no memory"), std::string::npos);
  EXPECT_NE(log.find("probe:6"), std::string::npos);
}

// ---- the system log ---------------------------------------------------------------------------------------------

std::string t_sent;
int t_sendError = 0;

void catchSystemLog() {
  ossCalls().sendto = [](int, const void* bytes, std::size_t count, int, const sockaddr*, unsigned) {
    t_sent.assign(static_cast<const char*>(bytes), count);
    errno = t_sendError;
    return t_sendError == 0 ? static_cast<ssize_t>(count) : -1;
  };
}

TEST_APART_F(NotifyLog, GoesToTheSystemLogOnOneLineWhenAsked) {
  catchSystemLog();
  const char* tokens[] = {"T", "18"};
  EXPECT_EQ(sqlt_logadmin(kFunction, 2, 1, -107, 2, tokens), 0);
  EXPECT_EQ(t_sent, "") << "nobody asked";
  ::setenv("VEK_EVENT_LOG_CONFIG", "SYSLOG:LOCAL3", 1);
  EXPECT_EQ(sqlt_logadmin(kFunction, 2, 1, -107, 2, tokens), 0);
  EXPECT_TRUE(std::regex_match(
      t_sent, std::regex(R"(<155>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123]\d \d\d:\d\d:\d\d )"
                         R"(veksys\[\d+\]: platformtest: Reported by operating-system services, regionAttach, )"
                         R"(probe 2; SQL0107N  The name T is too long\. The maximum length is 18\.)")))
      << t_sent;
  EXPECT_EQ(linesOf(entries()).size(), 8U) << "the file has both";
}

TEST(NotifySystemLog, PriorityComesFromSettingAndLevel) {
  const std::tuple<const char*, std::uint32_t, int, bool> cases[] = {
      {"SYSLOG", PD_LEVEL_SEVERE, 10, true},
      {"SYSLOG:DAEMON", PD_LEVEL_ERROR, 27, true},
      {"SYSLOG:LOCAL0", PD_LEVEL_WARNING, 132, true},
      {"SYSLOG:LOCAL7", PD_LEVEL_INFO, 190, true},
      {"SYSLOG:USER", PD_LEVEL_CRITICAL, 9, true},
      {"SYSLOG", PD_LEVEL_EVENT, 13, true},
      {"SYSLOG", 4711, 13, true},
      {"", PD_LEVEL_ERROR, -1, true},
      {"SYSLOG:", PD_LEVEL_ERROR, -1, false},
      {"SYSLOG:KERN", PD_LEVEL_ERROR, -1, false},
      {"SYSLOGUSER", PD_LEVEL_ERROR, -1, false},
      {"ON", PD_LEVEL_ERROR, -1, false},
  };
  for (const auto& [setting, level, priority, expected] : cases) {
    bool isUnderstood = !expected;
    EXPECT_EQ(pdi_systemLogPriority(setting, level, &isUnderstood), priority) << setting;
    EXPECT_EQ(isUnderstood, expected) << setting;
  }
}

// ---- failures ---------------------------------------------------------------------------------------------------

TEST_APART_F(NotifyLog, ACallBackThatFaultsCostsItsFieldsOnly) {
  installHost([](VekHost& host) {
    host.application = [](void*, VekApplication* out) {
      std::strcpy(out->databaseName, "SAMPLE");
      static volatile std::uintptr_t nowhere = 4096;  // not null, which a sanitizer would tell before the fault
      *std::bit_cast<int*>(std::uintptr_t{nowhere}) = 1;
      return true;
    };
  });
  catchSystemLog();
  t_sendError = ENOENT;
  ::setenv("VEK_EVENT_LOG_CONFIG", "SYSLOG", 1);
  errno = EDOM;
  EXPECT_EQ(sqlt_logadmin(kFunction, 1, 1, -104, 0, nullptr), 0);
  EXPECT_EQ(pdLog(pdLogNotify(1), kFunction, 0, 1, PD_LEVEL_ERROR, 0), 0);
  EXPECT_NE(pdDiagpathVerify("/nonexistent"), 0);
  EXPECT_NE(pdMkdirInternal("/proc/none"), 0);
  EXPECT_EQ(errno, EDOM) << "no call changes errno";
  const std::vector<std::string> lines = linesOf(entries());
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(), isHead), 2) << entries();
}

TEST_F(NotifyLog, FailuresAreReportedOncePerStreak) {
  const Instance instance;
  static std::vector<std::string> reported;
  inProcess([&] {
    g_ports.reportEvent = [](const PortEvent& event) { reported.emplace_back(event.message); };
    const auto writeTwice = [](SqlzZrc expected, const std::string& report) {
      reported.clear();
      for (int i = 0; i < 2; ++i) EXPECT_EQ(sqlt_logadmin(kFunction, 1, 1, -104, 0, nullptr), expected);
      EXPECT_EQ(reported, report.empty() ? std::vector<std::string>{} : std::vector{report});
    };
    catchSystemLog();
    ::setenv("VEK_EVENT_LOG_CONFIG", "SYSLOG:KERN", 1);
    writeTwice(0,
               "VEK_EVENT_LOG_CONFIG=SYSLOG:KERN is not understood; accepted are SYSLOG and SYSLOG:<facility>, with "
               "USER, DAEMON or LOCAL0 to LOCAL7");
    ::setenv("VEK_EVENT_LOG_CONFIG", "SYSLOG", 1);
    t_sendError = ECONNREFUSED;
    writeTwice(0, "The system log at /dev/log cannot be reached, error 111");
    ::unsetenv("VEK_EVENT_LOG_CONFIG");
    for (int streak = 0; streak < 2; ++streak) {
      std::filesystem::remove(file());
      ASSERT_TRUE(std::filesystem::create_directory(file()));  // in its place
      writeTwice(SQLT_DIAGERR_LOGERR, "The administration notification log " + file() + " cannot be written");
      std::filesystem::remove(file());
      writeTwice(0, "");
    }
    ASSERT_TRUE(std::filesystem::remove(file()) && std::filesystem::create_directory(file()));
  });
  inProcess([&] {  // met inside of a log call, said behind it, and once on standard error
    const std::string said = instance.path("stderr");
    ::dup2(::open(said.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 2);
    const auto log = [] { return pdLog(pdLogNotify(1), kFunction, 0, 1, PD_LEVEL_ERROR, 0); };
    EXPECT_EQ(log(), 0);
    EXPECT_EQ(log(), 0);
    const std::string text = contentOf(instance.directory() + "/instance/diag/vekdiag.log");
    const std::size_t at = text.find("notification log " + file() + " cannot be written");
    EXPECT_NE(at, std::string::npos);
    EXPECT_EQ(text.find("cannot be written", at + 100), std::string::npos);
    EXPECT_TRUE(std::regex_match(contentOf(said),
                                 std::regex("Open of log file \"" + file() + "\" failed with rc 0x[0-9A-F]{8}\n")))
        << contentOf(said);
  });
}

}  // namespace
