// Return codes for errors of the operating system.
#include <array>
#include <cerrno>
#include <cstddef>

#include "diag/base/traced.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

struct OsErrorRow {
  int error;
  SqlzZrc zrc;
};

#include "oserr.inc"

constexpr std::size_t kErrnoEnd = 134;  // one past the last value the kernel defines
using CodeByErrno = std::array<SqlzZrc, kErrnoEnd>;

// A dense table of the rows, 0 where an error has no code of its own.
template <std::size_t Count>
consteval CodeByErrno byErrno(const OsErrorRow (&rows)[Count]) {
  CodeByErrno codes = {};
  for (const OsErrorRow& row : rows) codes.at(static_cast<std::size_t>(row.error)) = row.zrc;
  return codes;
}

constexpr CodeByErrno kFileCodes = byErrno(kFileErrors);
constexpr CodeByErrno kTcpIpCodes = byErrno(kTcpIpErrors);

SqlzZrc carryingCode(int error) noexcept {
  return sqlzZrc(SQLZ_ZRC_ERROR_FLAG | SQLZ_ZRC_TYPE_OS_ERROR << SQLZ_ZRC_TYPE_SHIFT |
                 (static_cast<std::uint32_t>(error) & SQLZ_ZRC_TYPE3_NUMBER_MASK));
}

SqlzZrc codeOf(int error, const CodeByErrno& codes) noexcept {
  if (error == 0) return 0;
  const auto index = static_cast<std::size_t>(static_cast<unsigned>(error));
  return index < codes.size() && codes[index] != 0 ? codes[index] : carryingCode(error);
}

// Codes that stand for a condition although no error of the system is turned into them.
constexpr OsErrorRow kAlsoStandFor[] = {
    {ENOMEM, SQLO_NO_INS_MEM},          {ENOMEM, SQLO_NOSEG},          {EINVAL, SQLO_INV_PARM},
    {ENAMETOOLONG, SQLO_PATH_TOO_LONG}, {ETIMEDOUT, SQLO_SEM_TIMEOUT}, {EAGAIN, SQLO_NOTAVAIL},
};

bool standsFor(SqlzZrc zrc, int error) noexcept {
  if (codeOf(error, kFileCodes) == zrc || codeOf(error, kTcpIpCodes) == zrc) return true;
  for (const OsErrorRow& row : kAlsoStandFor)
    if (row.zrc == zrc && row.error == error) return true;
  return false;
}

}  // namespace
}  // namespace vek

bool sqloZrcStandsForErrno(SqlzZrc zrc, int error) noexcept { return error > 0 && vek::standsFor(zrc, error); }

int sqloErrnoOfZrc(SqlzZrc zrc) noexcept {
  for (int error = 1; error < static_cast<int>(vek::kErrnoEnd); ++error)
    if (vek::standsFor(zrc, error)) return error;
  return 0;
}

SqlzZrc sqloMapUnexpectedFileSystemErrorToZRC(int error) noexcept {
  vek::VekTrace<vek::FID_sqloMapUnexpectedFileSystemErrorToZRC> trace;
  trace.data(10, error);
  return trace.exit(vek::codeOf(error, vek::kFileCodes));
}

SqlzZrc sqloMapTcpIpErrorToZRC(int error) noexcept {
  vek::VekTrace<vek::FID_sqloMapTcpIpErrorToZRC> trace;
  trace.data(10, error);
  return trace.exit(vek::codeOf(error, vek::kTcpIpCodes));
}
