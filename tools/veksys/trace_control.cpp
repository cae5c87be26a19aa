// veksys trace on, off, mask, clear, dump: what changes an instance's trace or copies it.
#include "veksys/diag/trace_control.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <charconv>
#include <memory>

#include "clock.h"
#include "command.h"
#include "failure.h"
#include "instance.h"
#include "trace_mask.h"
#include "veksys/codes.h"
#include "veksys/diag/trace.h"
#include "veksys/host.h"

namespace veksys {
namespace {

std::string bytesText(std::uint64_t bytes) {
  Text text;
  putBytes(text, bytes);
  return std::string(text.view());
}

std::string inInstance() { return "instance " + std::string(vekInstanceName()); }

std::string notASize(const std::string& typed) {
  return "\"" + typed + "\" is no size: digits with an optional K, M or G are, for example 64M";
}

// Digits, decimal or 0x, and optionally K, M or G (KB and KiB mean the same).
std::uint64_t parseSize(const std::string& typed) {
  const bool hex = typed.starts_with("0x") || typed.starts_with("0X");
  const char* begin = typed.data() + (hex ? 2 : 0);
  const char* end = typed.data() + typed.size();
  std::uint64_t value = 0;
  const auto [rest, error] = std::from_chars(begin, end, value, hex ? 16 : 10);
  const std::string unit = lowerCase({rest, static_cast<std::size_t>(end - rest)});
  constexpr std::string_view kUnits[] = {"", "k", "m", "g"};
  for (unsigned i = 0; i < 4; ++i) {
    const std::string name(kUnits[i]);
    const bool named = unit == name || (i > 0 && (unit == name + "b" || unit == name + "ib"));
    if (error == std::errc{} && named && value <= (~0ULL >> (10 * i))) return value << (10 * i);
  }
  wrongUse(notASize(typed) + ".");
}

std::uint64_t traceBytes() { return sqltInquireTraceBufferSize(); }

void requireTrace() {
  attachToExisting();
  if (traceBytes() == 0) sayNo("There is no trace in " + inInstance() + "; `veksys trace on` creates one.");
}

void printMask(Output& out) {
  const TraceMask mask = currentMask();
  out.put("  fires  ");
  putTypes(out, mask.types);
  out.put("\n  in     ");
  putComponents(out, mask.components);
  out.put('\n');
}

// ---- on ---------------------------------------------------------------------------------------------------------

struct Selection {
  std::vector<std::string> components;
  std::vector<std::string> types;
  bool isEmpty() const { return components.empty() && types.empty(); }
};

void addSelection(CLI::App* app, Selection* selection) {
  app->add_option("--component", selection->components,
                  "Components by prefix, name or number, separated by commas, or all")
      ->type_name("NAMES")
      ->allow_extra_args(false);
  app->add_option("--type", selection->types,
                  "Types of points, separated by commas: entry, exit, data, error, perf, all")
      ->type_name("TYPES")
      ->allow_extra_args(false);
}

// What was left out is filled in from `base`.
TraceMask maskOf(const Selection& selection, const TraceMask& base) {
  TraceMask mask = base;
  if (!selection.components.empty()) mask.components = parseComponents(selection.components) & traceableComponents();
  if (!selection.types.empty()) mask.types = parseTypes(selection.types);
  if (!selection.components.empty() && mask.components.none())
    wrongUse("None of these components has a trace word; those up to number 241 have.");
  mask.uniform = true;
  return mask;
}

struct OnOptions {
  std::string size;
  Selection selection;
};

[[noreturn]] void refuseCreate(SqlzZrc code, std::uint64_t bytes) {
  if (code != SQLT_TRACE_NO_SPACE) sayNo("The trace cannot be created: " + describeCode(code) + ".");
  SqltSharedIPCInfo where = {};
  struct statvfs room = {};
  std::string sentence = "There is no room for a trace of " + bytesText(bytes);
  if (sqltTrcSharedIPCInfo(&where) == 0 &&
      ::statvfs(std::string(where.path).substr(0, std::string(where.path).rfind('/')).c_str(), &room) == 0)
    sentence += ": its file system has " + bytesText(room.f_bavail * room.f_frsize) + " free";
  sayNo(sentence + ". Choose a smaller --size.");
}

// Creates the trace unless it is there. Answers whether it was created.
bool createTrace(const std::string& size) {
  const std::uint64_t asked = size.empty() ? 0 : parseSize(size);  // 0: the library's default, whatever its size
  attachOrCreate();
  const std::uint64_t present = traceBytes();
  if (present != 0) {
    if (!size.empty() && asked != present)
      sayNo("There is a trace of " + bytesText(present) + " in " + inInstance() +
            " already, and a trace is not resized. Leave out --size, or remove it with its records by `veksys trace "
            "off --discard`.");
    return false;
  }
  const SqlzZrc result = sqltTraceFacilityCreate(asked);
  if (result != 0 && result != SQLT_TRACE_ALREADY_CREATED)
    refuseCreate(result, asked != 0 ? asked : sqltGetDefTrcBuffSize());
  if (traceBytes() == 0)
    sayNo("What stands in the place of the trace of " + inInstance() + " is none and cannot be used.");
  return result == 0;
}

std::string sizeRemark(std::uint64_t asked, std::uint64_t became) {
  if (asked < SQLT_TRACE_SIZE_MINIMUM)
    return " (" + bytesText(asked) + " is below the least of 1 MB: the default is taken)";
  if (asked >= SQLT_TRACE_SIZE_BEYOND)
    return " (" + bytesText(asked) + " is above the most of 1 GB: the default is taken)";
  return asked == became ? "" : " (" + bytesText(asked) + " rounded down to a power of two)";
}

void reportOn(Command& command, const std::string& size, bool created) {
  const std::uint64_t became = traceBytes();
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("instance", vekInstanceName());
    json.member("active", true);
    json.member("created", created);
    json.member("ring_bytes", became);
    putMaskMembers(json, currentMask());
    json.EndObject();
    return command.out.put('\n');
  }
  command.out.put("Tracing is on in " + inInstance() + ".\n  ring   " + bytesText(became));
  command.out.put(created ? (size.empty() ? "" : sizeRemark(parseSize(size), became)) : ", with the records it holds");
  command.out.put('\n');
  printMask(command.out);
}

int runOn(Command& command, const OnOptions& options) {
  const TraceMask usual = {traceableComponents(), TRACE_TYPES_USUAL, true};
  const TraceMask asked = maskOf(options.selection, usual);  // a mistake in it is told before anything is created
  const bool created = createTrace(options.size);
  const bool keeps = options.selection.isEmpty() && !created && sqltTraceActive() && currentMask().types != 0;
  if (!keeps) applyMask(asked);
  reportOn(command, options.size, created);
  return EXIT_DONE;
}

// ---- off, clear, dump -------------------------------------------------------------------------------------------

int runOff(Command& command, bool discard) {
  requireTrace();
  const std::uint64_t bytes = traceBytes();
  const bool wasOn = sqltTraceActive();
  const SqlzZrc result = discard ? sqltTraceFacilityDelete() : (pdtDisable(), 0);
  if (result != 0) sayNo("The trace cannot be removed: " + describeCode(result) + ".");
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("instance", vekInstanceName());
    json.member("active", false);
    json.member("was_active", wasOn);
    json.member("discarded", discard);
    json.member("ring_bytes", discard ? 0 : bytes);
    json.EndObject();
    command.out.put('\n');
    return EXIT_DONE;
  }
  command.out.put(wasOn ? "Tracing is off in " : "Tracing was off already in ");
  command.out.put(inInstance() + (discard ? "; the trace of " + bytesText(bytes) + " and its records are removed.\n"
                                          : "; the records stay readable.\n"));
  return EXIT_DONE;
}

