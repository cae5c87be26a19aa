// Decimal floating point against the decimal numbers of Python: every operation, all rounding modes, both widths,
// results and conditions.

#include "values/dfp_support.h"
#include "values/packed_support.h"
#include "values/seed.h"

namespace vek::valuestest {
namespace {

struct Vector {
  std::string width;
  std::string operation;
  std::uint32_t mode = 0;
  std::string left;
  std::string right;
  std::string result;
  std::uint32_t conditions = 0;
};

Vector vectorOf(const std::string& line) {
  std::istringstream in(line);
  std::string mode;
  std::string conditions;
  Vector v;
  for (std::string* field : {&v.width, &v.operation, &mode, &v.left, &v.right, &v.result, &conditions})
    EXPECT_TRUE(std::getline(in, *field, '\t')) << line;
  v.mode = static_cast<std::uint32_t>(std::stoul(mode));
  v.conditions = static_cast<std::uint32_t>(std::stoul(conditions, nullptr, 16));
  return v;
}

std::string comparison(std::int32_t answer) { return answer == DFPAL_UNORDERED ? "NaN" : std::to_string(answer); }

template <class Width>
std::string toInteger(typename Width::Value value, const Vector& v) {
  if (v.right == "int32") return std::to_string(Width::toInt32(value, v.mode));
  if (v.right == "uint32") return std::to_string(Width::toUint32(value, v.mode));
  if (v.right == "int64") return std::to_string(Width::toInt64(value, v.mode));
  return std::to_string(Width::toUint64(value, v.mode));
}

SqlvDescriptor descriptor(const Vector& v) {
  const std::size_t comma = v.right.find(',');
  return descriptorOf(static_cast<unsigned>(std::stoul(v.right)),
                      static_cast<unsigned>(std::stoul(v.right.substr(comma + 1))));
}

template <class Width>
std::string toPacked(typename Width::Value value, const Vector& v) {
  const SqlvDescriptor target = descriptor(v);
  const std::size_t bytes = sqlvPackedBytes(target);
  std::vector<std::uint8_t> packed(bytes, 0xEE);
  if (Width::toPacked(value, v.mode, packed.data(), target)) {
    std::string hex = hexOf(packed.data(), bytes);
    for (char& c : hex) c = c >= 'A' ? static_cast<char>(c - 'A' + 'a') : c;
    return hex;
  }
  EXPECT_EQ(packed, std::vector<std::uint8_t>(bytes, 0xEE)) << "written although it does not fit";
  return "none";
}

// What the operation of a vector answers here, as text. Python tells NaNs of comparisons with sign and payload.
template <class Width>
std::string answer(const Vector& v) {
  if (v.operation == "frompacked") return textOf(Width::fromPacked(bytesOfHex(v.left).data(), descriptor(v)));
  if (v.operation == "narrow") return textOf(dfpal_decimal128ToDecimal64(valueOf<Width128>(v.left)));
  if (v.operation == "widen") return textOf(dfpal_decimal64ToDecimal128(valueOf<Width64>(v.left)));
  const auto left = valueOf<Width>(v.left);
  if (v.operation == "string") return textOf(left);
  if (v.operation == "tointeger") return toInteger<Width>(left, v);
  if (v.operation == "topacked") return toPacked<Width>(left, v);
  if (v.operation == "integral") return textOf(Width::integral(left, v.mode));
  if (v.operation == "integralexact") return textOf(Width::integralExact(left));
  const auto right = valueOf<Width>(v.right);
  if (v.operation == "compare") return comparison(Width::compare(left, right));
  if (v.operation == "comparesignal") return comparison(Width::compareSignal(left, right));
  if (v.operation == "add") return textOf(Width::add(left, right));
  if (v.operation == "subtract") return textOf(Width::subtract(left, right));
  if (v.operation == "multiply") return textOf(Width::multiply(left, right));
  if (v.operation == "divide") return textOf(Width::divide(left, right));
  if (v.operation == "quantize") return textOf(Width::quantize(left, right));
  return "no such operation";
}

std::string expected(const Vector& v) {
  const bool isNan = v.result.find("NaN") != std::string::npos;
  return v.operation.starts_with("compare") && isNan ? "NaN" : v.result;
}

TEST(DfpPython, AgreesInResultsAndConditions) {
  const Seed seed;
  const auto lines = linesOfScript("dfp_vectors.py", {std::to_string(seed.number()), "40000"});
  ASSERT_EQ(lines.size(), 40000U);
  for (const std::string& line : lines) {
    const Vector v = vectorOf(line);
    const RoundingMode mode(v.mode);
    const std::string got = v.width == "64" ? answer<Width64>(v) : answer<Width128>(v);
    EXPECT_EQ(got, expected(v)) << line;
    EXPECT_EQ(dfpalReadClearAllStatusFlag(), v.conditions) << line;
    if (::testing::Test::HasFailure()) break;  // one of them says enough
  }
}

}  // namespace
}  // namespace vek::valuestest
