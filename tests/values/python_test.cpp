// Decimal floating point and packed decimals against the decimal numbers of Python, whose results a script writes down:
// every operation, all rounding modes, results and conditions. Packed values stand at the edge of a page, so that a
// byte touched before or behind them ends the test.
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "platform/support.h"
#include "values/support.h"

namespace vek::valuestest {
namespace {

struct Vector {
  std::string width;
  std::string operation;
  std::uint32_t mode;
  std::string left;
  std::string right;
  std::string result;
  std::uint32_t conditions;
};

Vector vectorOf(const std::string& line) {
  std::istringstream in(line);
  std::array<std::string, 7> fields;
  for (std::string& field : fields) EXPECT_TRUE(std::getline(in, field, '\t')) << line;
  const auto& [width, operation, mode, left, right, result, conditions] = fields;
  const auto number = [](const std::string& text) { return static_cast<std::uint32_t>(std::stoul(text, nullptr, 16)); };
  return {width, operation, number(mode), left, right, result, number(conditions)};
}

// "p,s", or one of two of them.
SqlvDescriptor descriptor(const Vector& v, std::size_t index = 0) {
  std::istringstream in(v.right);
  unsigned numbers[4] = {};
  char comma = 0;
  for (unsigned& number : numbers) in >> number >> comma;
  return descriptorOf(numbers[2 * index], numbers[2 * index + 1]);
}

// ---- decimal floating point -------------------------------------------------------------------------------------

template <class Width>
std::string toInteger(typename Width::Value value, const Vector& v) {
  if (v.right == "int32") return std::to_string(Width::toInt32(value, v.mode));
  if (v.right == "uint32") return std::to_string(Width::toUint32(value, v.mode));
  if (v.right == "int64") return std::to_string(Width::toInt64(value, v.mode));
  return std::to_string(Width::toUint64(value, v.mode));
}

template <class Width>
std::string toPacked(typename Width::Value value, const Vector& v) {
  const SqlvDescriptor target = descriptor(v);
  std::vector<std::uint8_t> packed(sqlvPackedBytes(target), 0xEE);
  const std::vector<std::uint8_t> untouched = packed;
  if (Width::toPacked(value, v.mode, packed.data(), target)) return hexOf(packed.data(), packed.size());
  EXPECT_EQ(packed, untouched) << "written although it does not fit";
  return "none";
}

// What the operation of a vector answers here, as text.
template <class Width>
std::string answer(const Vector& v) {
  if (v.operation == "frompacked") return textOf(Width::fromPacked(bytesOfHex(v.left).data(), descriptor(v)));
  if (v.operation == "narrow") return textOf(dfpal_decimal128ToDecimal64(valueOf<Width128>(v.left)));
  if (v.operation == "widen") return textOf(dfpal_decimal64ToDecimal128(valueOf<Width64>(v.left)));
  const auto left = valueOf<Width>(v.left);
  if (v.operation == "string") return textOf(left);
  if (v.operation == "tointeger") return toInteger<Width>(left, v);
  if (v.operation == "topacked") return toPacked<Width>(left, v);
  if (v.operation == "to_integral_value") return textOf(Width::integral(left, v.mode));
  if (v.operation == "to_integral_exact") return textOf(Width::integralExact(left));
  const auto right = valueOf<Width>(v.right);
  if (v.operation.starts_with("compare")) {
    const std::int32_t order = (v.operation == "compare" ? Width::compare : Width::compareSignal)(left, right);
    return order == DFPAL_UNORDERED ? "NaN" : std::to_string(order);
  }
  if (v.operation == "add") return textOf(Width::add(left, right));
  if (v.operation == "subtract") return textOf(Width::subtract(left, right));
  if (v.operation == "multiply") return textOf(Width::multiply(left, right));
  if (v.operation == "divide") return textOf(Width::divide(left, right));
  if (v.operation == "quantize") return textOf(Width::quantize(left, right));
  return "no such operation";
}

// ---- packed decimals --------------------------------------------------------------------------------------------

// Memory for values and targets, at one end or the other of a page.
struct Memory {
  GuardedPage source;
  GuardedPage target;
  bool atEnd = false;

