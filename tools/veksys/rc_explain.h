// One code, taken apart.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json.h"
#include "rc_scan.h"
#include "text.h"
#include "veksys/diag/rc.h"

namespace veksys {

struct SqlFacts {
  std::int32_t sqlcode;
  std::string state;
  std::string message;  // with its identifier; empty when there is none
};
SqlFacts sqlFacts(std::int32_t sqlcode);

struct ZrcFacts {
  std::int32_t code;
  const SqlzZrcEntry* entry;  // of the code, else of the code with its component cleared, else null
  bool sharedEntry;           // the entry is the one with the component cleared
  const char* usualName;      // of the code, when the entry is another of its names; else null
  std::uint32_t type;
  std::uint32_t component;
  std::uint32_t number;
  std::uint32_t reason;
  std::uint16_t tokenKind;
  std::uint32_t secondaryCode;
  std::uint32_t osError;  // of type 3, else 0
  SqlFacts sql;           // sqlcode 0 for success
};

// What there is to say about a code; with `named`, the entry it was asked for by, under that name.
ZrcFacts zrcFacts(std::int32_t code, const SqlzZrcEntry* named = nullptr);

// The return codes that map to an SQL code, in the order of their values.
std::vector<const SqlzZrcEntry*> codesOfSqlCode(std::int32_t sqlcode);

void putZrc(Text& text, const ZrcFacts& facts);
void putZrc(JsonDocument& json, const ZrcFacts& facts);
void putSqlCode(Text& text, const SqlFacts& facts, const std::vector<const SqlzZrcEntry*>& codes, std::size_t most);
void putSqlCode(JsonDocument& json, const SqlFacts& facts, const std::vector<const SqlzZrcEntry*>& codes,
                std::size_t most);

// One line per code, for the first `most`: value, name, SQL code, text.
void putCodeLines(Text& text, const std::vector<const SqlzZrcEntry*>& codes, std::size_t most, std::size_t indent);
void putCodeMembers(JsonDocument& json, const SqlzZrcEntry& entry);

}  // namespace veksys
