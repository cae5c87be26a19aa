// Memory: sets, pools, and what keeps an instance within its bound.
#pragma once

#include "veksys/memory/controller.h"
#include "veksys/memory/memory_list.h"
#include "veksys/memory/pool.h"
#include "veksys/memory/set.h"