  const std::uint8_t* value(const Vector& v) const { return source.place(bytesOfHex(v.left), atEnd); }
};

template <class Target>
std::string integer(SqlzZrc (*operation)(const std::uint8_t*, SqlvDescriptor, Target*) noexcept,
                    const std::uint8_t* value, SqlvDescriptor descriptor) {
  constexpr Target kUntouched = 77;
  Target target = kUntouched;
  const SqlzZrc zrc = operation(value, descriptor, &target);
  if (zrc == 0) return std::to_string(target) + " ";
  EXPECT_EQ(zrc, SQLRX_DEC_OVERFLOW);
  EXPECT_EQ(target, kUntouched);
  return "- ";
}

std::string integers(const Vector& v, const Memory& memory) {
  const std::uint8_t* const value = memory.value(v);
  const auto all = [&](auto... operations) { return (integer(operations, value, descriptor(v)) + ...); };
  return all(sqlvpdc2sht_trunc, sqlvpdc2usht_trunc, sqlvpdc2lng_trunc, sqlvpdc2ulng_trunc, sqlvpdc2big_trunc,
             sqlvpdc2ubig_trunc, sqlvpdc2sht, sqlvpdc2usht, sqlvpdc2lng, sqlvpdc2ulng, sqlvpdc2big, sqlvpdc2ubig);
}

// What is written when digits are cut, then in each rounding mode, in the order of their numbers.
template <class Cut, class Rounded>
std::string inEveryMode(const Memory& memory, SqlvDescriptor type, Cut cut, Rounded rounded) {
  const auto answer = [&](auto operation) -> std::string {
    std::uint8_t* target = memory.target.place(sqlvPackedBytes(type), memory.atEnd);
    const SqlzZrc zrc = operation(target);
    if (zrc == 0) return hexOf(target, sqlvPackedBytes(type)) + " ";
    return zrc == SQLRX_DEC_OVERFLOW ? "- " : "another code";
  };
  std::string all = answer(cut);
  for (std::uint32_t mode = 0; mode < DFPAL_ROUND_MODES; ++mode) {
    EXPECT_EQ(dfpalSetRoundingMode(mode), 0);
    all += answer(rounded);
  }
  return all;
}

std::string rescale(const Vector& v, const Memory& memory) {
  const std::uint8_t* const value = memory.value(v);
  const SqlvDescriptor type = descriptor(v);
  const SqlvDescriptor to = descriptor(v, 1);
  return inEveryMode(
      memory, to, [&](std::uint8_t* target) { return sqlvpdc2dec_trunc(value, type, target, to); },
      [&](std::uint8_t* target) { return sqlvpdc2dec(value, type, target, to); });
}

std::string fromDouble(const Vector& v, const Memory& memory) {
  double real = 0;
  std::memcpy(&real, bytesOfHex(v.left).data(), sizeof real);
  const SqlvDescriptor to = descriptor(v);
  return inEveryMode(
      memory, to, [&](std::uint8_t* target) { return sqlvflt2dec_trunc(real, target, to); },
      [&](std::uint8_t* target) { return sqlvflt2dec(real, target, to); });
}

std::string toDouble(const Vector& v, const Memory& memory) {
  double result = 0;
  EXPECT_EQ(sqlvpdc2flt(memory.value(v), descriptor(v), &result), 0);
  return hexOf(reinterpret_cast<const std::uint8_t*>(&result), sizeof result);
}

// With the point of a language or without one: what Python writes has a point.
std::string text(const Vector& v, const Memory& memory) {
  const SqlvNumericValue source = {descriptor(v), memory.value(v)};
  const std::size_t length = source.descriptor.precision + 2U;
  const SqlvCharacterValue target = {reinterpret_cast<char*>(memory.target.place(length, memory.atEnd))};
  const SqlvNationalLanguage comma = {','};
  EXPECT_EQ(sqlv_num_2_chr_legacy(1, &source, &comma, &target), 0);
  std::string expected(target.buffer, length);
  const std::size_t point = 1U + source.descriptor.precision - source.descriptor.scale;
  EXPECT_EQ(expected[point], ',');
  expected[point] = '.';
  EXPECT_EQ(sqlv_num_2_chr_legacy(2, &source, nullptr, &target), 0);
  EXPECT_EQ(std::string(target.buffer, length), expected);
  return expected;
}

std::string answerPacked(const Vector& v, const Memory& memory) {
  if (v.operation == "integers") return integers(v, memory);
  if (v.operation == "rescale") return rescale(v, memory);
  if (v.operation == "todouble") return toDouble(v, memory);
  return v.operation == "fromdouble" ? fromDouble(v, memory) : text(v, memory);
}

// What the script prints for a seed, line by line. No line: it could not be run.
std::vector<std::string> linesOfScript(const std::string& seed, const char* count) {
  std::FILE* const output = std::tmpfile();
  platformtest::inProcess([&] {
    ::dup2(::fileno(output), STDOUT_FILENO);
    ::execlp("python3", "python3", VEKSYS_TEST_SOURCE "/values/vectors.py", seed.c_str(), count, nullptr);
    FAIL() << "there is no python3";
  });
  std::vector<std::string> lines;
  std::ifstream in("/dev/fd/" + std::to_string(::fileno(output)));
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  (void)std::fclose(output);
  return lines;
}

TEST(Python, AgreesInResultsAndConditions) {
  const Random random;
  const auto lines = linesOfScript(random.begin(), "80000");
  ASSERT_EQ(lines.size(), 80000U);
  const platformtest::Instance instance;  // texts are traced
  Memory memory;
  sqlvSetDecimalRounding(1);
  for (const std::string& line : lines) {
    const Vector v = vectorOf(line);
    const RoundingMode mode(v.mode);
    memory.atEnd = !memory.atEnd;
    const std::string got = v.width == "0"    ? answerPacked(v, memory)
                            : v.width == "64" ? answer<Width64>(v)
                                              : answer<Width128>(v);
    EXPECT_EQ(got, v.result) << line;
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), v.conditions) << line;
    if (::testing::Test::HasFailure()) break;  // one of them says enough
  }
  sqlvSetDecimalRounding(0);
}

}  // namespace
}  // namespace vek::valuestest
