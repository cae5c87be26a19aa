// Records that were lost: counted, said on standard error, and told by the next record that is written.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <iterator>

#include "diag/base/pdlog_state.h"
#include "diag/base/pdpen.h"
#include "diag/base/pdtime.h"
#include "platform/osse.h"
#include "platform/state_pool.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

struct NamedLosses {
  char name[APPEND_NAME_BYTES] = {};
  PdLogLosses losses;
  NamedLosses* next = nullptr;
};

constinit StatePool<NamedLosses, 2> g_pool;
constinit NamedLosses* g_known = nullptr;
constinit PdLogLosses g_others;  // of files that there was no memory for

PdLogLosses& find(const char* name) noexcept {
  for (NamedLosses* known = g_known; known != nullptr; known = known->next)
    if (std::strcmp(known->name, name) == 0) return known->losses;
  NamedLosses* made = g_pool.make();
  if (made == nullptr) return g_others;
  ossCopyText(made->name, sizeof made->name, name);
  made->next = g_known;
  g_known = made;
  return made->losses;
}

void sayOpenFailed(const AppendOutcome& outcome, int error) noexcept {
  char line[sizeof outcome.path + 128];
  const auto zrc = static_cast<unsigned>(sqloMapUnexpectedFileSystemErrorToZRC(error));
  const std::size_t length =
      ossSnprintf(line, sizeof line, "Open of log file \"%s\" failed with rc 0x%X\n", outcome.path, zrc);
  ossSayOnStandardError(line, length);
}

}  // namespace

PdLogLosses& PdLogLosses::of(const char* name, std::uint32_t processId) noexcept {
  PdLogLosses& losses = find(name);
  if (losses.processId_ != processId) losses = {};
  losses.processId_ = processId;
  return losses;
}

void pdi_sayNoLog() noexcept {
  static constinit std::atomic<bool> isSaid{false};
  constexpr char kLine[] = "Error: log facility is not open and sqlz_krcbp is NULL\n";
  if (!isSaid.exchange(true)) ossSayOnStandardError(kLine, sizeof kLine - 1);
}

void PdLogLosses::add(int error, const AppendOutcome& outcome, std::int64_t timeNs) noexcept {
  const SqlzZrc zrc = sqloMapUnexpectedFileSystemErrorToZRC(error);
  const bool isNew = saidCount_ < std::size(said_) && std::find(said_, said_ + saidCount_, zrc) == said_ + saidCount_;
  if (count_++ == 0) firstNs_ = timeNs;
  zrc_ = zrc;
  ossCopyText(failed_, sizeof failed_, outcome.failed);
  ossCopyText(path_, sizeof path_, outcome.path);
  if (!isNew) return;
  said_[saidCount_++] = zrc;
  sayOpenFailed(outcome, error);
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

void PdLogLosses::forget() noexcept { count_ = saidCount_ = 0; }

}  // namespace vek
