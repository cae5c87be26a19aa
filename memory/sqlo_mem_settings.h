// Settings of the memory floor.
#pragma once

namespace vek {

// A setting that is a yes or a no: 1, YES, TRUE, ON, Y and T say yes, 0, NO, FALSE, OFF, N and F no, in any case. Not
// set, or something else: the default. Never called under a latch.
bool sqloi_readBoolean(const char* name, bool byDefault) noexcept;

// True when a setting has a value that is not a no.
bool sqloi_isSettingOn(const char* name) noexcept;

}  // namespace vek
