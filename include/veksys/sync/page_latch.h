// Tracking of page latches: which pages of the buffer pool the calling thread has latched, and how.
//
// A page latch belongs to a page, not to a class of structures, and a thread may hold many; they are noted in an array
// of the thread's own, found by the latch's address. The array is kept only when VEK_USE_PAGELATCH_TRACKING is on (YES,
// ON, TRUE or 1, in any case), which a process reads once; otherwise these calls do nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "veksys/export.h"

// Entries of a thread's array. Latches beyond are not noted, and counted.
inline constexpr std::uint32_t SQLO_PAGE_LATCH_ENTRIES = 256;

extern "C" {

// Notes that the calling thread has latched a page (`heldState`: what the caller calls the mode, not 0), that it has
// converted its latch to another mode, that it has unlatched it. A latch that is latched again while it is held counts
// as converted; converting or unlatching one that is not there does nothing.
VEK_EXPORT void sqlo_page_latch_latch_track_helper(const void* latch, std::int32_t heldState) noexcept;
VEK_EXPORT void sqlo_page_latch_latch_track_conv_helper(const void* latch, std::int32_t heldState) noexcept;
VEK_EXPORT void sqlo_page_latch_unlatch_track_helper(const void* latch) noexcept;

// The calling thread's array as text, headed "PAGE LATCH TRACKING ARRAY", two lines for each entry that was ever used;
// a last line tells how many latches were not noted, if any. Cut to `size`, terminated; returns the characters. Empty
// when the thread keeps no array. May be called from a signal handler.
VEK_EXPORT std::size_t sqloPageLatchTrackingToString(char* buffer, std::size_t size) noexcept;

}  // extern "C"
