// Packed values to and from binary integers.
#include "values/sqlv_packed_int.h"

#include "values/sqlv_rounding.h"

namespace vek {
namespace {

template <class Target, class Word>
inline SqlzZrc read(const std::uint8_t* packed, std::size_t count, unsigned scale, bool rounding,
                    Target* target) noexcept {
  return sqlvi_toInteger(sqlvi_loadAs<Word>(packed, count), scale, rounding, target) ? 0 : SQLRX_DEC_OVERFLOW;
}

template <class Target>
inline SqlzZrc toInteger(const std::uint8_t* packed, SqlvDescriptor descriptor, bool rounding,
                         Target* target) noexcept {
  if (!sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  const std::size_t count = sqlvPackedBytes(descriptor);
  if (count <= kSqlvShortBytes) return read<Target, std::uint64_t>(packed, count, descriptor.scale, rounding, target);
  return read<Target, SqlvWide>(packed, count, descriptor.scale, rounding, target);
}

inline SqlzZrc fromMagnitude(std::uint64_t magnitude, std::uint64_t negative, std::uint8_t* target,
                             SqlvDescriptor descriptor) noexcept {
  if (!sqlvi_convertible(descriptor)) return SQLRX_DEC_INVALID;
  const unsigned scale = descriptor.scale;
  if (magnitude > kSqlvLargestOf[descriptor.precision - scale]) return SQLRX_DEC_OVERFLOW;
  const std::size_t count = sqlvPackedBytes(descriptor);
  if (count <= kSqlvShortBytes)
    sqlvi_storeShort(target, count, sqlvi_fromMagnitude<std::uint64_t>(magnitude, negative, scale));
  else
    sqlvi_storeLong(target, count, sqlvi_fromMagnitude<SqlvWide>(magnitude, negative, scale));
  return 0;
}

inline SqlzZrc fromSigned(std::int64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return fromMagnitude(sqlvi_magnitude(value), static_cast<std::uint64_t>(value) >> 63U, target, descriptor);
}

}  // namespace
}  // namespace vek

#define SQLV_TO_INTEGER(name, Target)                                                                    \
  SqlzZrc name(const std::uint8_t* packed, SqlvDescriptor descriptor, Target* target) noexcept {         \
    return vek::toInteger(packed, descriptor, vek::sqlvi_roundingIsOn(), target);                        \
  }                                                                                                      \
  SqlzZrc name##_trunc(const std::uint8_t* packed, SqlvDescriptor descriptor, Target* target) noexcept { \
    return vek::toInteger(packed, descriptor, false, target);                                            \
  }

SQLV_TO_INTEGER(sqlvpdc2sht, std::int16_t)
SQLV_TO_INTEGER(sqlvpdc2usht, std::uint16_t)
SQLV_TO_INTEGER(sqlvpdc2lng, std::int32_t)
SQLV_TO_INTEGER(sqlvpdc2ulng, std::uint32_t)
SQLV_TO_INTEGER(sqlvpdc2big, std::int64_t)
SQLV_TO_INTEGER(sqlvpdc2ubig, std::uint64_t)

SqlzZrc sqlvsht2dec(std::int16_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromSigned(value, target, descriptor);
}

SqlzZrc sqlvint2dec(std::int32_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromSigned(value, target, descriptor);
}

SqlzZrc sqlvbig2dec(std::int64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromSigned(value, target, descriptor);
}

SqlzZrc sqlvubig2dec(std::uint64_t value, std::uint8_t* target, SqlvDescriptor descriptor) noexcept {
  return vek::fromMagnitude(value, 0, target, descriptor);
}
