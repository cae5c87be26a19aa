// Records that were lost: counted, said on standard error, and told by the next record that is written.
#include <atomic>
#include <cstring>

#include "diag/base/pdlog_state.h"
#include "diag/base/pdpen.h"
#include "diag/base/pdtime.h"
#include "platform/osse.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {}  // namespace

void pdi_sayOpenFailed(const AppendOutcome& outcome, int error) noexcept {
  char line[sizeof outcome.path + 128];
  const auto zrc = static_cast<unsigned>(sqloMapUnexpectedFileSystemErrorToZRC(error));
  const std::size_t length =
      ossSnprintf(line, sizeof line, "Open of log file \"%s\" failed with rc 0x%X\n", outcome.path, zrc);
  ossSayOnStandardError(line, length);
}

void pdi_sayNoLog() noexcept {
  static constinit std::atomic<bool> isSaid{false};
  constexpr char kLine[] = "Error: log facility is not open and sqlz_krcbp is NULL\n";
  if (!isSaid.exchange(true)) ossSayOnStandardError(kLine, sizeof kLine - 1);
}

void PdLogLosses::add(int error, const AppendOutcome& outcome, std::int64_t timeNs) noexcept {
  const SqlzZrc zrc = sqloMapUnexpectedFileSystemErrorToZRC(error);
  const bool isNew = count_ == 0 || zrc != zrc_ || std::strncmp(path_, outcome.path, sizeof path_ - 1) != 0;
  if (count_++ == 0) firstNs_ = timeNs;
  zrc_ = zrc;
  ossCopyText(failed_, sizeof failed_, outcome.failed);
  ossCopyText(path_, sizeof path_, outcome.path);
  if (isNew) pdi_sayOpenFailed(outcome, error);
}

std::size_t PdLogLosses::compose(char* text, std::size_t bytes) const noexcept {
  PdPen pen(text, bytes);
  if (count_ != 0) {
    pen.text("Before this record ");
    pen.decimal(count_);
    pen.text(count_ == 1 ? " record was lost, at " : " records were lost, the first at ");
    pdPenTime(pen, firstNs_);
    pen.text(": ");
    pen.text({failed_, std::strlen(failed_)});
    pen.text(" failed with rc 0x");
    pen.hex(static_cast<std::uint32_t>(zrc_), 8);
    pen.text(", ");
    pen.text({path_, std::strlen(path_)});
    pen.newLine();
  }
  return pen.finish("...\r\n");
}

void PdLogLosses::forget() noexcept { count_ = 0; }

}  // namespace vek
