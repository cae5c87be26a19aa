// The end of a process that is broken beyond repair.
#include <cstdlib>
#include <cstring>

#include "platform/host.h"
#include "platform/osse.h"
#include "veksys/diag/log_items.h"
#include "veksys/diag/rc.h"
#include "veksys/sync/latch_control.h"
#include "veksys_functions.h"

namespace vek {
namespace {

constexpr std::size_t kTextRoom = 1024;

void sayOnStandardError(SqlzZrc zrc, const char* text, const void* latch) noexcept {
  char line[kTextRoom];
  char description[kTextRoom / 2];
  pdZRCGetDescription(zrc, description, sizeof description);
  const std::size_t length =
      ossSnprintf(line, sizeof line, "veksys: process %u stops: %s (0x%08X %.*s) at %p\n", ossProcessId(), text,
                  static_cast<unsigned>(zrc), static_cast<int>(std::strcspn(description, "\r\n")), description, latch);
  ossSayOnStandardError(line, length);
}

}  // namespace
}  // namespace vek

void sqloPanic(SqlzZrc zrc, const char* text, const void* latch) noexcept {
  if (text == nullptr) text = "";
  vek::sayOnStandardError(zrc, text, latch);  // first: it needs least
  (void)pdLogValues(PD_LOG_RC_ZRC | PD_LOG_CALL_STACK, vek::FID_sqloPanic, zrc, 10, PD_LEVEL_SEVERE, text, latch);
  vek::hostPanic(zrc, text);
  std::abort();
}
