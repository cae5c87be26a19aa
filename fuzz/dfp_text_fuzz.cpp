// Any bytes as the text of a number, in memory of exactly their size: reading must touch nothing outside, both widths
// must agree on what is a number, what they write must read back as the same value, and the way for usual texts must
// give what the long way gives. The first bytes are values as well: any bits must be written, and read back.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "platform/ossx_scan.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

bool same(DfpalDecimal64 left, DfpalDecimal64 right) { return left.word == right.word; }
bool same(DfpalDecimal128 left, DfpalDecimal128 right) { return left.low == right.low && left.high == right.high; }

DfpalDecimal64 read(const char* text, std::size_t bytes, vek::Decimal64 /*width*/) {
  return dfpal_decimal64FromString(text, bytes);
}
DfpalDecimal128 read(const char* text, std::size_t bytes, vek::Decimal128 /*width*/) {
  return dfpal_decimal128FromString(text, bytes);
}
std::size_t write(DfpalDecimal64 value, char* text, std::size_t bytes) {
  return dfpal_decimal64ToString(value, text, bytes);
}
std::size_t write(DfpalDecimal128 value, char* text, std::size_t bytes) {
  return dfpal_decimal128ToString(value, text, bytes);
}

// Whether a text is a number, under a mode and without flags of before.
template <class Format>
bool readsEitherWay(const char* text, std::size_t bytes, typename Format::Value* out) {
  dfpalReadClearAllStatusFlag();
  *out = read(text, bytes, Format{});
  const std::uint32_t raised = dfpalReadClearAllStatusFlag();
  require(same(*out, vek::dfpReadLong<Format>(text, bytes)));
  require(raised == dfpalReadClearAllStatusFlag());
  return (raised & DFPAL_INVALID) == 0;
}

template <class Format>
void writesAndReadsBack(typename Format::Value value) {
  const std::unique_ptr<char[]> text(new char[Format::kDigits + 9]);
  const std::size_t bytes = write(value, text.get(), Format::kDigits + 9);
  require(bytes < Format::kDigits + 9 && text[bytes] == '\0');
  const std::unique_ptr<char[]> exact(new char[bytes + 1]);
  require(write(value, exact.get(), bytes + 1) == bytes && std::memcmp(exact.get(), text.get(), bytes + 1) == 0);
  typename Format::Value back;
  require(readsEitherWay<Format>(text.get(), bytes, &back));
  const std::unique_ptr<char[]> again(new char[Format::kDigits + 9]);
  require(write(back, again.get(), Format::kDigits + 9) == bytes && std::strcmp(text.get(), again.get()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::unique_ptr<char[]> text(new char[size]);
  std::memcpy(text.get(), data, size);
  DfpalDecimal64 narrow;
  DfpalDecimal128 wide;
  const bool isNarrow = readsEitherWay<vek::Decimal64>(text.get(), size, &narrow);
  const bool isWide = readsEitherWay<vek::Decimal128>(text.get(), size, &wide);
  require(isWide || !isNarrow);  // a payload may fit the one alone
  writesAndReadsBack<vek::Decimal64>(narrow);
  writesAndReadsBack<vek::Decimal128>(wide);
  if (size >= sizeof wide) {
    std::memcpy(&wide, data, sizeof wide);
    writesAndReadsBack<vek::Decimal128>(wide);
    writesAndReadsBack<vek::Decimal64>({wide.low});
  }
  return 0;
}