int runClear(Command& command) {
  requireTrace();
  pdtClearBuffer();
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("instance", vekInstanceName());
    json.member("cleared", true);
    json.member("active", sqltTraceActive());
    json.EndObject();
    command.out.put('\n');
  } else {
    command.out.put("The trace of " + inInstance() + " is empty now; tracing is ");
    command.out.put(sqltTraceActive() ? "on.\n" : "off.\n");
  }
  return EXIT_DONE;
}

int runDump(Command& command, const std::string& file) {
  struct stat status;
  if (::stat(file.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
    wrongUse("\"" + file + "\" is no regular file; a dump is written to a new file or replaces an earlier dump.");
  requireTrace();
  const SqlzZrc result = sqlt_dump_trace(file.c_str());
  if (result == SQLT_TRACE_DUMP_FAILED)
    sayNo("\"" + file + "\" cannot be written: the directory must exist, be writable and have room for " +
          bytesText(traceBytes()) + ".");
  if (result != 0) sayNo("The trace cannot be dumped: " + describeCode(result) + ".");
  const std::uint64_t bytes = ::stat(file.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_size) : 0;
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("instance", vekInstanceName());
    json.member("file", file);
    json.member("bytes", bytes);
    json.EndObject();
    command.out.put('\n');
  } else {
    command.out.put("Wrote the trace of " + inInstance() + " to " + file + " (" + bytesText(bytes) + ").\n");
  }
  return EXIT_DONE;
}

// ---- mask -------------------------------------------------------------------------------------------------------

struct MaskOptions {
  Selection selection;
  bool add = false;
  bool remove = false;
};

void showMask(Command& command) {
  const TraceMask mask = currentMask();
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("instance", vekInstanceName());
    json.member("active", sqltTraceActive());
    putMaskMembers(json, mask);
    json.EndObject();
    return command.out.put('\n');
  }
  if (mask.types == 0) return command.out.put("Nothing fires in " + inInstance() + ".\n");
  if (mask.uniform && mask.components == traceableComponents()) {
    command.out.put("All components: ");
    putTypes(command.out, mask.types);
    return command.out.put('\n');
  }
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) {
    if (!mask.components.test(component)) continue;
    std::size_t start = command.out.size();
    command.out.put("0x");
    command.out.hex(component, 2);
    command.out.put("  ");
    putComponent(command.out, component);
    command.out.padTo(start, 14);
    start = command.out.size();
    putTypes(command.out, sqltTraceWord(component));
    command.out.padTo(start, 28);
    command.out.put("  ");
    command.out.put(ecfGetComponentName(ecfFunctionId(component, 0)));
    command.out.put('\n');
  }
}

