// Output into a file of a given name.
#pragma once

#include <string>

#include "output.h"

namespace veksys {

class FileOutput {
 public:
  explicit FileOutput(const std::string& path);  // "-" is standard output; throws Failure when it cannot be opened
  ~FileOutput();
  FileOutput(const FileOutput&) = delete;
  FileOutput& operator=(const FileOutput&) = delete;

  Output& out() noexcept { return out_; }
  void flush();            // counts what it writes
  std::uint64_t finish();  // answers the bytes written

 private:
  int fd_;
  Output out_;
  std::uint64_t bytes_ = 0;
};

}  // namespace veksys
