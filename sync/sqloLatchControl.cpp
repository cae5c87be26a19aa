// Set-up and tear-down of latching.
#include "diag/base/traced.h"
#include "platform/region.h"
#include "sync/sqloLatchDebug.h"
#include "sync/sqloLatchTuning.h"
#include "sync/sqloPageLatchTracking.h"
#include "sync/sqloSemPool.h"
#include "veksys/sync/latch_control.h"

SqlzZrc sqlolatchinginit() noexcept {
  vek::VekTrace<vek::FID_sqlolatchinginit> trace;
  vek::sqloi_prepareTuning();
  vek::sqloi_readLatchDebug();
  vek::sqloi_pageLatchReadSetting();
  const SqlzZrc attached = vek::regionAttach();
  vek::regionReportOnce();
  return trace.exit(attached != 0 ? attached : vek::regionSharedStatus());
}

void sqlolatchingterm() noexcept {
  const vek::VekTrace<vek::FID_sqlolatchingterm> trace;
  vek::sqloi_closeSemaphores();
}
