#include "process_state.h"

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <string_view>

namespace veksys {

bool isThreadStopped(std::uint32_t process, std::uint32_t thread) {
  const std::string path = "/proc/" + std::to_string(process) + "/task/" + std::to_string(thread) + "/stat";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char text[512];
  const ssize_t bytes = ::read(fd, text, sizeof text);
  ::close(fd);
  const std::string_view stat(text, bytes < 0 ? 0 : static_cast<std::size_t>(bytes));
  const std::size_t name = stat.rfind(')');  // the state stands two characters behind it
  return name + 2 < stat.size() && (stat[name + 2] == 'T' || stat[name + 2] == 't');
}

}  // namespace veksys
