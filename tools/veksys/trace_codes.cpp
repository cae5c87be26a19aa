#include "trace_codes.h"

#include <cstring>

#include "veksys/types.h"

namespace veksys {

void CodeNames::putOther(Text& text, std::int64_t value) {
  const auto code = static_cast<SqlzZrc>(value);
  if (const SqlzZrcEntry* entry = find(value)) {
    text.hexCode(static_cast<std::uint32_t>(code));
    text.put(' ');
    return text.put(entry->name);
  }
  if (value < 0 && isCode(value) && sqlzZrcType(code) < SQLZ_ZRC_TYPE_COUNT) {
    text.hexCode(static_cast<std::uint32_t>(code));
    const char* name = sqlzZrcType(code) == SQLZ_ZRC_TYPE_OS_ERROR
                           ? ::strerrorname_np(static_cast<int>(sqlzZrcNumber(code)))
                           : nullptr;
    if (name == nullptr) return;
    text.put(' ');
    return text.put(name);
  }
  if (value > -100'000 && value < 100'000) return text.signedDecimal(value);
  text.hexShort(static_cast<std::uint64_t>(value));
}

}  // namespace veksys
