// DECFLOAT values to and from text.
#include <cstring>

#include "values/sqlv_dfp.h"

namespace vek {
namespace {

constexpr char kPoint = '.';

void read(const char* text, std::size_t bytes, DfpalDecimal64* out) noexcept {
  *out = dfpal_decimal64FromString(text, bytes);
}
void read(const char* text, std::size_t bytes, DfpalDecimal128* out) noexcept {
  *out = dfpal_decimal128FromString(text, bytes);
}
std::size_t write(DfpalDecimal64 value, char* buffer, std::size_t bytes) noexcept {
  return dfpal_decimal64ToString(value, buffer, bytes);
}
std::size_t write(DfpalDecimal128 value, char* buffer, std::size_t bytes) noexcept {
  return dfpal_decimal128ToString(value, buffer, bytes);
}

}  // namespace
}  // namespace vek

SqlzZrc sqlv_chr_2_dfp(const char* text, std::size_t textBytes, void* value, std::uint32_t valueBytes) noexcept {
  while (textBytes > 0 && *text == ' ') {
    ++text;
    --textBytes;
  }
  while (textBytes > 0 && text[textBytes - 1] == ' ') --textBytes;
  return vek::sqlvi_dfpOfWidth(valueBytes, [=](auto width) {
    using Value = decltype(width);
    return vek::sqlvi_dfpProtocol(
        [=] {
          Value result;
          vek::read(text, textBytes, &result);
          return result;
        },
        [value](Value result) { std::memcpy(value, &result, sizeof result); });
  });
}

SqlzZrc sqlvDecfloatToCharWithDelimiter(const void* value, std::uint32_t valueBytes, char delimiter, char* buffer,
                                        std::size_t bufferBytes, std::size_t* lengthOut) noexcept {
  return vek::sqlvi_dfpOfWidth(valueBytes, [=](auto width) -> SqlzZrc {
    std::memcpy(&width, value, sizeof width);
    std::uint32_t raised = 0;  // stays 0: writing raises nothing
    const std::size_t length = vek::sqlvi_dfpRun([=] { return vek::write(width, buffer, bufferBytes); }, &raised);
    if (lengthOut != nullptr) *lengthOut = length;
    if (length >= bufferBytes) return SQLRX_DEC_OVERFLOW;
    if (delimiter == vek::kPoint) return 0;
    if (void* const point = std::memchr(buffer, vek::kPoint, length)) *static_cast<char*>(point) = delimiter;
    return 0;
  });
}

SqlzZrc sqlvDecfloatToCharWrapper(const void* value, std::uint32_t valueBytes, char* buffer, std::size_t bufferBytes,
                                  std::size_t* lengthOut) noexcept {
  return sqlvDecfloatToCharWithDelimiter(value, valueBytes, vek::kPoint, buffer, bufferBytes, lengthOut);
}
