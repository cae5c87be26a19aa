// Set-up and tear-down of latching.
#include "platform/region.h"
#include "sync/sqloLatchDebug.h"
#include "sync/sqloLatchTuning.h"
#include "sync/sqloPageLatchTracking.h"
#include "sync/sqloSemPool.h"
#include "veksys/sync/latch_control.h"

SqlzZrc sqlolatchinginit() noexcept {
  vek::sqloi_prepareTuning();
  vek::sqloi_readLatchDebug();
  vek::sqloi_pageLatchReadSetting();
  const SqlzZrc attached = vek::regionAttach();
  vek::regionReportOnce();
  return attached != 0 ? attached : vek::regionSharedStatus();
}

void sqlolatchingterm() noexcept { vek::sqloi_closeSemaphores(); }
