// The command: options that hold everywhere, one subcommand, one exit status.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "command.h"
#include "failure.h"
#include "instance.h"
#include "names.h"
#include "trace_mask.h"

namespace veksys {
namespace {

constexpr const char* kAbout =
    "Shows the diagnostic log of an instance of the database server, its memory and who waits for which latch, "
    "explains "
    "return codes, and switches, reads and follows its trace.";
constexpr const char* kExitStatus =
    "Exit status: 0 done; 1 the answer is no, or a problem was found; 2 the command was not understood.";
constexpr const char* kEverywhere = "Everywhere: --instance NAME for the instance, --json for JSON.\n";
constexpr const char* kExamples =
    "\nExamples:\n"
    "  veksys log --level 1-3 --since 1h    what went wrong in the last hour\n"
    "  veksys latch --waiting               who waits for whom, and what is wrong there\n"
    "  veksys memory --watch 10             who holds how much memory, and what grows\n"
    "  veksys rc 0x8B0F0000                 what a return code means\n"
    "  veksys trace on --component SQLO     trace the operating-system services\n"
    "  veksys trace flow --errors           the call chains that ended in an error\n"
    "  veksys trace stat --sort self        where the time goes";

// The subcommand that was reached, for messages about its options.
const CLI::App* deepest(const CLI::App* app) {
  while (!app->get_subcommands().empty()) app = app->get_subcommands().back();
  return app;
}

std::string pathOf(const CLI::App* app) {
  return app->get_parent() == nullptr ? "veksys" : pathOf(app->get_parent()) + " " + app->get_name();
}

std::vector<std::string> subcommandNames(const CLI::App* app) {
  std::vector<std::string> names;
  for (const CLI::App* each : app->get_subcommands([](const CLI::App*) { return true; }))
    names.push_back(each->get_name());
  return names;
}

std::vector<std::string> optionNames(const CLI::App* app) {
  std::vector<std::string> names;
  for (; app != nullptr; app = app->get_parent())
    for (const CLI::Option* option : app->get_options())
      for (const std::string& name : option->get_lnames()) names.push_back("--" + name);
  return names;
}

std::string listOf(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::string needsSubcommand(const CLI::App* app) {
  return pathOf(app) + " needs a subcommand: " + listOf(subcommandNames(app)) + ". See " + pathOf(app) + " --help.";
}

// One sentence for a command line that was not understood.
std::string explainParseError(const CLI::App& app, const CLI::ParseError& error) {
  const CLI::App* at = deepest(&app);
  const std::vector<std::string> extras = app.remaining(true);
  const std::vector<std::string> below = subcommandNames(at);
  std::string sentence;
  if (!extras.empty() && extras[0].starts_with("-"))
    sentence = pathOf(at) + " has no option " + extras[0] + "." + didYouMean(nearestNames(extras[0], optionNames(at)));
  else if (!extras.empty() && !below.empty())
    sentence = pathOf(at) + " has no subcommand \"" + extras[0] + "\"; there are " + listOf(below) + "." +
               didYouMean(nearestNames(extras[0], below));
  else if (!extras.empty())
    sentence = pathOf(at) + " takes no further argument \"" + extras[0] + "\".";
  else if (!below.empty() && (at == &app || at->get_require_subcommand_min() > 0))
    return needsSubcommand(at);
  else
    sentence = pathOf(at) + ": " + error.what() + (std::string(error.what()).ends_with('.') ? "" : ".");
  return sentence + " See " + pathOf(at) + " --help.";
}

// Words for completion, one per line.
void listWords(Command& command, const std::string& kind) {
  std::vector<std::string> words;
  if (kind == "components") words = componentNames();
  if (kind == "types") words = traceTypeNames();
  if (kind == "codes")
    for (const SqlzZrcEntry* entry = Catalogue::begin(); entry != Catalogue::end(); ++entry)
      words.emplace_back(entry->name);
  for (const std::string& word : words) {
    command.out.put(word);
    command.out.lineEnd();
  }
}

void describe(CLI::App& app, Command& command, std::string& list) {
  app.fallthrough();  // before the subcommands, which inherit it: global options stand anywhere
  app.footer(std::string(kEverywhere) + kExitStatus);
  app.set_version_flag("--version", std::string("veksys ") + VEKSYS_VERSION);
  app.add_option("--instance", command.instance, "The instance to work on; else VEKINSTANCE, else \"default\"")
      ->type_name("NAME")
      ->check(notEmpty("\"\" is no instance name: " + std::string(INSTANCE_NAME_FORMS)));
  app.add_flag("--json", command.json, "Print JSON: a document, or one object per line for streams of records");
  app.add_option("--list", list)->group("");
  addLatch(app, command);
  addLog(app, command);
  addMemory(app, command);
  addRc(app, command);
  addTrace(app, command);
  app.footer(std::string(kExitStatus) + kExamples);
}

int runParsed(CLI::App& app, Command& command, const std::string& list) {
  command.colour = !command.json && takesColour(STDOUT_FILENO);
  useInstance(command.instance);
  if (!list.empty()) {
    stayDetached();
    listWords(command, list);
    return EXIT_DONE;
  }
  if (!command.run) wrongUse(needsSubcommand(deepest(&app)));
  return command.run();
}

int run(int argc, char** argv) {
  Command command;
  CLI::App app(kAbout, "veksys");
  std::string list;
  describe(app, command, list);
  int status = EXIT_DONE;
  try {
    app.parse(argc, argv);
    status = runParsed(app, command, list);
  } catch (const CLI::CallForHelp&) {
    command.out.put(app.help());
  } catch (const CLI::CallForVersion& version) {
    command.out.put(version.what());
    command.out.put('\n');
  } catch (const CLI::ParseError& error) {
    wrongUse(explainParseError(app, error));
  } catch (const Failure&) {
    command.out.flush();  // what was found before it
    throw;
  }
  command.out.flush();
  return status;
}

}  // namespace
}  // namespace veksys

int main(int argc, char** argv) {
  using namespace veksys;
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));  // a reader that has gone shows as an error of write()
  try {
    return run(argc, argv);
  } catch (const OutputClosed&) {
    return EXIT_DONE;
  } catch (const Failure& failure) {
    remark(failure.what());
    return failure.status();
  } catch (const std::bad_alloc&) {
    remark("There is not enough memory for this.");
    return EXIT_NO;
  } catch (const std::exception& error) {
    remark(error.what());
    return EXIT_NO;
  }
}
