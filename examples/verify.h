// Verifying packages against the index, once the whole file is in it.
#pragma once

#include "findings.h"
#include "index.h"
#include "package.h"

namespace demo {

// Whether the package is the first of its name and architecture. 0, or SQLI_KEY_DUPLICATE.
SqlzZrc verifyUnique(const Package& package, const Index& index, Findings& findings);

// Whether something provides what an installed package depends on and recommends: of each item of its lists one
// alternative at least.
//
//   Result   0; SQLR_FK_PARENT_MISSING: a dependency has no provider; SQLU_LOAD_INTEGRITY_PENDING, a warning: only a
//            recommendation has none
SqlzZrc verifyRelations(const Package& package, const Index& index, Findings& findings);

}  // namespace demo
