// Operating-system services: the operations the rest of the library needs from the machine, POSIX behind them.
//
// Common rules
//   - Nothing here throws, logs or traces. Thread-safe unless it says otherwise.
//   - Operations that can fail return 0 or a positive errno value; a descriptor or a count comes through a pointer.
//   - Interrupted calls (EINTR) are repeated here, so that no caller has to.
//   - Every descriptor is close-on-exec and none is 0, 1 or 2; no symbolic link is followed as the last component of a
//     path.
//   - Nothing here is a cancellation point: the functions of the library end no thread, they return.
//
// Every system service that can fail goes through `OssCalls`, one pointer per service, so that a test can replace it
// alone or let its n-th call fail. Reading clocks and ticks stays inline and without a table.
#pragma once

#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdint>

struct PdOSSeMessage;
struct sockaddr;
struct stat;
struct statvfs;

namespace vek {

// The replaceable services. Signatures and results are those of the system; errno tells the failure.
struct OssCalls {
  int (*open)(const char* path, int flags, mode_t mode);
  int (*close)(int fd);
  int (*fstat)(int fd, struct stat* out);
  off_t (*lseek)(int fd, off_t offset, int whence);
  int (*stat)(const char* path, struct stat* out);
  int (*lstat)(const char* path, struct stat* out);
  int (*faccessat)(int directory, const char* path, int mode, int flags);
  int (*mkdir)(const char* path, mode_t mode);
  int (*unlink)(const char* path);
  int (*rename)(const char* from, const char* to);
  int (*fsync)(int fd);
  int (*ftruncate)(int fd, off_t bytes);
  int (*fallocate)(int fd, int mode, off_t offset, off_t bytes);
  ssize_t (*pread)(int fd, void* buffer, std::size_t bytes, off_t offset);
  ssize_t (*pwrite)(int fd, const void* buffer, std::size_t bytes, off_t offset);
  ssize_t (*write)(int fd, const void* buffer, std::size_t bytes);
  int (*flock)(int fd, int operation);
  int (*statvfs)(const char* path, struct statvfs* out);
  int (*lockByte)(int fd, int command, short type, off_t offset, off_t bytes, int* conflict);
  void* (*mmap)(void* address, std::size_t bytes, int protection, int flags, int fd, off_t offset);
  int (*munmap)(void* address, std::size_t bytes);
  int (*madvise)(void* address, std::size_t bytes, int advice);
  int (*mprotect)(void* address, std::size_t bytes, int protection);
  int (*mlock)(const void* address, std::size_t bytes);
  int (*memfd)(const char* name, unsigned flags);
  int (*socket)(int domain, int type, int protocol);
  ssize_t (*sendto)(int fd, const void* bytes, std::size_t count, int flags, const sockaddr* to, unsigned toBytes);
};

// The table in force. Replacing an entry affects the whole process; only tests do it, before other threads start.
OssCalls& ossCalls() noexcept;

// ---- text -------------------------------------------------------------------------------------------------------

// Formats into `buffer`, never past `bytes`, always terminated when bytes > 0. Returns the characters that stand in
// the buffer (without the terminator), so that appends can be chained; a text that did not fit is cut. Of
// a format that cannot be followed its own text stands there, behind "<Not formatted> ".
std::size_t ossSnprintf(char* buffer, std::size_t bytes, const char* format, ...) noexcept
    __attribute__((format(printf, 3, 4)));
std::size_t ossVsnprintf(char* buffer, std::size_t bytes, const char* format, std::va_list arguments) noexcept
    __attribute__((format(printf, 3, 0)));

// The same for a format that was checked where its caller wrote it, and came here through a record.
std::size_t ossFormatChecked(char* buffer, std::size_t bytes, const char* format, std::va_list arguments) noexcept;

// Copies a text into a fixed field, cut if need be, terminated and zero-filled to its end.
void ossCopyText(char* field, std::size_t bytes, const char* text) noexcept;

// Keeps errno as it was, for the length of a scope: what a signal handler may call changes it for nobody.
class ErrnoKept {
 public:
  ErrnoKept() noexcept : error_(errno) {}
  ~ErrnoKept() { errno = error_; }
  ErrnoKept(const ErrnoKept&) = delete;
  ErrnoKept& operator=(const ErrnoKept&) = delete;

