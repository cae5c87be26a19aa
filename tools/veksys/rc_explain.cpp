#include "rc_explain.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "names.h"
#include "veksys/diag/sqlca.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::size_t kLabelWidth = 20;
constexpr std::size_t kLineWidth = 100;

std::string hexCode(std::int32_t code) {
  Text text;
  text.hexCode(static_cast<std::uint32_t>(code));
  return std::string(text.view());
}

// "label   value", continued below the value when it is long.
void putField(Text& text, std::string_view label, std::string_view value) {
  std::size_t start = text.size();
  text.put("  ");
  text.put(label);
  text.padTo(start, kLabelWidth);
  while (text.size() - start + value.size() > kLineWidth) {
    const std::size_t room = kLineWidth - kLabelWidth;
    const std::size_t blank = value.rfind(' ', room);
    if (blank == std::string_view::npos || blank == 0) break;
    text.put(value.substr(0, blank));
    text.put('\n');
    value.remove_prefix(blank + 1);
    start = text.size();
    text.fill(' ', kLabelWidth);
  }
  text.put(value);
  text.put('\n');
}

std::string numberText(std::uint32_t number) {
  Text text;
  text.decimal(number);
  text.put(" (");
  text.hexShort(number);
  text.put(')');
  return std::string(text.view());
}

std::string componentText(std::uint32_t component) {
  Text text;
  text.put("0x");
  text.hex(component, 2);
  text.put("  ");
  if (!isKnownComponent(component))
    text.put("no such component");
  else {
    text.put(ecfGetComponentShortName(ecfFunctionId(component, 0)));
    text.put("  ");
    text.put(ecfGetComponentName(ecfFunctionId(component, 0)));
  }
  return std::string(text.view());
}

std::string typeText(std::uint32_t type) {
  const char* text = sqlzErrorTypeText(type);
  return std::to_string(type) + "  " + (text != nullptr ? text : "no such error type");
}

std::string osErrorName(std::uint32_t error) {
  const char* name = ::strerrorname_np(static_cast<int>(error));
  return name != nullptr ? name : "";
}

std::string osErrorText(std::uint32_t error) {
  const std::string name = osErrorName(error);
  return std::to_string(error) +
         (name.empty() ? "  no error number of this system" : "  " + name + "  " + ::strerror(static_cast<int>(error)));
}

std::string nameOf(const ZrcFacts& facts) {
  if (facts.entry == nullptr)
    return facts.type == SQLZ_ZRC_TYPE_OS_ERROR ? "none: it carries an operating-system error"
                                                : "none: the catalogue does not hold it";
  if (facts.usualName != nullptr) return std::string(facts.entry->name) + ", another name of " + facts.usualName;
  if (!facts.sharedEntry) return facts.entry->name;
  return std::string(facts.entry->name) + ", as " + componentLabel(facts.component) + " uses it";
}

std::string sqlCodeText(const ZrcFacts& facts) {
  std::string text = std::to_string(facts.sql.sqlcode) + "  (token kind " + std::to_string(facts.tokenKind);
  if (facts.sql.sqlcode == SQLZ_SQLCODE_LOCK_LIST_FULL) text += ", reason " + std::to_string(facts.reason);
  return text + ")";
}

// 0 for success, which is not reported to applications.
std::int32_t sqlCodeOf(const SqlzZrcEntry& entry) noexcept {
  return entry.code == 0 ? 0 : sqlzGetZRCInfo(entry.code, nullptr, nullptr, nullptr, nullptr);
}

std::string errorText(std::int32_t code) {
  if (code < 0) return "yes";
  return code == 0 ? "no: success" : "no: information or a warning";
}

void putMore(Text& text, std::size_t shown, std::size_t all, std::size_t indent) {
  if (shown >= all) return;
  text.fill(' ', indent);
  text.put("... and ");
  text.grouped(all - shown);
  text.put(" more; --limit shows as many as you ask for\n");
}

}  // namespace

