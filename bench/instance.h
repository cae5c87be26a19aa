// An instance for one benchmark alone, with a trace; removed with all that belongs to it.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <system_error>

#include "veksys/diag/trace_control.h"

namespace bench {

class Instance {
 public:
  // With a trace of so many bytes.
  explicit Instance(std::uint64_t bytes = SQLT_TRACE_SIZE_DEFAULT) {
    const std::string name = "bench." + std::to_string(::getpid());
    ::setenv("VEKINSTANCE", name.c_str(), 1);
    created_ = sqltTraceFacilityCreate(bytes) == 0;
  }
  ~Instance() {
    SqltSharedIPCInfo info;
    if (sqltTrcSharedIPCInfo(&info) != 0) return;
    sqltTraceFacilityDelete();
    std::error_code ignored;
    const std::string trace = info.path;
    std::filesystem::remove(trace.substr(0, trace.rfind(':')), ignored);  // the region
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  // False: there is no shared memory for a trace; nothing of the instance is shared then.
  bool created() const { return created_; }

 private:
  bool created_;
};

}  // namespace bench
