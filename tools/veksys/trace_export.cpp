// veksys trace export: hands the trace to other programs.
#include "trace_export.h"

#include "trace_views.h"

namespace veksys {

int runExport(TracePass& pass, Command& command, const ExportOptions& options) {
  const bool chrome = !options.chrome.empty();
  if (chrome == !options.ctf.empty()) wrongUse("An export goes either to --chrome FILE or to --ctf DIR.");
  const std::string& target = chrome ? options.chrome : options.ctf;
  const std::uint64_t bytes = chrome ? exportChrome(pass, target) : exportCtf(pass, target);
  if (target == "-") return EXIT_DONE;
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("format", chrome ? "chrome" : "ctf");
    json.member("target", target);
    json.member("records", pass.totals().shown);
    json.member("bytes", bytes);
    json.EndObject();
    command.out.put('\n');
    return EXIT_DONE;
  }
  command.out.put("Wrote ");
  command.out.grouped(pass.totals().shown);
  command.out.put(" records to " + target + " (");
  putBytes(command.out, bytes);
  command.out.put(").\n");
  return EXIT_DONE;
}

}  // namespace veksys
