// Data items of trace records as a person reads them, and as JSON.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "json.h"
#include "text.h"
#include "veksys/diag/trace_reader.h"

namespace veksys {

// What an item is, which decides how it is shown.
enum class ItemKind : std::uint8_t { kBytes, kText, kUnsigned, kSigned, kHex, kBool, kCharacter, kFunction, kSignal };

struct ItemType {
  ItemKind kind;
  bool labelled;  // the name of the type stands in front: "Process ID 4711"
  std::string_view name;
};
const ItemType& itemType(std::uint32_t type);

// The integer an item holds, when it has the size of one.
bool itemInteger(const SqltTraceItem& item, bool isSigned, std::uint64_t* value);
std::string_view itemBytes(const SqltTraceItem& item);

inline constexpr std::uint32_t ITEM_WHOLE = 0xFFFFFFFFU;

// One item on the line: a number, a quoted text, or the first bytes in hex. Of texts and bytes at most `most` bytes are
// shown; what is not shown or was not recorded is told by its count.
void putItem(Text& text, const SqltTraceReader& reader, const SqltTraceItem& item, std::uint32_t most);

// All items of a record from `first` on, separated by commas.
void putItems(Text& text, const SqltTraceReader& reader, const SqltTraceRecord& record, std::uint32_t first,
              std::uint32_t most);

// Whether an item is bytes too many for one line, and those bytes as lines of offset, hex and characters.
bool needsDump(const SqltTraceItem& item);
void putDump(Text& text, const SqltTraceItem& item, std::uint32_t most, std::size_t indent);

void putItems(JsonLine& json, const SqltTraceReader& reader, const SqltTraceRecord& record);

}  // namespace veksys