SqlFacts sqlFacts(std::int32_t sqlcode) {
  char state[5];
  char message[2048];
  sqlzelsc(sqlcode, state);
  const std::size_t length = sqlzGetSqlMessage(sqlcode, message, sizeof message);
  return {sqlcode, std::string(state, sizeof state), std::string(message, length)};
}

ZrcFacts zrcFacts(std::int32_t code, const SqlzZrcEntry* named) {
  ZrcFacts facts = {};
  facts.code = code;
  facts.entry = sqlzFindZrc(code);
  if (named != nullptr && named != facts.entry) facts.usualName = std::exchange(facts.entry, named)->name;
  if (facts.entry == nullptr && sqlzZrcType(code) != SQLZ_ZRC_TYPE_OS_ERROR) {  // its component bits are the error's
    facts.entry = sqlzFindZrc(sqlzZrc(static_cast<std::uint32_t>(code) & ~SQLZ_ZRC_COMPONENT_MASK));
    facts.sharedEntry = facts.entry != nullptr;
  }
  facts.type = sqlzZrcType(code);
  facts.component = sqlzZrcComponent(code);
  facts.number = sqlzZrcNumber(code);
  facts.osError = facts.type == SQLZ_ZRC_TYPE_OS_ERROR ? facts.number : 0;
  const std::int32_t sqlcode = sqlzGetZRCInfo(code, nullptr, &facts.reason, &facts.tokenKind, &facts.secondaryCode);
  facts.sql = sqlFacts(code == 0 ? 0 : sqlcode);
  return facts;
}

std::vector<const SqlzZrcEntry*> codesOfSqlCode(std::int32_t sqlcode) {
  std::vector<const SqlzZrcEntry*> codes;
  for (const SqlzZrcEntry* entry = Catalogue::begin(); entry != Catalogue::end(); ++entry)
    if (entry->code != 0 && sqlCodeOf(*entry) == sqlcode) codes.push_back(entry);
  std::sort(codes.begin(), codes.end(), [](const SqlzZrcEntry* a, const SqlzZrcEntry* b) {
    return static_cast<std::uint32_t>(a->code) < static_cast<std::uint32_t>(b->code);
  });
  return codes;
}

void putZrc(Text& text, const ZrcFacts& facts) {
  text.put(hexCode(facts.code));
  if (facts.entry != nullptr) {
    text.put("  ");
    text.put(facts.entry->name);
  }
  text.put("\n");
  putField(text, "name", nameOf(facts));
  if (facts.entry != nullptr) putField(text, "text", facts.entry->description);
  putField(text, "hex", hexCode(facts.code));
  putField(text, "signed decimal", std::to_string(facts.code));
  putField(text, "error", errorText(facts.code));
  putField(text, "error type", typeText(facts.type));
  if (facts.type == SQLZ_ZRC_TYPE_OS_ERROR) {
    putField(text, "OS error", osErrorText(facts.osError));
  } else {
    putField(text, "component", componentText(facts.component));
    putField(text, "number", numberText(facts.number));
  }
  if (facts.code == 0) return putField(text, "SQL code", "none: success is not reported to applications");
  putField(text, "SQL code", sqlCodeText(facts));
  putField(text, "secondary code", std::to_string(facts.secondaryCode));
  putField(text, "SQL state", facts.sql.state);
  putField(text, "message", facts.sql.message.empty() ? "none in the message catalogue" : facts.sql.message);
}

void putSqlMembers(JsonDocument& json, const SqlFacts& facts) {
  json.member("sqlcode", facts.sqlcode);
  json.member("sqlstate", facts.state);
  json.key("message");
  facts.message.empty() ? json.value(static_cast<const char*>(nullptr)) : json.value(facts.message);
}

