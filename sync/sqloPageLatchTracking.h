// Page-latch tracking, as the rest of this floor sees it.
#pragma once

namespace vek {

// Reads VEK_USE_PAGELATCH_TRACKING, unless it has been read: once in the life of a process. Not inside a library lock.
void sqloi_pageLatchReadSetting() noexcept;

// Gives the calling thread's array back; part of the thread's end.
void sqloi_pageLatchThreadEnds() noexcept;

}  // namespace vek
