// Diagnostics and tracing: return codes, the SQL communications area, the diagnostic log and its paths, trace points
// and their control.
#pragma once

#include "veksys/diag/diagpath.h"
#include "veksys/diag/log.h"
#include "veksys/diag/log_items.h"
#include "veksys/diag/rc.h"
#include "veksys/diag/sqlca.h"
#include "veksys/diag/trace.h"
#include "veksys/diag/trace_control.h"
#include "veksys/diag/trace_scope.h"
