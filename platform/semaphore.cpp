#include "platform/semaphore.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <string_view>

#include "platform/osse.h"

namespace vek {
namespace {

// Where the C library keeps named semaphores, and what it puts before their names.
constexpr char kDirectory[] = "/dev/shm";
constexpr char kBefore[] = "sem.";
constexpr std::size_t kBeforeLength = sizeof kBefore - 1;

static_assert(sizeof(sem_t) <= sizeof(OssSemaphore));
static_assert(alignof(sem_t) <= alignof(OssSemaphore));

sem_t* real(OssSemaphore* semaphore) noexcept { return reinterpret_cast<sem_t*>(semaphore); }

// Whether the file behind a named semaphore, where it is there, is one of ours.
bool isOurs(const char* name) noexcept {
  char path[280];
  ossSnprintf(path, sizeof path, "%s/%s%s", kDirectory, kBefore, name + 1);
  struct stat status;
  if (ossCalls().lstat(path, &status) != 0) return errno == ENOENT;
  return S_ISREG(status.st_mode) && status.st_uid == ossUserId() && (status.st_mode & 077) == 0;
}

}  // namespace

int ossOpenSemaphore(const char* name, OssSemaphore** out) noexcept {
  if (!isOurs(name)) return EPERM;
  sem_t* opened = ::sem_open(name, O_CREAT, 0600, 0);
  if (opened == SEM_FAILED) return errno;
  if (!isOurs(name)) {  // somebody was quicker
    ::sem_close(opened);
    return EPERM;
  }
  *out = reinterpret_cast<OssSemaphore*>(opened);
  return 0;
}

void ossCloseSemaphore(OssSemaphore* semaphore) noexcept { ::sem_close(real(semaphore)); }
void ossRemoveSemaphore(const char* name) noexcept { ::sem_unlink(name); }

void ossRemoveSemaphoresOf(const char* prefix) noexcept {
  DIR* directory = ::opendir(kDirectory);
  if (directory == nullptr) return;
  while (const dirent* entry = ::readdir(directory)) {
    if (!std::string_view(entry->d_name).starts_with(kBefore)) continue;
    const char* name = entry->d_name + kBeforeLength;
    if (std::string_view(name).starts_with(prefix + 1)) ::sem_unlink(name);
  }
  ::closedir(directory);
}
void ossInitSemaphore(OssSemaphore* semaphore) noexcept { ::sem_init(real(semaphore), 0, 0); }
void ossPostSemaphore(OssSemaphore* semaphore) noexcept { ::sem_post(real(semaphore)); }

bool ossWaitSemaphore(OssSemaphore* semaphore, unsigned milliseconds) noexcept {
  const ErrnoKept kept;
  if (::sem_trywait(real(semaphore)) == 0) return true;
  if (milliseconds == 0) return false;
  const int cancelState = ossDisableCancellation();
  const std::int64_t deadline = ossMonotonicNs() + std::int64_t{milliseconds} * 1'000'000;
  const timespec until = {deadline / 1'000'000'000, deadline % 1'000'000'000};
  int result = 0;
  do {
    result = ::sem_clockwait(real(semaphore), CLOCK_MONOTONIC, &until);
  } while (result != 0 && errno == EINTR);
  ossRestoreCancellation(cancelState);
  return result == 0;
}

}  // namespace vek