void putZrc(JsonDocument& json, const ZrcFacts& facts) {
  json.member("hex", hexCode(facts.code));
  json.member("decimal", facts.code);
  json.member("name", facts.entry == nullptr ? nullptr : facts.entry->name);
  json.member("text", facts.entry == nullptr ? nullptr : facts.entry->description);
  if (facts.usualName != nullptr) json.member("usual_name", facts.usualName);
  json.member("component_cleared", facts.sharedEntry);
  json.member("error", facts.code < 0);
  json.object("type");
  json.member("number", facts.type);
  json.member("text", sqlzErrorTypeText(facts.type));
  json.EndObject();
  if (facts.type == SQLZ_ZRC_TYPE_OS_ERROR) {
    json.object("os_error");
    json.member("number", facts.osError);
    json.member("name", ::strerrorname_np(static_cast<int>(facts.osError)));
    json.member("text", static_cast<const char*>(::strerror(static_cast<int>(facts.osError))));
    json.EndObject();
  } else {
    json.object("component");
    json.member("number", facts.component);
    json.member("prefix", ecfGetComponentShortName(ecfFunctionId(facts.component, 0)));
    json.member("name", ecfGetComponentName(ecfFunctionId(facts.component, 0)));
    json.EndObject();
    json.member("number", facts.number);
  }
  json.key("sql");
  if (facts.code == 0) return json.value(static_cast<const char*>(nullptr));
  json.StartObject();
  putSqlMembers(json, facts.sql);
  json.member("token_kind", facts.tokenKind);
  json.member("secondary_code", facts.secondaryCode);
  if (facts.sql.sqlcode == SQLZ_SQLCODE_LOCK_LIST_FULL) json.member("reason", facts.reason);
  json.EndObject();
}

void putSqlCode(Text& text, const SqlFacts& facts, const std::vector<const SqlzZrcEntry*>& codes, std::size_t most) {
  text.put("SQL code ");
  text.signedDecimal(facts.sqlcode);
  text.put('\n');
  putField(text, "error", errorText(facts.sqlcode));
  putField(text, "SQL state", facts.state);
  putField(text, "message", facts.message.empty() ? "none in the message catalogue" : facts.message);
  putField(text, "return codes",
           codes.empty() ? "none of the catalogue maps to it"
                         : std::to_string(codes.size()) + " of the catalogue map to it");
  putCodeLines(text, codes, most, 4);
  putMore(text, std::min(codes.size(), most), codes.size(), 4);
}

void putSqlCode(JsonDocument& json, const SqlFacts& facts, const std::vector<const SqlzZrcEntry*>& codes,
                std::size_t most) {
  putSqlMembers(json, facts);
  json.member("error", facts.sqlcode < 0);
  json.member("return_code_count", codes.size());
  json.array("return_codes");
  for (std::size_t i = 0; i < std::min(codes.size(), most); ++i) {
    json.StartObject();
    putCodeMembers(json, *codes[i]);
    json.EndObject();
  }
  json.EndArray();
}

void putCodeLines(Text& text, const std::vector<const SqlzZrcEntry*>& codes, std::size_t most, std::size_t indent) {
  const std::size_t shown = std::min(codes.size(), most);
  std::size_t longest = 0;
  for (std::size_t i = 0; i < shown; ++i) longest = std::max(longest, ::strlen(codes[i]->name));
  for (std::size_t i = 0; i < shown; ++i) {
    text.fill(' ', indent);
    text.hexCode(static_cast<std::uint32_t>(codes[i]->code));
    text.put("  ");
    std::size_t start = text.size();
    text.put(codes[i]->name);
    text.padTo(start, longest + 2);
    start = text.size();
    text.signedDecimal(sqlCodeOf(*codes[i]));
    text.padTo(start, 8);
    text.put(codes[i]->description);
    text.put('\n');
  }
}

void putCodeMembers(JsonDocument& json, const SqlzZrcEntry& entry) {
  json.member("hex", hexCode(entry.code));
  json.member("decimal", entry.code);
  json.member("name", entry.name);
  json.member("text", entry.description);
  json.member("sqlcode", sqlCodeOf(entry));
}

}  // namespace veksys
