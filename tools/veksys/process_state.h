// Whether processes of this machine run, as the kernel tells.
#pragma once

#include <cstdint>

namespace veksys {

// True when a thread does not run because somebody stopped it (signal, debugger). The first thread of a process has the
// number of the process.
bool isThreadStopped(std::uint32_t process, std::uint32_t thread);

}  // namespace veksys
