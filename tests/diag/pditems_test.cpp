// Every print routine, and values that are not what their type says.
#include "diag/base/pditems.h"

#include <cstring>
#include <iterator>

#include "platform/ports.h"
#include "platform/support.h"
#include "platform/time_zone.h"
#include "veksys/diag/rc.h"
#include "veksys/pd_types.h"

namespace vek {
namespace {

std::string description(std::uint32_t type) {
  char text[128];
  PdPen pen(text, sizeof text);
  pdPenTypeDescription(pen, type);
  return {text, pen.finish({})};
}

std::string valueOf(std::uint32_t type, const void* data, std::uint32_t size) {
  char text[4096];
  PdPen pen(text, sizeof text);
  pdPenItemValue(pen, type, size, data);
  const std::string written(text, pen.finish({}));
  EXPECT_FALSE(pen.isCut());
  EXPECT_TRUE(written.ends_with("\r\n")) << written;
  return written.substr(0, written.size() - 2);
}

template <class T>
std::string valueOf(std::uint32_t type, const T& value) {
  return valueOf(type, &value, sizeof value);
}

std::string textOf(std::uint32_t type, std::string_view bytes) {
  return valueOf(type, bytes.data(), static_cast<std::uint32_t>(bytes.size()));
}

TEST(PdItems, EveryTypeHasItsNumberAndItsDescription) {
  const std::uint32_t numbers[] = {
#define PD_TYPE(number, name, description, print) number,
#include "veksys/pd_types.def"
#undef PD_TYPE
  };
  EXPECT_EQ(std::size(numbers), 96U);
  for (std::uint32_t type = 0; type < std::size(numbers); ++type) {
    EXPECT_EQ(numbers[type], type);
    EXPECT_NE(description(type), "") << type;
  }
  EXPECT_EQ(description(PD_TYPE_MIN), "Minumum value");
  EXPECT_EQ(description(PD_TYPE_SIGNAL), "Signal Number Recieved");
  EXPECT_EQ(description(PD_TYPE_TIMEOUT), "timeout value");
  EXPECT_EQ(description(96), "Unknown type 0x00000060");
  EXPECT_EQ(description(0x18000004), "Structure 0x18000004");
}

TEST(PdItems, Numbers) {
  EXPECT_EQ(valueOf(PD_TYPE_UINT, UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(valueOf(PD_TYPE_UINT, std::uint8_t{200}), "200");
  EXPECT_EQ(valueOf(PD_TYPE_SINT, std::int8_t{-128}), "-128");
  EXPECT_EQ(valueOf(PD_TYPE_SINT, std::int16_t{-2}), "-2");
  EXPECT_EQ(valueOf(PD_TYPE_SINT, INT64_MIN), "-9223372036854775808");
  EXPECT_EQ(valueOf(PD_TYPE_HEXINT, std::uint16_t{0xAB}), "0x00AB");
  EXPECT_EQ(valueOf(PD_TYPE_HEXINT, std::uint64_t{0}), "0x0000000000000000");
  EXPECT_EQ(valueOf(PD_TYPE_HEXINT, UINT64_MAX), "0xFFFFFFFFFFFFFFFF");
  EXPECT_EQ(valueOf(PD_TYPE_PTR, std::uint32_t{0x10}), "0x00000010");
  EXPECT_EQ(valueOf(PD_TYPE_BOOL, std::uint32_t{2}), "true");
  EXPECT_EQ(valueOf(PD_TYPE_BOOL, false), "false");
  EXPECT_EQ(valueOf(PD_TYPE_BITMASK, std::uint32_t{0}), "0x00000000");
  EXPECT_EQ(valueOf(PD_TYPE_BITMASK, std::uint8_t{8}), "0x08 (bit 3)");
  EXPECT_EQ(valueOf(PD_TYPE_BITMASK, std::uint64_t{1} << 63 | 5), "0x8000000000000005 (bits 0, 2, 63)");
  EXPECT_EQ(valueOf(PD_TYPE_CODEPATH, std::uint64_t{0x29}), "0:3:5");
  EXPECT_EQ(valueOf(PD_TYPE_CODEPATH, std::uint64_t{0}), "0");
  EXPECT_EQ(valueOf(PD_TYPE_FLOAT, 0.1F), "0.1");
  EXPECT_EQ(valueOf(PD_TYPE_FLOAT, -1e300), "-1e+300");
}

TEST_APART(PdItems, ValuesWithAMeaning) {
  EXPECT_EQ(valueOf(PD_TYPE_SIGNAL, 11), "11 SIGSEGV");
  EXPECT_EQ(valueOf(PD_TYPE_SIGNAL, -1), "-1");
  EXPECT_EQ(valueOf(PD_TYPE_SIGNAL, 4000), "4000");
  EXPECT_EQ(valueOf(PD_TYPE_CHAR, 'A'), "'A' (0x41)");
  EXPECT_EQ(valueOf(PD_TYPE_CHAR, '\n'), "'.' (0x0A)");
  EXPECT_EQ(valueOf(PD_TYPE_OS_ERROR, 13), "EACCES (13) \"Permission denied\"");
  EXPECT_EQ(valueOf(PD_TYPE_OS_ERROR, -5), "-5");
  EXPECT_EQ(valueOf(PD_TYPE_ZRC, SQLO_NOMEM), "ZRC=0x8B0F0000=-1961951232=SQLO_NOMEM \"No Memory Available\"");
  EXPECT_EQ(valueOf(PD_TYPE_ECFID, ecfFunctionId(0x1A, 1)), "utilities, sqlzGetZRCInfo (0x18D00001)");
  EXPECT_EQ(valueOf(PD_TYPE_ECFID, ecfFunctionId(0x1A, 0x7FFFF)), "utilities, 0x18D7FFFF");
  EXPECT_EQ(valueOf(PD_TYPE_ECFID, 7), "0x00000007");
  EXPECT_EQ(textOf(PD_TYPE_IP_ADDRESS, {"\x7F\0\0\x01", 4}), "127.0.0.1");
  EXPECT_EQ(textOf(PD_TYPE_IP_ADDRESS, {"\x20\x01\x0D\xB8\0\0\0\0\0\0\0\0\0\0\0\x01", 16}), "2001:DB8:0:0:0:0:0:1");
  EXPECT_EQ(textOf(PD_TYPE_UUID, "0123456789abcdef"), "30313233-3435-3637-3839-616263646566");

  ::setenv("TZ", "UTC0", 1);
  ossForgetTimeZone();
  EXPECT_EQ(valueOf(PD_TYPE_TIMESTAMP, std::int64_t{-1}), "1969-12-31-23.59.59.999000");
  ::unsetenv("TZ");
  ossForgetTimeZone();

  siginfo_t info = {};
  info.si_signo = SIGSEGV;
  info.si_code = 1;
  info.si_addr = reinterpret_cast<void*>(0x10);
  EXPECT_EQ(valueOf(PD_TYPE_SIGINFO, info), "11 SIGSEGV, code 1, errno 0, address 0x0000000000000010");
  info = {};
  info.si_signo = SIGTERM;
  info.si_pid = 77;
  EXPECT_EQ(valueOf(PD_TYPE_SIGINFO, info), "15 SIGTERM, code 0, errno 0, from process 77 of user 0");
}

TEST(PdItems, TextsKeepToTheirSizeAndStayText) {
  EXPECT_EQ(textOf(PD_TYPE_STRING, {"one\0two", 7}), "one");
  EXPECT_EQ(textOf(PD_TYPE_STRINGN, "a\nb\r\nc\rd\te\x1B[31m\x7F"), "a\r\nb\r\nc.d\te.[31m.");
  EXPECT_EQ(textOf(PD_TYPE_STRING, "ends itself\n"), "ends itself");
  EXPECT_EQ(textOf(PD_TYPE_STRING,
                   "Gr\xC3\xBC\xC3\x9F"
                   "e"),
            "Gr\xC3\xBC\xC3\x9F"
            "e");
  EXPECT_EQ(textOf(PD_TYPE_RAW_STRINGN, {"a\0\x1B\n", 3}), std::string("a\0\x1B", 3));
  char line[32];
  PdPen pen(line, sizeof line);
  pen.text("DATA #1\r\n");
  pdPenItemValue(pen, PD_TYPE_STRING, 0, "not read");
  EXPECT_EQ(std::string(line, pen.finish({})), "DATA #1\r\n") << "an empty text has no line";
}

TEST(PdItems, DumpsOfBytes) {
  std::string bytes;
  for (int i = 0; i < 0x10001; ++i) bytes += static_cast<char>(i);
  EXPECT_EQ(textOf(PD_TYPE_DEFAULT, bytes.substr(0x3E, 3)), "0x0000 : 3E3F 40                                    >?@");
  EXPECT_EQ(textOf(PD_TYPE_HEXDUMP_NO_ASCII, bytes.substr(0x3E, 17)),
            "0x0000 : 3E3F 4041 4243 4445 4647 4849 4A4B 4C4D\r\n0x0010 : 4E");
  std::string room(10 * bytes.size(), '\0');
  PdPen pen(room.data(), room.size());
  pdPenHexDump(pen, bytes.data(), bytes.size(), true);
  EXPECT_TRUE(room.starts_with("0x00000000 : 0001"));
  EXPECT_NE(room.find("\r\n0x00010000 : 00  "), std::string::npos);
}

// A type and a size that do not agree, null, and a value at the very end of what may be read.
TEST_APART(PdItems, WrongValuesAreShownAsFarAsTheyGo) {
  EXPECT_EQ(textOf(PD_TYPE_UINT, "abc"), "0x0000 : 6162 63                                    abc");
  EXPECT_EQ(textOf(PD_TYPE_FLOAT, "ab"), "0x0000 : 6162                                       ab");
  constexpr std::size_t kPage = 4096;
  auto* pages =
      static_cast<char*>(::mmap(nullptr, 2 * kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  ASSERT_NE(static_cast<void*>(pages), MAP_FAILED);
  ASSERT_EQ(::mprotect(pages + kPage, kPage, PROT_NONE), 0);
  std::memset(pages, 'x', kPage);
  for (std::uint32_t type = 0; type < PD_TYPE_COUNT + 1; ++type) {
    EXPECT_EQ(valueOf(type, nullptr, 8), "<null pointer>") << type;
    for (std::uint32_t size = 1; size <= 40; ++size) EXPECT_NE(valueOf(type, pages + kPage - size, size), "") << type;
  }
  ::munmap(pages, 2 * kPage);
}

std::string g_formatted;
std::size_t formatAsTold(std::uint32_t, const void*, std::uint32_t, char* text, std::size_t room) {
  const std::size_t characters = std::min(g_formatted.size(), room - 1);
  g_formatted.copy(text, characters);
  return characters;
}

TEST(PdItems, StructuresGoToTheirFormatter) {
  EXPECT_EQ(textOf(0x18000004, "ab"), "0x0000 : 6162                                       ab") << "nobody formats it";
  const auto before = g_ports.formatItem;
  g_ports.formatItem = formatAsTold;
  g_formatted = "  Handle = 3\r\n";
  EXPECT_EQ(textOf(0x18000004, "ab"), "  Handle = 3");
  g_formatted = std::string(100, 'x');
  char text[64];
  PdPen pen(text, sizeof text);
  pdPenItemValue(pen, 0x18000004, 2, "ab");
  EXPECT_TRUE(pen.isCut());
  EXPECT_EQ(std::string(text, pen.finish("<cut>")), std::string(58, 'x') + "<cut>");
  g_ports.formatItem = before;
}

}  // namespace
}  // namespace vek
