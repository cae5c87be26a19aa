// Kinds `functions-header` and `ecf-tables`: components and functions by number.
#include <algorithm>

#include "gen.h"

namespace gen {
namespace {

constexpr std::uint32_t kFunctionTag = 3U << 27;
constexpr unsigned kComponentShift = 19;
constexpr std::int64_t kNumberMost = (1 << 19) - 1;

struct Function {
  const Row* row;
  std::uint32_t component;
  std::uint32_t number;
  std::string name;

  std::uint32_t id() const { return kFunctionTag | component << kComponentShift | number; }
};

std::vector<Function> readFunctions(const std::vector<Row>& rows) {
  Unique ids("function");
  Unique names("name");
  std::vector<Function> functions;
  for (const Row& row : rows) {
    Function function{&row, hexCell(row, 0, 2, false), static_cast<std::uint32_t>(decimalCell(row, 1, 1, kNumberMost)),
                      nameCell(row, 2, true)};
    ids.add(row, format("%02X %u", function.component, function.number));
    names.add(row, function.name);
    functions.push_back(function);
  }
  std::sort(functions.begin(), functions.end(), [](const auto& a, const auto& b) { return a.id() < b.id(); });
  return functions;
}

std::string constantName(const std::string& function) {
  std::string name = function;
  for (std::size_t at = name.find("::"); at != std::string::npos; at = name.find("::")) name.replace(at, 2, "_");
  return "FID_" + name;
}

struct Component {
  std::string prefix;
  std::string secondPrefix;  // or empty
  std::string name;
};

// "SQLO", or "SQLP,SQLPR".
Component componentOf(const Row& row) {
  Row prefixes = row;
  const std::size_t comma = std::min(row.cells[1].find(','), row.cells[1].size());
  prefixes.cells[1].resize(comma);
  Component component = {nameCell(prefixes, 1, false), "", textCell(row, 2, 60)};
  if (comma == row.cells[1].size()) return component;
  prefixes.cells[1] = row.cells[1].substr(comma + 1);
  component.secondPrefix = nameCell(prefixes, 1, false);
  return component;
}

std::vector<Component> readComponents(const std::string& path) {
  std::vector<Component> components(256);
  Unique numbers("component");
  for (const Row& row : readTable(path, 3)) {
    const std::uint32_t number = hexCell(row, 0, 2, false);
    numbers.add(row, row.cells[0]);
    components[number] = componentOf(row);
  }
  return components;
}

}  // namespace

std::string functionsHeader(const Inputs& inputs) {
  std::string out = banner(inputs) +
                    "// Identifiers of the library's functions in traces, log records and call-outs.\n#pragma once\n\n"
                    "#include \"veksys/types.h\"\n\nnamespace vek {\n\n";
  const std::vector<Row> rows = readTable(inputs.at(0), 3);
  for (const Function& function : readFunctions(rows))
    out += format("inline constexpr EcfFunctionId %s = ecfFunctionId(0x%02X, %u);\n",
                  constantName(function.name).c_str(), function.component, function.number);
  return out + "\n}  // namespace vek\n";
}

std::string literalOrNull(const std::string& text) { return text.empty() ? "nullptr" : '"' + text + '"'; }

std::string ecfTables(const Inputs& inputs) {
  const std::vector<Component> components = readComponents(inputs.at(0));
  const std::vector<Row> rows = readTable(inputs.at(1), 3);
  std::string out =
      banner(inputs) + "\n// By component number: short name, second prefix and name, null where there is none.\n";
  out += "constexpr EcfComponentRow kComponents[256] = {\n";
  for (std::size_t number = 0; number < components.size(); ++number) {
    const Component& component = components[number];
    out += format("    {%s, %s, %s},  // %02zX\n", literalOrNull(component.prefix).c_str(),
                  literalOrNull(component.secondPrefix).c_str(), literalOrNull(component.name).c_str(), number);
  }
  out += "};\n\n// The library's own functions, ascending by identifier.\nconstexpr EcfFunctionRow kFunctions[] = {\n";
  for (const Function& function : readFunctions(rows)) {
    if (components[function.component].name.empty())
      complain(*function.row, format("component %02X is not known", function.component),
               "add it to the table of components or correct the number");
    out += format("    {0x%08XU, \"%s\"},\n", function.id(), function.name.c_str());
  }
  return out + "};\n";
}

}  // namespace gen
