// What tests of the log share: an instance of their own for a process, and a reader that believes nothing but the
// identifiers.
#pragma once

#include "platform/support.h"
#include "veksys/diag.h"

namespace vek::logtest {

using namespace platformtest;

inline constexpr EcfFunctionId kFunction = ecfFunctionId(0x04, 7);

// The records of a file, each without the empty line in front. Offsets and lengths must be those of the bytes and
// leave nothing over.
inline std::vector<std::string> recordsOf(const std::string& text) {
  std::vector<std::string> records;
  for (std::size_t at = 0; at < text.size();) {
    unsigned long long offset = 0;
    unsigned length = 0;
    char time[40];
    if (std::sscanf(text.substr(at, 100).c_str(), "\r\n%39s I%lluH%u", time, &offset, &length) != 3 ||
        offset != at + 2 || offset + length > text.size() || text.compare(offset + length - 2, 2, "\r\n") != 0) {
      ADD_FAILURE() << "no record at " << at << " of " << text.size() << ": " << text.substr(at, 200);
      return records;
    }
    records.push_back(text.substr(offset, length));
    at = offset + length;
  }
  return records;
}

inline std::size_t countOf(const std::vector<std::string>& records, const std::string& part) {
  std::size_t count = 0;
  for (const std::string& record : records) count += holds(record, part) ? 1U : 0U;
  return count;
}

// Where the log of an instance of these tests lies.
struct Log {
  const Instance& instance;

  std::string directory() const { return instance.directory() + "/instance/diag/"; }
  std::string path() const { return directory() + "vekdiag.log"; }
  std::vector<std::string> records() const { return recordsOf(contentOf(path())); }
};

inline SqlzZrc logText(const std::string& text, std::uint32_t level = PD_LEVEL_ERROR) {
  return pdLog(PD_LOG_RC_ZRC, kFunction, 0, 10, level, 1, PD_TYPE_STRING, static_cast<std::uint32_t>(text.size()),
               text.data());
}

}  // namespace vek::logtest
