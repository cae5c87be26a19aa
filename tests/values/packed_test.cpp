// Packed decimals: validation against the rules read digit by digit, binary integers against digits taken one by one,
// and columns against the single calls, with the kernels of this processor and without.
#include <functional>

#include "platform/support.h"
#include "values/sqlv_packed_kernels.h"
#include "values/support.h"

namespace vek::valuestest {
namespace {

// ---- validation -------------------------------------------------------------------------------------------------

bool isWellFormed(const std::vector<std::uint8_t>& value, SqlvDescriptor descriptor) {
  const std::size_t signIndex = value.size() * 2 - 1;
  const auto nibble = [&](std::size_t i) { return i % 2 == 0 ? value[i / 2] >> 4U : value[i / 2] & 0xFU; };
  bool any = false;
  for (std::size_t i = 0; i < signIndex; ++i) {
    if (nibble(i) > 9 || (i + descriptor.precision < signIndex && nibble(i) != 0)) return false;
    any = any || nibble(i) != 0;
  }
  return descriptor.precision != 0 && descriptor.scale <= descriptor.precision &&
         (nibble(signIndex) == 0xC || (nibble(signIndex) == 0xD && any));
}

void expectVerdict(const GuardedPage& page, const std::vector<std::uint8_t>& value, SqlvDescriptor descriptor) {
  const SqlzZrc wanted = isWellFormed(value, descriptor) ? 0 : SQLRX_DEC_INVALID;
  for (const bool atEnd : {false, true}) {
    const std::uint8_t* packed = page.place(value, atEnd);
    std::size_t done = 5;
    ASSERT_EQ(sqlv_check_packed_Internal(packed, descriptor), wanted)
        << hexOf(value.data(), value.size()) << " " << int{descriptor.precision} << "," << int{descriptor.scale};
    ASSERT_EQ(sqlv_check_packed_batch(packed, value.size(), descriptor, 1, &done), wanted);
    ASSERT_EQ(done, wanted == 0 ? 1U : 0U);
  }
}

// Every nibble, pad and sign among them, with every content, in values of zeros, of nines and of random digits, at
// every precision that a descriptor can name.
TEST(PackedCheck, EveryNibbleAtEveryPrecision) {
  const GuardedPage page;
  Random generator;
  const auto random = [&](unsigned end) { return static_cast<unsigned>(generator() % end); };
  for (unsigned precision = 0; precision <= 255; ++precision) {
    const SqlvDescriptor descriptor = descriptorOf(precision, random(precision + 1));
    const std::size_t nibbles = sqlvPackedBytes(descriptor) * 2;
    for (const unsigned sign : {0xCU, 0xDU})
      for (const unsigned digit : {0U, 9U, 10U}) {
        std::vector<std::uint8_t> value(nibbles / 2);
        for (std::size_t i = nibbles - 1 - precision; i + 1 < nibbles; ++i)
          setNibble(value.data(), i, digit == 10 ? random(10) : digit);
        setNibble(value.data(), nibbles - 1, sign);
        for (std::size_t i = 0; i < nibbles; ++i)
          for (unsigned content = 0; content < 16; ++content) {
            std::vector<std::uint8_t> changed = value;
            setNibble(changed.data(), i, content);
            ASSERT_NO_FATAL_FAILURE(expectVerdict(page, changed, descriptor));
          }
      }
  }
}

TEST(PackedCheck, DescriptorsThatAreNone) {
  const platformtest::Instance instance;  // the text is traced
  const std::vector<std::uint8_t> seven = {0x7C};
  EXPECT_EQ(sqlv_check_packed_Internal(seven.data(), descriptorOf(1, 2)), SQLRX_DEC_INVALID);
  Packed target = {};
  std::int64_t integer = 5;
  double real = 5;
  std::size_t done = 5;
  for (const SqlvDescriptor none :
       {descriptorOf(0, 0), descriptorOf(32, 0), descriptorOf(255, 255), descriptorOf(5, 6)}) {
    const SqlvNumericValue source = {none, seven.data()};
    char text[2] = {'?', '?'};
    const SqlvCharacterValue characters = {text};
    EXPECT_EQ(sqlvpdc2big(seven.data(), none, &integer), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlvpdc2flt(seven.data(), none, &real), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlvbig2dec(7, target.data(), none), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlvflt2dec(7, target.data(), none), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlvpdc2dec(seven.data(), none, target.data(), {1, 0}), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlvpdc2dec(seven.data(), {1, 0}, target.data(), none), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlv_num_2_chr_legacy(0, &source, nullptr, &characters), SQLRX_DEC_INVALID);
    EXPECT_EQ(sqlvbig2dec_batch(&integer, target.data(), 1, none, 1, &done), SQLRX_DEC_INVALID);
    EXPECT_EQ(done, 0U);
    done = 5;
    EXPECT_EQ(sqlv_check_packed_batch(seven.data(), 1, none, 0, &done), 0);
    EXPECT_EQ(sqlvbig2dec_batch(&integer, target.data(), 1, none, 0, &done), 0);
    EXPECT_EQ(done, 0U);
    EXPECT_EQ(text[0], '?');
  }
  EXPECT_EQ(target, Packed{});
  EXPECT_EQ(integer, 5);
  EXPECT_EQ(real, 5);
}

// ---- binary integers --------------------------------------------------------------------------------------------

// Whether an integer is written; it must be when its digits fit, and be those.
template <class Integer>
bool writes(SqlzZrc (*write)(Integer, std::uint8_t*, SqlvDescriptor) noexcept, Integer value, SqlvDescriptor type,
            Packed* written) {
  const bool isNegative = value < 0;
  const Wide magnitude = isNegative ? 0 - static_cast<Wide>(value) : static_cast<Wide>(value);
  const bool fits = magnitude < tenTo(type.precision + 0U - type.scale);
  *written = {};
  EXPECT_EQ(write(value, written->data(), type), fits ? 0 : SQLRX_DEC_OVERFLOW) << value;
  if (!fits) return false;
  EXPECT_EQ(*written, packedOf(magnitude * tenTo(type.scale), isNegative ? 0xD : 0xC, type)) << value;
  return true;
}

// Every 16-bit integer into every precision and scale, and back.
TEST(PackedInteger, EveryShortAtEveryPrecisionAndScale) {
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX && !HasFailure(); ++precision)
    for (unsigned scale = 0; scale <= precision; ++scale)
      for (int value = INT16_MIN; value <= INT16_MAX; ++value) {
        const SqlvDescriptor descriptor = descriptorOf(precision, scale);
        Packed written;
        if (!writes(sqlvsht2dec, static_cast<std::int16_t>(value), descriptor, &written)) continue;
        std::int16_t read = 0;
        ASSERT_EQ(sqlvpdc2sht(written.data(), descriptor, &read), 0);
        ASSERT_EQ(read, value);
      }
}

// Wider integers of any length, and their ends.
TEST(PackedInteger, WideIntegersIntoAnyPrecisionAndScale) {
  constexpr std::uint64_t kEnds[] = {1ULL << 31U, (1ULL << 31U) - 1, 1ULL << 63U, (1ULL << 63U) - 1, ~0ULL};
  Random random;
  for (unsigned round = 0; round < 100000 && !HasFailure(); ++round) {
    const auto precision = static_cast<unsigned>(1 + random() % SQLV_PRECISION_MAX);
    const SqlvDescriptor descriptor = descriptorOf(precision, static_cast<unsigned>(random() % (precision + 1)));
    const std::uint64_t bits = random() % 4 == 0 ? kEnds[random() % std::size(kEnds)] : random() >> random() % 64;
    Packed written;
    writes(sqlvint2dec, static_cast<std::int32_t>(bits), descriptor, &written);
    writes(sqlvbig2dec, static_cast<std::int64_t>(bits), descriptor, &written);
    writes(sqlvubig2dec, bits, descriptor, &written);
  }
}

// Only the value 1 switches rounding on.
TEST(PackedInteger, RoundsWhenToldTo) {
  const Packed half = {0x00, 0x5D};
  for (const std::uint16_t setting : std::initializer_list<std::uint16_t>{1, 2, 0}) {
    sqlvSetDecimalRounding(setting);
    EXPECT_EQ(sqlvGetDecimalRounding(), setting);
    std::int16_t read = 7;
    EXPECT_EQ(sqlvpdc2sht(half.data(), descriptorOf(3, 1), &read), 0);
    EXPECT_EQ(read, setting == 1 ? -1 : 0);
  }
}

// ---- columns ----------------------------------------------------------------------------------------------------

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

Operation checkOf(const Column& from) {
  return {"check", 1, kGap,
          [&from](std::uint8_t*, std::size_t, std::size_t* done) {
            return sqlv_check_packed_batch(from.values, from.bytes, from.type, from.count, done);
          },
          [&from](std::size_t i, std::uint8_t*) { return sqlv_check_packed_Internal(from.at(i), from.type); }};
}

template <class Batch, class Single>
Operation toInteger(const char* name, const Column& from, Batch batch, Single single) {
  return {name, sizeof(std::int64_t), 0,
          [=, &from](std::uint8_t* target, std::size_t, std::size_t* done) {
            return batch(from.values, from.bytes, from.type, reinterpret_cast<std::int64_t*>(target), from.count, done);
          },
          [=, &from](std::size_t i, std::uint8_t* target) {
            return single(from.at(i), from.type, reinterpret_cast<std::int64_t*>(target));
          }};
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
      checkOf(from),
      {"text", type.precision + 2U, kGap,
       [=, &from](std::uint8_t* target, std::size_t stride, std::size_t* done) {
         return sqlv_num_2_chr_batch(from.values, from.bytes, type, nullptr, reinterpret_cast<char*>(target), stride,
                                     from.count, done);
       },
       [=, &from](std::size_t i, std::uint8_t* target) {
         const SqlvNumericValue source = {type, from.at(i)};
         SqlvCharacterValue text = {};
         text.buffer = reinterpret_cast<char*>(target);
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

// A fault anywhere in a column stops validation exactly there: any nibble of any value, or a negative zero.
TEST(PackedColumn, ValidationStopsAtTheFault) {
  Random random;
  for (unsigned round = 0; round < 10000; ++round) {
    const SqlvDescriptor type = descriptorOf(1 + static_cast<unsigned>(random() % SQLV_PRECISION_MAX), 0);
    const Column column(type, 1 + random() % 15, false, random);
    std::uint8_t* const faulty = column.at(random() % column.count);
    if (round % 8 == 0)
      std::memcpy(faulty, packedOf(0, 0xD, type).data(), sqlvPackedBytes(type));
    else
      setNibble(faulty, random() % (2 * sqlvPackedBytes(type)), static_cast<unsigned>(random() % 16));
    ASSERT_NO_FATAL_FAILURE(expectAgreement(checkOf(column), column.count, type));
  }
}

}  // namespace
}  // namespace vek::valuestest
