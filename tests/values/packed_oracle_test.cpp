// Packed decimals against the decimal numbers of Python, whose results a script writes down: random values of random
// types, near the limits of the targets and near halves. Every value stands at the edge of a page, so that a byte
// touched before or behind it ends the test.
#include <cstring>

#include "platform/support.h"
#include "values/packed_support.h"
#include "values/seed.h"
#include "veksys/values/dfpal.h"

namespace vek::valuestest {
namespace {

// The words of a case.
class Case {
 public:
  explicit Case(const std::string& line) : words_(line) { words_ >> kind_; }

  const std::string& kind() const { return kind_; }
  std::string word() {
    std::string next;
    EXPECT_TRUE(words_ >> next);
    return next;
  }
  SqlvDescriptor descriptor() {
    const unsigned long precision = std::stoul(word());
    return descriptorOf(static_cast<unsigned>(precision), static_cast<unsigned>(std::stoul(word())));
  }

 private:
  std::istringstream words_;
  std::string kind_;
};

// Memory for source and target, at one end or the other.
struct Memory {
  GuardedPage source;
  GuardedPage target;
  bool atEnd = false;
};

template <class Target>
std::string integerAnswer(SqlzZrc (*operation)(const std::uint8_t*, SqlvDescriptor, Target*) noexcept,
                          const std::uint8_t* value, SqlvDescriptor descriptor) {
  constexpr Target kUntouched = 77;
  Target target = kUntouched;
  const SqlzZrc zrc = operation(value, descriptor, &target);
  if (zrc == 0) return std::to_string(target);
  EXPECT_EQ(zrc, SQLRX_DEC_OVERFLOW);
  EXPECT_EQ(target, kUntouched);
  return "-";
}

void integers(Case& cases, Memory& memory) {
  const std::uint8_t* value = memory.source.place(bytesOfHex(cases.word()), memory.atEnd);
  const SqlvDescriptor type = cases.descriptor();
  for (const std::string& cut :
       {integerAnswer(sqlvpdc2sht_trunc, value, type), integerAnswer(sqlvpdc2usht_trunc, value, type),
        integerAnswer(sqlvpdc2lng_trunc, value, type), integerAnswer(sqlvpdc2ulng_trunc, value, type),
        integerAnswer(sqlvpdc2big_trunc, value, type), integerAnswer(sqlvpdc2ubig_trunc, value, type)})
    EXPECT_EQ(cut, cases.word());
  for (const std::string& rounded : {integerAnswer(sqlvpdc2sht, value, type), integerAnswer(sqlvpdc2usht, value, type),
                                     integerAnswer(sqlvpdc2lng, value, type), integerAnswer(sqlvpdc2ulng, value, type),
                                     integerAnswer(sqlvpdc2big, value, type), integerAnswer(sqlvpdc2ubig, value, type)})
    EXPECT_EQ(rounded, cases.word());
}

// What `operation(target)` writes.
template <class Operation>
std::string packedAnswer(Memory& memory, SqlvDescriptor type, Operation operation) {
  std::uint8_t* target = memory.target.place(sqlvPackedBytes(type), memory.atEnd);
  const SqlzZrc zrc = operation(target);
  if (zrc == 0) return hexOf(target, sqlvPackedBytes(type));
  EXPECT_EQ(zrc, SQLRX_DEC_OVERFLOW);
  return "-";
}

// The target in each rounding mode, in the order of their numbers. In the default mode digits are cut.
template <class Operation>
void inEveryMode(Case& cases, Memory& memory, SqlvDescriptor type, const std::string& cut, Operation operation) {
  for (std::uint32_t mode = 0; mode < DFPAL_ROUND_MODES; ++mode) {
    EXPECT_EQ(dfpalSetRoundingMode(mode), 0);
    const std::string rounded = cases.word();
    EXPECT_EQ(packedAnswer(memory, type, operation), mode == DFPAL_ROUND_HALF_EVEN ? cut : rounded) << "mode " << mode;
  }
}

void rescale(Case& cases, Memory& memory) {
  const std::uint8_t* value = memory.source.place(bytesOfHex(cases.word()), memory.atEnd);
  const SqlvDescriptor type = cases.descriptor();
  const SqlvDescriptor to = cases.descriptor();
  const std::string cut = cases.word();
  EXPECT_EQ(packedAnswer(memory, to, [&](std::uint8_t* target) { return sqlvpdc2dec_trunc(value, type, target, to); }),
            cut);
  inEveryMode(cases, memory, to, cut, [&](std::uint8_t* target) { return sqlvpdc2dec(value, type, target, to); });
}

void toDouble(Case& cases, Memory& memory) {
  const std::uint8_t* value = memory.source.place(bytesOfHex(cases.word()), memory.atEnd);
  double result = 0;
  EXPECT_EQ(sqlvpdc2flt(value, cases.descriptor(), &result), 0);
  std::uint64_t bits = 0;
  std::memcpy(&bits, &result, sizeof bits);
  EXPECT_EQ(bits, std::stoull(cases.word(), nullptr, 16));
}

void fromDouble(Case& cases, Memory& memory) {
  const std::uint64_t bits = std::stoull(cases.word(), nullptr, 16);
  double value = 0;
  std::memcpy(&value, &bits, sizeof value);
  const SqlvDescriptor type = cases.descriptor();
  const std::string cut = cases.word();
  EXPECT_EQ(packedAnswer(memory, type, [&](std::uint8_t* target) { return sqlvflt2dec_trunc(value, target, type); }),
            cut);
  inEveryMode(cases, memory, type, cut, [&](std::uint8_t* target) { return sqlvflt2dec(value, target, type); });
}

void text(Case& cases, Memory& memory) {
  const std::uint8_t* value = memory.source.place(bytesOfHex(cases.word()), memory.atEnd);
  const SqlvNumericValue source = {cases.descriptor(), value};
  const std::size_t length = source.descriptor.precision + 2U;
  const SqlvCharacterValue target = {reinterpret_cast<char*>(memory.target.place(length, memory.atEnd))};
  std::string expected = cases.word();
  if (expected[0] == '_') expected[0] = ' ';
  EXPECT_EQ(sqlv_num_2_chr_legacy(1, &source, nullptr, &target), 0);
  EXPECT_EQ(std::string(target.buffer, length), expected);
  const SqlvNationalLanguage language = {','};
  expected[1U + source.descriptor.precision - source.descriptor.scale] = ',';
  EXPECT_EQ(sqlv_num_2_chr_legacy(2, &source, &language, &target), 0);
  EXPECT_EQ(std::string(target.buffer, length), expected);
}

constexpr struct {
  const char* kind;
  void (*run)(Case& cases, Memory& memory);
} kKinds[] = {
    {"integers", integers}, {"rescale", rescale}, {"to_double", toDouble}, {"from_double", fromDouble}, {"text", text}};

TEST(PackedOracle, AgreesWithPython) {
  const Seed seed;
  const std::vector<std::string> lines = linesOfScript("packed_vectors.py", {std::to_string(seed.number()), "5000"});
  ASSERT_GE(lines.size(), 25'000U);
  const platformtest::Instance instance;  // texts are traced
  Memory memory;
  sqlvSetDecimalRounding(1);
  for (const std::string& line : lines) {
    SCOPED_TRACE(line);
    Case cases(line);
    for (const auto& each : kKinds)
      if (each.kind == cases.kind()) each.run(cases, memory);
    memory.atEnd = !memory.atEnd;
    if (HasFailure()) break;
  }
  sqlvSetDecimalRounding(0);
}

}  // namespace
}  // namespace vek::valuestest
