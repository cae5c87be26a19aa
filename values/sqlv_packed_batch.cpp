// Packed values by the column. Whole blocks go through the kernels of the processor (sqlv_packed_kernels.h); what these
// leave, and the value at which they stop, goes value by value through the code of the single calls.
#include <algorithm>

#include "values/sqlv_packed_check.h"
#include "values/sqlv_packed_chr.h"
#include "values/sqlv_packed_int.h"
#include "values/sqlv_packed_kernels.h"
#include "values/sqlv_rescale.h"
#include "values/sqlv_rounding.h"

namespace vek {
namespace {

// Lets `kernel(first, count)` do whole blocks and `single(index)` the values that it leaves: after a stop within a
// block as many as the block has, since another one than the failing may be next. Both tell how far they came.
template <class Kernel, class Single>
SqlzZrc overColumn(std::size_t count, std::size_t* done, SqlzZrc failure, Kernel kernel, Single single) noexcept {
  std::size_t index = 0;
  while (index < count) {
    index += kernel(index, count - index);
    const std::size_t blockEnd = index + std::min(count - index, kSqlvKernelBlock);
    for (; index < blockEnd; ++index)
      if (!single(index)) {
        *done = index;
        return failure;
      }
  }
  *done = count;
  return 0;
}

// For operations without a kernel.
constexpr auto kNoKernel = [](std::size_t /*first*/, std::size_t /*count*/) noexcept { return std::size_t{0}; };

// A descriptor that is none fails the first value, and nothing where there is no value.
SqlzZrc refused(std::size_t count, std::size_t* done) noexcept {
  *done = 0;
  return count == 0 ? 0 : SQLRX_DEC_INVALID;
}

template <class Word>
SqlzZrc check(const SqlvColumn& column, std::size_t count, std::size_t* done) noexcept {
  const auto work = sqlvi_kernels().check;
  const auto kernel = [&](std::size_t first, std::size_t left) noexcept {
    return work == nullptr ? 0 : work(column.from(first), left);
  };
  return overColumn(count, done, SQLRX_DEC_INVALID, kernel, [&](std::size_t index) noexcept {
    return !sqlvi_isMalformed(sqlvi_loadAs<Word>(column.at(index), column.bytes), column.descriptor.precision);
  });
}

template <class Word>
SqlzZrc toBig(const SqlvColumn& column, bool rounding, std::int64_t* target, std::size_t count,
              std::size_t* done) noexcept {
  const auto work = rounding ? nullptr : sqlvi_kernels().toBig;
  const auto kernel = [&](std::size_t first, std::size_t left) noexcept {
    return work == nullptr ? 0 : work(column.from(first), target + first, left);
  };
  return overColumn(count, done, SQLRX_DEC_OVERFLOW, kernel, [&](std::size_t index) noexcept {
    return sqlvi_toInteger(sqlvi_loadAs<Word>(column.at(index), column.bytes), column.descriptor.scale, rounding,
                           target + index);
  });
}

SqlzZrc toBig(const SqlvColumn& column, bool rounding, std::int64_t* target, std::size_t count,
              std::size_t* done) noexcept {
  if (!sqlvi_convertible(column.descriptor)) return refused(count, done);
  rounding = rounding && column.descriptor.scale > 0;
  if (column.bytes <= kSqlvShortBytes) return toBig<std::uint64_t>(column, rounding, target, count, done);
  return toBig<SqlvWide>(column, rounding, target, count, done);
}

template <class Word>
SqlzZrc fromBig(const std::int64_t* values, const SqlvTargetColumn& column, std::size_t count,
                std::size_t* done) noexcept {
  const unsigned scale = column.descriptor.scale;
  const std::uint64_t largest = kSqlvLargestOf[column.descriptor.precision - scale];
  const auto work = sqlvi_kernels().fromBig;
  const auto kernel = [&](std::size_t first, std::size_t left) noexcept {
    return work == nullptr ? 0 : work(values + first, column.from(first), left);
  };
  return overColumn(count, done, SQLRX_DEC_OVERFLOW, kernel, [&](std::size_t index) noexcept {
    const std::uint64_t magnitude = sqlvi_magnitude(values[index]);
    if (magnitude > largest) return false;
    const std::uint64_t negative = static_cast<std::uint64_t>(values[index]) >> 63U;
    sqlvi_storeAs<Word>(column.at(index), column.bytes, sqlvi_fromMagnitude<Word>(magnitude, negative, scale));
    return true;
  });
}

template <class Word, class Load, class Store>
SqlzZrc cut(const SqlvColumn& source, const SqlvTargetColumn& target, std::size_t count, std::size_t* done, Load load,
            Store store) noexcept {
  const SqlvRescale<Word> rescale(source.descriptor, target.descriptor);
  const auto work = sqlvi_kernels().rescale;
  const auto kernel = [&](std::size_t first, std::size_t left) noexcept {
    return work == nullptr ? 0 : work(source.from(first), target.from(first), left);
  };
  return overColumn(count, done, SQLRX_DEC_OVERFLOW, kernel, [&](std::size_t index) noexcept {
    Word word = 0;
    if (!rescale.cut(load(source.at(index), source.bytes), &word)) return false;
    store(target.at(index), target.bytes, word);
    return true;
  });
}

SqlzZrc cut(const SqlvColumn& source, const SqlvTargetColumn& target, std::size_t count, std::size_t* done) noexcept {
  if (source.bytes <= kSqlvShortBytes && target.bytes <= kSqlvShortBytes)
    return cut<std::uint64_t>(source, target, count, done, sqlvi_loadShort, sqlvi_storeShort);
  if (source.bytes > kSqlvShortBytes && target.bytes > kSqlvShortBytes)
    return cut<SqlvWide>(source, target, count, done, sqlvi_loadLong, sqlvi_storeLong);
  return cut<SqlvWide>(source, target, count, done, sqlvi_load, sqlvi_store);
}

SqlzZrc rounded(const SqlvColumn& source, const SqlvTargetColumn& target, std::uint32_t rounding, std::size_t count,
                std::size_t* done) noexcept {
  const SqlvRescale<SqlvWide> rescale(source.descriptor, target.descriptor);
  return overColumn(count, done, SQLRX_DEC_OVERFLOW, kNoKernel, [&](std::size_t index) noexcept {
    SqlvWide word = 0;
    const SqlvWide from = sqlvi_load(source.at(index), source.bytes);
    if (!rescale.rounded(from, rounding, target.descriptor.precision, &word)) return false;
    sqlvi_store(target.at(index), target.bytes, word);
    return true;
  });
}

}  // namespace
}  // namespace vek

