// vekgen turns the tables of the source tree into generated sources and data files.
//
//   vekgen <kind> <input.tsv>... <output>
//
// The output is written only when every row of every input is right; each bad row is told with file and line, what is
// wrong and how to repair it, and the exit status is 1 then.
#include <cstdio>
#include <fstream>

#include "gen.h"

namespace {

struct Kind {
  const char* name;
  std::size_t inputs;
  std::string (*generate)(const gen::Inputs& inputs);
  const char* inputNames;
};

constexpr Kind kKinds[] = {
    {"codes-header", 1, gen::codesHeader, "zrc.tsv"},
    {"zrc-map", 3, gen::zrcMap, "zrc.tsv sqlmap.tsv sqlmsg.tsv"},
    {"oserr", 2, gen::osErrors, "oserr.tsv zrc.tsv"},
    {"functions-header", 1, gen::functionsHeader, "functions.tsv"},
    {"ecf-tables", 2, gen::ecfTables, "components.tsv functions.tsv"},
    {"mo", 1, gen::messageObject, "sqlmsg.tsv"},
    {"sqlstates", 1, gen::sqlStates, "sqlmsg.tsv"},
    {"latch-types-header", 1, gen::latchTypesHeader, "latch_types.tsv"},
    {"latch-types", 1, gen::latchTypes, "latch_types.tsv"},
    {"territories", 2, gen::territories, "territories.tsv territory_formats.tsv"},
};

const Kind* findKind(std::string_view name) {
  for (const Kind& kind : kKinds)
    if (name == kind.name) return &kind;
  return nullptr;
}

int usage() {
  (void)std::fputs("usage:\n", stderr);
  for (const Kind& kind : kKinds) (void)std::fprintf(stderr, "  vekgen %s %s <output>\n", kind.name, kind.inputNames);
  return 2;
}

bool writeFile(const char* path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  out.close();
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  const Kind* kind = argc >= 2 ? findKind(argv[1]) : nullptr;
  if (kind == nullptr || static_cast<std::size_t>(argc) != kind->inputs + 3) return usage();
  const std::string content = kind->generate(gen::Inputs(argv + 2, argv + argc - 1));
  if (gen::complaints() > 0) return 1;
  if (writeFile(argv[argc - 1], content)) return 0;
  (void)std::fprintf(stderr, "vekgen: cannot write %s\n", argv[argc - 1]);
  return 1;
}
