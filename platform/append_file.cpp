#include "platform/append_file.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>

#include <atomic>
#include <charconv>
#include <new>

#include "platform/osse.h"

namespace vek {

// What the processes share. Everything behind the mutex is written by its owner alone; `moves` and `number` are read
// by others before they have it, to open the file.
struct AppendLockPage {
  char magic[8];
  std::uint32_t version;
  std::uint32_t bytes;
  char bootId[40];
  std::atomic<std::uint32_t> ready;
  std::atomic<std::uint64_t> generation;  // which layout of this page it is; never 0
  pthread_mutex_t mutex;
  std::atomic<std::uint64_t> moves;   // switches of a series
  std::atomic<std::uint64_t> number;  // of the current file of a series
  std::uint64_t device;               // the file that records went to last
  std::uint64_t inode;
  std::uint64_t end;  // of it, after the last record
  std::uint64_t intentOffset;
  std::uint64_t intentLength;  // 0: no record is being written
  char intentStart[32];        // the first bytes of that record
};

namespace {

constexpr char kMagic[8] = "VEKLOCK";
constexpr std::uint32_t kVersion = 3;
constexpr std::size_t kPageBytes = 4096;
static_assert(sizeof(AppendLockPage) <= kPageBytes);
constexpr int kAttempts = 100;                 // against files that others switch, move or remove meanwhile
constexpr unsigned kStuckWaitMs = 20;          // once a wait of full length was in vain
constexpr unsigned kSettleWaitMs = 200;        // for others to lay a damaged page out; a record takes microseconds
constexpr std::uint32_t kRecordsPerLook = 16;  // of a process, between two looks at owner and mode of the file
constexpr int kSpins = 100;                    // a record is written in a few microseconds: sleeping costs more
constexpr char kUnfinished[] = "\r\nThe record above is incomplete: its writer ended while it wrote.\r\n";

using LockPath = char[PATH_BYTES + APPEND_NAME_BYTES + 32];

void lockPath(const AppendFile& file, LockPath& path) noexcept {
  ossSnprintf(path, sizeof path, "%s.%s%s", file.directory, file.name, file.isSeries ? ".rotate.lck" : ".lck");
}

void seriesPath(const AppendFile& file, std::uint64_t number, char* path, std::size_t bytes) noexcept {
  ossSnprintf(path, bytes, "%s%s.%llu.log", file.directory, file.name, static_cast<unsigned long long>(number));
}

void currentPath(const AppendFile& file, char* path, std::size_t bytes) noexcept {
  if (file.isSeries) return seriesPath(file, file.page->number.load(std::memory_order_relaxed), path, bytes);
  const std::size_t length = ::strlen(file.directory);
  ::memcpy(path, file.directory, length);
  ::memcpy(path + length, file.name, ::strlen(file.name) + 1);  // every caller has room for both fields
}

bool isTrusted(const struct stat& status) noexcept {
  return S_ISREG(status.st_mode) && status.st_uid == ossUserId() && (status.st_mode & 022) == 0;
}

int openLog(const char* path, int more, int* fdOut) noexcept {
  return ossOpen(path, O_WRONLY | O_APPEND | O_NONBLOCK | O_NOCTTY | more, 0600, fdOut);  // NONBLOCK: it may be a FIFO
}

void closeLog(AppendFile& file) noexcept {
  ossClose(file.openFd);
  file.openFd = -1;
}

// ---- the lock file ----------------------------------------------------------------------------------------------

bool isSound(const AppendLockPage& page) noexcept {
  char bootId[sizeof page.bootId];
  ossBootId(bootId, sizeof bootId);
  return page.ready.load(std::memory_order_acquire) == 1 && ::memcmp(page.magic, kMagic, sizeof kMagic) == 0 &&
         page.version == kVersion && page.bytes == sizeof(AppendLockPage) &&
         ::memcmp(page.bootId, bootId, sizeof bootId) == 0;
}

// Of another version of this library, which uses it.
bool isOfAnotherLayout(const AppendLockPage& page) noexcept {
  return ::memcmp(page.magic, kMagic, sizeof kMagic) == 0 &&
         (page.version != kVersion || page.bytes != sizeof(AppendLockPage));
}

// Whether the page is still the one that was mapped, and not cut, damaged or laid out anew since.
bool isCurrent(const AppendFile& file) noexcept {
  return file.page->ready.load(std::memory_order_acquire) == 1 &&
         file.page->generation.load(std::memory_order_relaxed) == file.generation;
}

int initialiseMutex(pthread_mutex_t* mutex) noexcept {
  pthread_mutexattr_t attributes;
  ::pthread_mutexattr_init(&attributes);
  ::pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
  ::pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
  const int error = ::pthread_mutex_init(mutex, &attributes);
  ::pthread_mutexattr_destroy(&attributes);
  return error;
}

struct Numbers {
  const char* name;
  std::size_t length;
  std::uint64_t highest;
};

void noteNumber(void* context, const char* entry) noexcept {
  auto& numbers = *static_cast<Numbers*>(context);
  if (::strncmp(entry, numbers.name, numbers.length) != 0 || entry[numbers.length] != '.') return;
  const char* digits = entry + numbers.length + 1;
  std::uint64_t number = 0;
  const auto parsed = std::from_chars(digits, digits + ::strlen(digits), number);
  if (parsed.ec == std::errc() && ::strcmp(parsed.ptr, ".log") == 0 && number > numbers.highest)
    numbers.highest = number;
}

// The highest number of a series in its directory, 0 when there is none.
std::uint64_t highestNumber(const AppendFile& file) noexcept {
  Numbers numbers = {file.name, ::strlen(file.name), 0};
  (void)ossVisitDirectory(file.directory, noteNumber, &numbers);
  return numbers.highest;
}

// Waits for whoever writes under a flock on the file itself, having looked for this lock file before it existed.
int waitForUnlockedWriters(const AppendFile& file) noexcept {
  if (file.isSeries) return 0;  // never written without a lock file
  LockPath path;
  currentPath(file, path, sizeof path);
  int fd = -1;
  const int missing = openLog(path, 0, &fd);
  if (missing != 0) return 0;
  const int error = ossLockFile(fd, LOCK_EX, APPEND_WAIT_MS);
  ossClose(fd);
  return error == EWOULDBLOCK ? ETIMEDOUT : error;
}

// Lays the page out. Nobody else does.
int initialise(AppendFile& file) noexcept {
  auto* page = new (static_cast<void*>(file.page)) AppendLockPage{};
  ::memcpy(page->magic, kMagic, sizeof kMagic);
  page->version = kVersion;
  page->bytes = sizeof(AppendLockPage);
  ossBootId(page->bootId, sizeof page->bootId);
  page->generation.store(static_cast<std::uint64_t>(ossMonotonicNs()) | 1, std::memory_order_relaxed);
  int error = initialiseMutex(&page->mutex);
  if (error == 0 && file.isSeries) page->number.store(highestNumber(file), std::memory_order_relaxed);
  if (error == 0) error = waitForUnlockedWriters(file);
  if (error == 0) page->ready.store(1, std::memory_order_release);
  return error;
}

// Maps the page of an opened lock file that has its blocks.
int mapPage(AppendFile& file, const struct stat& status) noexcept {
  if (file.page != nullptr) return 0;
  void* mapped = ossCalls().mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED, file.lockFd, 0);
  if (mapped == MAP_FAILED) return errno;
  file.page = static_cast<AppendLockPage*>(mapped);
  file.lockDevice = status.st_dev;
  file.lockInode = status.st_ino;
  return 0;
}

// Gives the lock file its blocks by writing them, so that no later touch of the page needs the disk. One that does not
// get them is removed: writers without a lock file look whether there is one.
int allocatePage(const AppendFile& file, const struct stat& status) noexcept {
  const auto bytes = static_cast<std::uint64_t>(status.st_size);
  if (bytes >= kPageBytes) return 0;
  static constexpr char kZeros[kPageBytes] = {};
  const int error = ossWriteAt(file.lockFd, kZeros + bytes, kPageBytes - bytes, bytes);
  if (error == 0) return 0;
  if (error == EFBIG) ossTakeSignal(SIGXFSZ);
  LockPath path;
  lockPath(file, path);
  ossCalls().unlink(path);
  return error;
}

int inspectLockFile(const AppendFile& file, struct stat* status) noexcept {
  if (ossCalls().fstat(file.lockFd, status) != 0) return errno;
  if (status->st_nlink == 0) return ESTALE;
  return isTrusted(*status) && (status->st_mode & 077) == 0 ? 0 : EPERM;
}

// With the exclusive flock: nobody else uses the page.
int settleAlone(AppendFile& file) noexcept {
  struct stat status;
  int error = inspectLockFile(file, &status);
  if (error == 0) error = allocatePage(file, status);
  if (error == 0) error = mapPage(file, status);
  if (error == 0 && !isSound(*file.page)) error = initialise(file);
  return error == 0 ? ossLockFile(file.lockFd, LOCK_SH, 0) : error;
}

// With a shared flock. EAGAIN: the page must be laid out first.
int settleAmongOthers(AppendFile& file) noexcept {
  struct stat status;
  int error = inspectLockFile(file, &status);
  if (error == 0 && static_cast<std::uint64_t>(status.st_size) < kPageBytes) error = EAGAIN;
  if (error == 0) error = mapPage(file, status);
  return error == 0 && !isSound(*file.page) ? EAGAIN : error;
}

int layOutAmongOthers(AppendFile& file) noexcept {
  struct stat status;
  int error = settleAmongOthers(file);
  if (error != EAGAIN) return error;  // somebody else has done it
  error = inspectLockFile(file, &status);
  if (error == 0) error = allocatePage(file, status);
  if (error == 0) error = mapPage(file, status);
  if (error == 0 && isOfAnotherLayout(*file.page)) return EBUSY;
  return error == 0 ? initialise(file) : error;
}

// Lays out a damaged page whose users do not give up their shared flock: most of all those that never log again. They
// find another generation when they look next; one that stands still in the middle of a record looks before it writes.
// Those who do this exclude each other by a flock on the directory, and hold a shared one on the lock file, so that
// nobody is alone with it meanwhile.
int takeOver(AppendFile& file) noexcept {
  int directory = -1;
  int error = ossOpen(file.directory, O_RDONLY | O_DIRECTORY, 0, &directory);
  if (error == 0) error = ossLockFile(directory, LOCK_EX, APPEND_WAIT_MS);
  if (error == 0) error = layOutAmongOthers(file);
  ossClose(directory);
  return error == EWOULDBLOCK ? ETIMEDOUT : error;
}

// Gets the page into a sound state and a shared flock on its file.
int settle(AppendFile& file) noexcept {
  const std::int64_t deadline = ossMonotonicNs() + kSettleWaitMs * 1'000'000LL;
  for (;;) {
    int error = ossLockFile(file.lockFd, LOCK_EX, 0);
    if (error == 0) return settleAlone(file);
    if (error != EWOULDBLOCK) return error;
    error = ossLockFile(file.lockFd, LOCK_SH, 0);
    if (error == 0) error = settleAmongOthers(file);
    if (error != EAGAIN) return error;
    if (ossMonotonicNs() >= deadline) return takeOver(file);
    ossUnlockFile(file.lockFd);
    ossSleepMs(1);
  }
}

int mapLockFile(AppendFile& file) noexcept {
  LockPath path;
  lockPath(file, path);
  file.lockFd = -1;
  int error = ossOpen(path, O_RDWR | O_CREAT | O_NONBLOCK | O_NOCTTY, 0600, &file.lockFd);
  if (error != 0) return error;
  error = settle(file);
  if (error == 0)
    file.generation = file.page->generation.load(std::memory_order_relaxed);
  else
    appendForget(file);
  return error;
}

// Errors that say that no lock file can be made here; an existing one that cannot be used is another matter.
bool canHaveNone(int error) noexcept {
  return error == EROFS || error == EACCES || error == ENOSPC || error == EDQUOT || error == ENODEV || error == ENOLCK;
}

// Whether the mapped page is still that of the lock file in the directory. The descriptor may have been closed by
// somebody who closes all of them, and stand for another file now.
bool isLinked(const AppendFile& file) noexcept {
  struct stat status;
  return ossCalls().fstat(file.lockFd, &status) == 0 && status.st_dev == file.lockDevice &&
         status.st_ino == file.lockInode && status.st_nlink > 0;
}

bool isNamed(const AppendFile& file) noexcept {
  LockPath path;
  lockPath(file, path);
  struct stat status;
  return ossCalls().stat(path, &status) == 0 && status.st_dev == file.lockDevice && status.st_ino == file.lockInode;
}

// ---- the mutex --------------------------------------------------------------------------------------------------

void pauseBriefly() noexcept {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  __asm__ volatile("yield");
#endif
}

int spin(pthread_mutex_t* mutex) noexcept {
  int error = ::pthread_mutex_trylock(mutex);
  for (int turn = 0; error == EBUSY && turn < kSpins; ++turn) {
    for (int pause = 0; pause < 16; ++pause) pauseBriefly();
    error = ::pthread_mutex_trylock(mutex);
  }
  return error;
}

// Waits for the mutex until a moment of the monotonic clock.
int lockUntil(pthread_mutex_t* mutex, const timespec& until) noexcept {
#if defined(__SANITIZE_THREAD__)  // which takes a mutex that was got by pthread_mutex_clocklock for a free one
  const std::int64_t deadline = until.tv_sec * 1'000'000'000LL + until.tv_nsec;
  int error = ::pthread_mutex_trylock(mutex);
  for (; error == EBUSY && ossMonotonicNs() < deadline; error = ::pthread_mutex_trylock(mutex)) ossSleepMs(1);
  return error == EBUSY ? ETIMEDOUT : error;
#else
  return ::pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
#endif
}

// 0, EOWNERDEAD (it is held then, too), or ETIMEDOUT. `hasWaited`: long enough for files to come and go.
int takeMutex(AppendFile& file, bool* hasWaited) noexcept {
  int error = spin(&file.page->mutex);
  *hasWaited = error == EBUSY;
  if (error == EBUSY) {
    timespec until;
    ::clock_gettime(CLOCK_MONOTONIC, &until);
    const long wait = static_cast<long>(file.wasStuck ? kStuckWaitMs : APPEND_WAIT_MS);
    until.tv_sec += wait / 1000;
    until.tv_nsec += wait % 1000 * 1'000'000;
    if (until.tv_nsec >= 1'000'000'000) {
      until.tv_nsec -= 1'000'000'000;
      ++until.tv_sec;
    }
    error = lockUntil(&file.page->mutex, until);
  }
  file.wasStuck = error == ETIMEDOUT;
  return error;
}

// ---- writing ----------------------------------------------------------------------------------------------------

struct Log {
  int fd = -1;
  std::uint64_t bytes = 0;  // its size
  bool hasPart = false;     // half a record stands at its end and could not be cut off
};

int failWith(AppendOutcome* outcome, const char* what, int error) noexcept {
  outcome->failed = what;
  return error;
}

// Tells a text where it will stand.
void stampText(const Log& log, const AppendText& text) noexcept {
  if (text.stamp != nullptr) text.stamp(text.bytes, log.bytes, text.length);
}

// Writes at the end of the file, or leaves it as it was.
int writeWhole(Log& log, const AppendText& text) noexcept {
  const int error = ossWriteAll(log.fd, text.bytes, text.length);
  if (error == 0) {
    log.bytes += text.length;
    return 0;
  }
  if (error == EFBIG) ossTakeSignal(SIGXFSZ);
  log.hasPart = ossTruncate(log.fd, log.bytes) != 0;
  return error;
}

int writeStamped(Log& log, const AppendText& text) noexcept {
  stampText(log, text);
  return writeWhole(log, text);
}

int writeNoted(const AppendFile& file, Log& log, const AppendText& text) noexcept {
  AppendLockPage& page = *file.page;
  if (!isCurrent(file)) return ESTALE;  // this thread stood still for long, and the mutex is worth nothing any more
  stampText(log, text);
  page.intentOffset = log.bytes;
  ::memcpy(page.intentStart, text.bytes, text.length < sizeof page.intentStart ? text.length : sizeof page.intentStart);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  *const_cast<volatile std::uint64_t*>(&page.intentLength) = text.length;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  const int error = writeWhole(log, text);
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (!log.hasPart) *const_cast<volatile std::uint64_t*>(&page.intentLength) = 0;
  return error;
}

// Says behind half a record that it is one.
void markUnfinished(Log& log) noexcept {
  if (ossWriteAll(log.fd, kUnfinished, sizeof kUnfinished - 1) == 0) log.bytes += sizeof kUnfinished - 1;
}

// Reads from the file that is open for writing only.
int readFrom(const char* path, char* bytes, std::size_t most, std::uint64_t offset, std::size_t* count) noexcept {
  int fd = -1;
  int error = ossOpen(path, O_RDONLY | O_NONBLOCK, 0, &fd);
  if (error == 0) error = ossReadAt(fd, bytes, most, offset, count);
  ossClose(fd);
  return error;
}

// One that cannot be read is believed to.
bool endsInLine(const char* path, std::uint64_t bytes) noexcept {
  if (bytes == 0) return true;
  char end[2] = {};
  std::size_t count = 0;
  if (bytes < sizeof end) return false;
  return readFrom(path, end, sizeof end, bytes - sizeof end, &count) != 0 ||
         (count == sizeof end && end[0] == '\r' && end[1] == '\n');
}

// Whether the noted record is what stands at the noted offset, and not the text of another file that came in its place.
bool beginsAsNoted(const AppendLockPage& page, const Log& log, const char* path) noexcept {
  char start[sizeof page.intentStart];
  const std::uint64_t written = log.bytes - page.intentOffset;
  const std::size_t most = written < sizeof start ? static_cast<std::size_t>(written) : sizeof start;
  std::size_t count = 0;
  return readFrom(path, start, most, page.intentOffset, &count) == 0 && count == most &&
         ::memcmp(start, page.intentStart, most) == 0;
}

// What a dead owner left, or one that could not cut off its own half. Size at the noted offset: it wrote nothing. At
// its end or past it: all of it.
void repairFrom(AppendLockPage& page, Log& log, AppendOutcome* outcome) noexcept {
  if (log.bytes > page.intentOffset && log.bytes < page.intentOffset + page.intentLength) {
    const bool isNoted = beginsAsNoted(page, log, outcome->path);
    if (isNoted && ossTruncate(log.fd, page.intentOffset) == 0)
      log.bytes = page.intentOffset;
    else if (isNoted || !endsInLine(outcome->path, log.bytes))
      markUnfinished(log);
    outcome->repaired = true;
  }
  page.intentLength = 0;
}

// A file that no record is known of: who wrote it last may have left half of one.
void repairUnknown(Log& log, AppendOutcome* outcome) noexcept {
  if (endsInLine(outcome->path, log.bytes)) return;
  markUnfinished(log);
  outcome->repaired = true;
}

// ---- series -----------------------------------------------------------------------------------------------------

// Removes what is older than the files kept.
void removeOld(const AppendFile& file, std::uint64_t number, std::uint64_t filesKept) noexcept {
  char path[sizeof(LockPath)];
  for (std::uint64_t old = number - (number >= filesKept ? filesKept : number); number >= filesKept; --old) {
    seriesPath(file, old, path, sizeof path);
    if (ossCalls().unlink(path) != 0 || old == 0) return;
  }
}

// The lock on the directory of rotating files, held while files come and go in it.
int lockDirectory(const AppendFile& file, int* fdOut) noexcept {
  char path[sizeof(LockPath)];
  ossSnprintf(path, sizeof path, "%s.rotate.lck", file.directory);
  const int error = ossOpen(path, O_RDWR | O_CREAT | O_NONBLOCK | O_NOCTTY, 0600, fdOut);
  return error != 0 ? error : ossLockFile(*fdOut, LOCK_EX, APPEND_WAIT_MS);
}

// Begins the next file. One of that number that is there was begun by somebody who died before publishing it.
int beginNext(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome) noexcept {
  AppendLockPage& page = *file.page;
  const std::uint64_t number = page.number.load(std::memory_order_relaxed) + 1;
  seriesPath(file, number, outcome->path, sizeof outcome->path);
  Log log;
  int error = openLog(outcome->path, O_CREAT, &log.fd);
  if (error == 0) error = ossTruncate(log.fd, 0);
  if (error == 0 && plan.firstText != nullptr) error = writeStamped(log, plan.firstText());
  ossClose(log.fd);
  if (error != 0) {
    if (log.fd >= 0) ossCalls().unlink(outcome->path);
    return error;
  }
  page.number.store(number, std::memory_order_relaxed);
  page.moves.fetch_add(1, std::memory_order_release);
  removeOld(file, number, plan.filesKept);
  outcome->switchedFile = true;
  (void)ossFreeBytes(file.directory, &outcome->freeBytes);
  return 0;
}

int switchFile(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome) noexcept {
  int directory = -1;
  int error = lockDirectory(file, &directory);
  if (error == 0) error = beginNext(file, plan, outcome);
  ossClose(directory);
  return error;
}

// ---- one attempt under the lock ---------------------------------------------------------------------------------

enum class Step { kDone, kAgain };

// Looks at the opened file. kAgain: another one goes by its name now.
Step inspect(Log& log, struct stat* status, AppendOutcome* outcome, int* error) noexcept {
  *error = ossCalls().fstat(log.fd, status) == 0 ? 0 : failWith(outcome, "fstat", errno);
  log.bytes = static_cast<std::uint64_t>(status->st_size);
  return *error == 0 && status->st_nlink == 0 ? Step::kAgain : Step::kDone;
}

int appendTexts(const AppendFile& file, Log& log, const AppendPlan& plan, AppendOutcome* outcome) noexcept {
  int error = 0;
  if (log.bytes == 0 && plan.firstText != nullptr) error = writeNoted(file, log, plan.firstText());
  outcome->offset = log.bytes;
  if (error == 0) error = writeNoted(file, log, plan.text);
  file.page->end = log.bytes;
  return error == 0 ? 0 : failWith(outcome, "write", error);
}

// Whether the file ends where the last record did. One that does is taken for the one that the page knows: it was
// opened by its name a moment ago, and what its size is says the one thing about it that a record tells. Asking for no
// more is half as dear, and the most of what a record costs besides the write. Every now and then more is asked for.
bool endsAsKnown(AppendFile& file, Log& log) noexcept {
  const AppendLockPage& page = *file.page;
  if (page.intentLength != 0 || page.end == 0 || file.recordsToLook == 0) return false;
  --file.recordsToLook;
  const off_t end = ossCalls().lseek(log.fd, 0, SEEK_END);
  if (end < 0 || static_cast<std::uint64_t>(end) != page.end) return false;
  log.bytes = page.end;
  return true;
}

bool isSameFile(const AppendLockPage& page, const struct stat& status) noexcept {
  return page.device == status.st_dev && page.inode == status.st_ino;
}

// Whether the file is the one that the last record went to, and ends where that ended.
bool isKnown(const AppendLockPage& page, const struct stat& status) noexcept {
  return isSameFile(page, status) && page.end == static_cast<std::uint64_t>(status.st_size);
}

// Makes sure of the file. One that the page does not know as it is was moved, cut or made anew, its writer died, or the
// whole directory was exchanged. Then the lock file went with it, and another one counts now. An inode number alone
// says little: that of a removed file is soon used again.
Step meet(AppendFile& file, Log& log, struct stat* status, AppendOutcome* outcome, int* error) noexcept {
  if (inspect(log, status, outcome, error) == Step::kAgain) return Step::kAgain;
  if (*error != 0) return Step::kDone;
  if (!isKnown(*file.page, *status) && !(isLinked(file) && isNamed(file))) return Step::kAgain;
  if (!isTrusted(*status)) *error = failWith(outcome, "open", EPERM);
  return Step::kDone;
}

// Puts a file in order that was left half-written. The intent counts whatever file it was noted for: one of the same
// size may have come in its place before it was noted.
void adopt(AppendFile& file, Log& log, const struct stat& status, AppendOutcome* outcome) noexcept {
  AppendLockPage& page = *file.page;
  if (page.intentLength != 0)
    repairFrom(page, log, outcome);
  else if (!isSameFile(page, status))
    repairUnknown(log, outcome);
  page.device = status.st_dev;
  page.inode = status.st_ino;
  file.recordsToLook = kRecordsPerLook - 1;
}

// Whether the file may be appended to, in which case `log` tells its size.
Step prepare(AppendFile& file, Log& log, bool hasWaited, AppendOutcome* outcome, int* error) noexcept {
  if (!hasWaited && endsAsKnown(file, log)) return Step::kDone;
  struct stat status = {};
  const Step step = meet(file, log, &status, outcome, error);
  if (step == Step::kDone && *error == 0) adopt(file, log, status, outcome);
  return step;
}

Step appendLocked(AppendFile& file, Log& log, std::uint64_t moves, bool hasWaited, const AppendPlan& plan,
                  AppendOutcome* outcome, int* error) noexcept {
  if (file.page->moves.load(std::memory_order_relaxed) != moves) return Step::kAgain;
  if (prepare(file, log, hasWaited, outcome, error) == Step::kAgain) return Step::kAgain;
  if (*error != 0) return Step::kDone;
  if (file.isSeries && !outcome->switchedFile && log.bytes != 0 && log.bytes + plan.text.length > plan.fileBytes) {
    *error = switchFile(file, plan, outcome);
    if (*error == 0) return Step::kAgain;
    failWith(outcome, "switch", *error);
    return Step::kDone;
  }
  *error = appendTexts(file, log, plan, outcome);
  return Step::kDone;
}

// Opens the current file. kAgain: another one became current meanwhile.
Step openCurrent(AppendFile& file, std::uint64_t moves, AppendOutcome* outcome, int* error) noexcept {
  currentPath(file, outcome->path, sizeof outcome->path);
  *error = openLog(outcome->path, 0, &file.openFd);
  if (*error == ENOENT) {  // the first record, or a file that has been switched away and removed
    if (file.page->moves.load(std::memory_order_acquire) != moves) return Step::kAgain;
    *error = openLog(outcome->path, O_CREAT, &file.openFd);
  }
  if (*error != 0) failWith(outcome, "open", *error);
  return Step::kDone;
}

// After an attempt with a page that has been laid out anew meanwhile, perhaps with its mutex held: the record is tried
// again unless it was written.
Step leaveOldPage(AppendFile& file, Step step, int error) noexcept {
  appendAbandon(file);
  return error == ESTALE ? Step::kAgain : step;
}

// One attempt with the mutex: open, lock, append.
Step attempt(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome, int* error) noexcept {
  const std::uint64_t moves = file.page->moves.load(std::memory_order_acquire);
  Step step = openCurrent(file, moves, outcome, error);
  if (step == Step::kAgain || *error != 0) return step;
  if (!isCurrent(file)) {
    appendForget(file);
    return Step::kAgain;
  }
  bool hasWaited = false;
  const int taken = takeMutex(file, &hasWaited);
  if (taken != 0 && taken != EOWNERDEAD) {
    *error = failWith(outcome, "lock", taken);
    return Step::kDone;
  }
  if (taken == EOWNERDEAD) ::pthread_mutex_consistent(&file.page->mutex);  // the intent says what is to be repaired
  Log log = {.fd = file.openFd};
  step = appendLocked(file, log, moves, hasWaited, plan, outcome, error);
  if (!isCurrent(file)) return leaveOldPage(file, step, *error);
  const bool stale = step == Step::kAgain && !(isLinked(file) && isNamed(file));
  ::pthread_mutex_unlock(&file.page->mutex);
  if (stale) appendForget(file);
  return step;
}

// With the flock on the file that stands in for the mutex.
Step appendUnmapped(const AppendFile& file, Log& log, const AppendPlan& plan, AppendOutcome* outcome,
                    int* error) noexcept {
  LockPath path;
  lockPath(file, path);
  struct stat status = {};
  if (ossCalls().stat(path, &status) == 0) return Step::kAgain;
  if (inspect(log, &status, outcome, error) == Step::kAgain) return Step::kAgain;
  if (*error == 0 && !isTrusted(status)) *error = failWith(outcome, "open", EPERM);
  if (*error != 0) return Step::kDone;
  if (!endsInLine(outcome->path, log.bytes)) markUnfinished(log);
  if (log.bytes == 0 && plan.firstText != nullptr) *error = writeStamped(log, plan.firstText());
  outcome->offset = log.bytes;
  if (*error == 0) *error = writeStamped(log, plan.text);
  if (*error != 0) failWith(outcome, "write", *error);
  return Step::kDone;
}

// One attempt without a lock file.
Step attemptUnmapped(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome, int* error) noexcept {
  currentPath(file, outcome->path, sizeof outcome->path);
  *error = openLog(outcome->path, O_CREAT, &file.openFd);
  if (*error != 0) {
    failWith(outcome, "open", *error);
    return Step::kDone;
  }
  *error = ossLockFile(file.openFd, LOCK_EX, APPEND_WAIT_MS);
  if (*error != 0) {
    *error = failWith(outcome, "lock", *error == EWOULDBLOCK ? ETIMEDOUT : *error);
    return Step::kDone;
  }
  Log log = {.fd = file.openFd};
  return appendUnmapped(file, log, plan, outcome, error);
}

Step attemptOnce(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome, int* error) noexcept {
  if (file.page != nullptr) return attempt(file, plan, outcome, error);
  *error = mapLockFile(file);
  if (*error == 0) return attempt(file, plan, outcome, error);
  if (*error == ESTALE) return Step::kAgain;
  if (canHaveNone(*error) && !file.isSeries) return attemptUnmapped(file, plan, outcome, error);
  lockPath(file, outcome->path);
  failWith(outcome, "lock file", *error);
  return Step::kDone;
}

}  // namespace

