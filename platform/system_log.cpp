#include "platform/system_log.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>

#include "platform/osse.h"

namespace vek {

int systemLogSend(const char* message, std::size_t bytes) noexcept {
  const OssUncancelled here;
  const int fd = ossAboveStandard(ossCalls().socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (fd < 0) return errno;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  static_assert(sizeof SYSTEM_LOG_SOCKET <= sizeof address.sun_path);
  std::memcpy(address.sun_path, SYSTEM_LOG_SOCKET, sizeof SYSTEM_LOG_SOCKET);
  ssize_t sent = 0;
  do {
    sent = ossCalls().sendto(fd, message, bytes, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
                             sizeof address);
  } while (sent < 0 && errno == EINTR);
  const int error = sent < 0 ? errno : 0;
  ossClose(fd);
  return error;
}

}  // namespace vek
