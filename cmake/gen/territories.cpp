// Kind `territories`: the country-code table, and the formats that its entries name.
#include <algorithm>

#include "gen.h"

namespace gen {
namespace {

constexpr std::size_t kPatternMost = 16;
constexpr std::int64_t kFormatMost = 99;
constexpr std::int64_t kCodeMost = 999;

// The formats of a kind: number by pattern, and by number what each is written as; 0 where there is no such number.
struct Formats {
  std::map<std::string, std::int64_t> numbers;
  std::vector<std::int64_t> written = {0};
};

void checkWritten(const Row& row, bool date, std::int64_t written) {
  const bool known = date ? written >= 1 && written <= 11 : written == 1 || written == 3 || written == 4;
  if (!known)
    complain(row, format("a %s cannot be written as %s", row.cells[0].c_str(), row.cells[3].c_str()),
             date ? "write 1 to 11" : "write 1, 3 or 4");
}

// Every row of one kind, "date" or "time".
Formats formatsOf(const std::vector<Row>& rows, const std::string& kind) {
  Formats formats;
  Unique numbers(kind + " format");
  Unique patterns("pattern");
  for (const Row& row : rows) {
    if (row.cells[0] != kind) continue;
    const auto number = static_cast<std::size_t>(decimalCell(row, 1, 1, kFormatMost));
    const std::int64_t written = decimalCell(row, 3, 1, kFormatMost);
    checkWritten(row, kind == "date", written);
    numbers.add(row, row.cells[1]);
    patterns.add(row, row.cells[2]);
    formats.numbers[textCell(row, 2, kPatternMost)] = static_cast<std::int64_t>(number);
    formats.written.resize(std::max(formats.written.size(), number + 1));
    formats.written[number] = written;
  }
  return formats;
}

void checkKinds(const std::vector<Row>& rows) {
  for (const Row& row : rows)
    if (row.cells[0] != "date" && row.cells[0] != "time")
      complain(row, format("'%s' is no kind of format", row.cells[0].c_str()), "write date or time");
}

std::int64_t numberOf(const Row& row, std::size_t column, const Formats& formats) {
  const auto found = formats.numbers.find(textCell(row, column, kPatternMost));
  if (found != formats.numbers.end()) return found->second;
  complain(row, format("no format has the pattern %s", row.cells[column].c_str()),
           "take one of territory_formats.tsv or add it there");
  return 0;
}

void checkLetters(const Row& row) {
  const std::string& letters = row.cells[1];
  if (letters.size() != 2 || !std::all_of(letters.begin(), letters.end(), [](char c) { return c >= 'A' && c <= 'Z'; }))
    complain(row, format("'%s' is no country code", letters.c_str()), "write two upper-case letters");
}

std::string writtenTable(const char* name, const Formats& formats) {
  std::string out = format("constexpr std::uint8_t %s[] = {", name);
  for (std::size_t i = 0; i < formats.written.size(); ++i)
    out += format("%s%d", i == 0 ? "" : ", ", static_cast<int>(formats.written[i]));
  return out + "};\n";
}

std::string entriesOf(const std::vector<Row>& rows, const Formats& dates, const Formats& times) {
  Unique codes("code");
  Unique letters("country code");
  std::map<std::int64_t, std::string> entries;
  for (const Row& row : rows) {
    checkLetters(row);
    codes.add(row, row.cells[0]);
    letters.add(row, row.cells[1]);
    const std::int64_t code = decimalCell(row, 0, 1, kCodeMost);
    entries[code] =
        format("    {%d, %d, %d, \"%s\"},  // %s\n", static_cast<int>(code), static_cast<int>(numberOf(row, 2, dates)),
               static_cast<int>(numberOf(row, 3, times)), row.cells[1].c_str(), textCell(row, 4, 40).c_str());
  }
  std::string out;
  for (const auto& [code, entry] : entries) out += entry;
  return out;
}

}  // namespace

std::string territories(const Inputs& inputs) {
  const std::vector<Row> formatRows = readTable(inputs.at(1), 4);
  checkKinds(formatRows);
  const Formats dates = formatsOf(formatRows, "date");
  const Formats times = formatsOf(formatRows, "time");
  return banner(inputs) + "\n// By number of a territory's format: the format that it is written in.\n" +
         writtenTable("kWrittenDates", dates) + writtenTable("kWrittenTimes", times) +
         "\n// Ascending by code: code, date format, time format, letters.\nconstexpr G11nTerritory kTerritories[] = "
         "{\n" +
         entriesOf(readTable(inputs.at(0), 5), dates, times) + "};\n";
}

}  // namespace gen
