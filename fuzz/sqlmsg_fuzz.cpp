// Message objects from anywhere: opening one and looking keys up must touch nothing outside its bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "diag/base/sqlmsg.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  vek::MessageObject object;
  if (!object.open({bytes, size})) return 0;
  for (const std::string_view key : {std::string_view("SQL0902N"), std::string_view("SQL0100W"), std::string_view(),
                                     std::string_view(bytes + size - 4, 4)}) {
    const std::string_view text = object.find(key);
    if (!text.empty() && (text.data() < bytes || text.data() + text.size() >= bytes + size)) std::abort();
  }
  return 0;
}
