// Kinds `codes-header` and `zrc-map`: the catalogue of return codes and the map to SQL codes.
#include <algorithm>
#include <set>

#include "gen.h"

namespace gen {
namespace {

constexpr std::size_t kTypes = 35;
constexpr std::uint32_t kOsErrorType = 3;
constexpr std::uint32_t kUnmappedComponent = 0x31;
constexpr unsigned kHashBits = 14;
constexpr std::uint32_t kCodeHashFactor = 0x9E3779B1U;
constexpr std::uint64_t kNameHashFactor = 0x9E3779B97F4A7C15U;

// What an application gets for a code.
struct Entry {
  std::int32_t sqlcode;
  std::uint32_t tokenKind;
  std::uint32_t mappedCode;

  bool operator==(const Entry&) const = default;
};
constexpr Entry kNoEntry = {-901, 1, 1};

struct Code {
  const Row* row;
  std::uint32_t code;
  std::string name;
  Entry entry;
  std::string text;

  std::uint32_t type() const { return code >> 24 & 0x7F; }
  std::uint32_t component() const { return code >> 16 & 0xFF; }
  std::uint32_t number() const { return code & (type() == kOsErrorType ? 0xFFFFFFU : 0xFFFFU); }
};

// One error type: its sub-table of the map and its text.
struct Type {
  std::uint32_t count = 0;
  bool indexed = false;
  Entry standard = kNoEntry;
  bool sameCode = false;  // every code of the type has the SQL code and token kind of the standard entry
  std::string text;
};

Entry entryCells(const Row& row, std::size_t first) {
  return {static_cast<std::int32_t>(decimalCell(row, first, -99999, 99999)),
          static_cast<std::uint32_t>(decimalCell(row, first + 1, 0, 3)),
          static_cast<std::uint32_t>(decimalCell(row, first + 2, 1, 9999))};
}

// A number may serve one code of a type only, since the map does not look at the component.
void checkNumber(Unique& numbers, const Code& code) {
  if (code.code == 0 || code.component() == kUnmappedComponent) return;
  numbers.add(*code.row, format("%u of type %u", code.number(), code.type()));
}

// What each row must keep to by itself.
void checkRow(const Row& row, const Code& code) {
  const bool upper = std::none_of(code.name.begin(), code.name.end(), [](char c) { return c >= 'a' && c <= 'z'; });
  if (!upper || code.name.find('_') == std::string::npos)
    complain(row, "name " + code.name, "write the component's prefix, '_' and what happened, in upper case");
  if (code.entry.tokenKind == 2 || code.entry.tokenKind > 3)
    complain(row, format("token kind %u", code.entry.tokenKind), "use 0, 1 or 3");
  if (code.type() >= kTypes) complain(row, format("error type %u", code.type()), "use a type from 0 to 34");
}

std::vector<Code> readCodes(const std::vector<Row>& rows) {
  Unique codes("code");
  Unique names("name");
  Unique numbers("number");
  std::vector<Code> result;
  for (const Row& row : rows) {
    Code code{&row, hexCell(row, 0, 8, true), nameCell(row, 1, false), entryCells(row, 2), textCell(row, 5, 110)};
    checkRow(row, code);
    if (code.code != 0) codes.add(row, row.cells[0]);
    names.add(row, code.name);
    checkNumber(numbers, code);
    result.push_back(code);
  }
  std::stable_sort(result.begin(), result.end(), [](const Code& a, const Code& b) { return a.code < b.code; });
  return result;
}

std::vector<Type> readTypes(const std::string& path) {
  std::vector<Type> types(kTypes);
  Unique numbers("type");
  for (const Row& row : readTable(path, 8)) {
    const auto number = static_cast<std::size_t>(decimalCell(row, 0, 0, kTypes - 1));
    numbers.add(row, row.cells[0]);
    types[number] = {static_cast<std::uint32_t>(decimalCell(row, 1, 1, 65536)), decimalCell(row, 2, 0, 1) == 1,
                     entryCells(row, 3), row.cells[6] == "same", textCell(row, 7, 110)};
    if (row.cells[6] != "same" && row.cells[6] != "own")
      complain(row, format("'%s' in column 7", row.cells[6].c_str()), "write 'same' or 'own'");
  }
  for (std::size_t number = 0; number < kTypes; ++number)
    if (types[number].count == 0) complain({path, 1, {}}, format("no row for type %zu", number), "add the row");
  return types;
}

// The rows of oserr.tsv for one place, as an array.
std::string osErrorRows(const char* name, std::string_view where, const std::vector<Row>& rows) {
  Unique errors(std::string(where) + " error");
  std::string out = format("constexpr OsErrorRow %s[] = {\n", name);
  for (const Row& row : rows) {
    if (row.cells[0] != where) continue;
    errors.add(row, row.cells[1]);
    out += format("    {%s, %s},\n", nameCell(row, 1, false).c_str(), row.cells[2].c_str());
  }
  return out + "};\n";
}

// The entry that the map will answer whatever the row says; null where the row decides.
const Entry* forcedEntry(const Code& code, const Type& type) {
  if (code.component() == kUnmappedComponent) return &kNoEntry;
  if (!type.indexed || code.number() == 0) return &type.standard;
  return code.number() >= type.count ? &kNoEntry : nullptr;
}

void checkEntry(const Code& code, const Type& type) {
  if (code.code == 0) return;
  if (const Entry* forced = forcedEntry(code, type); forced != nullptr && !(code.entry == *forced))
    complain(*code.row,
             format("%s can only map to %d, %u, %u", code.name.c_str(), forced->sqlcode, forced->tokenKind,
                    forced->mappedCode),
             "write that, or choose another number");
  const bool differs = code.entry.sqlcode != type.standard.sqlcode || code.entry.tokenKind != type.standard.tokenKind;
  if (type.sameCode && code.component() != kUnmappedComponent && code.number() < type.count && differs)
    complain(*code.row, format("SQL code %d with token kind %u", code.entry.sqlcode, code.entry.tokenKind),
             format("every code of this type has %d and %u", type.standard.sqlcode, type.standard.tokenKind));
}

void checkMessages(const std::vector<Code>& codes, const std::vector<Type>& types, const std::string& messages) {
  std::set<std::int64_t> known;
  for (const Row& row : readTable(messages, 4)) known.insert(decimalCell(row, 0, -99999, 99999));
  for (const Code& code : codes)
    if (code.code != 0 && !known.contains(code.entry.sqlcode))
      complain(*code.row, format("SQL code %d has no message", code.entry.sqlcode), "add it to " + messages);
  for (std::size_t number = 0; number < types.size(); ++number)
    if (!known.contains(types[number].standard.sqlcode))
      complain({messages, 1, {}},
               format("SQL code %d of type %zu has no message", types[number].standard.sqlcode, number), "add the row");
}

std::string catalogueRows(const std::vector<Code>& codes) {
  std::string out = "// Ascending by code.\nconstexpr SqlzZrcEntry kCatalogue[] = {\n";
  for (const Code& code : codes)
    out += format("    {static_cast<std::int32_t>(0x%08XU), \"%s\", \"%s\"},\n", code.code, code.name.c_str(),
                  code.text.c_str());
  return out + "};\n\n";
}

template <class Numbers>
std::string numberArray(const char* declaration, const Numbers& numbers) {
  std::string out = format("constexpr %s[] = {", declaration);
  std::size_t column = 0;
  for (const auto number : numbers)
    out += format("%s%u,", column++ % 20 == 0 ? "\n    " : " ", static_cast<unsigned>(number));
  return out + "\n};\n";
}

// The hash of a name, whatever its case: eight bytes at a time with the bit that tells the case cleared; the last eight
// overlap the ones before. The library computes the same when it looks a name up.
std::uint64_t nameHash(const std::string& name) {
  constexpr std::size_t kPart = 8;
  std::uint64_t hash = 0;
  for (std::size_t from = 0; from < name.size(); from += kPart) {
    const std::size_t first = name.size() < kPart ? 0 : std::min(from, name.size() - kPart);
    std::uint64_t part = 0;
    for (std::size_t i = 0; i < std::min(kPart, name.size()); ++i)
      part |= std::uint64_t{static_cast<unsigned char>(name[first + i])} << 8 * i;
    hash = (hash ^ (part & 0xDFDFDFDFDFDFDFDFU)) * kNameHashFactor;
    hash ^= hash >> 32;
  }
  return hash;
}

// An index by open addressing: a slot holds the position in the catalogue plus one, 0 ends a chain.
class Index {
 public:
  Index() : slots_(std::size_t{1} << kHashBits) {}