void appendPrepare(AppendFile& file, const char* directory, const char* name, bool isSeries) noexcept {
  ossCopyText(file.directory, sizeof file.directory, directory);
  ossCopyText(file.name, sizeof file.name, name);
  file.isSeries = isSeries;
  file.page = nullptr;
  file.lockFd = -1;
  file.openFd = -1;
  file.wasStuck = false;
  file.recordsToLook = 0;
}

namespace {

// The descriptor may have been closed by somebody who closes all of them, and stand for another file now.
void closeLockFile(AppendFile& file) noexcept {
  struct stat status;
  const bool isOurs = file.page == nullptr || (ossCalls().fstat(file.lockFd, &status) == 0 &&
                                               status.st_dev == file.lockDevice && status.st_ino == file.lockInode);
  if (isOurs) ossClose(file.lockFd);
  file.lockFd = -1;
}

}  // namespace

int appendToFile(AppendFile& file, const AppendPlan& plan, AppendOutcome* outcome) noexcept {
  outcome->offset = 0;
  outcome->failed = nullptr;
  outcome->switchedFile = false;
  outcome->repaired = false;
  outcome->freeBytes = APPEND_NO_LIMIT;
  outcome->path[0] = '\0';
  for (int turn = 0; turn < kAttempts; ++turn) {
    int error = 0;
    const Step step = attemptOnce(file, plan, outcome, &error);
    closeLog(file);
    if (step == Step::kDone) return error;
  }
  return failWith(outcome, "open", ESTALE);
}

void appendForget(AppendFile& file) noexcept {
  if (file.page != nullptr) ossCalls().munmap(file.page, kPageBytes);
  closeLockFile(file);
  file.page = nullptr;
}

void appendAbandon(AppendFile& file) noexcept {
  if (file.page != nullptr)
    (void)ossCalls().mmap(file.page, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1,
                          0);
  closeLockFile(file);  // and with it the shared flock, which would keep others from laying the page out anew
  file.page = nullptr;
  closeLog(file);
}

}  // namespace vek
