#include "diag/base/pdlog_files.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "diag/base/pddiagpath.h"
#include "diag/base/pdrotate.h"
#include "platform/osse.h"
#include "platform/state_pool.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

// The files of this process, found by their names. Few: the log, its series, the notification log, facilities.
struct KnownFile {
  AppendFile file;
  KnownFile* next;
};

constinit StatePool<KnownFile, 2> g_pool;
constinit KnownFile* g_known = nullptr;
constinit AppendFile* g_inUse = nullptr;

AppendFile* findFile(const char* directory, const char* name, bool isSeries) noexcept {
  for (KnownFile* known = g_known; known != nullptr; known = known->next)
    if (known->file.isSeries == isSeries && std::strcmp(known->file.name, name) == 0 &&
        std::strcmp(known->file.directory, directory) == 0)
      return &known->file;
  KnownFile* made = g_pool.make();
  if (made == nullptr) return nullptr;
  appendPrepare(made->file, directory, name, isSeries);
  made->next = g_known;
  g_known = made;
  return &made->file;
}

int appendTo(const char* directory, const char* name, bool isSeries, const AppendPlan& plan,
             AppendOutcome* outcome) noexcept {
  g_inUse = findFile(directory, name, isSeries);
  if (g_inUse == nullptr) {
    outcome->failed = "open";
    ossSnprintf(outcome->path, sizeof outcome->path, "%s%s", directory, name);
    return ENOMEM;
  }
  const int error = appendToFile(*g_inUse, plan, outcome);
  g_inUse = nullptr;
  return error;
}

// In the rotating series where the log has one, else in its one file.
int appendIn(const char* directory, const PdLogTarget& target, AppendPlan plan, AppendOutcome* outcome) noexcept {
  if (target.rotatingBytes != 0) {
    plan.fileBytes = target.rotatingBytes / PD_LOG_ROTATING_FILES;
    const char* rotating = pdi_rotatingDirectory(directory, plan.fileBytes);
    if (rotating != nullptr) {
      plan.filesKept = PD_LOG_ROTATING_FILES;
      const int error = appendTo(rotating, PD_LOG_SERIES, true, plan, outcome);
      pdi_noteRotation(plan.fileBytes, error, *outcome);
      if (error == 0 || !pdi_isSetupError(*outcome)) return error;
    }
  }
  return appendTo(directory, target.name, false, plan, outcome);
}

// Errors of a directory that is not there (any more) or has been exchanged.
bool mayBeMissing(int error) noexcept { return error == ENOENT || error == ENOTDIR; }

// Errors that no other path would mend: another process keeps the lock, or this one has come to its own limits.
bool isOfThePath(int error) noexcept {
  constexpr int kOthers[] = {ETIMEDOUT, ESTALE, EMFILE, ENFILE, ENOMEM, EINTR, EAGAIN};
  return std::find(std::begin(kOthers), std::end(kOthers), error) == std::end(kOthers);
}

// Where a record goes that cannot be written where it should: with the diagnostic log the whole process moves to the
// alternate directory, any other file just has this record there. Null: nowhere.
const char* directoryInstead(const PdLogTarget& target, int error) noexcept {
  if (!isOfThePath(error) || pdiIsOnAlternate()) return nullptr;
  if (target.isDiagnosticLog) return pdiSwitchToAlternate() == 0 ? pdiDiagDirectory().path : nullptr;
  const PdDiagDirectory alternate = pdiAlternateDirectory();
  return alternate.zrc == 0 ? alternate.path : nullptr;
}

}  // namespace

int pdi_appendRecord(const PdLogTarget& target, const AppendText& text, AppendText (*firstText)(),
                     AppendOutcome* outcome) noexcept {
  AppendPlan plan = {.text = text, .firstText = firstText, .fileBytes = 0, .filesKept = 0};
  int error = appendIn(target.directory, target, plan, outcome);
  if (error == 0) return 0;
  if (mayBeMissing(error) && pdiRenewDiagDirectory() == 0) error = appendIn(target.directory, target, plan, outcome);
  if (error == 0) return 0;
  const char* instead = directoryInstead(target, error);
  return instead == nullptr ? error : appendIn(instead, target, plan, outcome);
}

bool pdi_takeRemark(PdLogRemark* out) noexcept { return pdi_takeRotationRemark(out); }

void pdi_abandonFiles(AppendOutcome* outcome) noexcept {
  outcome->failed = "write";
  if (g_inUse == nullptr) return;
  if (outcome->path[0] == '\0')  // not even opened
    ossSnprintf(outcome->path, sizeof outcome->path, "%s%s", g_inUse->directory, g_inUse->name);
  appendAbandon(*g_inUse);
  g_inUse = nullptr;
}

}  // namespace vek
