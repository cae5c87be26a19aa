// Directories that diagnostic files are kept in: making them, and whether they may be trusted.
#include <cerrno>
#include <cstring>

#include "diag/base/pddiagpath_value.h"
#include "diag/base/traced.h"
#include "platform/dirs.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

constexpr std::uint32_t kWrittenByOthers = 022;

struct PlainPath {
  char text[PATH_BYTES];
};

// Copies an absolute path without separators at its end: with one, a link would be followed before it is looked at.
SqlzZrc copyPath(const char* path, PlainPath* out) noexcept {
  if (path == nullptr || path[0] == '\0') return SQLO_INV_PARM;
  if (path[0] != PD_PATH_SEPARATOR) return SQLO_PATH_NOT_ABSOLUTE;
  std::size_t length = std::strlen(path);
  while (length > 1 && path[length - 1] == PD_PATH_SEPARATOR) --length;
  if (length >= sizeof out->text) return SQLO_PATH_TOO_LONG;
  std::memcpy(out->text, path, length);
  out->text[length] = '\0';
  return 0;
}

SqlzZrc codeOf(int error) noexcept {
  if (error == ENOENT) return SQLO_PATH_NOT_EXIST;
  return error == ENAMETOOLONG ? SQLO_PATH_TOO_LONG : sqloMapUnexpectedFileSystemErrorToZRC(error);
}

bool isTrustedOwner(std::uint32_t owner) noexcept { return owner == 0 || owner == ossUserId(); }

SqlzZrc checkFacts(const char* path) noexcept {
  OssFileFacts facts;
  int error = ossFileFacts(path, OssLink::kItself, &facts);
  if (error == 0 && facts.kind == OssFileKind::kSymbolicLink) {
    if (!isTrustedOwner(facts.owner)) return SQLO_PATH_IS_SYMLINK;
    error = ossFileFacts(path, OssLink::kTarget, &facts);
  }
  if (error != 0) return codeOf(error);
  if (facts.kind != OssFileKind::kDirectory) return SQLO_PATH_NOT_DIRECTORY;
  if (!isTrustedOwner(facts.owner) || (facts.permissions & kWrittenByOthers) != 0) return SQLT_DIAGPATH_NOT_TRUSTED;
  return 0;
}

}  // namespace

SqlzZrc pdi_verifyDirectory(const char* path) noexcept {
  PlainPath plain;
  SqlzZrc zrc = copyPath(path, &plain);
  if (zrc == 0) zrc = checkFacts(plain.text);
  if (zrc != 0) return zrc;
  const int error = ossMayMakeFilesIn(plain.text);
  return error == EACCES || error == EPERM ? SQLO_PATH_NOT_WRITABLE : codeOf(error);
}

SqlzZrc pdi_makeDirectory(const char* path) noexcept {
  PlainPath plain;
  const SqlzZrc zrc = copyPath(path, &plain);
  return zrc != 0 ? zrc : codeOf(ossMakeDirectories(plain.text));
}

}  // namespace vek

SqlzZrc pdDiagpathVerify(const char* path) noexcept {
  vek::VekTrace<vek::FID_pdDiagpathVerify> trace;
  const vek::ErrnoKept kept;
  return trace.exit(vek::pdi_verifyDirectory(path));
}

SqlzZrc pdMkdirInternal(const char* path) noexcept {
  vek::VekTrace<vek::FID_pdMkdirInternal> trace;
  const vek::ErrnoKept kept;
  const SqlzZrc zrc = vek::pdi_makeDirectory(path);
  if (zrc != 0) {
    vek::PdPathNotes notes;
    notes.add(vek::FID_pdMkdirInternal, 10, zrc, "The directory %s cannot be made", path == nullptr ? "(null)" : path);
    notes.report();
  }
  return trace.exit(zrc);
}
