// The trap file: what is known about a fault that happened inside a log call.
#pragma once

#include "diag/base/pdrecord.h"
#include "platform/fault.h"

namespace vek {

// Appends the fault to <directory><process>.<thread>.<partition>.trap.txt: when, which call, signal, address and call
// stack with build identifiers. Called with the log mutex held. 0, or an errno value: it could not be written.
int pdi_writeTrapFile(const char* directory, const PdRecordHeader& header, const Fault& fault) noexcept;

}  // namespace vek
