// Loggers beside which the diagnostic log is measured; each writes to a file of its own in `directory` and keeps it
// open, flushed after each record. One that was not there at build writes nothing and says so.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

void openLogPeers(const std::string& directory);
bool hasLogPeer(std::size_t which);  // 0 spdlog, 1 glog
void writeSpdlog(std::uint64_t number);
void writeGlog(std::uint64_t number);

}  // namespace bench
