// veksys trace: the family of subcommands, and what the views of a trace share on the command line.
#include <functional>
#include <memory>

#include "command.h"
#include "failure.h"
#include "trace_filter.h"
#include "trace_pass.h"
#include "trace_views.h"

namespace veksys {
namespace {

// A view's command line: the file, the filter, and what the view itself takes.
template <class Options>
struct ViewOptions {
  std::string file;
  FilterOptions filter;
  Options own;
};

struct NoOptions {};

template <class Options, class Run>
std::pair<CLI::App*, std::shared_ptr<ViewOptions<Options>>> addView(CLI::App& trace, Command& command, const char* name,
                                                                    const char* about, Run run) {
  auto options = std::make_shared<ViewOptions<Options>>();
  CLI::App* view = trace.add_subcommand(name, about);
  view->add_option("FILE", options->file, "A file written by `veksys trace dump`; the instance's trace when left out")
      ->type_name("")
      ->check(notEmpty("\"\" is no name of a file; leave it out for the instance's trace"));
  addFilterOptions(view, &options->filter);
  view->callback([&command, options, run] {
    command.run = [&command, options, run] {
      TracePass pass(options->file, options->filter);
      const int status = run(pass, command, options->own);
      command.out.flush();
      if (!command.json) pass.remarkGaps();
      if (pass.totals().shown != 0 || !pass.filter().narrows()) return status;
      remark("No record of the trace is one that was asked for.");
      return EXIT_NO;
    };
  });
  return {view, options};
}

}  // namespace

void addTraceViews(CLI::App& trace, Command& command) {
  addView<NoOptions>(trace, command, "format", "Print the trace, one line per record",
                     [](TracePass& pass, Command& to, const NoOptions&) { return runFormat(pass, to); });
  const auto [flow, flowOptions] =
      addView<FlowOptions>(trace, command, "flow", "Print the calls of each thread as an indented tree", runFlow);
  flow->add_flag("--merged", flowOptions->own.merged, "All threads in one sequence by time, not one after the other");
  flow->add_flag("--full", flowOptions->own.full, "Show data items whole, with a hexdump of those that are bytes");
  const auto [stat, statOptions] =
      addView<StatOptions>(trace, command, "stat", "Calls, times and failures per function", runStat);
  stat->add_option("--sort", statOptions->own.sort, "By total, self, calls, p50, p99, max, failed, errors or name")
      ->type_name("KEY")
      ->capture_default_str();
  stat->add_option("--top", statOptions->own.top, "The first N functions")->type_name("N")->check(countOption());
  const auto [exported, exportOptions] =
      addView<ExportOptions>(trace, command, "export", "Write the trace for other programs", runExport);
  exported
      ->add_option("--chrome", exportOptions->own.chrome, "Chrome trace-event JSON, for Perfetto and chrome://tracing")
      ->type_name("FILE");
  exported
      ->add_option("--ctf", exportOptions->own.ctf,
                   "Common Trace Format 1.8, for babeltrace2 and Trace Compass; a new directory")
      ->type_name("DIR");
}

void addTrace(CLI::App& app, Command& command) {
  CLI::App* trace = app.add_subcommand("trace", "Switch, read and follow the trace of the instance");
  trace->require_subcommand(1);
  addTraceControl(*trace, command);
  addTraceStatus(*trace, command);
  addTraceViews(*trace, command);
}

}  // namespace veksys
