#include "platform/osse.h"

#include <string.h>

#include <algorithm>

#include "platform/region.h"
#include "platform/support.h"
#include "platform/system_log.h"

namespace vek::platformtest {
namespace {

TEST(OsText, CutTerminatedAndZeroFilled) {
  for (std::size_t bytes = 1; bytes <= 8; ++bytes) {
    char field[8];
    ::memset(field, '#', sizeof field);
    ossCopyText(field, bytes, "four");
    EXPECT_EQ(std::string(field), std::string("four").substr(0, bytes - 1));
    EXPECT_TRUE(std::all_of(field + ::strlen(field), field + bytes, [](char c) { return c == '\0'; }));
    EXPECT_TRUE(std::all_of(field + bytes, field + sizeof field, [](char c) { return c == '#'; }));
    char text[8];
    const std::size_t length = ossSnprintf(text, bytes, "%s%d", "fo", 12);
    EXPECT_EQ(length, ::strlen(text));
    EXPECT_EQ(std::string(text), std::string("fo12").substr(0, bytes - 1));
  }
  char text[32] = "#";
  ossCopyText(text, 0, "x");
  EXPECT_EQ(ossSnprintf(text, 0, "x"), 0U);
  EXPECT_STREQ(text, "#");
  ossCopyText(text, 1, nullptr);
  EXPECT_STREQ(text, "");
  ossSnprintf(text, sizeof text, "no such %lc", static_cast<wint_t>(0x7FFFFFFF));
  EXPECT_STREQ(text, "<Not formatted> no such %lc");
}

TEST(OsDirectories, MadeWithTheirParents) {
  const Instance instance;
  const std::string base = instance.directory();
  ASSERT_EQ(::symlink("nowhere", (base + "/dangling").c_str()), 0);
  ASSERT_EQ(::symlink(base.c_str(), (base + "/loop").c_str()), 0);
  std::fclose(std::fopen((base + "/file").c_str(), "w"));
  const std::pair<std::string, int> rows[] = {
      {base, 0},
      {base + "/a/b//c/", 0},
      {base + "/a/b/c", 0},
      {base + "/loop/through", 0},
      {base + "/file", ENOTDIR},
      {base + "/file/below", ENOTDIR},
      {base + "/dangling", ENOENT},
      {"", ENAMETOOLONG},
      {base + "/" + std::string(4096, 'x'), ENAMETOOLONG},
      {base + "/" + std::string(256, 'x'), ENAMETOOLONG},
  };
  for (const auto& [path, result] : rows) EXPECT_EQ(ossMakeDirectories(path.c_str()), result) << path;
  EXPECT_EQ(std::filesystem::status(base + "/a/b").permissions(), std::filesystem::perms::owner_all);
}

// Services that take or give a byte at a time and are interrupted before each: everything arrives all the same.
ssize_t trickle(bool write, int fd, void* buffer, std::size_t bytes, off_t offset) {
  static bool interrupted = false;
  interrupted = !interrupted;
  if (interrupted) return errno = EINTR, -1;
  bytes = std::min<std::size_t>(bytes, 1);
  return write ? ::pwrite(fd, buffer, bytes, offset) : ::pread(fd, buffer, bytes, offset);
}

TEST_APART(OsFiles, ShortAndInterruptedTransfers) {
  int fd = -1;
  ASSERT_EQ(ossOpen((instance.directory() + "/f").c_str(), O_RDWR | O_CREAT, 0600, &fd), 0);
  EXPECT_EQ(::fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ossCalls().pwrite = [](int to, const void* buffer, std::size_t bytes, off_t offset) {
    return trickle(true, to, const_cast<void*>(buffer), bytes, offset);
  };
  ossCalls().pread = [](int from, void* buffer, std::size_t bytes, off_t offset) {
    return trickle(false, from, buffer, bytes, offset);
  };
  EXPECT_EQ(ossWriteAt(fd, "0123456789", 10, 5), 0);
  char text[16] = {};
  std::size_t count = 0;
  EXPECT_EQ(ossReadAt(fd, text, sizeof text, 6, &count), 0);
  EXPECT_EQ(std::string(text, count), "123456789");
  ossCalls().write = [](int, const void*, std::size_t) -> ssize_t { return 0; };
  EXPECT_EQ(ossWriteAll(fd, "x", 1), EIO);
  ossCalls().write = [](int, const void*, std::size_t) -> ssize_t { return errno = ENOSPC, -1; };
  EXPECT_EQ(ossWriteAll(fd, "x", 1), ENOSPC);
  ossClose(fd);
  ossClose(-1);
  EXPECT_TRUE(ossByteLockedElsewhere(fd, 7)) << "in doubt the owner lives";
}

// A program without standard streams: what it prints must not end up in the region or in the log.
TEST(OsFiles, NoDescriptorTakesThePlaceOfAStandardStream) {
  for (const char* directory : {"", "/nonexistent"}) {  // a shared region, a private one
    const Instance instance;
    if (*directory != '\0') ::setenv("VEK_SHM_DIR", directory, 1);
    inProcess([] {
      const int kept = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 100);
      for (int fd = 0; fd <= STDERR_FILENO; ++fd) ::close(fd);
      static int sentFrom = -1;
      ossCalls().sendto = [](int fd, const void*, std::size_t count, int, const sockaddr*, unsigned) {
        sentFrom = fd;
        return static_cast<ssize_t>(count);
      };
      const int sent = systemLogSend("x", 1);
      const SqlzZrc attached = regionAttach();
      int low = 0;
      for (int fd = 0; fd <= STDERR_FILENO; ++fd) low += ::fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
      for (int fd = 0; fd <= STDERR_FILENO; ++fd) ::dup2(kept, fd);
      EXPECT_TRUE(sent == 0 && attached == 0 && low == 0) << low << " of the library's descriptors are below 3";
      EXPECT_GT(sentFrom, STDERR_FILENO);
      EXPECT_EQ(::fcntl(regionDescriptor(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    });
  }
}

}  // namespace
}  // namespace vek::platformtest
