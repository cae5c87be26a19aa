// Packed values at another precision and scale.
#include "values/sqlv_rescale.h"

namespace vek {
namespace {

inline SqlzZrc cut(const std::uint8_t* packed, SqlvDescriptor from, std::uint8_t* target, SqlvDescriptor to) noexcept {
  const std::size_t fromBytes = sqlvPackedBytes(from);
  const std::size_t toBytes = sqlvPackedBytes(to);
  if (fromBytes <= kSqlvShortBytes && toBytes <= kSqlvShortBytes) {
    std::uint64_t word = 0;
    if (!SqlvRescale<std::uint64_t>(from, to).cut(sqlvi_loadShort(packed, fromBytes), &word)) return SQLRX_DEC_OVERFLOW;
    sqlvi_storeShort(target, toBytes, word);
    return 0;
  }
  SqlvWide word = 0;
  if (!SqlvRescale<SqlvWide>(from, to).cut(sqlvi_load(packed, fromBytes), &word)) return SQLRX_DEC_OVERFLOW;
  sqlvi_store(target, toBytes, word);
  return 0;
}

SqlzZrc rounded(const std::uint8_t* packed, SqlvDescriptor from, std::uint8_t* target, SqlvDescriptor to,
                std::uint32_t rounding) noexcept {
  const SqlvWide source = sqlvi_load(packed, sqlvPackedBytes(from));
  SqlvWide word = 0;
  if (!SqlvRescale<SqlvWide>(from, to).rounded(source, rounding, to.precision, &word)) return SQLRX_DEC_OVERFLOW;
  sqlvi_store(target, sqlvPackedBytes(to), word);
  return 0;
}

}  // namespace
}  // namespace vek

SqlzZrc sqlvpdc2dec_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint8_t* target,
                          SqlvDescriptor targetDescriptor) noexcept {
  if (!vek::sqlvi_convertible(descriptor) || !vek::sqlvi_convertible(targetDescriptor)) return SQLRX_DEC_INVALID;
  return vek::cut(packed, descriptor, target, targetDescriptor);
}

SqlzZrc sqlvpdc2dec(const std::uint8_t* packed, SqlvDescriptor descriptor, std::uint8_t* target,
                    SqlvDescriptor targetDescriptor) noexcept {
  using namespace vek;
  if (!sqlvi_convertible(descriptor) || !sqlvi_convertible(targetDescriptor)) return SQLRX_DEC_INVALID;
  if (descriptor.scale > targetDescriptor.scale && sqlvi_roundingIsOn()) [[unlikely]]
    return rounded(packed, descriptor, target, targetDescriptor, sqlvi_decimalRounding());
  return cut(packed, descriptor, target, targetDescriptor);
}
