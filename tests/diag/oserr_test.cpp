// Return codes for errors of the operating system.

#include <climits>

#include "platform/support.h"
#include "veksys/diag/rc.h"

namespace {

constexpr std::uint32_t kComponentOsServices = 0x0F;

// Every value gives a catalogued code of the operating-system services or the type-3 code that carries it.
TEST_APART(OsErrors, HaveACodeOrAreCarried) {
  for (const auto map : {sqloMapUnexpectedFileSystemErrorToZRC, sqloMapTcpIpErrorToZRC}) {
    int specific = 0;
    for (int error = 1; error <= 200; ++error) {
      const SqlzZrc zrc = map(error);
      EXPECT_LT(zrc, 0) << error;
      if (zrc == sqlzZrc(0x83000000U | static_cast<std::uint32_t>(error))) continue;
      ++specific;
      EXPECT_EQ(sqlzZrcComponent(zrc), kComponentOsServices) << error;
      EXPECT_NE(sqlzFindZrc(zrc), nullptr) << error;
    }
    EXPECT_GT(specific, 10);
    EXPECT_EQ(map(0), 0);
    EXPECT_EQ(map(-1), sqlzZrc(0x83FFFFFF));
    EXPECT_EQ(map(-EACCES), sqlzZrc(0x83FFFFF3));
    EXPECT_EQ(map(0x12345678), sqlzZrc(0x83345678));
    EXPECT_EQ(map(INT_MIN), sqlzZrc(0x83000000));
  }
}

TEST_APART(OsErrors, DependOnWhereTheyAreMet) {
  EXPECT_EQ(sqloMapUnexpectedFileSystemErrorToZRC(ENOENT), SQLO_FNEX);
  EXPECT_EQ(sqloMapUnexpectedFileSystemErrorToZRC(EACCES), SQLO_ACCD);
  EXPECT_EQ(sqloMapUnexpectedFileSystemErrorToZRC(ENOSPC), SQLO_DISK_FULL);
  EXPECT_EQ(sqloMapUnexpectedFileSystemErrorToZRC(ECONNREFUSED), sqlzZrc(0x83000000U | ECONNREFUSED));
  EXPECT_EQ(sqloMapTcpIpErrorToZRC(ECONNREFUSED), SQLO_SOCK_CONNECT_REFUSED);
  EXPECT_EQ(sqloMapTcpIpErrorToZRC(ENOENT), sqlzZrc(0x83000000U | ENOENT));
  EXPECT_EQ(sqloMapTcpIpErrorToZRC(ENOMEM), SQLO_NOMEM);
}

}  // namespace
