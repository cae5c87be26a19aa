#include "log_watch.h"

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>

#include "failure.h"

namespace veksys {
namespace {

constexpr int kLookEveryMs = 250;
constexpr std::uint32_t kEvents = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE;

}  // namespace

LogWatch::LogWatch() : fd_(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

LogWatch::~LogWatch() {
  if (fd_ >= 0) ::close(fd_);
}

void LogWatch::add(const std::string& directory) {
  if (fd_ < 0 || std::find(directories_.begin(), directories_.end(), directory) != directories_.end()) return;
  if (::inotify_add_watch(fd_, directory.c_str(), kEvents) >= 0) directories_.push_back(directory);
}

void LogWatch::wait() {
  pollfd ready[] = {{STDOUT_FILENO, 0, 0}, {fd_, POLLIN, 0}};
  ::poll(ready, 2, kLookEveryMs);
  if ((ready[0].revents & (POLLERR | POLLHUP)) != 0) throw OutputClosed{};
  char events[4096];
  while (fd_ >= 0 && ::read(fd_, events, sizeof events) > 0) {  // what happened does not matter
  }
}

}  // namespace veksys
