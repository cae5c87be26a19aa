// The performance-record hook, in a file of its own: no call of it is bound within the library, so that a program or a
// preloaded library can put its own in the place of this one.
#include "veksys/diag/trace.h"

void sqltPerformanceRecordHook(const SqltPerformanceRecord*) noexcept {}  // KEEP: does nothing, by contract