 private:
  int error_;
};

// ---- time -------------------------------------------------------------------------------------------------------

// Nanoseconds since 1970 UTC; nanoseconds of a clock that never steps.
std::int64_t ossRealtimeNs() noexcept;
std::int64_t ossMonotonicNs() noexcept;

// A cheap counter that all threads and processes of the machine share: the processor's time-stamp counter, read
// without serialising (the order of two neighbouring instructions is not guaranteed, that of two records is).
inline std::uint64_t ossTicks() noexcept {
#if defined(__x86_64__)
  return __builtin_ia32_rdtsc();
#elif defined(__aarch64__)
  std::uint64_t ticks;
  __asm__ volatile("mrs %0, cntvct_el0" : "=r"(ticks));
  return ticks;
#else
  return static_cast<std::uint64_t>(ossMonotonicNs());
#endif
}

// Measures the rate of ossTicks against the clock for about 5 ms; sleeps meanwhile.
std::uint64_t ossMeasureTicksPerSecond() noexcept;

void ossSleepMs(unsigned milliseconds) noexcept;
void ossSleepUs(unsigned microseconds) noexcept;

// Lets time pass on the processor, telling it that the thread spins: `pauses` pause instructions.
inline void ossWasteTime(unsigned pauses) noexcept {
  for (; pauses > 0; --pauses) {
#if defined(__x86_64__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    __asm__ volatile("isb");
#else
    __asm__ volatile("" ::: "memory");
#endif
  }
}

// Has the line of an address that is about to be written fetched for that. Harmless for any address.
inline void ossPrefetchToWrite(const void* address) noexcept {
#if defined(__x86_64__)
  __asm__ volatile("prefetchw %0" ::"m"(*static_cast<const char*>(address)));
#else
  __builtin_prefetch(address, 1);
#endif
}

// Lets another thread have the processor.
void ossYield() noexcept;

// A barrier on the processors that run other threads of this process, for protocols whose frequent side makes do with a
// barrier for the compiler (membarrier). It must be registered first; false: the system has none.
bool ossRegisterBarrier() noexcept;
void ossBarrier() noexcept;

// How many processors this process may use, 1 when that is not known.
unsigned ossProcessors() noexcept;

// ---- identity ---------------------------------------------------------------------------------------------------

std::uint32_t ossProcessId() noexcept;
std::uint32_t ossThreadId() noexcept;  // the kernel's number, unique on the machine while the thread lives
std::uint32_t ossUserId() noexcept;    // effective

// The name of this machine, cut to the field; "localhost" when the system does not tell one.
void ossHostName(char* field, std::size_t bytes) noexcept;

// The name of this process or of the calling thread, cut to the field.
const char* ossProgramName() noexcept;  // the same where it stands
void ossProcessName(char* field, std::size_t bytes) noexcept;
void ossThreadName(char* field, std::size_t bytes) noexcept;

// The kernel's identifier of this boot (36 characters), empty when it cannot be read.
void ossBootId(char* field, std::size_t bytes) noexcept;

// The value of an environment variable, null when it is not set or the process runs with raised privileges.
const char* ossEnvironment(const char* name) noexcept;

// ---- memory -----------------------------------------------------------------------------------------------------

// Zeroed memory of this process straight from the system, page-aligned; null when there is none. For what is made where
// malloc must not be called.
void* ossMapPages(std::size_t bytes) noexcept;
void ossUnmapPages(void* pages, std::size_t bytes) noexcept;

// ---- threads and signals ----------------------------------------------------------------------------------------

// Keeps the calling thread from being cancelled; what it answers puts the former state back. No system call.
int ossDisableCancellation() noexcept;
void ossRestoreCancellation(int state) noexcept;

// The same for the length of a scope: cancelling a thread unwinds it, which no noexcept function lets pass.
class OssUncancelled {
 public:
  OssUncancelled() noexcept : state_(ossDisableCancellation()) {}
  ~OssUncancelled() { ossRestoreCancellation(state_); }
  OssUncancelled(const OssUncancelled&) = delete;
  OssUncancelled& operator=(const OssUncancelled&) = delete;

