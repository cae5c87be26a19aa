// Validation, against the rules read digit by digit.
#include "values/packed_support.h"
#include "values/seed.h"

namespace vek::valuestest {
namespace {

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

void expectAgreement(const GuardedPage& page, const std::vector<std::uint8_t>& value, SqlvDescriptor descriptor) {
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
            ASSERT_NO_FATAL_FAILURE(expectAgreement(page, changed, descriptor));
          }
      }
  }
}

TEST(PackedCheck, DescriptorsThatAreNone) {
  const platformtest::Instance instance;  // the text is traced
  const std::vector<std::uint8_t> seven = {0x7C};
  EXPECT_EQ(sqlv_check_packed_Internal(seven.data(), descriptorOf(1, 1)), 0);
  EXPECT_EQ(sqlv_check_packed_Internal(seven.data(), descriptorOf(1, 2)), SQLRX_DEC_INVALID);
  EXPECT_EQ(sqlv_check_packed_Internal(seven.data(), descriptorOf(0, 0)), SQLRX_DEC_INVALID);
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

}  // namespace
}  // namespace vek::valuestest
