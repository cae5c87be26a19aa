#include "verify.h"

#include <veksys/codes.h>
#include <veksys/diag/trace_scope.h>

#include "functions.h"

namespace demo {
namespace {

bool isProvided(std::string_view item, const Index& index) {
  for (ListReader alternatives(item, '|'); alternatives.next();) {
    std::uint64_t line;
    if (index.find(nameKey(nameOfItem(alternatives.item())), &line) == 0) return true;
  }
  return false;
}

template <class Trace>
SqlzZrc verifyList(const Trace& trace, const Package& package, std::string_view list, Condition condition,
                   const Index& index, Findings& findings) {
  SqlzZrc code = 0;
  for (ListReader items(list, ','); items.next();) {
    if (isProvided(items.item(), index)) continue;
    code = codeOf(condition);
    findings.note(trace, condition, package.line, items.item());
  }
  return code;
}

}  // namespace

SqlzZrc verifyUnique(const Package& package, const Index& index, Findings& findings) {
  SqltTraceScope<FID_verifyUnique> trace;
  std::uint64_t firstLine;
  const SqlzZrc code = index.find(packageKey(package.name, package.architecture), &firstLine);
  if (code != 0 || firstLine == package.line) return trace.exit(SqlzZrc{0});
  findings.note(trace, Condition::kPackageTwice, package.line, "first at line " + std::to_string(firstLine));
  return trace.exit(SQLI_KEY_DUPLICATE);
}

SqlzZrc verifyRelations(const Package& package, const Index& index, Findings& findings) {
  SqltTraceScope<FID_verifyRelations> trace;
  const SqlzZrc needed = verifyList(trace, package, package.depends, Condition::kDependencyMissing, index, findings);
  const SqlzZrc wanted =
      verifyList(trace, package, package.recommends, Condition::kRecommendationMissing, index, findings);
  return trace.exit(needed != 0 ? needed : wanted);
}

}  // namespace demo
