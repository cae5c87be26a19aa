// Packed decimals from anywhere: every operation on any descriptor and any bytes, in memory of exactly the size that
// the descriptor tells, and packed decimals made from any double and any decimal floating-point number. Whatever the
// bytes are, nothing outside is touched; where validation accepts them, what goes forth and back is what it was.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "veksys/values/decimal_float.h"
#include "veksys/values/packed_decimal.h"

namespace {

// Bytes on the heap, as many as are needed and no more.
struct Bytes {
  std::size_t size;
  std::unique_ptr<std::uint8_t[]> at;

  explicit Bytes(std::size_t count) : size(count), at(new std::uint8_t[count]()) {}
  Bytes(const std::uint8_t* from, std::size_t count) : Bytes(count) { std::memcpy(at.get(), from, count); }
};

void require(bool holds) {
  if (!holds) std::abort();
}

bool convertible(SqlvDescriptor descriptor) {
  return descriptor.precision >= 1 && descriptor.precision <= SQLV_PRECISION_MAX &&
         descriptor.scale <= descriptor.precision;
}

// What a conversion may answer, given whether the descriptors are ones that it takes.
void requireConversion(SqlzZrc zrc, bool known) {
  require(known ? zrc == 0 || zrc == SQLRX_DEC_OVERFLOW : zrc == SQLRX_DEC_INVALID);
}

template <class Target>
void toInteger(const Bytes& value, SqlvDescriptor type,
               SqlzZrc (*operation)(const std::uint8_t*, SqlvDescriptor, Target*) noexcept) {
  Target target = 0;
  requireConversion(operation(value.at.get(), type, &target), convertible(type));
}

void toEveryInteger(const Bytes& value, SqlvDescriptor type) {
  toInteger(value, type, sqlvpdc2sht);
  toInteger(value, type, sqlvpdc2sht_trunc);
  toInteger(value, type, sqlvpdc2usht);
  toInteger(value, type, sqlvpdc2lng);
  toInteger(value, type, sqlvpdc2ulng);
  toInteger(value, type, sqlvpdc2big);
  toInteger(value, type, sqlvpdc2ubig);
}

// To another packed type, rounded and cut. Well-formed digits that are cut are the same through a decimal
// floating-point number, which holds all of them, or too large for both.
void toPacked(const Bytes& value, SqlvDescriptor type, SqlvDescriptor to) {
  const bool known = convertible(type) && convertible(to);
  const Bytes straight(sqlvPackedBytes(to));
  requireConversion(sqlvpdc2dec(value.at.get(), type, straight.at.get(), to), known);
  const SqlzZrc zrc = sqlvpdc2dec_trunc(value.at.get(), type, straight.at.get(), to);
  requireConversion(zrc, known);
  const Bytes around(straight.size);
  dfpal_decimal64FromPacked(value.at.get(), type);
  const DfpalDecimal128 number = dfpal_decimal128FromPacked(value.at.get(), type);
  const bool fits = dfpal_decimal128ToPacked(number, DFPAL_ROUND_DOWN, around.at.get(), to);
  if (!known || sqlv_check_packed_Internal(value.at.get(), type) != 0) return;
  require(fits == (zrc == 0));
  require(!fits || std::memcmp(straight.at.get(), around.at.get(), straight.size) == 0);
}

// A double and any bits of a decimal floating-point number as packed values.
void fromNumbers(const std::uint8_t* data, std::size_t size, double real, SqlvDescriptor to) {
  const Bytes target(sqlvPackedBytes(to));
  requireConversion(sqlvflt2dec(real, target.at.get(), to), convertible(to));
  requireConversion(sqlvflt2dec_trunc(real, target.at.get(), to), convertible(to));
  for (const std::uint32_t bytes : {SQLV_DECFLOAT16_BYTES, SQLV_DECFLOAT34_BYTES}) {
    if (size < bytes) return;
    const SqlzZrc zrc = sqlvdfp2dec(data, bytes, target.at.get(), to);
    requireConversion(zrc, convertible(to));
    require(zrc != 0 || sqlv_check_packed_Internal(target.at.get(), to) == 0);
  }
}

// A well-formed value at a scale with room for all of its digits, and back.
void roundTrip(const Bytes& value, SqlvDescriptor type) {
  if (sqlv_check_packed_Internal(value.at.get(), type) != 0) return;
  const SqlvDescriptor wide = {SQLV_PRECISION_MAX, type.scale};
  const Bytes widened(sqlvPackedBytes(wide));
  require(sqlvpdc2dec_trunc(value.at.get(), type, widened.at.get(), wide) == 0);
  require(sqlv_check_packed_Internal(widened.at.get(), wide) == 0);
  const Bytes narrowed(value.size);
  require(sqlvpdc2dec_trunc(widened.at.get(), wide, narrowed.at.get(), type) == 0);
  require(std::memcmp(value.at.get(), narrowed.at.get(), value.size) == 0);
  std::int64_t integer = 0;
  if (sqlvpdc2big_trunc(value.at.get(), type, &integer) != 0) return;
  require(sqlvbig2dec(integer, narrowed.at.get(), type) == 0);
  std::int64_t again = 0;
  require(sqlvpdc2big_trunc(narrowed.at.get(), type, &again) == 0 && again == integer);
}

void toText(const Bytes& value, SqlvDescriptor type) {
  const Bytes text(type.precision + 2U);
  const SqlvNumericValue source = {type, value.at.get()};
  const SqlvCharacterValue target = {reinterpret_cast<char*>(text.at.get())};
  sqlv_num_2_chr_legacy(0, &source, nullptr, &target);
}

// As many values as the input holds, side by side.
void columns(const std::uint8_t* data, std::size_t size, SqlvDescriptor type, SqlvDescriptor to) {
  const std::size_t stride = sqlvPackedBytes(type);
  const std::size_t count = size / stride;
  const Bytes values(data, count * stride);
  const Bytes targets(count * sqlvPackedBytes(to));
  const Bytes texts(count * (type.precision + 2U));
  const std::unique_ptr<std::int64_t[]> integers(new std::int64_t[count]());
  std::size_t done = 0;
  sqlv_check_packed_batch(values.at.get(), stride, type, count, &done);
  require(done <= count);
  sqlvpdc2dec_batch(values.at.get(), stride, type, targets.at.get(), sqlvPackedBytes(to), to, count, &done);
  sqlv_num_2_chr_batch(values.at.get(), stride, type, nullptr, reinterpret_cast<char*>(texts.at.get()),
                       type.precision + 2U, count, &done);
  sqlvpdc2big_batch(values.at.get(), stride, type, integers.get(), count, &done);
  sqlvbig2dec_batch(integers.get(), targets.at.get(), sqlvPackedBytes(to), to, done, &done);
}

}  // namespace

// Two descriptors, the rounding setting and mode, a double, then the bytes of values.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 14;
  if (size < kHeader) return 0;
  const SqlvDescriptor type = {data[0], data[1]};
  const SqlvDescriptor to = {data[2], data[3]};
  sqlvSetDecimalRounding(data[4] & 1U);
  dfpalSetRoundingMode(data[5]);
  double real = 0;
  std::memcpy(&real, data + 6, sizeof real);
  data += kHeader;
  size -= kHeader;
  fromNumbers(data, size, real, to);
  if (size < sqlvPackedBytes(type)) return 0;
  const Bytes value(data, sqlvPackedBytes(type));
  toEveryInteger(value, type);
  toPacked(value, type, to);
  sqlvpdc2flt(value.at.get(), type, &real);
  toText(value, type);
  if (convertible(type)) roundTrip(value, type);
  columns(data, size, type, to);
  return 0;
}
