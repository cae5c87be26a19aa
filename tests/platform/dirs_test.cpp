#include "platform/dirs.h"

#include <pwd.h>
#include <sys/auxv.h>
#include <sys/stat.h>

#include <utility>

#include "platform/support.h"

namespace vek::platformtest {
namespace {

std::string pathOf(Directory which, std::size_t bytes = PATH_BYTES) {
  std::string path(bytes, '#');
  const std::size_t length = directoryPath(which, path.data(), bytes);
  return path.substr(0, length);
}

TEST(Directories, OverridesThenBasesThenHome) {
  const std::string long4094 = std::string("/").append(4093, 'x');
  using Environment = std::vector<std::pair<const char*, std::string>>;
  const std::tuple<Environment, Directory, std::string> cases[] = {
      {{}, Directory::kSystem, "/etc/veksys"},
      {{{"VEK_SYSTEM_DIR", "/opt/v"}}, Directory::kSystem, "/opt/v"},
      {{{"VEK_SYSTEM_DIR", "/opt/v///"}}, Directory::kSystem, "/opt/v"},
      {{{"VEK_SYSTEM_DIR", "relative"}}, Directory::kSystem, "/etc/veksys"},
      {{{"VEK_SYSTEM_DIR", ""}}, Directory::kSystem, "/etc/veksys"},
      {{{"VEK_SYSTEM_DIR", long4094}}, Directory::kSystem, long4094},
      {{{"VEK_SYSTEM_DIR", long4094 + "yy"}}, Directory::kSystem, ""},
      {{{"HOME", "/home/u"}}, Directory::kUser, "/home/u/.config/veksys"},
      {{{"HOME", "/home/u"}, {"XDG_CONFIG_HOME", "/c"}}, Directory::kUser, "/c/veksys"},
      {{{"HOME", "/home/u"}, {"XDG_CONFIG_HOME", "c"}}, Directory::kUser, "/home/u/.config/veksys"},
      {{{"XDG_CONFIG_HOME", "/c"}, {"VEK_USER_DIR", "/mine"}}, Directory::kUser, "/mine"},
      {{{"HOME", "/home/u"}}, Directory::kInstance, "/home/u/.local/state/veksys/default"},
      {{{"HOME", "/home/u"}, {"VEKINSTANCE", "i-1"}}, Directory::kInstance, "/home/u/.local/state/veksys/i-1"},
      {{{"HOME", "/home/u"}, {"VEKINSTANCE", "../x"}}, Directory::kInstance, "/home/u/.local/state/veksys/default"},
      {{{"XDG_STATE_HOME", "/s"}, {"VEKINSTANCE", "i"}}, Directory::kInstance, "/s/veksys/i"},
      {{{"XDG_STATE_HOME", "/s"}, {"VEK_INSTANCE_DIR", "/here"}}, Directory::kInstance, "/here"},
      {{{"XDG_STATE_HOME", long4094}}, Directory::kInstance, ""},
      {{{"HOME", "/"}}, Directory::kUser, "/tmp/veksys-user." + std::to_string(::geteuid())},
      {{}, Directory::kShared, "/dev/shm"},
      {{{"VEK_SHM_DIR", "/run/v"}}, Directory::kShared, "/run/v"},
  };
  for (const auto& row : cases)
    inProcess([&row] {
      const auto& [environment, which, expected] = row;
      ::clearenv();
      for (const auto& [name, value] : environment) ::setenv(name, value.c_str(), 1);
      EXPECT_EQ(pathOf(which), expected) << ::testing::PrintToString(environment);
    });
}

// Without HOME the user database answers; a user whom it does not know gets a directory that no other user shares.
TEST(Directories, HomeFromTheUserDatabase) {
  inProcess([] {
    ::clearenv();
    const passwd* user = ::getpwuid(::geteuid());
    EXPECT_TRUE(user == nullptr || pathOf(Directory::kUser) == std::string(user->pw_dir) + "/.config/veksys");
    if (::geteuid() != 0) return;
    ASSERT_EQ(::seteuid(3'999'999), 0);
    EXPECT_EQ(pathOf(Directory::kInstance), "/tmp/veksys-state.3999999/default");
    endAtOnce();
  });
}

TEST(Directories, BufferTooSmallAnswersNothing) {
  inProcess([] {
    ::setenv("VEK_SHM_DIR", "/a/b", 1);
    ::setenv("VEKINSTANCE", "i", 1);
    char path[64];
    const std::size_t whole = sharedObjectPath(":trace", path, sizeof path);
    EXPECT_STREQ(path, ("/a/b/veksys." + std::to_string(::geteuid()) + ".i:trace").c_str());
    for (std::size_t bytes = 0; bytes <= whole; ++bytes) EXPECT_EQ(sharedObjectPath(":trace", path, bytes), 0U);
    for (std::size_t bytes = 0; bytes <= 4; ++bytes) EXPECT_EQ(pathOf(Directory::kShared, bytes), "");
  });
}

TEST(InstanceName, Rules) {
  const std::string longest(32, 'n');
  const std::string tooLong(33, 'n');
  for (const char* good : {"a", "A-b_c.9", "-", longest.c_str()}) EXPECT_TRUE(isInstanceName(good)) << good;
  for (const char* bad : {"", ".", ".a", "a/b", "a b", "a\n", "\xC3\xA4", tooLong.c_str()})
    EXPECT_FALSE(isInstanceName(bad)) << bad;
}

// Run by the test below in a copy of this program that belongs to another user and takes on its identity.
TEST(Directories, DISABLED_ProbeWithRaisedPrivileges) {
  if (::getauxval(AT_SECURE) == 0) ::_exit(kSkip);
  ASSERT_STREQ(::getenv("VEK_SHM_DIR"), "/elsewhere");
  EXPECT_EQ(pathOf(Directory::kShared), "/dev/shm");
  EXPECT_STREQ(vekInstanceName(), "default");
  endAtOnce();
}

TEST(Directories, RaisedPrivilegesIgnoreTheEnvironment) {
  if (::geteuid() != 0) GTEST_SKIP() << "only the superuser can make a program that takes on another identity";
  char directory[] = "/tmp/veksys_raised.XXXXXX";
  ASSERT_NE(::mkdtemp(directory), nullptr);
  const std::string program = std::string(directory) + "/probe";
  std::filesystem::copy_file("/proc/self/exe", program);
  ASSERT_EQ(::chown(program.c_str(), 65534, 65534), 0);
  ASSERT_EQ(::chmod(program.c_str(), 04755), 0);
  const int code = runInProcess([&] {
    ::setenv("VEK_SHM_DIR", "/elsewhere", 1);
    ::setenv("VEKINSTANCE", "other", 1);
    ::execl(program.c_str(), "probe", "--gtest_filter=*ProbeWithRaisedPrivileges", "--gtest_also_run_disabled_tests",
            "--gtest_output=", nullptr);
  });
  std::filesystem::remove_all(directory);
  if (code == kSkip) GTEST_SKIP() << "the file system of /tmp grants no identities";
  EXPECT_EQ(code, 0);
}

}  // namespace
}  // namespace vek::platformtest
