#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstring>

#include "pdlog_support.h"
#include "platform/ports.h"
#include "veksys/diag/log_items.h"

// Counts what the log allocates: these stand before the C library's own in this program.
namespace {
std::atomic<long> g_allocations{0};
}

// NOLINTBEGIN: the names are those of the C library
extern "C" void* __libc_malloc(std::size_t bytes);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void* malloc(std::size_t bytes) {
  g_allocations.fetch_add(1, std::memory_order_relaxed);
  return __libc_malloc(bytes);
}
#endif
// NOLINTEND

namespace vek::logtest {
namespace {

// ---- the calls --------------------------------------------------------------------------------------------------

struct Variant {
  const char* name;
  SqlzZrc (*write)();
  std::vector<std::string> parts;
};

const PdLogEvent kEvent = {"CHANGE", "DBM CFG", "Potential"};
const PdRecorderEvent kRecorded = {nullptr, 77, 3};
const std::uint32_t kSeven = 7;

const Variant kVariants[] = {
    {"pdLog",
     [] { return pdLog(1, kFunction, SQLO_NOMEM, 5, PD_LEVEL_SEVERE, 1, PD_TYPE_UINT, 4U, &kSeven); },
     {"LEVEL: Severe\r\n", "probe:5\r\n", "RETCODE : ZRC=0x8B0F0000", "DATA #1 : unsigned integer, 4 bytes\r\n7\r\n"}},
    {"no items", [] { return pdLog(1, kFunction, 0, 5, PD_LEVEL_INFO, 0); }, {"DATA #1 : <Empty variable list>"}},
    {"pdLogPrintf",
     [] { return pdLogPrintf(1, kFunction, 0, 5, 3, "page %d of %s", 9, "SALES"); },
     {"LEVEL: Warning\r\n", "MESSAGE : page 9 of SALES\r\n"}},
    {"pdLogRC",
     [] { return pdLogRC(2, kFunction, 0x1234, 5, 2, kFunction, 0); },
     {"CALLED  : ", "RETCODE : ECF=0x1234=4660"}},
    {"pdLogSysRC",
     [] { return pdLogSysRC(1, kFunction, SQLO_FNEX, 5, 2, "open", ENOENT, 0); },
     {"LEVEL: Error (OS)\r\n", "CALLED  : OS, -, open", "OSERR: ENOENT (2)"}},
    {"pdLogEvent",
     [] { return pdLogEvent(1, kFunction, 0, 5, PD_LEVEL_EVENT, &kEvent, 1, PD_TYPE_UINT, 4U, &kSeven); },
     {"LEVEL: Event\r\n", "CHANGE  : DBM CFG\r\n", "IMPACT  : Potential\r\n", "\r\n7\r\n"}},
    {"pdLogEventString",
     [] { return pdLogEventString(1, kFunction, 0, 5, 6, &kEvent, "from 1 to 2"); },
     {"CHANGE  : DBM CFG\r\n", "from 1 to 2\r\n"}},
    {"pdLogEventWithMessage",
     [] { return pdLogEventWithMessage(1, kFunction, 0, 5, 6, &kEvent, 99'999, 0); },
     {"Message number 99999 is unavailable."}},
    {"pdLogEvRecEx",
     [] { return pdLogEvRecEx(1, kFunction, 0, 5, 2, &kRecorded, 1, PD_TYPE_UINT, 4U, &kSeven); },
     {"\r\n7\r\n"}},
    {"pdLogRCEvRecEx",
     [] { return pdLogRCEvRecEx(1, kFunction, SQLO_NOMEM, 5, 2, &kRecorded, kFunction, 0); },
     {"CALLED  : ", "ZRC=0x8B0F0000"}},
    {"pdLogSysRCEvRecEx",
     [] { return pdLogSysRCEvRecEx(1, kFunction, 0, 5, 2, &kRecorded, nullptr, ENOSPC, 0); },
     {"OSERR   : ENOSPC (28)"}},
    {"pdLogPrintfEvRecEx",
     [] { return pdLogPrintfEvRecEx(1, kFunction, 0, 5, 2, &kRecorded, "%s!", "recorded"); },
     {"MESSAGE : recorded!\r\n"}},
    {"values",
     [] { return pdLogValues(1, kFunction, SQLO_NOMEM, 5, 2, "three values", -4, pdLogArgument(kSeven)); },
     {"DATA #1 : String, 12 bytes\r\nthree values\r\n", "\r\n-4\r\n", "ARG  #1 : unsigned integer, 4 bytes\r\n7\r\n"}},
    {"a call stack", [] { return pdLog(1 | PD_LOG_CALL_STACK, kFunction, 0, 5, 2, 0); }, {"CALLSTCK: \r\n [0] 0x"}},
};

TEST_APART(PdLog, EveryCallWritesItsRecord) {
  const Log log{instance};
  static int recorded = 0;
  g_ports.recordEvent = [](const PortRecorderEvent& event) {
    recorded += event.event == 77 && event.qualifiers == 3 && event.functionId == kFunction ? 1 : 0;
  };
  for (const Variant& variant : kVariants) {
    errno = 123;
    EXPECT_EQ(variant.write(), 0) << variant.name;
    EXPECT_EQ(errno, 123) << variant.name;
    const auto records = log.records();
    ASSERT_FALSE(records.empty()) << variant.name;
    for (const std::string& part : variant.parts) EXPECT_TRUE(holds(records.back(), part)) << records.back();
  }
  EXPECT_EQ(recorded, 4);
  const auto records = log.records();
  EXPECT_EQ(records.size(), std::size(kVariants) + 1);
  EXPECT_TRUE(holds(records[0], "START   : New Diagnostic Log file"));
  const PdLogCall wrong = {};
  EXPECT_EQ(pdLogCall(&wrong), SQLO_INV_PARM);
  EXPECT_EQ(pdLogCall(nullptr), SQLO_INV_PARM);
}

TEST_APART(PdLog, DumpsObjectsIntoAFileOfTheThread) {
  const Log log{instance};
  const std::string object(3000, 'o');
  EXPECT_EQ(pdLogDump(1, kFunction, SQLO_NOMEM, 5, 2, "page", 3000, object.data()), 0);
  EXPECT_EQ(pdLogDump(1, kFunction, SQLO_NOMEM, 5, 2, "page", 4, object.data()), 0);
  EXPECT_EQ(pdLogDump(1, kFunction, SQLO_NOMEM, 5, 2, "lost", 4, nullptr), SQLT_DIAGERR_DUMPERR);
  char name[64];
  std::snprintf(name, sizeof name, "%u.%u.%.3d.dump.bin", ossProcessId(), ossThreadId(), 0);
  const std::string dump = contentOf(log.directory() + name);
  const auto records = log.records();
  ASSERT_EQ(records.size(), 4U);
  for (const std::size_t which : {1U, 2U}) {
    const std::string& record = records[which];
    unsigned size = 0;
    long offset = 0;
    const std::size_t at = record.find("Dumped object");
    ASSERT_NE(at, std::string::npos) << record;
    ASSERT_EQ(std::sscanf(record.c_str() + at, "Dumped object of size %u bytes at offset %ld", &size, &offset), 2);
    EXPECT_EQ(dump.substr(static_cast<std::size_t>(offset), size), object.substr(0, size));
  }
  EXPECT_TRUE(holds(records[3], "Object [lost] not dumped"));
  EXPECT_TRUE(holds(records[3], "Dump with error: its address is null ( rc = 0x"));
  EXPECT_TRUE(holds(dump, "Dump File: " + log.directory() + name));
  EXPECT_TRUE(holds(dump, "I2H")) << "the header record of the file tells its place";
}

// Nor to standard error that nobody reads any more.
TEST_APART(PdLog, LosesNoProcessToALimitOnFileSizes) {
  EXPECT_EQ(logText("before"), 0);
  int ends[2];
  ASSERT_EQ(::pipe(ends), 0);
  ::close(ends[0]);
  ASSERT_EQ(::dup2(ends[1], 2), 2);
  const rlimit little = {8192, 8192};
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &little), 0);
  const std::string object(100'000, 'o');
  EXPECT_EQ(pdLogDump(1, kFunction, SQLO_NOMEM, 5, 2, "large", 100'000, object.data()), SQLT_DIAGERR_DUMPERR);
  SqlzZrc result = 0;
  for (int record = 0; record < 100 && result == 0; ++record) result = logText(std::string(500, 'x'));
  EXPECT_EQ(result, SQLT_DIAGERR_LOGERR);
}

TEST_APART(PdLog, ADirectoryThatOthersMayWriteToIsLeftForTheAlternate) {
  VekInstanceControl& control = installControl();
  const std::string open = instance.path("open");
  const std::string alternate = instance.path("alternate");
  ASSERT_EQ(::mkdir(open.c_str(), 0700), 0);
  ASSERT_EQ(::chmod(open.c_str(), 0777), 0);
  ossCopyText(control.DIAGPATH, sizeof control.DIAGPATH, open.c_str());
  EXPECT_EQ(logText("nowhere to go"), SQLT_DIAGERR_LOGERR);
  ossCopyText(control.ALT_DIAGPATH, sizeof control.ALT_DIAGPATH, alternate.c_str());
  EXPECT_EQ(logText("to the alternate"), 0);
  EXPECT_TRUE(holds(contentOf(alternate + "/vekdiag.log"), "to the alternate"));
  EXPECT_EQ(::access((open + "/vekdiag.log").c_str(), F_OK), -1);
}

// ---- levels -----------------------------------------------------------------------------------------------------

TEST_APART(PdLog, LevelsAreComparedAsNumbers) {
  const Log log{instance};
  VekInstanceControl& control = installControl();
  for (const int diagLevel : {-1, 0, 3, 6, 7}) {
    control.DIAGLEVEL = diagLevel;
    for (std::uint32_t level = 0; level < 9; ++level)
      EXPECT_EQ(logText("x", level), static_cast<int>(level) > diagLevel ? SQLT_NOLOG : 0) << diagLevel << level;
  }
  const std::uint64_t elsewhere[] = {0, pdLogNotify(1), PD_LOG_TRACE};
  for (const std::uint64_t flags : elsewhere)
    EXPECT_EQ(pdLogDump(flags, kFunction, 0, 5, 8, "told", 1, "x"), SQLT_NOLOG);
  EXPECT_TRUE(holds(contentOf(log.directory() + vekInstanceName() + ".nfy"), "    told\r\n"));
  for (const auto& entry : std::filesystem::directory_iterator(log.directory()))
    EXPECT_FALSE(entry.path().string().ends_with(".dump.bin")) << "an object that no record tells of";
  EXPECT_EQ(countOf(log.records(), "LEVEL: Unknown"), 5U);  // four times level 0, once level 7
}

TEST(PdLog, ALevelSetForTheInstanceReachesRunningProcesses) {
  const Instance instance;
  const Log log{instance};
  Baton running;
  Baton changed;
  const pid_t child = start([&] {
    EXPECT_EQ(logText("before", PD_LEVEL_INFO), 0);
    running.give();
    ASSERT_TRUE(changed.take());
    EXPECT_EQ(logText("held back", PD_LEVEL_INFO), SQLT_NOLOG);
    EXPECT_EQ(pdGetDiagLevel(), 2);
  });
  ASSERT_TRUE(running.take());
  inProcess([] { EXPECT_EQ(pdSetDiagLevel(2), 0); });
  changed.give();
  EXPECT_EQ(finish(child), 0);
  inProcess([] {
    EXPECT_EQ(logText("a new process", PD_LEVEL_INFO), SQLT_NOLOG) << "its first call already";
    EXPECT_EQ(pdSetDiagLevel(-2), SQLO_INV_PARM);
    EXPECT_EQ(pdSetDiagLevel(-1), 0);
    EXPECT_EQ(logText("again", PD_LEVEL_INFO), 0);
  });
  EXPECT_EQ(log.records().size(), 3U);
}

// ---- what happens inside ----------------------------------------------------------------------------------------

constexpr std::uint32_t kStructure = PD_TYPE_STRUCTURES + 4;

TEST_APART(PdLog, CallsFromInsideALogCallAreDroppedAndTold) {
  const Log log{instance};
  g_ports.formatItem = [](std::uint32_t, const void*, std::uint32_t, char* text, std::size_t room) -> std::size_t {
    EXPECT_EQ(logText("from inside"), SQLT_DIAGERR_LOGERR);
    EXPECT_EQ(pdLogDump(1, kFunction, 0, 5, 2, "x", 1, "x"), SQLT_DIAGERR_LOGERR);
    return ossSnprintf(text, room, "formatted");
  };
  EXPECT_EQ(pdLog(1, kFunction, 0, 5, 2, 1, kStructure, 4U, &kSeven), 0);
  inProcess([] { EXPECT_EQ(logText("a child has dropped nothing"), 0); });
  EXPECT_EQ(logText("the next"), 0);
  const auto records = log.records();
  ASSERT_EQ(records.size(), 4U);
  EXPECT_FALSE(holds(records[2], "Before this record"));
  EXPECT_TRUE(holds(records[3], "Before this record 2 log calls from inside a log call were dropped."));
  EXPECT_EQ(countOf(records, "from inside\r\n"), 0U);
}

TEST_APART(PdLog, ASignalInTheMiddleDropsItsRecordAndNothingElse) {
  const Log log{instance};
  ::signal(SIGUSR1, [](int) { EXPECT_EQ(logText("handler"), SQLT_DIAGERR_LOGERR); });
  g_ports.formatItem = [](std::uint32_t, const void*, std::uint32_t, char* text, std::size_t room) -> std::size_t {
    ::raise(SIGUSR1);
    return ossSnprintf(text, room, "formatted");
  };
  EXPECT_EQ(pdLog(1, kFunction, 0, 5, 2, 1, kStructure, 4U, &kSeven), 0);
  ::signal(SIGUSR1, [](int) { EXPECT_EQ(logText("handler outside"), 0); });
  ::raise(SIGUSR1);
  EXPECT_EQ(countOf(log.records(), "handler outside"), 1U);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(NDEBUG)
constexpr std::size_t kStackBytes = 1 << 20;
#else
// 32 KB are promised, of a library that is optimised; the thread's own things are on it too.
constexpr std::size_t kStackBytes = 48 << 10;
#endif

void* writeAllVariants(void*) {
  for (const Variant& variant : kVariants) EXPECT_EQ(variant.write(), 0);
  return nullptr;
}

TEST_APART(PdLog, AllocatesNothingAndTakesLittleStack) {
  pthread_attr_t attributes;
  pthread_t thread = {};
  ::pthread_attr_init(&attributes);
  ASSERT_EQ(::pthread_attr_setstacksize(&attributes, kStackBytes), 0);
  ASSERT_EQ(::pthread_create(&thread, &attributes, writeAllVariants, nullptr), 0);  // attaches, reads the catalogue
  ASSERT_EQ(::pthread_join(thread, nullptr), 0);
  writeAllVariants(nullptr);
  const long before = g_allocations.load();
  for (const Variant& variant : kVariants) EXPECT_EQ(variant.write(), 0);
  EXPECT_EQ(logText("x", 9), SQLT_NOLOG);
  EXPECT_EQ(g_allocations.load(), before);
}

// No text can be taken for another record, nor for a section of its own, whatever way it comes in.
TEST_APART(PdLog, TextsForgeNeitherRecordsNorSections) {
  const Log log{instance};
  static const std::string forged =
      "\r\n\r\n2026-01-01-00.00.00.000000+000 I2H100                LEVEL: Severe\r\n"
      "RETCODE : x\nDATA #1 : y\r\nRETCODE: no label\n RETCODE : nor this";
  const auto size = static_cast<std::uint32_t>(forged.size());
  const PdLogEvent event = {"CHANGE", forged.c_str(), forged.c_str()};
  const PdLogEvent action = {"RETCODE ", "ZRC=0x1", forged.c_str()};
  g_ports.formatItem = [](std::uint32_t, const void*, std::uint32_t, char* text, std::size_t room) -> std::size_t {
    return ossSnprintf(text, room, "%s", forged.c_str());
  };
  EXPECT_EQ(logText(forged), 0);
  EXPECT_EQ(pdLogPrintf(1, kFunction, 0, 5, 2, "%s", forged.c_str()), 0);
  EXPECT_EQ(pdLog(1, kFunction, 0, 5, 2, 1, PD_TYPE_RAW_STRINGN, size, forged.data()), 0);
  EXPECT_EQ(pdLog(1, kFunction, 0, 5, 2, 1, kStructure, size, forged.data()), 0);
  for (const PdLogEvent* each : {&event, &action}) EXPECT_EQ(pdLogEvent(1, kFunction, 0, 5, 2, each, 0), 0);
  EXPECT_EQ(sqlt_logerr_string(kFunction, 5, 2, forged.c_str()), 0);
  const auto records = log.records();  // follows the identifiers
  ASSERT_EQ(records.size(), 8U);
  for (std::size_t i = 1; i < records.size(); ++i) {
    EXPECT_FALSE(holds(records[i], "\nRETCODE : ") || holds(records[i], "\nDATA #1 : y")) << records[i];
    EXPECT_TRUE(holds(records[i], "\n DATA #1 : y")) << records[i];
    EXPECT_TRUE(holds(records[i], "\nRETCODE: no label") && holds(records[i], "\n RETCODE : nor this"));
  }
  EXPECT_EQ(logText(std::string(200'000, '\n')), 0);
  EXPECT_LT(log.records().at(8).size(), 65'536U);
}

// A formatter that faults, and pointers of the caller that lead nowhere, in every place where one is followed.
TEST_APART(PdLog, FaultsCostTheirOwnRecordOnly) {
  const Log log{instance};
  static void* const bad = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  static const char* const text = static_cast<const char*>(bad);
  static const PdLogEvent event = {text, text, text};
  static int recorded = 0;
  g_ports.formatItem = [](std::uint32_t, const void*, std::uint32_t, char*, std::size_t) -> std::size_t {
    *static_cast<volatile int*>(bad) = 1;
    return 0;
  };
  g_ports.recordEvent = [](const PortRecorderEvent& told) { recorded += told.itemCount == 0 ? 1 : 100; };
  SqltTraceSettings settings = {};
  std::memset(&settings.components, 0xFF, sizeof settings - offsetof(SqltTraceSettings, components));
  EXPECT_EQ(sqltTraceFacilityCreate(1 << 20), 0);
  EXPECT_EQ(sqltSetTraceFlags(&settings), 0);
  SqlzZrc (*const calls[])() = {
      [] { return pdLog(1, kFunction, 0, 5, 2, 1, PD_TYPE_STRING, 9U, text); },
      [] { return pdLogPrintf(1, kFunction, 0, 5, 2, "%s", text); },
      [] { return pdLogSysRC(1, kFunction, 0, 5, 2, text, 2, 0); },
      [] { return pdLogEvent(1, kFunction, 0, 5, 2, &event, 0); },
      [] { return pdLogEvent(1, kFunction, 0, 5, 2, static_cast<const PdLogEvent*>(bad), 0); },
      [] { return pdLogEventString(1, kFunction, 0, 5, 2, &kEvent, text); },
      [] { return pdLogDump(1, kFunction, 0, 5, 2, text, 4, "dump"); },
      [] { return pdLog(1 | PD_LOG_TRACE | pdLogNotify(1), kFunction, 0, 5, 2, 1, PD_TYPE_STRING, 9U, text); },
      [] { return pdLogEvRecEx(1, kFunction, 0, 5, 2, &kRecorded, 1, PD_TYPE_STRING, 9U, text); },
      [] { return sqlt_logerr(kFunction, 5, 2, 0, text, 4, "data"); },
      [] { return pdLog(1, kFunction, 0, 5, 2, 1, kStructure, 4U, &kSeven); },
  };
  for (const auto& call : calls) EXPECT_EQ(call(), 0);
  const auto told = [](int probe) {
    return "Trap 0000000b detected in vekdiag call from [" + std::to_string(kFunction) + "," + std::to_string(probe) +
           "] ";
  };
  EXPECT_EQ(countOf(log.records(), told(5) + "trapfile created"), std::size(calls));
  const std::string trapFile =
      log.directory() + std::to_string(ossProcessId()) + "." + std::to_string(ossThreadId()) + ".000.trap.txt";
  EXPECT_EQ(countOf(recordsOf(contentOf(trapFile)), "SIGSEGV"), std::size(calls));
  std::filesystem::remove(trapFile);
  std::filesystem::create_directory(trapFile);
  EXPECT_EQ(pdLogSysRC(1, kFunction, SQLO_NOMEM, 5, 2, text, 2, 1, PD_TYPE_STRING, 9U, text), 0);
  EXPECT_EQ(pdLogPrintf(1, kFunction, SQLO_NOMEM, 5, 2, "the message of %s", text), 0);
  const auto withoutFile = log.records();
  std::filesystem::remove(trapFile);
  EXPECT_EQ(countOf(withoutFile, told(5) + "no trapfile, error 21"), 2U);
  EXPECT_EQ(countOf(withoutFile, "SQLO_NOMEM"), 2U);
  EXPECT_EQ(countOf(withoutFile, "the message of %s"), 1U);
  EXPECT_EQ(pdLogEvRecEx(1, kFunction, 0, 5, 2, static_cast<const PdRecorderEvent*>(bad), 0), 0);
  EXPECT_EQ(recorded, 1);
  const PdOSSeMessage message = {kFunction, 6, PD_LEVEL_ERROR, 0, 0, text};
  for (const PdOSSeMessage* each : {&message, static_cast<const PdOSSeMessage*>(bad)}) pdOSSeLoggingCallback(each);
  EXPECT_EQ(countOf(log.records(), told(6) + "trapfile created"), 1U);
  EXPECT_EQ(countOf(log.records(), "A message of the OS-services layer could not be read"), 1U);
  PdApplInfoFunctions functions = {};
  functions.work = [](std::uint32_t* work, std::uint32_t*, std::uint32_t*) {
    *work = *static_cast<volatile std::uint32_t*>(bad);
    return true;
  };
  pdSetGetApplInfoFunctions(&functions);
  EXPECT_EQ(logText("without its fields"), 0);
  EXPECT_EQ(countOf(log.records(), "\r\nwithout its fields\r\n"), 1U);
  pdSetGetApplInfoFunctions(nullptr);
  const char* const tokens[] = {"T", text};
  EXPECT_EQ(sqlt_logadmin(kFunction, 5, 1, -107, 2, tokens), 0);
  EXPECT_EQ(sqlt_logadmin(kFunction, 5, 1, -107, 2, static_cast<const char* const*>(bad)), 0);
  const std::string entries = contentOf(log.directory() + vekInstanceName() + ".nfy");
  EXPECT_TRUE(holds(entries, "    What this event holds could not be read; the diagnostic log tells more.\r\n"));
  const std::size_t first = entries.find("The tokens could not be read.");
  EXPECT_NE(entries.find("The tokens could not be read.", first + 1), std::string::npos) << entries;
}

}  // namespace
}  // namespace vek::logtest
