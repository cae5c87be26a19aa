// Columns against the single calls, with the kernels of this processor and without.
#include <functional>

#include "platform/support.h"
#include "values/packed_support.h"
#include "values/seed.h"
#include "values/sqlv_packed_kernels.h"
#include "veksys/values/dfpal.h"

namespace vek::valuestest {
namespace {

constexpr std::size_t kGap = 3;  // bytes between values, which nobody may write
constexpr std::uint8_t kUntouched = 0xEE;

// Values of a type, with gaps between them, at the end of a page.
struct Column {
  GuardedPage page;
  SqlvDescriptor type;
  std::size_t count;
  std::size_t bytes;  // of a value, with the gap behind it
  std::uint8_t* values;

  Column(std::size_t valueBytes, std::size_t gap, std::size_t values_)
      : type(), count(values_), bytes(valueBytes + gap), values(page.place(count * bytes - gap, true)) {
    std::memset(values, kUntouched, count * bytes - gap);
  }
  // Random digits, among them the numbers around the ends of 64-bit integers, with signs that are written or with any.
  Column(SqlvDescriptor type_, std::size_t values_, bool anySign, Random& random)
      : Column(sqlvPackedBytes(type_), kGap, values_) {
    type = type_;
    for (std::size_t i = 0; i < count; ++i) {
      Wide magnitude = static_cast<Wide>(random()) << 64U | random();
      if (random() % 4 == 0) magnitude = ((Wide{1} << 63U) - 1 + random() % 3) * tenTo(type.scale);
      magnitude %= tenTo(static_cast<unsigned>(random() % 4 == 0 ? 1 + random() % type.precision : type.precision));
      const unsigned sign = anySign ? random() % 16 : magnitude != 0 && random() % 2 == 0 ? 0xD : 0xC;
      std::memcpy(at(i), packedOf(magnitude, sign, type).data(), sqlvPackedBytes(type));
    }
  }
  std::uint8_t* at(std::size_t index) const { return values + index * bytes; }
};

// One operation both ways: by the column, and value by value until one fails.
struct Operation {
  const char* name;
  std::size_t targetBytes;
  std::size_t gap;
  std::function<SqlzZrc(std::uint8_t* target, std::size_t stride, std::size_t* done)> column;
  std::function<SqlzZrc(std::size_t index, std::uint8_t* target)> single;
};

// The codes agree, how far both came, and the bytes of the target up to there.
void expectAgreement(const Operation& operation, std::size_t count, SqlvDescriptor type) {
  const Column expected(operation.targetBytes, operation.gap, count);
  std::size_t done = 0;
  SqlzZrc zrc = 0;
  while (done < count && (zrc = operation.single(done, expected.at(done))) == 0) ++done;
  const std::size_t bytes = done == 0 ? 0 : done * expected.bytes - operation.gap;
  for (const bool kernels : {true, false}) {
    sqlvi_useKernels(kernels);
    const Column target(operation.targetBytes, operation.gap, count);
    std::size_t columnDone = count + 1;
    ASSERT_EQ(operation.column(target.values, target.bytes, &columnDone), zrc) << operation.name;
    ASSERT_EQ(columnDone, done) << operation.name << " kernels " << kernels;
    ASSERT_EQ(hexOf(target.values, bytes), hexOf(expected.values, bytes))
        << operation.name << " of " << int{type.precision} << "," << int{type.scale} << " kernels " << kernels;
  }
  sqlvi_useKernels(true);
}

template <class Batch, class Single>
Operation toInteger(const char* name, const Column& from, Batch batch, Single single) {
  const auto integer = [](std::uint8_t* target) { return reinterpret_cast<std::int64_t*>(target); };
  return {name, sizeof(std::int64_t), 0,
          [=, &from](std::uint8_t* target, std::size_t, std::size_t* done) {
            return batch(from.values, from.bytes, from.type, integer(target), from.count, done);
          },
          [=, &from](std::size_t i, std::uint8_t* target) { return single(from.at(i), from.type, integer(target)); }};
}

template <class Batch, class Single>
Operation rescale(const char* name, const Column& from, SqlvDescriptor to, Batch batch, Single single) {
  return {name, sqlvPackedBytes(to), kGap,
          [=, &from](std::uint8_t* target, std::size_t stride, std::size_t* done) {
            return batch(from.values, from.bytes, from.type, target, stride, to, from.count, done);
          },
          [=, &from](std::size_t i, std::uint8_t* target) { return single(from.at(i), from.type, target, to); }};
}

std::vector<Operation> operationsOf(const Column& from, SqlvDescriptor to, const std::vector<std::int64_t>& integers) {
  const SqlvDescriptor type = from.type;
  return {
      {"check", 1, kGap,
       [=, &from](std::uint8_t*, std::size_t, std::size_t* done) {
         return sqlv_check_packed_batch(from.values, from.bytes, type, from.count, done);
       },
       [=, &from](std::size_t i, std::uint8_t*) { return sqlv_check_packed_Internal(from.at(i), type); }},
      {"text", type.precision + 2U, kGap,
       [=, &from](std::uint8_t* target, std::size_t stride, std::size_t* done) {
         return sqlv_num_2_chr_batch(from.values, from.bytes, type, nullptr, reinterpret_cast<char*>(target), stride,
                                     from.count, done);
       },
       [=, &from](std::size_t i, std::uint8_t* target) {
         const SqlvNumericValue source = {type, from.at(i)};
         const SqlvCharacterValue text = {reinterpret_cast<char*>(target)};
         return sqlv_num_2_chr_legacy(0, &source, nullptr, &text);
       }},
      {"from integer", sqlvPackedBytes(type), kGap,
       [=, &integers](std::uint8_t* target, std::size_t stride, std::size_t* done) {
         return sqlvbig2dec_batch(integers.data(), target, stride, type, integers.size(), done);
       },
       [=, &integers](std::size_t i, std::uint8_t* target) { return sqlvbig2dec(integers[i], target, type); }},
      toInteger("to integer", from, sqlvpdc2big_batch, sqlvpdc2big),
      toInteger("to integer, cut", from, sqlvpdc2big_trunc_batch, sqlvpdc2big_trunc),
      rescale("rescale", from, to, sqlvpdc2dec_batch, sqlvpdc2dec),
      rescale("rescale, cut", from, to, sqlvpdc2dec_trunc_batch, sqlvpdc2dec_trunc),
  };
}

// Integers that a type holds, and now and then one that it may not.
std::vector<std::int64_t> integersFor(SqlvDescriptor type, std::size_t count, Random& random) {
  std::vector<std::int64_t> integers(count);
  for (std::int64_t& each : integers) {
    const Wide within = (random() >> (1 + random() % 63)) % tenTo(type.precision + 0U - type.scale);
    each = random() % 2 == 0 ? -static_cast<std::int64_t>(within) : static_cast<std::int64_t>(within);
  }
  if (random() % 4 == 0) integers[random() % count] = INT64_MIN;
  return integers;
}

// Every precision and scale, columns of up to three blocks and some values more, rounding or not.
TEST(PackedColumn, DoesWhatTheSingleCallsDo) {
  const platformtest::Instance instance;
  Random random;
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX; ++precision)
    for (unsigned scale = 0; scale <= precision; ++scale) {
      const SqlvDescriptor type = descriptorOf(precision, scale);
      const std::size_t count = 1 + random() % 15;
      sqlvSetDecimalRounding(static_cast<std::uint16_t>(random() % 2));
      EXPECT_EQ(dfpalSetRoundingMode(static_cast<std::uint32_t>(random() % DFPAL_ROUND_MODES)), 0);
      const auto toPrecision = static_cast<unsigned>(1 + random() % SQLV_PRECISION_MAX);
      const SqlvDescriptor to = descriptorOf(toPrecision, static_cast<unsigned>(random() % (toPrecision + 1)));
      const std::vector<std::int64_t> integers = integersFor(type, count, random);
      for (const bool anySign : {false, true}) {
        const Column column(type, count, anySign, random);
        for (const Operation& operation : operationsOf(column, to, integers))
          ASSERT_NO_FATAL_FAILURE(expectAgreement(operation, count, type));
      }
    }
  sqlvSetDecimalRounding(0);
}

// A fault anywhere in a column stops validation exactly there: each nibble of each value in turn, and negative zeros.
TEST(PackedColumn, ValidationStopsAtTheFault) {
  constexpr std::size_t kCount = 11;
  Random random;
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX; ++precision) {
    const SqlvDescriptor type = descriptorOf(precision, 0);
    const Column column(type, kCount, false, random);
    const std::size_t bytes = sqlvPackedBytes(type);
    for (std::size_t fault = 0; fault <= 2 * bytes; ++fault)
      for (std::size_t index = 0; index < kCount; ++index) {
        const std::vector<std::uint8_t> kept(column.at(index), column.at(index) + bytes);
        if (fault < 2 * bytes)
          setNibble(column.at(index), fault, 0xE);
        else
          std::memcpy(column.at(index), packedOf(0, 0xD, type).data(), bytes);
        for (const bool kernels : {true, false}) {
          sqlvi_useKernels(kernels);
          std::size_t done = 0;
          ASSERT_EQ(sqlv_check_packed_batch(column.values, column.bytes, type, kCount, &done), SQLRX_DEC_INVALID);
          ASSERT_EQ(done, index) << "precision " << precision << " fault " << fault << " kernels " << kernels;
        }
        std::memcpy(column.at(index), kept.data(), bytes);
      }
  }
  sqlvi_useKernels(true);
}

}  // namespace
}  // namespace vek::valuestest
