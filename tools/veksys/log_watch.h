// Waiting until something happens to files in some directories.
#pragma once

#include <string>
#include <vector>

namespace veksys {

// Told by the kernel where it can; it looks every quarter of a second besides, since not every file system tells.
class LogWatch {
 public:
  LogWatch();
  ~LogWatch();
  LogWatch(const LogWatch&) = delete;
  LogWatch& operator=(const LogWatch&) = delete;

  // Adds a directory; one that is watched already, or cannot be, is no mistake.
  void add(const std::string& directory);

  // Waits for a change or the time to look by oneself. Throws OutputClosed when the reader of standard output has gone.
  void wait();

 private:
  int fd_;
  std::vector<std::string> directories_;
};

}  // namespace veksys