  void add(std::size_t slot, std::size_t position) {
    while (slots_[slot] != 0) slot = (slot + 1) % slots_.size();
    slots_[slot] = static_cast<std::uint16_t>(position + 1);
  }
  const std::vector<std::uint16_t>& slots() const { return slots_; }

 private:
  std::vector<std::uint16_t> slots_;
};

// The indexes by code (the first entry of every value) and by name.
std::string catalogueIndexes(const std::vector<Code>& codes) {
  Index byCode;
  Index byName;
  for (std::size_t position = 0; position < codes.size(); ++position) {
    const Code& code = codes[position];
    byName.add(nameHash(code.name) % (std::size_t{1} << kHashBits), position);
    if (position == 0 || codes[position - 1].code != code.code)
      byCode.add(code.code * kCodeHashFactor >> (32 - kHashBits), position);
  }
  return format(
             "// Position plus one of a code or a name, by open addressing; 0 ends a chain.\n"
             "constexpr std::uint32_t kCodeHashFactor = 0x%08XU;\nconstexpr unsigned kCodeHashShift = %u;\n"
             "constexpr std::uint64_t kNameHashFactor = 0x%016llXU;\nconstexpr std::size_t kSlotMask = %zu;\n",
             kCodeHashFactor, 32 - kHashBits, static_cast<unsigned long long>(kNameHashFactor),
             (std::size_t{1} << kHashBits) - 1) +
         numberArray("std::uint16_t kCodeSlots", byCode.slots()) +
         numberArray("std::uint16_t kNameSlots", byName.slots()) + "\n";
}

// The map: distinct entries once, and per type the dense run of their positions up to the last one that differs.
class SqlMap {
 public:
  void add(const Type& type, const std::vector<const Code*>& codes) {
    const std::size_t standard = position(type.standard);
    std::vector<std::uint16_t> run;
    for (const Code* code : codes) {
      if (code->entry == type.standard) continue;
      run.resize(std::max<std::size_t>(run.size(), code->number() + 1), static_cast<std::uint16_t>(standard));
      run[code->number()] = static_cast<std::uint16_t>(position(code->entry));
    }
    types_ += format("    {%u, %zu, %zu, %zu},\n", type.indexed ? type.count : 0xFFFFFFFFU, run.size(), slots_.size(),
                     standard);
    slots_.insert(slots_.end(), run.begin(), run.end());
  }

