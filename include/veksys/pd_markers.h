// Markers: named points of longer operations, which a log call can carry in place of a return code (PD_LOG_RC_MARKER).
#pragma once

#include <cstdint>

// Their numbers: what a call hands over in place of the return code.
enum PdMarker : std::int32_t {
#define PD_MARKER(number, name, text) name = number,
#include "veksys/pd_markers.def"
#undef PD_MARKER
};
