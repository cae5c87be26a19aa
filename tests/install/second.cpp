// A second library with a traced function of its own.
#include <veksys/diag/trace_scope.h>

#include "program.h"

SqlzZrc secondStep(int number) {
  SqltTraceScope<FID_secondStep> trace;
  trace.data(10, number);
  return trace.exit(number);
}
