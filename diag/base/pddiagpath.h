// The diagnostic directory as the logger needs it: decided once, read without a lock, reported when it can be.
//
// A decision is made the first time somebody asks and whenever the configured value changes. It is published with one
// compare-and-swap, never changed afterwards and never given back, so that its path may be used without a lock, in a
// signal handler and in a child of fork. Nothing is allocated but, from the fourth decision on, a mapping for each.
//
// What is wrong with a value is kept in its decision and reported later, by pdiReportDiagPath, when the caller holds no
// lock: the report itself is a record that needs the path, which is decided by then.
#pragma once

#include <cstddef>

#include "veksys/diag/diagpath.h"

namespace vek {

// A directory that files go to. The text is valid until the process ends.
struct PdDiagDirectory {
  const char* path;    // terminated, with a separator at its end; never null
  std::size_t length;  // without the terminator
  SqlzZrc zrc;         // 0, or why it could not be used when it was looked at last
};

// The directory that this process writes to now: the primary one, or the alternate after pdSwitchToAltDiagPath. Costs
// a few comparisons once it is decided. One that could not be used is looked at again by every call. Reads no setting
// but the instance control block; takes no lock; logs nothing.
PdDiagDirectory pdiDiagDirectory() noexcept;

// The same for a caller that makes files there: a directory that others may write to is left for the alternate one.
// Length 0: there is none that can be trusted.
PdDiagDirectory pdiTrustedDirectory() noexcept;

// Looks at the directory in use again and makes it when it is missing: for a caller whose file could not be opened in
// it. Result as of pdMkdirInternal and pdDiagpathVerify.
SqlzZrc pdiRenewDiagDirectory() noexcept;

// Whether this process has switched to the alternate directory.
bool pdiIsOnAlternate() noexcept;

// The alternate directory, without switching to it: for a single file that finds no place in the primary one. The same
// promises as of pdiDiagDirectory. That none is configured is answered and not reported: nobody has asked for it.
PdDiagDirectory pdiAlternateDirectory() noexcept;

// pdSwitchToAltDiagPath for the logger: takes no lock and logs nothing, so that it may be called under the logger's own
// mutex; pdiReportDiagPath tells of it later.
SqlzZrc pdiSwitchToAlternate() noexcept;

// Reports what is still to be said about the paths decided so far, each once per process. Call it with no lock held
// and outside of a log call; it may log. Costs one load when there is nothing to say.
void pdiReportDiagPath() noexcept;

}  // namespace vek
