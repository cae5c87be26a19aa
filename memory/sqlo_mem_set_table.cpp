// Memory sets: the names of types and options.
#include <iterator>

#include "platform/osse.h"
#include "veksys/memory/set.h"

namespace vek {
namespace {

struct TypeRow {
  const char* name;
  const char* classWord;
};

constexpr TypeRow kTypes[] = {
    {"DBM_DBMS", "DBMS"},        // 0
    {"DBM_DB", "DATABASE"},      // 1
    {"FMP_RESOURCES", "FMP"},    // 2
    {"", ""},                    // 3
    {"LOCAL_APL", "IPC"},        // 4
    {"", ""},                    // 5
    {"", ""},                    // 6
    {"", ""},                    // 7
    {"", ""},                    // 8
    {"PRIVATE", "PRIVATE"},      // 9
    {"", ""},                    // 10
    {"FCM_RESOURCES", "FCM"},    // 11
    {"APL_CTL", "APPLICATION"},  // 12
};
static_assert(std::size(kTypes) == 13);

struct OptionRow {
  std::uint32_t bit;
  const char* name;
};

// In the order in which they are printed. KEEP: the last three stand behind options of higher bits; readers of dumps
// know them in this order.
constexpr OptionRow kOptions[] = {
    {0x1, "PINNED"},
    {0x2, "CRITICAL"},
    {0x4, "CHUNK_KEEP"},
    {0x8, "SET_CHUNKS"},
    {0x20, "LARGE_PAGES"},
    {0x40, "MEDIUM_PAGES"},
    {0x80, "HUGE_PAGES"},
    {0x100, "FFDC_REPORT"},
    {0x400, "CRASH_ON_LEAKS"},
    {0x1000, "OSS"},
    {0x2000, "SHARED"},
    {0x4000, "PRIVATE"},
    {0x8000, "THREAD_SHARED"},
    {0x40000, "RAW"},
    {0x80000, "FIXED_SIZE"},
    {0x100000, "GROWABLE"},
    {0x200000, "REDUCIBLE"},
    {0x400000, "NAMED"},
    {0x800000, "DECOMMITABLE"},
    {0x1000000, "MULTIPLE_SETS_ALLOWED"},
    {0x2000000, "MULTIPLE_SEGMENTS_ALLOWED"},
    {0x10000000, "ANY_ADDRESS"},
    {0x20000000, "MMAP_DISPOSABLE"},
    {0x40000000, "SEMAPHORES"},
    {0x10000, "AUTOMATIC_MAX_FREE"},
    {0x4000000, "KEY_PROTECTED"},
    {0x8000000, "LAZY_DECOMMIT"},
};
static_assert(std::size(kOptions) == 27);

}  // namespace
}  // namespace vek

const char* sqloMemSetTypeName(std::uint32_t setType) noexcept {
  return setType < std::size(vek::kTypes) ? vek::kTypes[setType].name : "INVALID SET ID";
}

const char* sqloMemSetTypeClass(std::uint32_t setType) noexcept {
  return setType < std::size(vek::kTypes) ? vek::kTypes[setType].classWord : "";
}

std::size_t sqloMemSetOptionsToString(char* buffer, std::size_t bufferSize, std::uint32_t options) noexcept {
  if (buffer == nullptr || bufferSize == 0) return 0;
  std::size_t length = vek::ossSnprintf(buffer, bufferSize, "\t0");
  std::size_t last = length;
  for (const vek::OptionRow& row : vek::kOptions) {
    if ((options & row.bit) == 0) continue;
    last = vek::ossSnprintf(buffer + length, bufferSize - length, " | %s", row.name);
    length += last;
    options &= ~row.bit;
    if (options == 0) return last;
  }
  if (options != 0) last = vek::ossSnprintf(buffer + length, bufferSize - length, " | 0x%X", options);
  return last;
}
