// veksys log level: the level of the diagnostic log in running processes.
#include <memory>
#include <string>

#include "command.h"
#include "failure.h"
#include "instance.h"
#include "json.h"
#include "log_record.h"
#include "names.h"
#include "veksys/diag/log.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::int32_t kOwn = -1;  // each process's own DIAGLEVEL
constexpr const char* kLevelForms =
    "a number from 0 (nothing) to 6 (everything), the name of a level, or \"default\" for each process's own DIAGLEVEL";

std::int32_t parseLevel(const std::string& typed) {
  if (equalIgnoringCase(typed, "default")) return kOwn;
  for (std::uint32_t level = 0; level <= LOG_LEVEL_MOST; ++level)
    if (typed == std::to_string(level) || (level > 0 && equalIgnoringCase(typed, logLevelName(level))))
      return static_cast<std::int32_t>(level);
  wrongUse("\"" + typed + "\" is no level of the log: it takes " + kLevelForms + ".");
}

void setLevel(std::int32_t level) {
  if (level == kOwn)
    attachToExisting();
  else
    attachOrCreate();
  const SqlzZrc result = pdSetDiagLevel(level);
  if (result == 0) return;
  const std::string sentence = explainRegionCode(result);
  sayNo(sentence.empty() ? "The level cannot be set: " + describeCode(result) + "." : sentence);
}

void tellLevel(Command& command) {
  const std::int32_t level = pdGetDiagLevel();
  if (command.json) {
    JsonDocument json;
    json.begin(command.out);
    json.member("instance", vekInstanceName());
    json.member("level", level);
    json.EndObject();
    command.out.put('\n');
    return;
  }
  command.out.put("Instance ");
  command.out.put(vekInstanceName());
  command.out.put(" logs up to level ");
  command.out.signedDecimal(level);
  if (level > 0 && level <= static_cast<std::int32_t>(LOG_LEVEL_MOST)) {
    command.out.put(" (");
    command.out.put(logLevelName(static_cast<std::uint32_t>(level)));
    command.out.put(')');
  }
  command.out.put(".\n");
}

int runLevel(Command& command, const std::string& typed) {
  if (!typed.empty())
    setLevel(parseLevel(typed));
  else if (instanceExists())
    attachToExisting();
  else
    stayDetached();
  tellLevel(command);
  return EXIT_DONE;
}

}  // namespace

void addLogLevel(CLI::App& log, Command& command) {
  auto typed = std::make_shared<std::string>();
  CLI::App* level = log.add_subcommand("level", "Show or set the level of the log in all running processes");
  level->add_option("LEVEL", *typed, "0 to 6, a name such as Warning, or \"default\": records above it are dropped")
      ->type_name("");
  level->callback([&command, typed] { command.run = [&command, typed] { return runLevel(command, *typed); }; });
}

}  // namespace veksys