// One set of types holds for all components, so adding to or removing from a mixed choice has no single meaning.
TraceMask changedMask(const MaskOptions& options) {
  const TraceMask now = currentMask();
  if (!options.add && !options.remove)
    return maskOf(options.selection, {traceableComponents(), TRACE_TYPES_USUAL, true});
  if (!now.uniform)
    sayNo(
        "The components have different types at present, so --add and --remove have no single meaning; set the whole "
        "mask.");
  const TraceMask part = maskOf(options.selection, {{}, 0, true});
  TraceMask mask = now;
  mask.components = options.add ? now.components | part.components : now.components & ~part.components;
  mask.types = options.add ? now.types | part.types : now.types & ~part.types;
  return mask;
}

int runMask(Command& command, const MaskOptions& options) {
  if (options.add && options.remove) wrongUse("--add and --remove exclude each other.");
  if ((options.add || options.remove) && options.selection.isEmpty())
    wrongUse("--add and --remove need --component or --type to tell what.");
  requireTrace();
  if (!options.selection.isEmpty()) {
    const TraceMask mask = changedMask(options);
    if (!sqltTraceActive()) remark("Tracing was off; choosing what fires switches it on.");
    applyMask(mask);
  }
  showMask(command);
  return EXIT_DONE;
}

}  // namespace

void addTraceControl(CLI::App& trace, Command& command) {
  auto onOptions = std::make_shared<OnOptions>();
  CLI::App* on = trace.add_subcommand("on", "Create the trace of the instance if need be, and switch it on");
  on->add_option("--size", onOptions->size,
                 "Size of a new trace, 1M to 1G, rounded down to a power of two; by default "
                 "VEKTRC_DEF_BUFFSIZE, else 2M")
      ->type_name("SIZE")
      ->check(notEmpty(notASize("")));
  addSelection(on, &onOptions->selection);
  on->callback([&command, onOptions] { command.run = [&command, onOptions] { return runOn(command, *onOptions); }; });

  auto discard = std::make_shared<bool>(false);
  CLI::App* off = trace.add_subcommand("off", "Switch tracing off; the records stay readable");
  off->add_flag("--discard", *discard, "Remove the trace and its records");
  off->callback([&command, discard] { command.run = [&command, discard] { return runOff(command, *discard); }; });

  auto maskOptions = std::make_shared<MaskOptions>();
  CLI::App* mask = trace.add_subcommand("mask", "Show or choose what fires: components and types of points");
  addSelection(mask, &maskOptions->selection);
  mask->add_flag("--add", maskOptions->add, "Add the components and types to those that fire");
  mask->add_flag("--remove", maskOptions->remove, "Remove the components and types from those that fire");
  mask->callback(
      [&command, maskOptions] { command.run = [&command, maskOptions] { return runMask(command, *maskOptions); }; });

  auto file = std::make_shared<std::string>();
  CLI::App* dump = trace.add_subcommand("dump", "Copy the trace to a file, which the views read like the trace itself");
  dump->add_option("FILE", *file, "The file; an earlier dump of that name is replaced")->type_name("")->required();
  dump->callback([&command, file] { command.run = [&command, file] { return runDump(command, *file); }; });

  CLI::App* clear = trace.add_subcommand("clear", "Forget all records; tracing goes on");
  clear->callback([&command] { command.run = [&command] { return runClear(command); }; });
}

}  // namespace veksys