  std::string text() const {
    std::string out =
        "// Distinct entries of the map: SQL code, token kind, secondary code.\nconstexpr SqlMapEntry kEntries[] = {\n";
    for (const Entry& entry : entries_)
      out += format("    {%d, %u, %u},\n", entry.sqlcode, entry.tokenKind, entry.mappedCode);
    out +=
        "};\n\n// Positions in kEntries, one dense run per error type.\n" + numberArray("std::uint16_t kSlots", slots_);
    return out +
           "\n// By error type: numbers below, length of the run, its start in kSlots, entry beyond the run.\n"
           "constexpr SqlMapType kTypes[] = {\n" +
           types_ + "};\n\n";
  }

 private:
  std::size_t position(const Entry& entry) {
    const auto found = std::find(entries_.begin(), entries_.end(), entry);
    if (found != entries_.end()) return static_cast<std::size_t>(found - entries_.begin());
    entries_.push_back(entry);
    return entries_.size() - 1;
  }

  std::vector<Entry> entries_{kNoEntry};  // position 0 answers where there is no entry
  std::vector<std::uint16_t> slots_{0};   // never empty
  std::string types_;
};

std::string sqlMap(const std::vector<Code>& codes, const std::vector<Type>& types) {
  std::vector<std::vector<const Code*>> mapped(kTypes);
  for (const Code& code : codes)
    if (code.code != 0 && code.type() < kTypes && forcedEntry(code, types[code.type()]) == nullptr)
      mapped[code.type()].push_back(&code);
  SqlMap map;
  for (std::size_t number = 0; number < kTypes; ++number) map.add(types[number], mapped[number]);
  return map.text();
}

std::string typeTexts(const std::vector<Type>& types) {
  std::string out = "constexpr const char* kTypeTexts[] = {\n";
  for (const Type& type : types) out += format("    \"%s\",\n", type.text.c_str());
  return out + "};\n";
}

}  // namespace

std::string codesHeader(const Inputs& inputs) {
  std::string out =
      banner(inputs) +
      "// Every named return code, with its text.\n#pragma once\n\n#include <cstddef>\n#include <cstdint>\n\n";
  const std::vector<Row> rows = readTable(inputs.at(0), 6);
  out += format(
      "// Entries of the catalogue, aliases of success included.\n"
      "inline constexpr std::size_t SQLZ_ZRC_MAP_COUNT = %zu;\n\n// clang-format off\n",
      rows.size());
  for (const Code& code : readCodes(rows))
    out += format("inline constexpr std::int32_t %s = static_cast<std::int32_t>(0x%08XU);  // %s\n", code.name.c_str(),
                  code.code, code.text.c_str());
  return out + "// clang-format on\n";
}

std::string osErrors(const Inputs& inputs) {
  constexpr std::uint32_t kComponent = 0x0F;
  std::set<std::string> known;
  const std::vector<Row> catalogue = readTable(inputs.at(1), 6);
  for (const Code& code : readCodes(catalogue))
    if (code.component() == kComponent) known.insert(code.name);
  const std::vector<Row> rows = readTable(inputs.at(0), 3);
  for (const Row& row : rows) {
    if (row.cells[0] != "file" && row.cells[0] != "tcpip")
      complain(row, format("'%s' in column 1", row.cells[0].c_str()), "write 'file' or 'tcpip'");
    if (!known.contains(row.cells[2]))
      complain(row, format("'%s' is no code of component 0F", row.cells[2].c_str()),
               "name one that stands in " + inputs.at(1));
  }
  return banner(inputs) + "\n" + osErrorRows("kFileErrors", "file", rows) + "\n" +
         osErrorRows("kTcpIpErrors", "tcpip", rows);
}

std::string zrcMap(const Inputs& inputs) {
  const std::vector<Row> rows = readTable(inputs.at(0), 6);
  const std::vector<Code> codes = readCodes(rows);
  const std::vector<Type> types = readTypes(inputs.at(1));
  for (const Code& code : codes)
    if (code.type() < kTypes) checkEntry(code, types[code.type()]);
  checkMessages(codes, types, inputs.at(2));
  return banner(inputs) + "\n" + catalogueRows(codes) + catalogueIndexes(codes) + sqlMap(codes, types) +
         typeTexts(types);
}

}  // namespace gen
