#include "platform/osse.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/membarrier.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "platform/library_mutex.h"
#include "veksys/diag/log.h"
#include "veksys_functions.h"

namespace vek {
namespace {

int callOpen(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }

int callStatvfs(const char* path, struct statvfs* out) { return ::statvfs(path, out); }

int callLockByte(int fd, int command, short type, off_t offset, off_t bytes, int* conflict) {
  struct flock lock = {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  lock.l_start = offset;
  lock.l_len = bytes;
  const int result = ::fcntl(fd, command, &lock);
  if (result == 0 && conflict != nullptr) *conflict = lock.l_type != F_UNLCK;
  return result;
}

constinit OssCalls g_calls = {
    .open = callOpen,
    .close = ::close,
    .fstat = ::fstat,
    .lseek = ::lseek,
    .stat = ::stat,
    .lstat = ::lstat,
    .faccessat = ::faccessat,
    .mkdir = ::mkdir,
    .unlink = ::unlink,
    .rename = ::rename,
    .fsync = ::fsync,
    .ftruncate = ::ftruncate,
    .fallocate = ::fallocate,
    .pread = ::pread,
    .pwrite = ::pwrite,
    .write = ::write,
    .flock = ::flock,
    .statvfs = callStatvfs,
    .lockByte = callLockByte,
    .mmap = ::mmap,
    .munmap = ::munmap,
    .madvise = ::madvise,
    .mprotect = ::mprotect,
    .mlock = ::mlock,
    .memfd = ::memfd_create,
    .socket = ::socket,
    .sendto = ::sendto,
};

// Repeats a call while it is interrupted; gives 0 or errno.
template <class Call>
int repeat(Call call) noexcept {
  const OssUncancelled here;
  for (;;) {
    if (call() >= 0) return 0;
    if (errno != EINTR) return errno;
  }
}

// Hands all bytes to `put`, which may take fewer at a time.
template <class Put>
int writeWhole(const void* bytes, std::size_t count, Put put) noexcept {
  const char* start = static_cast<const char*>(bytes);
  std::size_t done = 0;
  while (done < count) {
    ssize_t written = 0;
    const int error = repeat([&] { return written = put(start + done, count - done, done); });
    if (error != 0) return error;
    if (written == 0) return EIO;
    done += static_cast<std::size_t>(written);
  }
  return 0;
}

OssFileKind kindOf(mode_t mode) noexcept {
  if (S_ISREG(mode)) return OssFileKind::kRegular;
  if (S_ISDIR(mode)) return OssFileKind::kDirectory;
  return S_ISLNK(mode) ? OssFileKind::kSymbolicLink : OssFileKind::kOther;
}

std::int64_t clockNs(clockid_t clock) noexcept {
  timespec now;
  ::clock_gettime(clock, &now);
  return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

// ---- messages

constinit std::atomic<OssLogHook> g_logHook = nullptr;
constinit std::atomic<std::uint32_t> g_logLevel = OSS_LOG_LEVEL_DEFAULT;
constinit std::atomic<std::uint32_t> g_heldBack = 0;

void tell(EcfFunctionId functionId, int error, const char* text) noexcept {
  ossLog(
      {.functionId = functionId, .probe = 10, .level = PD_LEVEL_ERROR, .ecfCode = 0, .osError = error, .text = text});
}

void tellHeldBack(OssLogHook hook) noexcept {
  const std::uint32_t count = g_heldBack.exchange(0, std::memory_order_relaxed);
  if (count == 0) return;
  char text[96];
  ossSnprintf(text, sizeof text, "%u messages were held back because they came from inside a lock", count);
  const PdOSSeMessage message = {
      .functionId = FID_ossLog, .probe = 10, .level = PD_LEVEL_WARNING, .ecfCode = 0, .osError = 0, .text = text};
  hook(&message);
}

}  // namespace

int ossSetLogHook(OssLogHook hook) noexcept {
  if (hook == nullptr) return EINVAL;
  OssLogHook installed = nullptr;
  return g_logHook.compare_exchange_strong(installed, hook) || installed == hook ? 0 : EBUSY;
}

int ossSetLogLevel(std::uint32_t level) noexcept {
  if (level > OSS_LOG_LEVEL_MOST) return EINVAL;
  g_logLevel.store(level, std::memory_order_relaxed);
  return 0;
}

void ossLog(const PdOSSeMessage& message) noexcept {
  const OssLogHook hook = g_logHook.load(std::memory_order_acquire);
  if (hook == nullptr || message.level > g_logLevel.load(std::memory_order_relaxed)) return;
  if (threadIsInsideLock()) {
    g_heldBack.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  const int kept = errno;
  hook(&message);
  tellHeldBack(hook);
  errno = kept;
}

OssCalls& ossCalls() noexcept { return g_calls; }

namespace {

// What stands for a text that cannot be formatted.
std::size_t keepFormat(char* buffer, std::size_t bytes, const char* format) noexcept {
  constexpr char kMark[] = "<Not formatted> ";
  const std::size_t mark = std::min(sizeof kMark - 1, bytes - 1);
  ::memcpy(buffer, kMark, mark);
  const std::size_t length = ::strnlen(format, bytes - 1 - mark);
  ::memcpy(buffer + mark, format, length);
  buffer[mark + length] = '\0';
  return mark + length;
}

}  // namespace

std::size_t ossVsnprintf(char* buffer, std::size_t bytes, const char* format, std::va_list arguments) noexcept {
  if (bytes == 0) return 0;
  const int wanted = ::vsnprintf(buffer, bytes, format, arguments);
  return wanted < 0 ? keepFormat(buffer, bytes, format) : std::min(static_cast<std::size_t>(wanted), bytes - 1);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::size_t ossFormatChecked(char* buffer, std::size_t bytes, const char* format, std::va_list arguments) noexcept {
  return ossVsnprintf(buffer, bytes, format, arguments);
}
#pragma GCC diagnostic pop

std::size_t ossSnprintf(char* buffer, std::size_t bytes, const char* format, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, format);
  const std::size_t written = ossVsnprintf(buffer, bytes, format, arguments);
  va_end(arguments);
  return written;
}

void ossCopyText(char* field, std::size_t bytes, const char* text) noexcept {
  if (bytes == 0) return;
  const std::size_t length = text == nullptr ? 0 : ::strnlen(text, bytes - 1);
  if (length != 0) ::memcpy(field, text, length);
  ::memset(field + length, 0, bytes - length);
}

namespace {

void sleepFor(unsigned seconds, unsigned nanoseconds) noexcept {
  const OssUncancelled here;
  timespec left = {static_cast<time_t>(seconds), static_cast<long>(nanoseconds)};
  while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace

std::int64_t ossRealtimeNs() noexcept { return clockNs(CLOCK_REALTIME); }
std::int64_t ossMonotonicNs() noexcept { return clockNs(CLOCK_MONOTONIC); }

std::uint64_t ossMeasureTicksPerSecond() noexcept {
  const std::int64_t startNs = ossMonotonicNs();
  const std::uint64_t startTicks = ossTicks();
  ossSleepMs(5);
  const std::int64_t elapsedNs = ossMonotonicNs() - startNs;
  const std::uint64_t elapsedTicks = ossTicks() - startTicks;
  if (elapsedNs <= 0) return 1'000'000'000;
  return static_cast<std::uint64_t>(static_cast<double>(elapsedTicks) * 1e9 / static_cast<double>(elapsedNs));
}

void ossSleepMs(unsigned milliseconds) noexcept { sleepFor(milliseconds / 1000, milliseconds % 1000 * 1'000'000); }
void ossSleepUs(unsigned microseconds) noexcept { sleepFor(microseconds / 1'000'000, microseconds % 1'000'000 * 1000); }
bool ossRegisterBarrier() noexcept {
  return ::syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
}

// A process that is not registered any more is registered anew.
void ossBarrier() noexcept {
  const auto barrier = [] { return ::syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0; };
  if (!barrier() && ossRegisterBarrier()) (void)barrier();
}
void ossYield() noexcept { ::sched_yield(); }

unsigned ossProcessors() noexcept {
  // Of the process's first thread: the calling one may be bound to a single processor, which says nothing of the
  // others.
  cpu_set_t usable;
  if (::sched_getaffinity(::getpid(), sizeof usable, &usable) != 0) return 1;
  return static_cast<unsigned>(std::max(CPU_COUNT(&usable), 1));
}

std::uint32_t ossProcessId() noexcept { return static_cast<std::uint32_t>(::getpid()); }
std::uint32_t ossThreadId() noexcept { return static_cast<std::uint32_t>(::syscall(SYS_gettid)); }
std::uint32_t ossUserId() noexcept { return ::geteuid(); }

void ossHostName(char* field, std::size_t bytes) noexcept {
  utsname machine;
  const bool known = ::uname(&machine) == 0 && machine.nodename[0] != '\0';
  ossCopyText(field, bytes, known ? machine.nodename : "localhost");
}

int ossDisableCancellation() noexcept {
  int state = PTHREAD_CANCEL_ENABLE;
  ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
  return state;
}

void ossRestoreCancellation(int state) noexcept { ::pthread_setcancelstate(state, nullptr); }

const char* ossSignalName(int signal) noexcept {
  struct Name {
    int signal;
    const char* text;
  };
  static constexpr Name kNames[] = {{SIGSEGV, "SIGSEGV"}, {SIGBUS, "SIGBUS"}, {SIGILL, "SIGILL"}, {SIGFPE, "SIGFPE"}};
  for (const Name& name : kNames)
    if (name.signal == signal) return name.text;
  return "a signal";
}

const char* ossProgramName() noexcept { return ::program_invocation_short_name; }

void ossProcessName(char* field, std::size_t bytes) noexcept { ossCopyText(field, bytes, ossProgramName()); }

void ossThreadName(char* field, std::size_t bytes) noexcept {
  char name[16] = {};
  if (::pthread_getname_np(::pthread_self(), name, sizeof name) != 0) name[0] = '\0';
  ossCopyText(field, bytes, name);
}

void ossBootId(char* field, std::size_t bytes) noexcept {
  ossCopyText(field, bytes, nullptr);
  int fd = -1;
  if (ossOpen("/proc/sys/kernel/random/boot_id", O_RDONLY, 0, &fd) != 0) return;
  char text[37] = {};
  std::size_t count = 0;
  if (ossReadAt(fd, text, 36, 0, &count) == 0 && count == 36) ossCopyText(field, bytes, text);
  ossClose(fd);
}

const char* ossEnvironment(const char* name) noexcept { return ::secure_getenv(name); }

void* ossMapPages(std::size_t bytes) noexcept {
  void* pages = g_calls.mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return pages == MAP_FAILED ? nullptr : pages;
}

void ossUnmapPages(void* pages, std::size_t bytes) noexcept { g_calls.munmap(pages, bytes); }

int ossAboveStandard(int fd) noexcept {
  if (fd < 0 || fd > STDERR_FILENO) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const ErrnoKept kept;
  ossClose(fd);
  return moved;
}

int ossOpen(const char* path, int flags, unsigned mode, int* fdOut) noexcept {
  return repeat([&] { return *fdOut = ossAboveStandard(g_calls.open(path, flags | O_CLOEXEC | O_NOFOLLOW, mode)); });
}

void ossClose(int fd) noexcept {
  const OssUncancelled here;
  // Not repeated: Linux has released the descriptor even when it says EINTR.
  if (fd < 0 || g_calls.close(fd) == 0 || errno == EINTR) return;
  tell(FID_ossClose, errno, "A file could not be closed; what was written to it last may be lost");
}

int ossWriteAll(int fd, const void* bytes, std::size_t count) noexcept {
  return writeWhole(bytes, count,
                    [fd](const char* next, std::size_t left, std::size_t) { return g_calls.write(fd, next, left); });
}

int ossWriteAt(int fd, const void* bytes, std::size_t count, std::uint64_t offset) noexcept {
  return writeWhole(bytes, count, [fd, offset](const char* next, std::size_t left, std::size_t done) {
    return g_calls.pwrite(fd, next, left, static_cast<off_t>(offset + done));
  });
}

void ossTakeSignal(int signal) noexcept {
  const OssUncancelled here;
  sigset_t one;
  ::sigemptyset(&one);
  ::sigaddset(&one, signal);
  const timespec now = {0, 0};
  (void)::sigtimedwait(&one, nullptr, &now);
}

void ossSayOnStandardError(const char* text, std::size_t length) noexcept {
  constexpr int kRaised[] = {SIGPIPE, SIGXFSZ};  // by a pipe that nobody reads, a file that may not grow
  sigset_t raised;
  sigset_t before;
  sigset_t pending;
  ::sigemptyset(&raised);
  for (const int signal : kRaised) ::sigaddset(&raised, signal);
  ::sigpending(&pending);
  ::pthread_sigmask(SIG_BLOCK, &raised, &before);
  const int error = ossWriteAll(STDERR_FILENO, text, length);
  for (const int signal : kRaised)
    if ((error == EPIPE || error == EFBIG) && ::sigismember(&pending, signal) == 0) ossTakeSignal(signal);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

std::uint64_t ossFileSizeLimit() noexcept {
  rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
  (void)::getrlimit(RLIMIT_FSIZE, &limit);
  return limit.rlim_cur == RLIM_INFINITY ? ~std::uint64_t{0} : limit.rlim_cur;
}

int ossReadAt(int fd, void* buffer, std::size_t count, std::uint64_t offset, std::size_t* readOut) noexcept {
  char* next = static_cast<char*>(buffer);
  *readOut = 0;
  while (*readOut < count) {
    ssize_t got = 0;
    const int error = repeat([&] {
      return got = g_calls.pread(fd, next + *readOut, count - *readOut, static_cast<off_t>(offset + *readOut));
    });
    if (error != 0) return error;
    if (got == 0) break;
    *readOut += static_cast<std::size_t>(got);
  }
  return 0;
}

int ossMakeDirectories(const char* path) noexcept {
  char partial[4096];
  const std::size_t length = ::strnlen(path, sizeof partial);
  if (length == 0 || length == sizeof partial) return ENAMETOOLONG;
  for (std::size_t i = 1; i <= length; ++i) {
    if (path[i] != '/' && path[i] != '\0') continue;
    ::memcpy(partial, path, i);
    partial[i] = '\0';
    if (g_calls.mkdir(partial, 0700) == 0 || errno == EEXIST) continue;
    const int error = errno;
    struct stat status;
    if (g_calls.stat(partial, &status) != 0) return error;  // a parent we may not create but which exists is fine
  }
  struct stat status;
  if (g_calls.stat(path, &status) != 0) return errno;
  return S_ISDIR(status.st_mode) ? 0 : ENOTDIR;
}

int ossFileFacts(const char* path, OssLink link, OssFileFacts* out) noexcept {
  struct stat status;
  const auto call = link == OssLink::kItself ? g_calls.lstat : g_calls.stat;
  const int error = repeat([&] { return call(path, &status); });
  if (error == 0) *out = {kindOf(status.st_mode), status.st_uid, status.st_mode & 07777U, status.st_dev, status.st_ino};
  return error;
}

int ossMayMakeFilesIn(const char* directory) noexcept {
  return repeat([&] { return g_calls.faccessat(AT_FDCWD, directory, W_OK | X_OK, AT_EACCESS); });
}

int ossOpenToAppend(const char* path, int* fdOut, std::uint64_t* bytesOut) noexcept {
  // Without O_NONBLOCK a pipe in the file's place would keep the caller.
  int error = ossOpen(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY, 0600, fdOut);
  if (error != 0) return error;
  struct stat status;
  if (g_calls.fstat(*fdOut, &status) != 0)
    error = errno;
  else if (!S_ISREG(status.st_mode) || status.st_uid != ossUserId() || (status.st_mode & 022) != 0)
    error = EPERM;
  if (error == 0) {
    *bytesOut = static_cast<std::uint64_t>(status.st_size);
    return 0;
  }
  ossClose(*fdOut);
  *fdOut = -1;
  return error;
}

int ossSync(int fd) noexcept {
  return repeat([&] { return g_calls.fsync(fd); });
}

int ossTruncate(int fd, std::uint64_t bytes) noexcept {
  return repeat([&] { return g_calls.ftruncate(fd, static_cast<off_t>(bytes)); });
}

int ossFreeBytes(const char* path, std::uint64_t* bytesOut) noexcept {
  struct statvfs status;
  const int error = repeat([&] { return g_calls.statvfs(path, &status); });
  if (error == 0) *bytesOut = static_cast<std::uint64_t>(status.f_bavail) * status.f_frsize;
  return error;
}

int ossVisitDirectory(const char* path, void (*visit)(void* context, const char* name), void* context) noexcept {
  int fd = -1;
  int error = ossOpen(path, O_RDONLY | O_DIRECTORY, 0, &fd);
  if (error != 0) return error;
  alignas(dirent64) char entries[4096];
  for (;;) {
    const long count = ::syscall(SYS_getdents64, fd, entries, sizeof entries);
    if (count <= 0) {
      error = count == 0 ? 0 : errno;
      break;
    }
    for (long at = 0; at < count;) {
      const auto* entry = reinterpret_cast<const dirent64*>(entries + at);
      visit(context, entry->d_name);
      at += entry->d_reclen;
    }
  }
  ossClose(fd);
  return error;
}

int ossAllocateFile(int fd, std::uint64_t bytes) noexcept {
  const int error = repeat([&] { return g_calls.ftruncate(fd, static_cast<off_t>(bytes)); });
  if (error != 0) return error;
  return ossAllocateRange(fd, 0, bytes);
}

int ossAllocateRange(int fd, std::uint64_t offset, std::uint64_t bytes) noexcept {
  return repeat([&] { return g_calls.fallocate(fd, 0, static_cast<off_t>(offset), static_cast<off_t>(bytes)); });
}

int ossLockFile(int fd, int operation, unsigned milliseconds) noexcept {
  const std::int64_t deadline = ossMonotonicNs() + static_cast<std::int64_t>(milliseconds) * 1'000'000;
  for (;;) {
    const int error = repeat([&] { return g_calls.flock(fd, operation | LOCK_NB); });
    if (error != EWOULDBLOCK || ossMonotonicNs() >= deadline) return error;
    ossSleepMs(1);
  }
}

void ossUnlockFile(int fd) noexcept {
  repeat([&] { return g_calls.flock(fd, LOCK_UN); });
}

int ossLockByte(int fd, std::uint64_t offset) noexcept {
  const int error =
      repeat([&] { return g_calls.lockByte(fd, F_SETLK, F_WRLCK, static_cast<off_t>(offset), 1, nullptr); });
  return error == EACCES ? EAGAIN : error;
}

void ossUnlockByte(int fd, std::uint64_t offset) noexcept {
  const int error =
      repeat([&] { return g_calls.lockByte(fd, F_SETLK, F_UNLCK, static_cast<off_t>(offset), 1, nullptr); });
  if (error != 0) tell(FID_ossUnlockByte, error, "A record lock could not be given back");
}

bool ossByteLockedElsewhere(int fd, std::uint64_t offset, std::uint64_t count) noexcept {
  int conflict = 0;
  const int error = repeat([&] {
    return g_calls.lockByte(fd, F_GETLK, F_WRLCK, static_cast<off_t>(offset), static_cast<off_t>(count), &conflict);
  });
  return error != 0 || conflict != 0;  // in doubt the owner lives: nothing of a living process is ever taken
}

}  // namespace vek