 private:
  int state_;
};

// "SIGSEGV", or "a signal" for a number without a name. Lives as long as the process.
const char* ossSignalName(int signal) noexcept;

// ---- files ------------------------------------------------------------------------------------------------------

// Moves a descriptor that was just made (or -1, with errno) away from 0, 1 and 2, which a process that has closed them
// goes on writing to as its standard streams. Answers the one to use; -1, with errno, when there is none.
int ossAboveStandard(int fd) noexcept;

// Opens a file. `flags` as for open(2); O_CLOEXEC and O_NOFOLLOW are added.
int ossOpen(const char* path, int flags, unsigned mode, int* fdOut) noexcept;
void ossClose(int fd) noexcept;

// Writes all bytes, across short writes: at the file's position, or at an offset.
int ossWriteAll(int fd, const void* bytes, std::size_t count) noexcept;
int ossWriteAt(int fd, const void* bytes, std::size_t count, std::uint64_t offset) noexcept;

// Takes a signal away that waits in the calling thread or its process because it is blocked; nothing when none does.
void ossTakeSignal(int signal) noexcept;

// The size that a file may have at most when this process writes to it (RLIMIT_FSIZE); ~0 without a limit. A write past
// it would be answered by a signal, so writers look first.
std::uint64_t ossFileSizeLimit() noexcept;

// Says something on standard error, as far as that takes it: nothing is left to tell of a failure here. A reader that
// has gone raises no SIGPIPE.
void ossSayOnStandardError(const char* text, std::size_t length) noexcept;

// Reads up to `count` bytes at `offset`; fewer only at the end of the file.
int ossReadAt(int fd, void* buffer, std::size_t count, std::uint64_t offset, std::size_t* readOut) noexcept;

// Creates a directory and its missing parents, mode 0700. An existing directory is success.
int ossMakeDirectories(const char* path) noexcept;

// What the system knows of a path.
enum class OssFileKind { kRegular, kDirectory, kSymbolicLink, kOther };
struct OssFileFacts {
  OssFileKind kind;
  std::uint32_t owner;        // user number
  std::uint32_t permissions;  // the lower twelve bits of the mode
  std::uint64_t device;       // device and inode: two paths lead to one file when both are equal
  std::uint64_t inode;
};

// Tells the facts of a path; of a symbolic link at its end those of the link, or of what it leads to.
enum class OssLink { kItself, kTarget };
int ossFileFacts(const char* path, OssLink link, OssFileFacts* out) noexcept;

// 0 when this process, as its effective user, may make files in a directory.
int ossMayMakeFilesIn(const char* directory) noexcept;

// Opens a file of this user's to append to it, making it with mode 0600 when it is missing, and tells its size. EPERM:
// it is no regular file, belongs to another user or others may write in it.
int ossOpenToAppend(const char* path, int* fdOut, std::uint64_t* bytesOut) noexcept;

// Has what was written to a file, or the names in a directory, kept by its disk.
int ossSync(int fd) noexcept;

// Cuts a file.
int ossTruncate(int fd, std::uint64_t bytes) noexcept;

// The bytes that a user without privileges may still write in the file system of a path.
int ossFreeBytes(const char* path, std::uint64_t* bytesOut) noexcept;

// Calls `visit` with the name of each entry of a directory. Allocates nothing.
int ossVisitDirectory(const char* path, void (*visit)(void* context, const char* name), void* context) noexcept;

// Gives a file its size and allocates every block of it, so that touching a mapping of it cannot fail later.
int ossAllocateFile(int fd, std::uint64_t bytes) noexcept;

// The same for a part of a file that has its size.
int ossAllocateRange(int fd, std::uint64_t offset, std::uint64_t bytes) noexcept;

// Takes a lock on a whole open file (LOCK_SH or LOCK_EX of flock(2)), which belongs to the open file and not to the
// process. Waits up to `milliseconds`, 0: not at all. EAGAIN: somebody else kept it.
int ossLockFile(int fd, int operation, unsigned milliseconds) noexcept;
void ossUnlockFile(int fd) noexcept;

// ---- record locks -----------------------------------------------------------------------------------------------
//
// Locks on bytes of a file that belong to the process and vanish with it, however it ends. They are dropped too when
// the process closes ANY descriptor of that file: open such a file once and keep it.

// Takes the byte exclusively without waiting. EAGAIN when another process holds it.
int ossLockByte(int fd, std::uint64_t offset) noexcept;
void ossUnlockByte(int fd, std::uint64_t offset) noexcept;

// True when another process holds the byte, or any of `count` bytes. What this process holds reads as free.
bool ossByteLockedElsewhere(int fd, std::uint64_t offset, std::uint64_t count = 1) noexcept;

// ---- messages ---------------------------------------------------------------------------------------------------
//
// Failures that no caller is told of (a file that cannot be closed, a lock that cannot be given back) become messages.
// They go to the hook when one is installed, at once and on the thread they happened on.

using OssLogHook = void (*)(const PdOSSeMessage* message) noexcept;

inline constexpr std::uint32_t OSS_LOG_LEVEL_DEFAULT = 3;  // warnings, and what is worse
inline constexpr std::uint32_t OSS_LOG_LEVEL_MOST = 6;

// Installs the hook. 0 (also when it is installed already); EINVAL: null; EBUSY: there is another one.
int ossSetLogHook(OssLogHook hook) noexcept;

// Holds back messages above a level, 0 for all of them. 0; EINVAL: above OSS_LOG_LEVEL_MOST.
int ossSetLogLevel(std::uint32_t level) noexcept;

// Hands a message to the hook. While the thread is inside a lock of the library the message is only counted; the next
// one that is handed over is followed by one that says how many there were. Keeps errno.
void ossLog(const PdOSSeMessage& message) noexcept;

}  // namespace vek
