// The attach step of trace points, and what the points share.
#pragma once

namespace vek {

// True when this process is attached to the instance's trace: attaches on the first call. False for good when
// VEK_SKIP_TRACE is set (read once per process), false until the next try when attaching fails. Neither logs nor reads
// a setting: it can happen under a latch.
bool sqlti_attachStep();

// The same for a trace point: once attaching has failed, most points do without it.
bool sqlti_attachAtPoint();

// True when VEK_SKIP_TRACE was present at the first look.
bool sqlti_traceIsSkipped() noexcept;

}  // namespace vek
