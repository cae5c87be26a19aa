// Shared by the kinds of vekgen: rows of the tables, their checks, and the generated text.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace gen {

// One row of a table and where it stands.
struct Row {
  std::string file;
  int line = 0;
  std::vector<std::string> cells;
};

// Says what is wrong with a row and how to repair it. The run goes on, so that every bad row is told at once, but
// writes no output and fails.
void complain(const Row& row, const std::string& wrong, const std::string& repair);
int complaints();

// Reads a table: columns separated by single TABs, '#' lines are comments, a `#count N` line says how many rows there
// must be. Rows with another number of columns are complained of and left out.
std::vector<Row> readTable(const std::string& path, std::size_t columns);

// Cells. Each complains and returns a harmless value when the cell is not what it must be.
std::int64_t decimalCell(const Row& row, std::size_t column, std::int64_t least, std::int64_t most);
std::uint32_t hexCell(const Row& row, std::size_t column, std::size_t digits, bool prefixed);
std::string nameCell(const Row& row, std::size_t column, bool qualified);
std::string textCell(const Row& row, std::size_t column, std::size_t mostCharacters);

// Complains when a key occurs twice; `what` names the key in the message.
class Unique {
 public:
  explicit Unique(std::string what) : what_(std::move(what)) {}
  void add(const Row& row, const std::string& key);

 private:
  std::string what_;
  std::map<std::string, int> lines_;
};

// Formats like printf.
std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));

// The head of a generated file.
std::string banner(const std::vector<std::string>& inputs);

// The kinds. Each reads its tables and returns what the output file is to hold.
using Inputs = std::vector<std::string>;
std::string codesHeader(const Inputs& inputs);
std::string zrcMap(const Inputs& inputs);
std::string osErrors(const Inputs& inputs);
std::string functionsHeader(const Inputs& inputs);
std::string ecfTables(const Inputs& inputs);
std::string messageObject(const Inputs& inputs);
std::string sqlStates(const Inputs& inputs);
std::string latchTypesHeader(const Inputs& inputs);
std::string latchTypes(const Inputs& inputs);
std::string territories(const Inputs& inputs);

}  // namespace gen
