// Columns against the single calls, with the kernels of this processor and without.
#include <functional>
#include <random>

#include "platform/support.h"
#include "values/packed_support.h"
#include "values/seed.h"
#include "values/sqlv_packed_kernels.h"
#include "veksys/values/dfpal.h"

namespace vek::valuestest {
namespace {

constexpr std::size_t kGap = 3;  // bytes between values, which nobody may write
constexpr std::uint8_t kUntouched = 0xEE;

// Random values of a descriptor, with gaps between them, at the end of a page.
class Column {
 public:
  Column(SqlvDescriptor descriptor, std::size_t count, std::mt19937_64& random)
      : descriptor_(descriptor), stride_(sqlvPackedBytes(descriptor) + kGap) {
    values_ = page_.place(count * stride_ - kGap, true);
    for (std::size_t i = 0; i < count; ++i) {
      const Wide magnitude = (static_cast<Wide>(random()) << 64U | random()) %
                             tenTo(static_cast<unsigned>(1 + random() % descriptor.precision));
      const bool negative = magnitude != 0 && random() % 2 == 0;
      const Packed value = packedOf(magnitude, negative ? 0xD : 0xC, descriptor);
      std::memcpy(at(i), value.data(), sqlvPackedBytes(descriptor));
      if (i + 1 < count) std::memset(at(i) + sqlvPackedBytes(descriptor), kUntouched, kGap);
    }
  }

  std::uint8_t* at(std::size_t index) const { return values_ + index * stride_; }
  std::size_t stride() const { return stride_; }
  SqlvDescriptor descriptor() const { return descriptor_; }

 private:
  GuardedPage page_;
  std::uint8_t* values_;
  SqlvDescriptor descriptor_;
  std::size_t stride_;
};

// What a call leaves: its code, how far it came, and the bytes of the target up to there.
struct Outcome {
  SqlzZrc zrc;
  std::size_t done;
  std::vector<std::uint8_t> target;

  bool operator==(const Outcome&) const = default;
};

// A target of `bytes` for each of `count` values, at the end of a page.
struct Target {
  GuardedPage page;
  std::uint8_t* bytes;
  std::size_t stride;

