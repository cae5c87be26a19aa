#include "trace_items.h"

#include <algorithm>
#include <cstring>

#include "veksys/pd_types.h"

namespace veksys {
namespace {

constexpr std::uint32_t kLineBytes = 16;  // bytes shown on one line

// How a trace shows what a record of the log prints by this routine; on one line, so with less around it.
constexpr ItemKind kindOf(PdPrint print) {
  switch (print) {
    case PdPrint::kUnsigned:
    case PdPrint::kTime:
      return ItemKind::kUnsigned;
    case PdPrint::kSigned:
    case PdPrint::kOsError:
      return ItemKind::kSigned;
    case PdPrint::kPointer:
    case PdPrint::kHexInteger:
    case PdPrint::kBitmask:
    case PdPrint::kCodePath:
    case PdPrint::kReturnCode:
      return ItemKind::kHex;
    case PdPrint::kText:
    case PdPrint::kRawText:
      return ItemKind::kText;
    case PdPrint::kCharacter:
      return ItemKind::kCharacter;
    case PdPrint::kBool:
      return ItemKind::kBool;
    case PdPrint::kFunction:
      return ItemKind::kFunction;
    case PdPrint::kSignal:
      return ItemKind::kSignal;
    default:
      return ItemKind::kBytes;
  }
}

// Types that say nothing but how the value is written; their names are left out.
constexpr PdType kUnlabelled[] = {
    PD_TYPE_DEFAULT,          PD_TYPE_PTR,    PD_TYPE_NCONST,  PD_TYPE_UINT,        PD_TYPE_HEXDUMP,
    PD_TYPE_HEXDUMP_NO_ASCII, PD_TYPE_STRING, PD_TYPE_STRINGN, PD_TYPE_RAW_STRINGN, PD_TYPE_SINT,
    PD_TYPE_HEXINT,           PD_TYPE_CHAR,   PD_TYPE_BOOL,    PD_TYPE_FLOAT,
};

constexpr std::size_t kTypeCount = PD_TYPE_COUNT;

struct ItemTypes {
  ItemType rows[kTypeCount] = {
#define PD_TYPE(number, name, description, print) {kindOf(PdPrint::print), true, description},
#include "veksys/pd_types.def"
#undef PD_TYPE
  };
  constexpr ItemTypes() {
    for (const PdType type : kUnlabelled) rows[type].labelled = false;
  }
};
constexpr ItemTypes kTypes;
constexpr ItemType kStructure = {ItemKind::kBytes, true, "Structure"};
constexpr ItemType kUnknown = {ItemKind::kBytes, true, "Unknown type"};

void putNotShown(Text& text, std::uint32_t shown, const SqltTraceItem& item) {
  if (shown == item.stored && item.stored == item.size) return;
  text.put(" (");
  if (shown < item.stored) {
    text.grouped(item.stored - shown);
    text.put(" more bytes");
  }
  if (item.stored < item.size) {
    text.put(shown < item.stored ? ", " : "");
    text.put("cut: ");
    text.grouped(item.stored);
    text.put(" of ");
    text.grouped(item.size);
    text.put(" bytes recorded");
  }
  text.put(')');
}

void putBytesInLine(Text& text, const SqltTraceItem& item, std::uint32_t most) {
  const std::string_view bytes = itemBytes(item).substr(0, std::min(most, kLineBytes));
  text.put(bytes.empty() ? "(no bytes)" : "0x");
  for (const char byte : bytes) text.hex(static_cast<unsigned char>(byte), 2);
  putNotShown(text, static_cast<std::uint32_t>(bytes.size()), item);
}

void putQuoted(Text& text, const SqltTraceItem& item, std::uint32_t most) {
  std::string_view bytes = itemBytes(item);
  const bool terminated = !bytes.empty() && bytes.back() == '\0';
  const std::string_view shown = bytes.substr(0, std::min<std::size_t>(most, bytes.size() - (terminated ? 1 : 0)));
  text.put('"');
  for (std::string_view rest = shown;;) {
    const std::size_t quote = std::min(rest.find('"'), rest.size());
    putSafe(text, rest.substr(0, quote));
    if (quote == rest.size()) break;
    text.put("\\\"");
    rest.remove_prefix(quote + 1);
  }
  text.put('"');
  putNotShown(text, static_cast<std::uint32_t>(shown.size() + (terminated ? 1 : 0)), item);
}

void putFunction(Text& text, const SqltTraceReader& reader, EcfFunctionId id) {
  const char* name = reader.functionName(id);
  if (name != nullptr) return putSafe(text, name);
  text.hexCode(id);
}

void putSignal(Text& text, std::uint64_t number) {
  text.decimal(number);
  const char* name = number < 65 ? ::sigabbrev_np(static_cast<int>(number)) : nullptr;
  if (name == nullptr) return;
  text.put(" SIG");
  text.put(name);
}

void putCharacter(Text& text, const SqltTraceItem& item) {
  text.put('\'');
  putSafe(text, itemBytes(item).substr(0, 1));
  text.put('\'');
}

void putInteger(Text& text, const SqltTraceReader& reader, ItemKind kind, std::uint64_t value) {
  switch (kind) {
    case ItemKind::kUnsigned:
      return text.decimal(value);
    case ItemKind::kSigned:
      return text.signedDecimal(static_cast<std::int64_t>(value));
    case ItemKind::kHex:
      return text.hexShort(value);
    case ItemKind::kBool:
      return text.put(value != 0 ? "true" : "false");
    case ItemKind::kSignal:
      return putSignal(text, value);
    default:
      return putFunction(text, reader, static_cast<EcfFunctionId>(value));
  }
}

bool isInteger(ItemKind kind) noexcept {
  return kind != ItemKind::kBytes && kind != ItemKind::kText && kind != ItemKind::kCharacter;
}

void putHexLine(Text& text, std::size_t offset, std::string_view bytes, bool withCharacters) {
  text.hex(offset, 4);
  text.put("  ");
  for (std::size_t i = 0; i < kLineBytes; ++i) {
    if (i == 8) text.put(' ');
    if (i < bytes.size())
      text.hex(static_cast<unsigned char>(bytes[i]), 2);
    else if (withCharacters)
      text.put("  ");
    if (i < bytes.size() || withCharacters) text.put(' ');
  }
  if (withCharacters) {
    text.put(' ');
    for (const char c : bytes) text.put(c >= ' ' && c <= '~' ? c : '.');
  }
  text.put('\n');
}

}  // namespace

const ItemType& itemType(std::uint32_t type) {
  if (type < kTypeCount) return kTypes.rows[type];
  return type >= PD_TYPE_STRUCTURES ? kStructure : kUnknown;
}

std::string_view itemBytes(const SqltTraceItem& item) {
  return {static_cast<const char*>(item.data), item.isNull ? 0 : item.stored};
}

bool itemInteger(const SqltTraceItem& item, bool isSigned, std::uint64_t* value) {
  const std::uint32_t size = item.stored;
  if (item.isNull || size != item.size || (size != 1 && size != 2 && size != 4 && size != 8)) return false;
  *value = 0;
  ::memcpy(value, item.data, size);
  if (isSigned && size < 8 && (*value >> (size * 8 - 1)) != 0) *value |= ~0ULL << (size * 8);
  return true;
}

void putItem(Text& text, const SqltTraceReader& reader, const SqltTraceItem& item, std::uint32_t most) {
  const ItemType& type = itemType(item.type);
  std::uint64_t value = 0;
  if (type.labelled) {
    text.put(type.name);
    text.put(' ');
  }
  if (item.isNull)
    text.put("null");
  else if (isInteger(type.kind) && itemInteger(item, type.kind == ItemKind::kSigned, &value))
    putInteger(text, reader, type.kind, value);
  else if (type.kind == ItemKind::kText)
    putQuoted(text, item, most);
  else if (type.kind == ItemKind::kCharacter && item.stored == 1)
    putCharacter(text, item);
  else
    putBytesInLine(text, item, most);
}

void putItems(Text& text, const SqltTraceReader& reader, const SqltTraceRecord& record, std::uint32_t first,
              std::uint32_t most) {
  for (std::uint32_t i = first; i < record.itemCount; ++i) {
    if (i != first) text.put(", ");
    putItem(text, reader, record.items[i], most);
  }
}

bool needsDump(const SqltTraceItem& item) {
  return itemType(item.type).kind == ItemKind::kBytes && !item.isNull && item.stored > kLineBytes;
}

void putDump(Text& text, const SqltTraceItem& item, std::uint32_t most, std::size_t indent) {
  const std::string_view bytes = itemBytes(item).substr(0, most);
  for (std::size_t offset = 0; offset < bytes.size(); offset += kLineBytes) {
    text.fill(' ', indent);
    putHexLine(text, offset, bytes.substr(offset, kLineBytes), item.type != PD_TYPE_HEXDUMP_NO_ASCII);
  }
  if (bytes.size() == item.stored && item.stored == item.size) return;
  text.fill(' ', indent + 5);
  putNotShown(text, static_cast<std::uint32_t>(bytes.size()), item);
  text.put('\n');
}

namespace {

void putValue(JsonLine& json, const SqltTraceReader& reader, const SqltTraceItem& item, ItemKind kind) {
  std::uint64_t value = 0;
  if (item.isNull) return json.value(static_cast<const char*>(nullptr));
  if (isInteger(kind) && itemInteger(item, kind == ItemKind::kSigned, &value)) {
    if (kind == ItemKind::kSigned) return json.value(static_cast<std::int64_t>(value));
    if (kind == ItemKind::kUnsigned || kind == ItemKind::kSignal) return json.value(value);
    if (kind == ItemKind::kBool) return json.value(value != 0);
    if (kind == ItemKind::kHex) return json.plain([&](Text& text) { text.hexShort(value); });
    Text text;
    putInteger(text, reader, kind, value);
    return json.value(text.view());
  }
  std::string_view bytes = itemBytes(item);
  if (kind != ItemKind::kText && kind != ItemKind::kCharacter)
    return json.plain([&](Text& text) {
      for (const char byte : bytes) text.hex(static_cast<unsigned char>(byte), 2);
    });
  if (!bytes.empty() && bytes.back() == '\0') bytes.remove_suffix(1);
  json.safe(bytes);
}

}  // namespace

void putItems(JsonLine& json, const SqltTraceReader& reader, const SqltTraceRecord& record) {
  if (record.itemCount == 0) return;
  json.array("items");
  for (std::uint32_t i = 0; i < record.itemCount; ++i) {
    const SqltTraceItem& item = record.items[i];
    json.StartObject();
    json.member("pd_type", item.type);
    json.member("type", itemType(item.type).name);
    json.member("size", item.size);
    if (item.stored != item.size && !item.isNull) json.member("stored", item.stored);
    json.key("value");
    putValue(json, reader, item, itemType(item.type).kind);
    json.EndObject();
  }
  json.EndArray();
}

}  // namespace veksys
