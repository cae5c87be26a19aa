// The system log: messages to the local syslog daemon.
//
// Sent straight to its socket, one datagram each: the C library's own interface shares one identity and one descriptor
// with the program the library is loaded into.
#pragma once

#include <cstddef>

namespace vek {

inline constexpr char SYSTEM_LOG_SOCKET[] = "/dev/log";

// Sends one message as it stands ("<PRI>Mmm dd hh:mm:ss tag[pid]: text"). Never waits: a daemon that does not keep up
// answers EAGAIN. 0 or an errno value.
int systemLogSend(const char* message, std::size_t bytes) noexcept;

}  // namespace vek
