// Reading and checking tables.
#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "gen.h"

namespace gen {
namespace {

int g_complaints = 0;

std::vector<std::string> splitAtTabs(const std::string& line) {
  std::vector<std::string> cells;
  std::size_t from = 0;
  for (std::size_t tab = line.find('\t'); tab != std::string::npos; tab = line.find('\t', from)) {
    cells.push_back(line.substr(from, tab - from));
    from = tab + 1;
  }
  cells.push_back(line.substr(from));
  return cells;
}

bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isIdentifier(std::string_view name) {
  return !name.empty() && isLetter(name[0]) &&
         std::all_of(name.begin(), name.end(), [](char c) { return isLetter(c) || isDigit(c); });
}

bool isQualifiedName(std::string_view name) {
  for (std::size_t colons = name.find("::"); colons != std::string_view::npos; colons = name.find("::")) {
    if (!isIdentifier(name.substr(0, colons))) return false;
    name.remove_prefix(colons + 2);
  }
  return isIdentifier(name);
}

bool isPlainText(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; });
}

// The number of a `#count N` line, or -1.
long countOf(const std::string& line) {
  constexpr std::string_view kMark = "#count ";
  if (line.compare(0, kMark.size(), kMark) != 0) return -1;
  return std::strtol(line.c_str() + kMark.size(), nullptr, 10);
}

}  // namespace

void complain(const Row& row, const std::string& wrong, const std::string& repair) {
  ++g_complaints;
  (void)std::fprintf(stderr, "%s:%d: error: %s; %s\n", row.file.c_str(), row.line, wrong.c_str(), repair.c_str());
}

int complaints() { return g_complaints; }

std::vector<Row> readTable(const std::string& path, std::size_t columns) {
  std::vector<Row> rows;
  std::ifstream in(path, std::ios::binary);
  Row row{path, 0, {}};
  Row countRow{path, 0, {}};
  long expected = -1;
  if (!in) complain(row, "the table cannot be read", "check the path and its permissions");
  for (std::string line; std::getline(in, line);) {
    ++row.line;
    if (countOf(line) >= 0) {
      expected = countOf(line);
      countRow.line = row.line;
    }
    if (line.empty() || line[0] == '#') continue;
    row.cells = splitAtTabs(line);
    if (row.cells.size() == columns)
      rows.push_back(row);
    else
      complain(row, format("%zu columns, but a row of this table has %zu", row.cells.size(), columns),
               "separate the columns by exactly one TAB each, see the head of the file");
  }
  if (expected >= 0 && static_cast<std::size_t>(expected) != rows.size())
    complain(countRow, format("%zu rows, but the table must have %ld", rows.size(), expected),
             "add or withdraw rows until the number is met; change #count only when the catalogue itself changes size");
  return rows;
}

std::int64_t decimalCell(const Row& row, std::size_t column, std::int64_t least, std::int64_t most) {
  const std::string& cell = row.cells[column];
  const char* first = cell.data() + (cell.size() > 1 && cell[0] == '+' ? 1 : 0);
  const char* last = cell.data() + cell.size();
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(first, last, value);
  if (error == std::errc() && end == last && value >= least && value <= most) return value;
  complain(
      row, format("column %zu holds '%s'", column + 1, cell.c_str()),
      format("write a decimal number from %lld to %lld", static_cast<long long>(least), static_cast<long long>(most)));
  return least;
}

std::uint32_t hexCell(const Row& row, std::size_t column, std::size_t digits, bool prefixed) {
  std::string_view cell = row.cells[column];
  const bool prefixRight = !prefixed || cell.substr(0, 2) == "0x";
  if (prefixed && prefixRight) cell.remove_prefix(2);
  const bool digitsRight = cell.size() == digits && std::all_of(cell.begin(), cell.end(), [](char c) {
                             return isDigit(c) || (c >= 'A' && c <= 'F');
                           });
  std::uint32_t value = 0;
  if (prefixRight && digitsRight)
    std::from_chars(cell.data(), cell.data() + cell.size(), value, 16);
  else
    complain(row, format("column %zu holds '%s'", column + 1, row.cells[column].c_str()),
             format("write %s%zu upper-case hex digits", prefixed ? "0x and " : "", digits));
  return value;
}

std::string nameCell(const Row& row, std::size_t column, bool qualified) {
  const std::string& cell = row.cells[column];
  const bool right = qualified ? isQualifiedName(cell) : isIdentifier(cell);
  if (!right)
    complain(row, format("'%s' is no name", cell.c_str()),
             qualified ? "write a function's name, a member as Class::member" : "use letters, digits and '_' only");
  return cell;
}

std::string textCell(const Row& row, std::size_t column, std::size_t mostCharacters) {
  const std::string& cell = row.cells[column];
  if (cell.size() < 3 || cell.front() != '"' || cell.back() != '"') {
    complain(row, format("column %zu is no text", column + 1), "put the text in double quotes");
    return "";
  }
  std::string text = cell.substr(1, cell.size() - 2);
  if (!isPlainText(text))
    complain(row, "the text has a character that is not allowed", "use printable ASCII without \" and \\");
  if (text.front() == ' ' || text.back() == ' ')
    complain(row, "the text begins or ends with a blank", "take the blank away");
  if (text.size() > mostCharacters)
    complain(row, format("the text has %zu characters", text.size()), format("say it in at most %zu", mostCharacters));
  return text;
}

void Unique::add(const Row& row, const std::string& key) {
  const auto [found, added] = lines_.emplace(key, row.line);
  if (!added)
    complain(row, format("%s %s stands in line %d already", what_.c_str(), key.c_str(), found->second),
             "give this row one of its own");
}

std::string format(const char* pattern, ...) {
  std::va_list arguments;
  va_start(arguments, pattern);
  char text[1024];
  (void)std::vsnprintf(text, sizeof text, pattern, arguments);
  va_end(arguments);
  return text;
}

std::string banner(const std::vector<std::string>& inputs) {
  std::string names;
  for (const std::string& input : inputs)
    names += (names.empty() ? "" : ", ") + input.substr(input.find_last_of('/') + 1);
  return "// Generated from " + names + ". Do not edit: edit the table.\n";
}

}  // namespace gen
