// The catalogue of return codes and the map to SQL codes.
//
// Both come from tables at build time. The map is stored as differences: per error type the standard entry and a dense
// run of positions into the list of distinct entries, long enough for the last number that differs. A look-up is a
// load of the type's row, a load of the position and a load of the entry.
#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

#include "diag/base/traced.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

struct SqlMapEntry {
  std::int32_t sqlcode;
  std::uint16_t tokenKind;
  std::uint32_t mappedCode;
};

struct SqlMapType {
  std::uint32_t count;      // numbers below it have an entry
  std::uint32_t runLength;  // numbers below it have their position in kSlots
  std::uint32_t runStart;
  std::uint32_t standard;  // position of the entry beyond the run
};

#include "zrc_map.inc"

static_assert(std::size(kCatalogue) == SQLZ_ZRC_MAP_COUNT);
static_assert(std::size(kTypes) == SQLZ_ZRC_TYPE_COUNT && std::size(kTypeTexts) == SQLZ_ZRC_TYPE_COUNT);
static_assert(kEntries[0].sqlcode == SQLZ_SQLCODE_INTERNAL_ERROR && kEntries[0].tokenKind == SQLZ_TOKEN_KIND_DEFAULT &&
              kEntries[0].mappedCode == SQLT_MAPPED_CODE_DEFAULT);

// The one code of SQL code -912 with a reason of its own: the lock list itself is full.
constexpr SqlzZrc kLockListFull = sqlzZrc(0x8510000AU);

const SqlMapEntry& mapEntry(SqlzZrc zrc) noexcept {
  const std::uint32_t type = sqlzZrcType(zrc);
  if (type >= SQLZ_ZRC_TYPE_COUNT || sqlzZrcComponent(zrc) == SQLZ_COMPONENT_SQLNN) return kEntries[0];
  const SqlMapType& row = kTypes[type];
  const std::uint32_t number = sqlzZrcNumber(zrc);
  if (number >= row.count) return kEntries[0];
  return kEntries[number < row.runLength ? kSlots[row.runStart + number] : row.standard];
}

std::uint32_t reasonOf(SqlzZrc zrc, std::int32_t sqlcode) noexcept {
  if (sqlcode != SQLZ_SQLCODE_LOCK_LIST_FULL) return sqlzZrcNumber(zrc);
  return zrc == kLockListFull ? 1 : 2;
}

char upperCase(char c) noexcept { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool equalWhateverCase(const char* left, const char* right) noexcept {
  for (; *left != '\0' && upperCase(*left) == upperCase(*right); ++left) ++right;
  return upperCase(*left) == upperCase(*right);
}

static_assert(std::endian::native == std::endian::little, "the index of names is made for little-endian parts");

std::uint64_t mixed(std::uint64_t hash, const char* bytes, std::size_t count) noexcept {
  constexpr std::uint64_t kWithoutCase = 0xDFDFDFDFDFDFDFDFU;
  std::uint64_t part = 0;
  std::memcpy(&part, bytes, count);
  hash = (hash ^ (part & kWithoutCase)) * kNameHashFactor;
  return hash ^ hash >> 32;
}

// The hash that the index of names was made with: eight bytes at a time, the bit that tells the case cleared; the last
// eight overlap the ones before.
std::uint64_t nameHash(std::string_view name) noexcept {
  constexpr std::size_t kPart = 8;
  if (name.size() < kPart) return name.empty() ? 0 : mixed(0, name.data(), name.size());
  const std::size_t last = name.size() - kPart;
  std::uint64_t hash = 0;
  for (std::size_t from = 0; from < last; from += kPart) hash = mixed(hash, name.data() + from, kPart);
  return mixed(hash, name.data() + last, kPart);
}

// Follows the chain of an index that begins at `slot` to the first entry that is the wanted one; null without one.
template <class IsWanted>
const SqlzZrcEntry* follow(const std::uint16_t* slots, std::size_t slot, IsWanted isWanted) noexcept {
  for (slot &= kSlotMask; slots[slot] != 0; slot = (slot + 1) & kSlotMask)
    if (const SqlzZrcEntry& entry = kCatalogue[slots[slot] - 1]; isWanted(entry)) return &entry;
  return nullptr;
}

}  // namespace
}  // namespace vek

const SqlzZrcEntry* sqlzGetZrcMap() noexcept { return vek::kCatalogue; }

const SqlzZrcEntry* sqlzFindZrc(SqlzZrc zrc) noexcept {
  return vek::follow(vek::kCodeSlots, static_cast<std::uint32_t>(zrc) * vek::kCodeHashFactor >> vek::kCodeHashShift,
                     [zrc](const SqlzZrcEntry& entry) { return entry.code == zrc; });
}

const SqlzZrcEntry* sqlzFindZrcByName(const char* name) noexcept {
  if (name == nullptr) return nullptr;
  return vek::follow(vek::kNameSlots, vek::nameHash(name), [name](const SqlzZrcEntry& entry) {
    return std::strcmp(entry.name, name) == 0 || vek::equalWhateverCase(entry.name, name);
  });
}

const char* sqlzErrorTypeText(std::uint32_t type) noexcept {
  return type < SQLZ_ZRC_TYPE_COUNT ? vek::kTypeTexts[type] : nullptr;
}

std::int32_t sqlzGetZRCInfo(SqlzZrc zrc, std::uint32_t* typeOut, std::uint32_t* reasonOut, std::uint16_t* tokenKindOut,
                            std::uint32_t* mappedCodeOut) noexcept {
  vek::VekTrace<vek::FID_sqlzGetZRCInfo> trace;
  const vek::SqlMapEntry& entry = vek::mapEntry(zrc);
  if (typeOut != nullptr) *typeOut = static_cast<std::uint32_t>(zrc) & SQLZ_ZRC_TYPE_MASK;
  if (reasonOut != nullptr) *reasonOut = vek::reasonOf(zrc, entry.sqlcode);
  if (tokenKindOut != nullptr) *tokenKindOut = entry.tokenKind;
  if (mappedCodeOut != nullptr) *mappedCodeOut = entry.mappedCode;
  trace.data(10, zrc);
  return trace.exit(entry.sqlcode);
}

std::uint32_t sqlt_mapzrc(SqlzZrc zrc) noexcept {
  vek::VekTrace<vek::FID_sqlt_mapzrc> trace;
  std::uint32_t mappedCode = SQLT_MAPPED_CODE_DEFAULT;
  sqlzGetZRCInfo(zrc, nullptr, nullptr, nullptr, &mappedCode);
  return trace.exit(mappedCode);
}
