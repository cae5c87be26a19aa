// Memory: what keeps an instance within its bound.
#pragma once

#include "veksys/memory/controller.h"
