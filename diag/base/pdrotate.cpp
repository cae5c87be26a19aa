#include "diag/base/pdrotate.h"

#include <cerrno>
#include <cstring>

#include "diag/base/pddiagpath_value.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/log.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

enum Trouble : unsigned { kCannotSetUp, kCannotCreate, kNoDirectory, kLittleSpace, kTroubles };

struct Text {
  std::uint32_t probe;
  std::uint32_t level;
  const char* before;  // the directory
  const char* behind;  // it
};

constexpr Text kTexts[kTroubles] = {
    {10, ::PD_LEVEL_ERROR, "Can't setup rotating log directory: ", "."},
    {20, ::PD_LEVEL_ERROR, "Can't create rotating log directory: ", "."},
    {30, ::PD_LEVEL_ERROR, "Rotating log directory (", ") is not a directory."},
    {40, ::PD_LEVEL_WARNING, "WARNING : The free disk space under ",
     "\nis not enough to hold one full-size rotating log."},
};

// What is wrong, and what of it has been said. All of it is forgotten when the directory changes.
struct State {
  char of[PATH_BYTES] = {};  // the diagnostic directory that the rest is about
  char directory[PATH_BYTES] = {};
  bool isReady = false;
  bool hasTrouble[kTroubles] = {};
  bool isSaid[kTroubles] = {};
  SqlzZrc zrc[kTroubles] = {};
};

constinit State g_state;

void note(Trouble trouble, SqlzZrc zrc) noexcept {
  g_state.hasTrouble[trouble] = true;
  g_state.zrc[trouble] = zrc;
}

void forget(Trouble trouble) noexcept {
  g_state.hasTrouble[trouble] = false;
  g_state.isSaid[trouble] = false;
}

void beginWith(const char* directory) noexcept {
  g_state = {};
  ossCopyText(g_state.of, sizeof g_state.of, directory);
  ossSnprintf(g_state.directory, sizeof g_state.directory, "%s%s", directory, PD_LOG_ROTATING);
}

// Makes the directory or finds it; notes what is wrong with it.
bool setUp() noexcept {
  const SqlzZrc made = pdi_makeDirectory(g_state.directory);
  if (made == SQLO_PATH_NOT_DIRECTORY) {
    note(kNoDirectory, made);
    return false;
  }
  if (made != 0) {
    note(kCannotCreate, made);
    return false;
  }
  const SqlzZrc found = pdi_verifyDirectory(g_state.directory);
  if (found != 0) note(kCannotSetUp, found);
  return found == 0;
}

void compareSpace(std::uint64_t freeBytes, std::uint64_t fileBytes) noexcept {
  if (freeBytes < fileBytes)
    note(kLittleSpace, 0);
  else
    forget(kLittleSpace);
}

void becomeReady(std::uint64_t fileBytes) noexcept {
  for (const Trouble trouble : {kCannotSetUp, kCannotCreate, kNoDirectory}) forget(trouble);
  std::uint64_t freeBytes = 0;
  if (ossFreeBytes(g_state.directory, &freeBytes) == 0) compareSpace(freeBytes, fileBytes);
}

}  // namespace

const char* pdi_rotatingDirectory(const char* directory, std::uint64_t fileBytes) noexcept {
  if (std::strcmp(g_state.of, directory) != 0) beginWith(directory);
  if (!g_state.isReady) {
    g_state.isReady = setUp();
    if (g_state.isReady) becomeReady(fileBytes);
  }
  return g_state.isReady ? g_state.directory : nullptr;
}

bool pdi_isSetupError(const AppendOutcome& outcome) noexcept {
  return outcome.failed != nullptr && std::strcmp(outcome.failed, "lock file") == 0;
}

void pdi_noteRotation(std::uint64_t fileBytes, int error, const AppendOutcome& outcome) noexcept {
  if (error != 0) g_state.isReady = false;  // looked at again by the next record
  if (error != 0 && pdi_isSetupError(outcome)) note(kCannotSetUp, sqloMapUnexpectedFileSystemErrorToZRC(error));
  if (outcome.switchedFile) compareSpace(outcome.freeBytes, fileBytes);
}

bool pdi_takeRotationRemark(PdLogRemark* out) noexcept {
  for (unsigned trouble = 0; trouble < kTroubles; ++trouble) {
    if (!g_state.hasTrouble[trouble] || g_state.isSaid[trouble]) continue;
    g_state.isSaid[trouble] = true;
    const Text& text = kTexts[trouble];
    out->probe = text.probe;
    out->level = text.level;
    out->zrc = g_state.zrc[trouble];
    char path[PD_DIAGPATH_BYTES + sizeof PD_LOG_ROTATING];  // as the texts name it: without a separator at its end
    ossCopyText(path, sizeof path, g_state.directory);
    if (const std::size_t length = std::strlen(path); length > 1) path[length - 1] = '\0';
    ossSnprintf(out->text, sizeof out->text, "%s%s%s", text.before, path, text.behind);
    return true;
  }
  return false;
}

}  // namespace vek
