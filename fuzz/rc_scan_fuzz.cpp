// Text from anywhere, read for codes as `veksys rc` does: as one that was typed, and as a pasted log. What is found is
// explained as well.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "tools/veksys/failure.h"
#include "tools/veksys/rc_explain.h"
#include "tools/veksys/rc_scan.h"

namespace {

void explain(const veksys::FoundCode& code) {
  veksys::Text text;
  code.isSqlCode ? veksys::putSqlCode(text, veksys::sqlFacts(code.value), {}, 1)
                 : veksys::putZrc(text, veksys::zrcFacts(code.value, code.named));
  if (text.size() == 0 || (code.named != nullptr && (code.isSqlCode || code.named->code != code.value))) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    if (const auto code = veksys::readCode(std::string(text))) explain(*code);
  } catch (const veksys::Failure&) {  // a number that no code can be
  }
  const auto codes = veksys::scanCodes(text);
  for (std::size_t i = 0; i < codes.size(); ++i) {
    explain(codes[i]);
    for (std::size_t j = 0; j < i; ++j)  // each once
      if (codes[i].isSqlCode == codes[j].isSqlCode && codes[i].value == codes[j].value) std::abort();
  }
  return 0;
}
