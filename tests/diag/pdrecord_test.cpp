// Whole records, byte for byte, and what no caller may break: the bounds of the buffer, the lines, the mark of a cut.
#include "diag/base/pdrecord.h"

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>

#include "diag/base/sqlmsg.h"
#include "platform/callstack.h"
#include "platform/support.h"
#include "platform/time_zone.h"
#include "veksys/pd_markers.h"
#include "veksys/pd_types.h"

namespace vek {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr std::int64_t kMayDay = 1'714'571'999 * kSecond + 123'456'789;  // 2024-05-01 13:59:59.123 UTC
constexpr EcfFunctionId kOwnFunction = ecfFunctionId(0x1A, 1);           // sqlzGetZRCInfo
constexpr EcfFunctionId kNameless = ecfFunctionId(0x1A, 0x7FFFF);

class PdRecord : public ::testing::Test {
 protected:
  void SetUp() override { useZone("UTC0"); }
  void TearDown() override {
    ::unsetenv("TZ");
    ossForgetTimeZone();
  }

  static void useZone(const char* zone) {
    ::setenv("TZ", zone, 1);
    ossForgetTimeZone();
  }

  static PdRecordHeader plainHeader() {
    PdRecordHeader header;
    header.timeNs = kMayDay;
    header.level = PD_LEVEL_ERROR;
    header.processId = 4711;
    header.threadId = 140'737'353'967'360;
    header.processName = "vekengine";
    header.instance = "prod";
    header.functionId = kOwnFunction;
    header.probe = 30;
    return header;
  }

  static std::string format(const PdRecordHeader& header, const PdRecordBody& body, std::size_t bytes = PD_RECORD_BYTES,
                            bool expectCut = false) {
    const auto buffer = std::make_unique<char[]>(bytes);
    const PdRecordText text = pdFormatRecord(header, body, buffer.get(), bytes);
    EXPECT_EQ(text.isCut, expectCut);
    EXPECT_EQ(buffer[text.length], '\0');
    return {buffer.get(), text.length};
  }