SqlzZrc sqlv_check_packed_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                std::size_t count, std::size_t* done) noexcept {
  using namespace vek;
  const SqlvColumn column(packed, stride, descriptor);
  if (descriptor.precision > SQLV_PRECISION_MAX)
    return overColumn(count, done, SQLRX_DEC_INVALID, kNoKernel, [&](std::size_t index) noexcept {
      return sqlv_check_packed_Internal(column.at(index), descriptor) == 0;
    });
  if (!sqlvi_convertible(descriptor)) return refused(count, done);
  if (column.bytes <= kSqlvShortBytes) return check<std::uint64_t>(column, count, done);
  return check<SqlvWide>(column, count, done);
}

SqlzZrc sqlvpdc2big_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                          std::int64_t* target, std::size_t count, std::size_t* done) noexcept {
  return vek::toBig({packed, stride, descriptor}, vek::sqlvi_roundingIsOn(), target, count, done);
}

SqlzZrc sqlvpdc2big_trunc_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                std::int64_t* target, std::size_t count, std::size_t* done) noexcept {
  return vek::toBig({packed, stride, descriptor}, false, target, count, done);
}

SqlzZrc sqlvbig2dec_batch(const std::int64_t* values, std::uint8_t* target, std::size_t targetStride,
                          SqlvDescriptor descriptor, std::size_t count, std::size_t* done) noexcept {
  using namespace vek;
  if (!sqlvi_convertible(descriptor)) return refused(count, done);
  const SqlvTargetColumn column(target, targetStride, descriptor);
  if (column.bytes <= kSqlvShortBytes) return fromBig<std::uint64_t>(values, column, count, done);
  return fromBig<SqlvWide>(values, column, count, done);
}

SqlzZrc sqlvpdc2dec_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                          std::uint8_t* target, std::size_t targetStride, SqlvDescriptor targetDescriptor,
                          std::size_t count, std::size_t* done) noexcept {
  using namespace vek;
  if (!sqlvi_convertible(descriptor) || !sqlvi_convertible(targetDescriptor)) return refused(count, done);
  const SqlvColumn from(packed, stride, descriptor);
  const SqlvTargetColumn to(target, targetStride, targetDescriptor);
  if (descriptor.scale > targetDescriptor.scale && sqlvi_roundingIsOn())
    return rounded(from, to, sqlvi_decimalRounding(), count, done);
  return cut(from, to, count, done);
}

SqlzZrc sqlvpdc2dec_trunc_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                                std::uint8_t* target, std::size_t targetStride, SqlvDescriptor targetDescriptor,
                                std::size_t count, std::size_t* done) noexcept {
  using namespace vek;
  if (!sqlvi_convertible(descriptor) || !sqlvi_convertible(targetDescriptor)) return refused(count, done);
  return cut({packed, stride, descriptor}, {target, targetStride, targetDescriptor}, count, done);
}

SqlzZrc sqlv_num_2_chr_batch(const std::uint8_t* packed, std::size_t stride, SqlvDescriptor descriptor,
                             const SqlvNationalLanguage* language, char* target, std::size_t targetStride,
                             std::size_t count, std::size_t* done) noexcept {
  using namespace vek;
  if (!sqlvi_convertible(descriptor)) return refused(count, done);
  const char decimalPoint = language != nullptr ? language->decimalPoint : '.';
  const auto work = sqlvi_kernels().text;
  std::size_t i = work == nullptr ? 0 : work({packed, stride, descriptor}, decimalPoint, target, targetStride, count);
  for (; i < count; ++i) sqlvi_toCharacters(packed + i * stride, descriptor, decimalPoint, target + i * targetStride);
  *done = count;
  return 0;
}
