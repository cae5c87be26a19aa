// Synchronization: spin latches, shared/exclusive latches and their composites, who holds and awaits them.
#pragma once

#include "veksys/sync/composite_latch.h"
#include "veksys/sync/latch.h"
#include "veksys/sync/latch_control.h"
#include "veksys/sync/latch_list.h"
#include "veksys/sync/lockable.h"
#include "veksys/sync/page_latch.h"
