// The peer's calls, each a function of its own file so that none is inlined into a measured loop.
#include "lttng_provider.h"
#include "peer.h"

namespace bench {

const char* peerMissing() noexcept {
  if (lttng_ust_tracepoint_enabled(veksys_bench, empty) && lttng_ust_tracepoint_enabled(veksys_bench, two))
    return nullptr;
  return "no lttng session has its events enabled (bench/run-trace makes one)";
}

void peerEmpty() noexcept { lttng_ust_tracepoint(veksys_bench, empty); }
void peerTwo(std::int64_t number, const char* text) noexcept { lttng_ust_tracepoint(veksys_bench, two, number, text); }
void peerOff() noexcept { lttng_ust_tracepoint(veksys_bench, off); }

}  // namespace bench
