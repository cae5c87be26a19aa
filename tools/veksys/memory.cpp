// veksys memory: sets, pools and consumers of every process of an instance.
#include <chrono>
#include <ctime>
#include <memory>
#include <thread>

#include "clock.h"
#include "command.h"
#include "failure.h"
#include "instance.h"
#include "memory_view.h"

namespace veksys {
namespace {

constexpr std::int64_t kWatchNs = 2'000'000'000;
constexpr std::int64_t kSettleNs = 2'000'000;
constexpr unsigned kSettleLooks = 10;  // until what changes hands during a look is taken for wrong sums

struct Options {
  std::string watch;
  bool watches = false;
  bool asMetrics = false;
  std::int64_t watchNs = kWatchNs;
};

void pause(std::int64_t ns) { std::this_thread::sleep_for(std::chrono::nanoseconds(ns)); }

MemoryLook look() {
  MemoryLook taken;
  taken.entries.resize(512);
  for (;;) {
    std::size_t count = 0;
    const SqlzZrc result = sqloListMemory(taken.entries.data(), taken.entries.size(), &count, &taken.controller);
    if (result != 0) {
      const std::string sentence = explainRegionCode(result);
      sayNo(sentence.empty() ? "The memory cannot be read: " + describeCode(result) + "." : sentence);
    }
    const bool fits = count <= taken.entries.size();
    taken.entries.resize(fits ? count : count + count / 4);
    if (fits) return taken;
  }
}

// Looks until the sums add up, and no more than a few times.
MemoryPicture takePicture(MemoryLook* taken) {
  MemoryPicture picture;
  for (unsigned looks = 0; looks < kSettleLooks; ++looks) {
    if (looks != 0) pause(kSettleNs);
    *taken = look();
    picture = drawMemory(*taken);
    if (picture.addsUp()) break;
  }
  picture.takenNs = std::int64_t{
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count()};
  return picture;
}

void put(Command& command, const Options& options, const MemoryPicture& picture) {
  if (options.asMetrics) return putMemoryAsMetrics(command.out, picture);
  if (command.json) return putMemoryAsJson(command.out, picture, options.watches);
  if (options.watches && isTerminal(STDOUT_FILENO)) command.out.put("\x1b[H\x1b[J");
  putMemory(command, picture);
  if (options.watches) command.out.put('\n');
}

[[noreturn]] void watch(Command& command, const Options& options) {
  MemoryLook earlier;
  for (bool hasEarlier = false;; hasEarlier = true) {
    MemoryLook now;
    MemoryPicture picture = takePicture(&now);
    picture.hasEarlier = hasEarlier;
    if (hasEarlier) picture.growth = compareMemory(earlier, now);
    put(command, options, picture);
    command.out.flush();
    earlier = std::move(now);
    pause(options.watchNs);
  }
}

int runMemory(Command& command, Options& options) {
  if (!options.watch.empty()) options.watchNs = parsePause(options.watch, "--watch");
  if (options.asMetrics && (command.json || options.watches))
    wrongUse("--openmetrics prints one look in a format of its own; leave out --json and --watch.");
  attachToExisting();
  if (options.watches) watch(command, options);
  MemoryLook taken;
  const MemoryPicture picture = takePicture(&taken);
  put(command, options, picture);
  return picture.addsUp() ? EXIT_DONE : EXIT_NO;
}

}  // namespace

void addMemory(CLI::App& app, Command& command) {
  auto options = std::make_shared<Options>();
  CLI::App* memory =
      app.add_subcommand("memory", "Show the memory sets, pools and consumers of every process of the instance");
  memory->footer("Exit status: 0 the sums add up; 1 they do not, at several looks; 2 the command was not understood.");
  CLI::Option* watch = memory->add_option("--watch", options->watch,
                                          "Look again and again, every 2 seconds or as told, and show what grew");
  watch->type_name("[LENGTH]")->expected(0, 1);
  memory->add_flag("--openmetrics", options->asMetrics, "Print OpenMetrics text, for monitoring systems");
  memory->callback([&command, options, watch] {
    options->watches = watch->count() != 0;
    command.run = [&command, options] { return runMemory(command, *options); };
  });
}

}  // namespace veksys
