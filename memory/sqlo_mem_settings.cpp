#include "memory/sqlo_mem_settings.h"

#include <algorithm>
#include <iterator>
#include <string_view>

#include "platform/ports.h"

namespace vek {
namespace {

constexpr std::string_view kYes[] = {"1", "YES", "TRUE", "ON", "Y", "T"};
constexpr std::string_view kNo[] = {"0", "NO", "FALSE", "OFF", "N", "F"};

constexpr char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool isOneOf(std::string_view text, const std::string_view (&words)[6]) noexcept {
  return std::any_of(std::begin(words), std::end(words), [&](std::string_view word) {
    return std::equal(text.begin(), text.end(), word.begin(), word.end(), [](char a, char b) { return upper(a) == b; });
  });
}

}  // namespace

bool sqloi_readBoolean(const char* name, bool byDefault) noexcept {
  char value[16];
  if (!g_ports.readSetting(name, value, sizeof value)) return byDefault;
  return byDefault ? !isOneOf(value, kNo) : isOneOf(value, kYes);
}

bool sqloi_isSettingOn(const char* name) noexcept {
  char value[64];
  return g_ports.readSetting(name, value, sizeof value) && value[0] != '\0' && !isOneOf(value, kNo);
}

}  // namespace vek
