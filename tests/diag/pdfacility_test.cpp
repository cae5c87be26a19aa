// Secondary logs by name, the older interface, messages of the OS-services layer, and the optional header fields.

#include <cstring>
#include <set>

#include "diag/base/pdlog.h"
#include "pdlog_support.h"
#include "platform/library_mutex.h"
#include "veksys/codes.h"

namespace vek::logtest {
namespace {

std::string log(const char* name = "vekdiag") {
  return contentOf(std::string(::getenv("VEK_INSTANCE_DIR")) + "/diag/" + name + ".log");
}

SqlzZrc write(std::uint32_t facility, std::uint32_t level, const char* text) {
  return pdLogPrintf(static_cast<std::uint64_t>(facility) << PD_LOG_FACILITY_SHIFT, kFunction, 0, 1, level, "%s", text);
}

TEST_APART(FacilityLogs, EachHasItsFileAndItsLevel) {
  std::uint32_t audit = 0;
  std::uint32_t again = 0;
  std::uint32_t fast = 0;
  ASSERT_EQ(pdLogFacOpen("audit", PD_LEVEL_WARNING, &audit), 0);
  ASSERT_EQ(pdLogFacOpen("fast.path", PD_LEVEL_EVENT, &fast), 0);
  ASSERT_EQ(pdLogFacOpen("audit", PD_LEVEL_EVENT, &again), 0);
  EXPECT_EQ(again, audit);
  EXPECT_NE(fast, audit);
  EXPECT_EQ(write(audit, PD_LEVEL_ERROR, "one"), 0);
  EXPECT_EQ(write(audit, PD_LEVEL_INFO, "two"), SQLT_NOLOG) << "opening again leaves the level";
  EXPECT_EQ(write(fast, PD_LEVEL_INFO, "three"), 0);
  EXPECT_EQ(pdLogFacSetLevel(audit, PD_LEVEL_INFO), 0);
  EXPECT_EQ(write(audit, PD_LEVEL_INFO, "four"), 0);
  EXPECT_TRUE(holds(log("audit"), "one") && !holds(log("audit"), "two") && holds(log("audit"), "four"));
  EXPECT_TRUE(holds(log("fast.path"), "three") && !holds(log("fast.path"), "one"));
  for (const char* text : {"one", "two", "three", "four"}) EXPECT_FALSE(holds(log(), text)) << text;

  EXPECT_EQ(pdLogFacClose(audit), 0);
  EXPECT_EQ(write(audit, PD_LEVEL_ERROR, "five"), SQLT_DIAGERR_LOGERR);
  EXPECT_EQ(pdLogFacClose(audit), SQLO_INV_PARM);
  EXPECT_EQ(pdLogFacSetLevel(audit, 1), SQLO_INV_PARM);
  EXPECT_EQ(write(audit + fast + 1, PD_LEVEL_ERROR, "six"), SQLT_DIAGERR_LOGERR) << "never opened";
  ASSERT_EQ(pdLogFacOpen("audit", PD_LEVEL_EVENT, &again), 0);
  EXPECT_EQ(again, audit) << "a name keeps its number";
  pdCloseOpenedFacility();
  for (const std::uint32_t each : {audit, fast}) EXPECT_EQ(pdLogFacClose(each), SQLO_INV_PARM);
}

// Its file finds no other place; nobody has asked for the alternate directory, so nobody hears that there is none.
TEST_APART(FacilityLogs, OneThatCannotBeWrittenLosesItsOwnRecords) {
  std::uint32_t lost = 0;
  ASSERT_EQ(pdLogFacOpen("lost", PD_LEVEL_EVENT, &lost), 0);
  ASSERT_TRUE(std::filesystem::create_directories(instance.directory() + "/instance/diag/lost.log"));
  EXPECT_EQ(write(lost, PD_LEVEL_ERROR, "nowhere"), SQLT_DIAGERR_LOGERR);
  EXPECT_EQ(logText("goes on"), 0);
  EXPECT_TRUE(holds(log(), "goes on") && !holds(log(), "ALT_DIAGPATH")) << log();
}

TEST_APART(FacilityLogs, NamesThatLeadElsewhereAreRefused) {
  std::uint32_t facility = 0;
  const std::string longest(64, 'x');
  const std::string tooLong = longest + "x";
  for (const char* name : {"", ".hidden", "../up", "a/b", "a b", "a\n", "vekdiag", "vekdiag.0", tooLong.c_str(),
                           static_cast<const char*>(nullptr)})
    EXPECT_EQ(pdLogFacOpen(name, 1, &facility), SQLO_INV_PARM) << (name == nullptr ? "null" : name);
  EXPECT_EQ(pdLogFacOpen("a", 1, nullptr), SQLO_INV_PARM);
  EXPECT_EQ(facility, 0U);
  for (const char* name : {longest.c_str(), "vekdiag2", "A-b_9.c"})
    EXPECT_EQ(pdLogFacOpen(name, 1, &facility), 0) << name;
}

// Also where there was no memory for a name at first.
TEST_APART(FacilityLogs, ThreadsThatOpenAtOnceAgreeOnTheNumbers) {
  constexpr std::uint32_t kThreads = 8;
  constexpr std::uint32_t kNames = 40;
  std::uint32_t numbers[kThreads][kNames] = {};
  EXPECT_EQ(pdLogFacOpen("first", 1, &numbers[0][0]), 0);  // the first traced call maps the trace words
  makeFail<&OssCalls::mmap>(0, ENOMEM);
  EXPECT_EQ(pdLogFacOpen("name0", 1, &numbers[0][0]), SQLT_DIAGERR_LOGERR);
  std::atomic<std::uint32_t> ready = 0;
  inThreads(kThreads, [&](unsigned thread) {
    ++ready;
    while (ready < kThreads) std::this_thread::yield();
    for (std::uint32_t name = 0; name < kNames; ++name)
      EXPECT_EQ(pdLogFacOpen(("name" + std::to_string(name)).c_str(), 1, &numbers[thread][name]), 0);
  });
  const std::set<std::uint32_t> different(numbers[0], numbers[0] + kNames);
  EXPECT_EQ(different.size(), kNames);
  for (const auto& each : numbers) EXPECT_EQ(std::memcmp(each, numbers[0], sizeof each), 0);
}

TEST_APART(OlderInterface, EachCallWritesOneRecord) {
  const char bytes[] = "ABCD";
  const struct {
    SqlzZrc result;
    std::vector<std::string> parts;
  } cases[] = {
      {sqlt_logerr_zrc(kFunction, 11, PD_LEVEL_ERROR, SQLO_NOMEM), {"RETCODE : ZRC=0x8B0F0000", "probe:11"}},
      {sqlt_logerr_string(kFunction, 12, PD_LEVEL_ERROR, "words"), {"MESSAGE : words", "probe:12"}},
      {sqlt_logerr_string(kFunction, 13, PD_LEVEL_ERROR, nullptr), {"probe:13"}},
      {sqlt_logerr_data(kFunction, 14, PD_LEVEL_ERROR, 4, bytes), {"DATA #1 : Hexdump, 4 bytes", "4142 4344"}},
      {sqlt_logerr_data(kFunction, 15, PD_LEVEL_ERROR, 4, nullptr), {"DATA #1 : Hexdump, 4 bytes"}},
      {sqlt_logerr_dump(kFunction, 16, PD_LEVEL_ERROR, "object", 4, bytes),
       {"Dumped object of size 4 bytes at offset"}},
      {sqlt_logerr_snmp(kFunction, 17, PD_LEVEL_ERROR, 4711, "disk"), {"ALERT   : disk", "unsigned integer", "4711"}},
      {sqlt_logerr(kFunction, 18, PD_LEVEL_ERROR, SQLO_NOMEM, "all", 4, bytes),
       {"MESSAGE : all", "RETCODE : ZRC=0x8B0F0000", "4142 4344"}},
      {sqlt_logerr(kFunction, 19, PD_LEVEL_ERROR, 0, nullptr, 0, nullptr), {"probe:19"}},
  };
  const std::vector<std::string> records = Log{instance}.records();
  ASSERT_EQ(records.size(), 1 + std::size(cases)) << "one each, behind the one that begins the file";
  for (std::size_t i = 0; i < std::size(cases); ++i) {
    EXPECT_EQ(cases[i].result, 0);
    for (const std::string& part : cases[i].parts) EXPECT_TRUE(holds(records[i + 1], part)) << part << records[i + 1];
  }
}

TEST(OSSeMessages, WhatNobodyIsToldOfBecomesARecord) {
  const Instance instance;
  inProcess([&] {
    static bool isFailing = false;
    ossCalls().close = [](int fd) {  // fails once: the log closes files itself
      const int result = ::close(fd);
      return std::exchange(isFailing, false) ? (errno = EIO, -1) : result;
    };
    auto recordsOfBadClose = [&, seen = std::size_t{0}]() mutable {
      isFailing = true;
      ossClose(::dup(0));
      const std::string all = log();
      return all.substr(std::exchange(seen, all.size()));
    };
    EXPECT_EQ(recordsOfBadClose(), "") << "no hook yet";
    EXPECT_EQ(sqltSyncOSSeLogFacility(), 0);
    EXPECT_EQ(sqltSyncOSSeLogFacility(), 0);
    const std::string record = recordsOfBadClose();
    EXPECT_TRUE(holds(record, "A file could not be closed") && holds(record, "EIO (5)")) << record;
    EXPECT_EQ(sqltSetOSSeLogLevel(PD_LEVEL_SEVERE), 0);
    EXPECT_EQ(recordsOfBadClose(), "");
    EXPECT_EQ(sqltSetOSSeLogLevel(7), SQLT_OSSE_LOG_SET_LEVEL_FAILED);
    EXPECT_EQ(sqltSetOSSeLogLevel(PD_LEVEL_EVENT), 0);
    {
      const LockDepth inside;
      EXPECT_EQ(recordsOfBadClose(), "") << "not from inside a lock";
    }
    EXPECT_TRUE(holds(recordsOfBadClose(), "1 messages were held back because they came from inside a lock"));
  });
  inProcess([] {
    ASSERT_EQ(ossSetLogHook([](const PdOSSeMessage*) noexcept {}), 0);
    EXPECT_EQ(sqltSyncOSSeLogFacility(), SQLT_OSSE_LOG_FACILITY_FAILED) << "another hook is there";
  });
}

// What is known now, as one text.
std::string fieldsNow() {
  VekApplication fields = {};
  VekEngineUnit unit = {};
  std::ostringstream text;
  if (pdi_applicationFields(&fields))
    text << (fields.hasHandle ? fields.handleIndex : -1) << " '" << fields.applicationId << "' '" << fields.databaseName
         << "' " << fields.unitOfWorkId << " " << fields.activityId << " " << fields.tenantId;
  if (pdi_engineUnit(&unit)) text << " of unit " << unit.number;
  return text.str();
}

TEST_APART(HeaderFields, CallBacksComeBeforeTheHostAndTheMaskBeforeBoth) {
  EXPECT_EQ(fieldsNow(), "") << "a plain program has none";
  installHost([](VekHost& host) {
    host.application = [](void*, VekApplication* out) {
      *out = {true, 1, 2, "host-app", "", "", "HOSTDB", 3, 4, 5};
      return true;
    };
    host.currentEngineUnit = [](void*, VekEngineUnit* out) {
      *out = {17, "agent"};
      return true;
    };
  });
  EXPECT_EQ(fieldsNow(), "2 'host-app' 'HOSTDB' 3 4 5 of unit 17");
  PdApplInfoFunctions functions = {};
  functions.work = [](std::uint32_t* work, std::uint32_t*, std::uint32_t*) {
    *work = 99;
    return false;
  };
  functions.databaseName = [](char* name, std::size_t bytes) {
    std::memset(name, 'D', bytes);  // no terminator
    return true;
  };
  pdSetGetApplInfoFunctions(&functions);
  sqltSetGetApplIdFunction([](char* id, std::size_t bytes) {
    ossCopyText(id, bytes, "registered");
    return true;
  });
  EXPECT_EQ(fieldsNow(), "2 'registered' 'DDDDDDDD' 0 0 0 of unit 17") << "it said that it does not know";

  pdSetGetApplInfoFunctions(nullptr);
  pdLogSetExtraHeaderMask(PD_HEADER_TENANT);
  EXPECT_EQ(fieldsNow(), "-1 '' '' 0 0 5");
  pdLogSetExtraHeaderMask(PD_HEADER_ENGINE_UNIT);
  EXPECT_EQ(fieldsNow(), " of unit 17");
}

}  // namespace
}  // namespace vek::logtest
