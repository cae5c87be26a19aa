// Without lttng-ust at build.
#include "peer.h"

namespace bench {

const char* peerMissing() noexcept { return "built without lttng-ust (Debian: liblttng-ust-dev)"; }
void peerEmpty() noexcept {}
void peerTwo(std::int64_t, const char*) noexcept {}
void peerOff() noexcept {}

}  // namespace bench
