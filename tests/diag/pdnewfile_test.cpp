// The record that begins a log file, on this machine and on one that tells nothing.
#include "diag/base/pdnewfile.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <string>

#include "platform/osse.h"
#include "platform/system_facts.h"

namespace vek {
namespace {

std::string gathered() {
  std::string text(PD_NEW_FILE_TEXT_BYTES, '\0');
  text.resize(pdGatherNewFileText(text.data(), text.size()));
  return text;
}

TEST(NewFile, FactsAreThoseOfTheSystem) {
  SystemFacts facts;
  ossSystemFacts(&facts);
  utsname names;
  ASSERT_EQ(::uname(&names), 0);
  EXPECT_STREQ(facts.host, names.nodename);
  EXPECT_EQ(facts.processorsOnline, ::sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_GE(facts.processorsUsable, 1U);
  struct sysinfo info;
  ASSERT_EQ(::sysinfo(&info), 0);
  EXPECT_EQ(facts.memoryBytes, info.totalram * info.mem_unit);
  EXPECT_EQ(facts.swapBytes, info.totalswap * info.mem_unit);
  EXPECT_LE(facts.memoryAvailableBytes, facts.memoryBytes);
  EXPECT_EQ(facts.pageBytes, ::sysconf(_SC_PAGESIZE));
  EXPECT_EQ(facts.sockets * facts.coresPerSocket * facts.threadsPerCore != 0, facts.sockets != 0);
  struct rlimit files;
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &files), 0);
  bool found = false;
  for (std::size_t i = 0; i < facts.limitCount; ++i)
    found = found || (std::string(facts.limits[i].name) == "open files" && facts.limits[i].soft == files.rlim_cur);
  EXPECT_TRUE(found);
}

TEST(NewFile, BodyOfTheRecord) {
  const std::string text = gathered();
  EXPECT_TRUE(text.starts_with("Host                : ")) << text;
  EXPECT_NE(text.find("\r\nMemory limit        : "), std::string::npos) << text;
  EXPECT_NE(text.find("\r\nLimit open files    : "), std::string::npos) << text;
  for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + 1))
    ASSERT_EQ(text[at - 1], '\r');
  PdNewFileBody made;
  pdMakeNewFileBody(text.data(), text.size(), &made);
  std::string record(PD_RECORD_BYTES, '\0');
  PdRecordHeader header;
  header.level = PD_LEVEL_EVENT;
  record.resize(pdFormatRecord(header, made.body, record.data(), record.size()).length);
  EXPECT_EQ(record.substr(record.find("START")),
            "START   : New Diagnostic Log file\r\n"
            "Information in this record is only valid at the time when this file was\r\n"
            "created (see this record's time stamp)\r\n"
            "DATA #1 : String, " +
                std::to_string(text.size()) + " bytes\r\n" + text);
  char little[300];
  const std::size_t length = pdGatherNewFileText(little, sizeof little);
  EXPECT_TRUE(std::string(little, length).ends_with("\r\n<Cut>\r\n"));
  EXPECT_LT(length, sizeof little);
}

TEST(NewFile, MachineThatTellsNothing) {
  const auto before = ossCalls().open;
  ossCalls().open = [](const char*, int, mode_t) { return errno = EACCES, -1; };
  SystemFacts facts;
  ossSystemFacts(&facts);
  const std::string text = gathered();
  ossCalls().open = before;
  EXPECT_EQ(facts.sockets, 0U);
  EXPECT_EQ(facts.memoryBytes, 0U);
  EXPECT_EQ(facts.memoryLimitBytes, SYSTEM_FACTS_UNLIMITED);
  EXPECT_STREQ(facts.features, "");
  EXPECT_EQ(text.find("Sockets"), std::string::npos) << "what is not known is left out";
  EXPECT_NE(text.find("Memory limit        : unlimited\r\n"), std::string::npos) << text;
}

}  // namespace
}  // namespace vek