  Target(std::size_t size, std::size_t count) : stride(size + kGap) {
    bytes = page.place(count * stride - kGap, true);
    std::memset(bytes, kUntouched, count * stride - kGap);
  }
  Outcome outcome(SqlzZrc zrc, std::size_t done) const {
    if (done == 0) return {zrc, done, {}};
    return {zrc, done, {bytes, bytes + done * stride - kGap}};
  }
};

// One operation both ways: by the column, and value by value until one fails.
struct Operation {
  std::size_t targetBytes;
  std::function<SqlzZrc(std::uint8_t* target, std::size_t stride, std::size_t* done)> column;
  std::function<SqlzZrc(std::size_t index, std::uint8_t* target)> single;
};

void expectAgreement(const Operation& operation, std::size_t count, const std::string& what) {
  Target expected(operation.targetBytes, count);
  std::size_t done = 0;
  SqlzZrc zrc = 0;
  while (done < count && (zrc = operation.single(done, expected.bytes + done * expected.stride)) == 0) ++done;
  for (const bool kernels : {true, false}) {
    sqlvi_useKernels(kernels);
    Target target(operation.targetBytes, count);
    std::size_t columnDone = count + 1;
    const SqlzZrc columnZrc = operation.column(target.bytes, target.stride, &columnDone);
    EXPECT_EQ(target.outcome(columnZrc, columnDone), expected.outcome(zrc, done)) << what << " kernels " << kernels;
  }
  sqlvi_useKernels(true);
}

// Integers go into an array without gaps: into memory of their own, and from there to the target.
template <auto Batch>
auto integersOf(const Column& column, std::size_t count) {
  return [&column, count](std::uint8_t* target, std::size_t stride, std::size_t* done) {
    std::vector<std::int64_t> integers(count);
    const SqlzZrc zrc = Batch(column.at(0), column.stride(), column.descriptor(), integers.data(), count, done);
    for (std::size_t i = 0; i < *done; ++i) std::memcpy(target + i * stride, &integers[i], sizeof integers[i]);
    return zrc;
  };
}

template <auto Single>
auto integerOf(const Column& column) {
  return [&column](std::size_t index, std::uint8_t* target) {
    std::int64_t integer = 0;
    const SqlzZrc zrc = Single(column.at(index), column.descriptor(), &integer);
    std::memcpy(target, &integer, sizeof integer);
    return zrc;
  };
}

void readings(const Column& column, std::size_t count, const std::string& what) {
  const SqlvDescriptor type = column.descriptor();
  expectAgreement({1,
                   [&](std::uint8_t*, std::size_t, std::size_t* done) {
                     return sqlv_check_packed_batch(column.at(0), column.stride(), type, count, done);
                   },
                   [&](std::size_t i, std::uint8_t*) { return sqlv_check_packed_Internal(column.at(i), type); }},
                  count, what + " check");
  expectAgreement({8, integersOf<sqlvpdc2big_batch>(column, count), integerOf<sqlvpdc2big>(column)}, count,
                  what + " to integer");
  expectAgreement({8, integersOf<sqlvpdc2big_trunc_batch>(column, count), integerOf<sqlvpdc2big_trunc>(column)}, count,
                  what + " to integer, cut");
  expectAgreement({type.precision + 2U,
                   [&](std::uint8_t* target, std::size_t stride, std::size_t* done) {
                     return sqlv_num_2_chr_batch(column.at(0), column.stride(), type, nullptr,
                                                 reinterpret_cast<char*>(target), stride, count, done);
                   },
                   [&](std::size_t i, std::uint8_t* target) {
                     const SqlvNumericValue source = {type, column.at(i)};
                     SqlvCharacterValue text = {};
                     text.buffer = reinterpret_cast<char*>(target);
                     return sqlv_num_2_chr_legacy(0, &source, nullptr, &text);
                   }},
                  count, what + " to text");
}

void rescaling(const Column& column, SqlvDescriptor to, std::size_t count, const std::string& what) {
  const SqlvDescriptor type = column.descriptor();
  const auto both = [&](auto batch, auto single) {
    return Operation{sqlvPackedBytes(to),
                     [=, &column](std::uint8_t* target, std::size_t stride, std::size_t* done) {
                       return batch(column.at(0), column.stride(), type, target, stride, to, count, done);
                     },
                     [=, &column](std::size_t i, std::uint8_t* target) {
                       Packed result = {};
                       const SqlzZrc zrc = single(column.at(i), type, result.data(), to);
                       std::memcpy(target, result.data(), sqlvPackedBytes(to));
                       return zrc;
                     }};
  };
  expectAgreement(both(sqlvpdc2dec_batch, sqlvpdc2dec), count, what + " rescale");
  expectAgreement(both(sqlvpdc2dec_trunc_batch, sqlvpdc2dec_trunc), count, what + " rescale, cut");
}

void writing(SqlvDescriptor to, std::size_t count, std::mt19937_64& random, const std::string& what) {
  std::vector<std::int64_t> integers(count);
  const Wide end = tenTo(to.precision + 0U - to.scale);
  for (std::int64_t& each : integers) {
    const auto bits = static_cast<std::int64_t>(random() >> random() % 64);
    const Wide within = static_cast<Wide>(bits < 0 ? -(bits + 1) : bits) % end;
    each = random() % 2 == 0 ? -static_cast<std::int64_t>(within) : static_cast<std::int64_t>(within);
  }
  if (random() % 4 == 0) integers[random() % count] = INT64_MIN;
  expectAgreement({sqlvPackedBytes(to),
                   [&](std::uint8_t* target, std::size_t stride, std::size_t* done) {
                     return sqlvbig2dec_batch(integers.data(), target, stride, to, count, done);
                   },
                   [&](std::size_t i, std::uint8_t* target) { return sqlvbig2dec(integers[i], target, to); }},
                  count, what + " from integer");
}

// Every precision and scale, columns of up to three blocks and some values more, rounding or not.
TEST(PackedColumn, DoesWhatTheSingleCallsDo) {
  const platformtest::Instance instance;
  const Seed seed;
  std::mt19937_64 random(seed.number());
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX && !HasFailure(); ++precision)
    for (unsigned scale = 0; scale <= precision; ++scale) {
      const SqlvDescriptor descriptor = descriptorOf(precision, scale);
      const std::string what = std::to_string(precision) + "," + std::to_string(scale);
      const std::size_t count = 1 + random() % 15;
      sqlvSetDecimalRounding(static_cast<std::uint16_t>(random() % 2));
      EXPECT_EQ(dfpalSetRoundingMode(static_cast<std::uint32_t>(random() % DFPAL_ROUND_MODES)), 0);
      const Column column(descriptor, count, random);
      readings(column, count, what);
      const auto toPrecision = static_cast<unsigned>(1 + random() % SQLV_PRECISION_MAX);
      rescaling(column, descriptorOf(toPrecision, static_cast<unsigned>(random() % (toPrecision + 1))), count, what);
      writing(descriptor, count, random, what);
    }
  sqlvSetDecimalRounding(0);
}

// A fault anywhere in a column stops validation exactly there: each nibble of each value in turn, and negative zeros.
TEST(PackedColumn, ValidationStopsAtTheFault) {
  constexpr std::size_t kCount = 11;
  const Seed seed;
  std::mt19937_64 random(seed.number());
  for (unsigned precision = 1; precision <= SQLV_PRECISION_MAX; ++precision) {
    const SqlvDescriptor descriptor = descriptorOf(precision, 0);
    const Column column(descriptor, kCount, random);
    const std::size_t bytes = sqlvPackedBytes(descriptor);
    for (std::size_t fault = 0; fault <= 2 * bytes; ++fault)
      for (std::size_t index = 0; index < kCount; ++index) {
        const std::vector<std::uint8_t> kept(column.at(index), column.at(index) + bytes);
        if (fault < 2 * bytes)
          setNibble(column.at(index), fault, 0xE);
        else
          std::memcpy(column.at(index), packedOf(0, 0xD, descriptor).data(), bytes);
        for (const bool kernels : {true, false}) {
          sqlvi_useKernels(kernels);
          std::size_t done = 0;
          ASSERT_EQ(sqlv_check_packed_batch(column.at(0), column.stride(), descriptor, kCount, &done),
                    SQLRX_DEC_INVALID);
          ASSERT_EQ(done, index) << "precision " << precision << " fault " << fault << " kernels " << kernels;
        }
        std::memcpy(column.at(index), kept.data(), bytes);
      }
  }
  sqlvi_useKernels(true);
}

}  // namespace
}  // namespace vek::valuestest
