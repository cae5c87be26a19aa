// Kinds `latch-types-header` and `latch-types`: latch types by number.
#include "gen.h"

namespace gen {
namespace {

// Ids ascend without a gap, so that a type's row is found by its id.
std::vector<std::string> readLatchTypes(const std::string& path) {
  std::vector<std::string> names;
  Unique unique("latch type");
  std::int64_t next = 0;
  for (const Row& row : readTable(path, 3)) {
    const std::int64_t id = decimalCell(row, 0, 0, 0x7FF);
    if (id != next)
      complain(row, format("id %d where %d is due", static_cast<int>(id), static_cast<int>(next)),
               "number the rows upwards from 0 without a gap");
    next = id + 1;
    names.push_back("SQLO_LT_" + nameCell(row, 1, false) + "__" + nameCell(row, 2, false) + "__latch");
    unique.add(row, names.back());
  }
  return names;
}

}  // namespace

std::string latchTypesHeader(const Inputs& inputs) {
  const std::vector<std::string> names = readLatchTypes(inputs.at(0));
  std::string out = banner(inputs) +
                    "// Latch types: what a latch guards, told when it is initialised. sqloLatchTypeName names them.\n"
                    "#pragma once\n\n#include <cstdint>\n\n// A type by its name.\n";
  for (std::size_t id = 0; id < names.size(); ++id)
    out += format("inline constexpr std::uint16_t %s = %zu;\n", names[id].c_str(), id);
  return out;
}

std::string latchTypes(const Inputs& inputs) {
  std::string out = banner(inputs) + "\n// By id.\nconstexpr const char* kLatchTypeNames[] = {\n";
  for (const std::string& name : readLatchTypes(inputs.at(0))) out += format("    \"%s\",\n", name.c_str());
  return out + "};\n";
}

}  // namespace gen
