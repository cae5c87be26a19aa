// Dates and times from anywhere: any bytes as a text, and as values to be written. Both stand in memory of exactly
// their size, which nothing may leave. A text that is read must come back from what is written of it, one that is
// refused must leave the target alone; and no code comes out that the header does not name.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "platform/g11n.h"
#include "veksys/values/datetime.h"
#include "veksys/values/datetime_chrono.h"

namespace {

constexpr std::uint8_t kUntouched = 0xEE;

// Bytes on the heap, as many as are needed and no more.
template <class T>
struct Exactly {
  std::size_t size;
  std::unique_ptr<T[]> at;

  explicit Exactly(std::size_t count) : size(count), at(new T[count]) { std::memset(at.get(), kUntouched, count); }
  Exactly(const void* from, std::size_t count) : Exactly(count) {
    if (count > 0) std::memcpy(at.get(), from, count);
  }
  bool untouched() const {
    return std::all_of(at.get(), at.get() + size, [](T each) { return static_cast<std::uint8_t>(each) == kUntouched; });
  }
  bool operator==(const Exactly& other) const { return std::equal(at.get(), at.get() + size, other.at.get()); }
};
using Value = Exactly<std::uint8_t>;
using Text = Exactly<char>;

void require(bool holds) {
  if (!holds) std::abort();
}

void requireOneOf(SqlzZrc zrc, std::initializer_list<SqlzZrc> codes) {
  require(std::find(codes.begin(), codes.end(), zrc) != codes.end());
}

// Reads a text; of what was understood, what is written is read as the same value.
template <class Read, class Write>
void readAndWrite(const Text& text, std::size_t valueBytes, std::size_t textBytes,
                  std::initializer_list<SqlzZrc> failures, Read read, Write write) {
  const Value value(valueBytes);
  const SqlzZrc zrc = read(text.at.get(), text.size, value.at.get());
  if (zrc != 0) {
    requireOneOf(zrc, failures);
    require(value.untouched());
    return;
  }
  const Text again(textBytes);
  require(write(value.at.get(), again.at.get()) == textBytes);
  const Value same(valueBytes);
  require(read(again.at.get(), again.size, same.at.get()) == 0 && same == value);
}

void dates(const Text& text, SqlvNationalLanguage* language) {
  readAndWrite(
      text, SQLV_DATE_BYTES, SQLV_DATE_TEXT,
      {SQLRX_DATE_EMPTY, SQLRX_DATE_FORMAT, SQLRX_DATE_SEPARATOR, SQLRX_DATE_CENTURY_AMBIGUOUS,
       SQLRX_DATE_TRAILING_TEXT, SQLRX_DATE_YEAR_RANGE, SQLRX_DATE_MONTH_RANGE, SQLRX_DATE_DAY_RANGE,
       SQLRX_DATE_NOT_LEAP},
      [&](const char* from, std::size_t length, std::uint8_t* date) {
        const SqlzZrc zrc = sqlvdate(language, from, length, date);
        require(zrc != 0 || sqlvDateToChrono(date).ok());
        return zrc;
      },
      [&](const std::uint8_t* date, char* to) { return sqlvputd(language, SQLV_FORMAT_LOCAL, date, to); });
}

void times(const Text& text) {
  readAndWrite(text, SQLV_TIME_BYTES, SQLV_TIME_TEXT, {SQLRX_TIME_FORMAT, SQLRX_TIME_VALUE}, sqlvtime,
               [](const std::uint8_t* time, char* to) { return sqlvputt(nullptr, SQLV_FORMAT_JIS, time, to); });
}

void timestamps(const Text& text, unsigned scale) {
  readAndWrite(
      text, sqlvTimestampBytes(scale), sqlvTimestampText(scale),
      {SQLRX_TS_FORMAT, SQLRX_TS_SEPARATOR_MIXED, SQLRX_TS_FRACTION_DIGIT, SQLRX_TS_FRACTION_TOO_LONG,
       SQLRX_DATE_YEAR_RANGE, SQLRX_DATE_MONTH_RANGE, SQLRX_DATE_DAY_RANGE, SQLRX_DATE_NOT_LEAP, SQLRX_TIME_HOUR_RANGE,
       SQLRX_TIME_MINUTE_RANGE, SQLRX_TIME_SECOND_RANGE, SQLRX_TIME_MIDNIGHT_REST},
      [&](const char* from, std::size_t length, std::uint8_t* value) {
        const SqlzZrc zrc = sqlvstmp(from, length, scale, value);
        require(zrc != 0 || sqlvGetTsScaleFromString(from, length) <= scale);
        return zrc;
      },
      [&](const std::uint8_t* value, char* to) { return sqlvputs(value, scale, to); });
}

// Any bytes as values.
void writeAnything(const std::uint8_t* data, SqlvNationalLanguage* language, SqlvFormatRequest request,
                   unsigned scale) {
  const Value timestamp(data, sqlvTimestampBytes(scale));
  const Text text(sqlvTimestampText(scale));
  require(sqlvputs(timestamp.at.get(), scale, text.at.get()) == text.size);
  const Value date(data, SQLV_DATE_BYTES);
  const Text dateText(SQLV_DATE_TEXT);
  require(sqlvputd(language, request, date.at.get(), dateText.at.get()) == dateText.size);
  const Value time(data, SQLV_TIME_BYTES);
  const Text timeText(SQLV_TIME_TEXT);
  require(sqlvputt(language, request, time.at.get(), timeText.at.get()) == timeText.size);
}

}  // namespace

// A territory, a request, a scale, then a text whose bytes are values as well.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kHeader = 3;
  if (size < kHeader) return 0;
  SqlvNationalLanguage language = {.territory = vek::g11nTerritoryAt(data[0] % vek::G11N_TERRITORIES).code};
  const SqlvFormatRequest request = data[1];
  const unsigned scale = data[2] % (SQLV_TIMESTAMP_SCALE_MAX + 1);
  const Text text(data + kHeader, size - kHeader);
  dates(text, &language);
  dates(text, nullptr);
  times(text);
  timestamps(text, scale);
  if (text.size >= SQLV_TIMESTAMP_BYTES_MAX) writeAnything(data + kHeader, &language, request, scale);
  return 0;
}