  static std::string bodyOf(const PdRecordBody& body) {
    const std::string record = format(plainHeader(), body);
    constexpr std::string_view kLastOfHeader = "probe:30\r\n";
    return record.substr(record.find(kLastOfHeader) + kLastOfHeader.size());
  }
};

// Each step changes one thing that kept parts were made of, and the record after it changes nothing.
TEST_APART_F(PdRecord, IsTheSameWithAMemoryOfTheOnesBefore) {
  PdRecordMemory memory;
  PdRecordHeader header = plainHeader();
  PdRecordBody body;
  body.codeKind = PdCodeKind::kZrc;
  body.code = SQLO_FNEX;
  const std::string longName(200, 'n');
  const std::function<void()> steps[] = {
      [] {},
      [&] { header.timeNs += 5'000'000; },
      [&] { header.timeNs += kSecond; },
      [&] { header.processId = 4712; },
      [&] { header.threadId = 7; },
      [&] { header.partition = 12; },
      [&] { header.processName = "veken\x01gine"; },
      [&] { header.instance = "test"; },
      [&] { header.instance = longName; },
      [&] { header.database = "SALES"; },
      [&] { body.code = SQLO_NOMEM; },
      [&] { pdSetWideMessages(true); },
      [&] { pdSetWideMessages(false); },
      [&] { body.codeKind = PdCodeKind::kEcf; },
  };
  for (std::size_t i = 0; i < 2 * std::size(steps); ++i) {
    if (i % 2 == 0) steps[i / 2]();
    std::string record(PD_RECORD_BYTES, '#');
    record.resize(pdFormatRecord(header, body, record.data(), record.size(), &memory).length);
    EXPECT_EQ(record, format(header, body)) << i / 2;
  }
}

TEST_APART_F(PdRecord, WholeRecordWithEverythingBelowTheHeader) {
  const PdRecordHeader header = {
      // the fields in the order in which they are shown
      kMayDay,   PD_LEVEL_ERROR, "Origin", 4711, 140'737'353'967'360,        "vekengine",  "prod", 3,
      "SALES",   true,           0,        57,   "*LOCAL.prod.240501135959", 12,           2,      9,
      "APPUSER", "alpha",        true,     88,   "vekagent (SALES)",         kOwnFunction, 30};
  const std::uint32_t pages = 4000;
  const PdItem items[] = {{PD_TYPE_STRING, 30, "page cache"},
                          {PD_TYPE_UINT, sizeof pages, &pages},
                          {PD_TYPE_FILE_NAME, 9, "/db/f.dat", true},
                          {PD_TYPE_HEXDUMP, 18, "0123456789abcdef\x01Z"}};
  const PdSection section = {"CHANGE", "Table space SYSTEM"};
  const PdCalled called = {0, "OS", "-", "open"};
  PdRecordBody body;
  body.message = "Read of page failed\nsecond line";
  body.called = &called;
  body.codeKind = PdCodeKind::kZrc;
  body.code = SQLO_NOMEM;
  body.osError = {PdOsError::Line::kOfCalled, 2};
  body.impact = "Potential";
  body.object = "Table space";
  body.sections = &section;
  body.sectionCount = 1;
  body.items = items;
  body.itemCount = std::size(items);

  std::string record = format(header, body);
  EXPECT_TRUE(pdStampIdentifier(record.data(), 1'000'000'000'000, record.size()));
  EXPECT_TRUE(pdStampIdentifier(record.data(), 123, record.size())) << "a retry at another place";
  EXPECT_EQ(record,
            "\r\n"
            "2024-05-01-13.59.59.123000+000 I125H1041                 LEVEL: Error (Origin)\r\n"
            "PID     : 4711                 TID : 140737353967360PROC : vekengine\r\n"
            "INSTANCE: prod                 NODE : 003           DB   : SALES\r\n"
            "APPHDL  : 0-57                 APPID: *LOCAL.prod.240501135959\r\n"
            "UOWID   : 12                   ACTID: 2              TENANTID: 9\r\n"
            "AUTHID  : APPUSER              HOSTNAME: alpha\r\n"
            "EDUID   : 88                   EDUNAME: vekagent (SALES)\r\n"
            "FUNCTION: VEK, utilities, sqlzGetZRCInfo, probe:30\r\n"
            "MESSAGE : Read of page failed\r\n"
            "second line\r\n"
            "CALLED  : OS, -, open                             OSERR: ENOENT (2)\r\n"
            "RETCODE : ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\"\r\n"
            "IMPACT  : Potential\r\n"
            "OBJECT  : Table space\r\n"
            "CHANGE  : Table space SYSTEM\r\n"
            "DATA #1 : String, 30 bytes\r\n"
            "page cache\r\n"
            "DATA #2 : unsigned integer, 4 bytes\r\n"
            "4000\r\n"
            "ARG  #1 : File name, 9 bytes\r\n"
            "/db/f.dat\r\n"
            "DATA #3 : Hexdump, 18 bytes\r\n"
            "0x0000 : 3031 3233 3435 3637 3839 6162 6364 6566    0123456789abcdef\r\n"
            "0x0010 : 015A                                       .Z\r\n");
  EXPECT_EQ(record.size(), 1043U);
}

TEST_F(PdRecord, HeaderLinesInTheirOtherForms) {
  const std::pair<const char*, void (*)(PdRecordHeader&)> cases[] = {
      {"APPHDL  : 2-7\r\n", [](PdRecordHeader& h) { h.hasHandle = true, h.handlePartition = 2, h.handleIndex = 7; }},
      {"APPID   : local\r\n", [](PdRecordHeader& h) { h.applicationId = "local"; }},
      {"UOWID   : 5                    ACTID: 0              \r\n", [](PdRecordHeader& h) { h.unitOfWorkId = 5; }},
      {"ACTID   : 6                    TENANTID: 7\r\n", [](PdRecordHeader& h) { h.activityId = 6, h.tenantId = 7; }},
      {"ACTID   : 6                    \r\n", [](PdRecordHeader& h) { h.activityId = 6; }},
      {"AUTHID  : JOE\r\n", [](PdRecordHeader& h) { h.authorizationId = "JOE"; }},
      {"HOSTNAME: alpha\r\n", [](PdRecordHeader& h) { h.hostName = "alpha"; }},
      {"AUTHID  : x HOSTNAME? y\r\n", [](PdRecordHeader& h) { h.authorizationId = "x HOSTNAME: y"; }},
      {"EDUID   : 0\r\n", [](PdRecordHeader& h) { h.hasEngineUnit = true; }},
      {"INSTANCE: prod                 NODE : -001\r\n", [](PdRecordHeader& h) { h.partition = -1; }},
      {"INSTANCE: a?b?                 NODE : 000\r\n", [](PdRecordHeader& h) { h.instance = "a\rb\n"; }},
      {"FUNCTION: VEK, utilities, 0x18D7FFFF, probe:0\r\n",
       [](PdRecordHeader& h) { h.functionId = kNameless, h.probe = 0; }},
  };
  for (const auto& [line, set] : cases) {
    PdRecordHeader header = plainHeader();
    set(header);
    const std::string text = format(header, {});
    EXPECT_TRUE(platformtest::holds(text, line)) << line << text;
    const auto lines = std::count(text.begin(), text.end(), '\n');
    EXPECT_TRUE(lines == 5 || lines == 6) << text;
  }
}

TEST_APART_F(PdRecord, CodesOfEveryKind) {
  const auto body = [](PdCodeKind kind, std::int64_t code) {
    PdRecordBody made;
    made.codeKind = kind;
    made.code = code;
    return bodyOf(made);
  };
  EXPECT_EQ(body(PdCodeKind::kNone, 5), "");
  EXPECT_EQ(body(PdCodeKind::kEcf, -1879048184), "RETCODE : ECF=0x90000008=-1879048184\r\n");
  EXPECT_EQ(body(PdCodeKind::kMarker, PD_MARKER_BACKUP_END),
            "RETCODE : MARKER=15=PD_MARKER_BACKUP_END \"Backup is complete\"\r\n");
  EXPECT_EQ(body(PdCodeKind::kMarker, 4000), "RETCODE : MARKER=4000=Unknown\r\n");
  EXPECT_EQ(body(PdCodeKind::kCa, -1), "RETCODE : CA RC= 4294967295\r\n");
  EXPECT_EQ(pdCodeKindOfFlags(0x1002), PdCodeKind::kEcf);
  EXPECT_EQ(pdCodeKindOfFlags(0x4F), PdCodeKind::kNone);
  char text[16];
  EXPECT_EQ(std::string(text, pdDescribeCode(PdCodeKind::kCa, 12, text, sizeof text)), "CA RC= 12\r\n");
  EXPECT_EQ(std::string(text, pdDescribeCode(PdCodeKind::kZrc, SQLO_NOMEM, text, sizeof text)), "ZRC=0x8B0F0000=");
}

TEST_F(PdRecord, SectionsInTheirOtherForms) {
  const PdDumpedObject dumped = {true, 512, 700, "/diag/4711.1.000.dump.bin", {}, {}};
  const PdDumpedObject unknown = {true, -1, 0, {}, {}, {}};
  const PdDumpedObject refused = {false, -1, 0, {}, "Page", "No space left"};
  const auto* const object = reinterpret_cast<const void*>(0x1234);
  const PdItem items[] = {
      {0, 600, object, false, &dumped}, {0, 8, object, true, &unknown}, {0, 9, object, false, &refused}};
  PdRecordBody body;
  body.osError = {PdOsError::Line::kOwn, 28};
  body.dumpFile = "4711.dump.bin";
  body.dumpError = "Disk full";
  body.dumpCode = 0x2AB;
  body.items = items;
  body.itemCount = std::size(items);
  body.note = "Note\r\n";
  EXPECT_EQ(bodyOf(body),
            "OSERR   : ENOSPC (28) \"No space left on device\"\r\n"
            "Dump File: 4711.dump.bin\r\n"
            "Dump with error: Disk full ( rc = 0x2ab )\r\n"
            "DATA #1 : Dumped object of size 600 bytes at offset 512, 700 bytes\r\n"
            "/diag/4711.1.000.dump.bin\r\n"
            "ARG  #1 : Dumped object of size 8 bytes at offset unknown, 0 bytes\r\n"
            "DATA #2 : Object [Page] not dumped\r\n"
            "Address: 0x00001234 Size: 9 Reason: No space left\r\n"
            "Note\r\n");

  const PdCalled called = {kOwnFunction, {}, {}, {}};
  body = {};
  body.called = &called;
  body.osError = {PdOsError::Line::kOwn, 4000};
  body.itemsAnnounced = true;
  EXPECT_EQ(bodyOf(body),
            "CALLED  : VEK, utilities, sqlzGetZRCInfo\r\n"
            "OSERR   : 4000\r\n"
            "DATA #1 : <Empty variable list>\r\n");

  body = {};
  body.osError = {PdOsError::Line::kOfCalled, 2};
  body.preformatted = "as it comes";
  EXPECT_EQ(bodyOf(body),
            "OSERR   : ENOENT (2) \"No such file or directory\"\r\n"
            "DATA #1 : <preformatted>\r\n"
            "as it comes\r\n");
}

TEST_F(PdRecord, MessagesOfTheCatalogue) {
  ::setenv("VEK_MESSAGE_DIR", std::filesystem::path(VEKSYS_TEST_MESSAGES).parent_path().c_str(), 1);
  sqlzi_forgetMessages();
  PdRecordBody body;
  body.hasMessageNumber = true;
  body.messageNumber = 902;
  EXPECT_EQ(bodyOf(body).substr(0, 19), "MESSAGE : SQL0902N ") << bodyOf(body);
  for (const std::uint64_t number : {std::uint64_t{0}, std::uint64_t{99'999}, UINT64_MAX}) {
    body.messageNumber = number;
    EXPECT_EQ(bodyOf(body), "MESSAGE : Message number " + std::to_string(number) + " is unavailable.\r\n");
  }
  sqlzi_forgetMessages();
}

PdRecordText formatPrintf(char* buffer, std::size_t bytes, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  PdRecordBody body;
  body.messageFormat = format;
  body.messageArguments = &arguments;
  const PdRecordText text = pdFormatRecord({}, body, buffer, bytes);
  va_end(arguments);
  return text;
}

TEST_F(PdRecord, FormattedMessagesKeepTheirLinesAndTheirBounds) {
  std::vector<char> buffer(1024);
  const PdRecordText whole = formatPrintf(buffer.data(), buffer.size(), "%d\nof %s\x1B\r\n", 7, "nine");
  EXPECT_TRUE(std::string(buffer.data(), whole.length).ends_with("MESSAGE : 7\r\nof nine.\r\n"));
  const std::size_t header = whole.length - std::strlen("7\r\nof nine.\r\n");
  const std::string lines(2000, '\n');
  for (std::size_t characters = 0; characters < 1000; characters += 7) {
    const PdRecordText text =
        formatPrintf(buffer.data(), buffer.size(), "%.*s", static_cast<int>(characters), lines.c_str());
    EXPECT_EQ(text.isCut, header + 2 * characters > buffer.size() - 1) << characters;
    EXPECT_EQ(buffer[text.length - 1], '\n');
  }
}

// Whatever room there is, a record is the whole one or its beginning and the mark, and nothing behind is touched.
TEST_F(PdRecord, CutRecordsSayThatTheyAreCut) {
  std::string message;
  while (message.size() < 600) message += "Gr\u00FC\u00DFe \u20AC\r\n\U0001F418 ";
  PdRecordBody body;
  body.message = message;
  const std::string whole = format(plainHeader(), body);
  for (std::size_t bytes = 300; bytes <= whole.size(); ++bytes) {
    std::string buffer(bytes + 16, '#');
    const PdRecordText cut = pdFormatRecord(plainHeader(), body, buffer.data(), bytes);
    const std::string mark = "\r\n<Record cut after " + std::to_string(bytes - 1) + " bytes>\r\n";
    const std::string record = buffer.substr(0, cut.length);
    ASSERT_TRUE(cut.isCut && cut.length < bytes && record.ends_with(mark)) << bytes;
    ASSERT_EQ(buffer.substr(bytes), std::string(16, '#'));
    const std::string begin = record.substr(0, record.size() - mark.size());
    ASSERT_EQ(begin, whole.substr(0, begin.size()));
    ASSERT_GE(begin.size() + mark.size() + 4, bytes - 1) << "more was left out than had to be";
    ASSERT_NE(static_cast<unsigned char>(whole[begin.size()]) & 0xC0U, 0x80U) << "inside a character";
    ASSERT_FALSE(begin.ends_with('\r'));
  }
  EXPECT_EQ(format(plainHeader(), body, whole.size() + 1), whole);
  EXPECT_EQ(pdFormatRecord(plainHeader(), body, nullptr, 1000).length, 0U);
  char small[255];
  EXPECT_EQ(pdFormatRecord(plainHeader(), body, small, sizeof small).length, 0U);

  std::vector<char> bytes(200'000, '\x02');
  const PdItem huge[] = {{PD_TYPE_HEXDUMP, 200'000, bytes.data()}, {PD_TYPE_STRING, 200'000, bytes.data()}};
  body.items = huge;
  body.itemCount = 2;
  EXPECT_EQ(format(plainHeader(), body, PD_RECORD_BYTES, true).size(), PD_RECORD_BYTES - 1);
}

TEST_F(PdRecord, IdentifiersFitTheirColumns) {
  std::string record = format(plainHeader(), {});
  EXPECT_TRUE(pdStampIdentifier(record.data(), 9'999'999'999'999'997, 65'535));
  EXPECT_NE(record.find("+000 I9999999999999999H65533   LEVEL: Error\r\n"), std::string::npos) << record;
  const std::string before = record;
  EXPECT_FALSE(pdStampIdentifier(record.data(), UINT64_MAX, 65'535));
  EXPECT_EQ(record, before);

  char dump[1024];
  const PdRecordText text = pdFormatDumpRecord(plainHeader(), {}, dump, sizeof dump);
  EXPECT_TRUE(pdStampIdentifier(dump, 0, text.length));
  EXPECT_NE(std::string(dump).find("+000 I2H" + std::to_string(text.length - 2) + "                  LEVEL: Error"),
            std::string::npos)
      << dump;
}

TEST_F(PdRecord, TimeStampsOfOtherZones) {
  const std::pair<const char*, const char*> cases[] = {
      {"<+01>-1", "2024-05-01-14.59.59.123000+060 "},
      {"<-05>5", "2024-05-01-08.59.59.123000-300 "},
      {"<-12>12", "2024-05-01-01.59.59.123000+720 "},
      {"<-24>24", "2024-05-01-13.59.59.123000+000 "},
      {"<+20>-20", "2024-05-01-09.59.59.123000-240 "},
      {"<+14>-14", "2024-05-02-03.59.59.123000+840 "},
      {"<+00>0:30", "2024-05-01-13.29.59.123000-030 "},
      {"CET-1CEST,M3.5.0,M10.5.0/3", "2024-05-01-15.59.59.123000+120 "},
  };
  for (const auto& [zone, text] : cases) {
    useZone(zone);
    EXPECT_EQ(format(plainHeader(), {}).substr(2, 31), text) << zone;
  }
}

TEST_F(PdRecord, GetTimeStampWritesOrStores) {
  char text[27];
  std::memset(text, '#', sizeof text);
  EXPECT_EQ(pdGetTimeStamp(text, 26, nullptr), SQLO_INV_PARM);
  EXPECT_EQ(text[0], '#');
  std::int64_t before = 0;
  std::int64_t after = 0;
  EXPECT_EQ(pdGetTimeStamp(text, sizeof text, &before), SQLZ_RC_OK);
  EXPECT_EQ(text[0], '#');
  EXPECT_EQ(pdGetTimeStamp(text, sizeof text, nullptr), SQLZ_RC_OK);
  EXPECT_EQ(pdGetTimeStamp(nullptr, 0, &after), SQLZ_RC_OK);
  PdRecordHeader header = plainHeader();
  header.timeNs = before;
  EXPECT_LE(format(header, {}).substr(2, 26), text);
  header.timeNs = after;
  EXPECT_GE(format(header, {}).substr(2, 26), text);
}

TEST_F(PdRecord, CallStackLines) {
  const CallStack stack = {
      .frames = {{0x401234, "sqlbReadPage", 0x34, 0}, {0x7FFF'0000'1000, nullptr, 0x1000, 1}, {0x10, nullptr, 0, -1}},
      .frameCount = 3,
      .isCut = true,
      .modules = {{"", 0x400000, {}, 0}, {"/usr/lib/libx.so.1", 0x7FFF'0000'0000, {0xAB, 0x01}, 2}},
      .moduleCount = 2};
  PdRecordBody body;
  body.callStack = &stack;
  const std::string lines =
      " [0] 0x00401234 sqlbReadPage + 0x34\r\n"
      " [1] 0x7FFF00001000 libx.so.1 + 0x1000\r\n"
      " [2] 0x00000010 ? + 0x0\r\n"
      " (more frames)\r\n"
      " 0x00400000 (no file)\r\n"
      " 0x7FFF00000000 /usr/lib/libx.so.1, build id AB01\r\n";
  EXPECT_EQ(bodyOf(body), "CALLSTCK: \r\n" + lines);
  body.callStackLongLabel = true;
  EXPECT_EQ(bodyOf(body), "CALL STACK: \r\n" + lines);
}

}  // namespace
}  // namespace vek
