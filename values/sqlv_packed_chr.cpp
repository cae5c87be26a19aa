// Packed values as text.
#include "values/sqlv_packed_chr.h"

#include "diag/base/traced.h"

SqlzZrc sqlv_num_2_chr_legacy(std::uint32_t /*ignored*/, const SqlvNumericValue* source,
                              const SqlvNationalLanguage* language, const SqlvCharacterValue* target) noexcept {
  vek::VekTrace<vek::FID_sqlv_num_2_chr_legacy> trace;
  if (!vek::sqlvi_convertible(source->descriptor)) return trace.exit(SQLRX_DEC_INVALID);
  const char decimalPoint = language != nullptr ? language->decimalPoint : '.';
  vek::sqlvi_toCharacters(source->packed, source->descriptor, decimalPoint, target->buffer);
  return trace.exit(0);
}
