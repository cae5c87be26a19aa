// The peer of the trace: lttng-ust, when the machine has it and a session has the bench's events enabled.
#pragma once

#include <cstdint>

namespace bench {

// Null when the peer records; else the reason why it does not, in words.
const char* peerMissing() noexcept;

// One event of the peer: without fields; with two fields of 8 and 32 bytes; one that no session has enabled.
void peerEmpty() noexcept;
void peerTwo(std::int64_t number, const char* text) noexcept;
void peerOff() noexcept;

}  // namespace bench
