// veksys latch: who holds and who awaits which latch, in all processes of an instance.
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "clock.h"
#include "command.h"
#include "failure.h"
#include "instance.h"
#include "latch_graph.h"
#include "latch_view.h"
#include "names.h"
#include "process_state.h"
#include "veksys/sync/latch_list.h"

namespace veksys {
namespace {

constexpr std::int64_t kIntervalNs = 100'000'000;
constexpr std::int64_t kWatchNs = 2'000'000'000;

struct Options {
  std::vector<std::string> processes;
  std::vector<std::string> types;
  std::string interval;
  std::string watch;
  bool watches = false;
  LatchFilter filter;
  std::int64_t intervalNs = kIntervalNs;
  std::int64_t watchNs = kWatchNs;
};

std::int64_t clockNs(clockid_t clock) {
  timespec now = {};
  ::clock_gettime(clock, &now);
  return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void pause(std::int64_t ns) { std::this_thread::sleep_for(std::chrono::nanoseconds(ns)); }

LatchLook look() {
  LatchLook entries(256);
  for (;;) {
    std::size_t count = 0;
    const SqlzZrc result = sqloListLatches(entries.data(), entries.size(), &count);
    if (result != 0) {
      const std::string sentence = explainRegionCode(result);
      sayNo(sentence.empty() ? "The latches cannot be read: " + describeCode(result) + "." : sentence);
    }
    if (count <= entries.size()) {
      entries.resize(count);
      return entries;
    }
    entries.resize(count + count / 4);
  }
}

// Waiters of nobody may be seen whenever a latch changes hands during a look: only several looks prove some.
void confirm(LatchPicture* picture, const LatchLook& first) {
  confirmOrphans(&picture->graph, picture->sights, first);
  for (int i = 0; i < 3 && !picture->graph.orphans.empty(); ++i) {
    pause(20'000'000);
    confirmOrphans(&picture->graph, picture->sights, look());
  }
}

LatchPicture takePicture(std::int64_t intervalNs) {
  const std::int64_t start = clockNs(CLOCK_MONOTONIC);
  std::vector<LatchLook> looks = {look()};
  pause(intervalNs);
  looks.push_back(look());
  const std::int64_t now = clockNs(CLOCK_MONOTONIC);
  LatchPicture picture;
  picture.takenNs = clockNs(CLOCK_REALTIME);
  picture.spanNs = now - start;
  picture.sights = compareLooks(looks, picture.spanNs, now);
  for (LatchSight& sight : picture.sights)
    sight.isStopped = !sight.isDead() && isThreadStopped(sight.entry.processId, sight.entry.threadId);
  picture.graph = drawLatchGraph(picture.sights);
  confirm(&picture, looks.front());
  return picture;
}

int show(Command& command, const Options& options) {
  const LatchPicture picture = takePicture(options.intervalNs);
  if (options.watches && isTerminal(STDOUT_FILENO) && !command.json) command.out.put("\x1b[H\x1b[J");
  if (command.json)
    putLatchesAsJson(command.out, picture, options.filter, options.watches);
  else
    putLatches(command, picture, options.filter);
  return picture.graph.hasProblem() ? EXIT_NO : EXIT_DONE;
}

[[noreturn]] void watch(Command& command, const Options& options) {
  for (;;) {
    show(command, options);
    if (!command.json) command.out.put('\n');
    command.out.flush();
    pause(options.watchNs);
  }
}

std::vector<std::string> split(const std::vector<std::string>& lists) {
  std::vector<std::string> names;
  for (const std::string& list : lists)
    for (std::string& name : splitList(list)) names.push_back(std::move(name));
  return names;
}

int runLatch(Command& command, Options& options) {
  if (!options.interval.empty()) options.intervalNs = parsePause(options.interval, "--interval");
  if (!options.watch.empty()) options.watchNs = parsePause(options.watch, "--watch");
  options.filter.processes = split(options.processes);
  options.filter.types = split(options.types);
  attachToExisting();
  if (options.watches) watch(command, options);
  return show(command, options);
}

}  // namespace

void addLatch(CLI::App& app, Command& command) {
  auto options = std::make_shared<Options>();
  CLI::App* latch = app.add_subcommand("latch", "Show who holds and who awaits which latch, and who waits for whom");
  latch->footer(
      "Exit status: 0 nothing is wrong; 1 threads wait for each other, a holder is dead, or nobody holds what is "
      "waited "
      "for; 2 the command was not understood.");
  latch->add_option("--process", options->processes, "Latches of these processes: numbers, or patterns of names")
      ->type_name("LIST");
  latch->add_option("--type", options->types, "Latches of these types: numbers, or patterns of names")
      ->type_name("LIST");
  latch->add_flag("--waiting", options->filter.waitedFor, "Only latches that somebody waits for");
  latch->add_flag("--all", options->filter.all, "Also holds that were gone at the second look");
  latch->add_option("--interval", options->interval, "Time between the two looks; 100ms")->type_name("LENGTH");
  CLI::Option* watch = latch->add_option("--watch", options->watch, "Look again and again, every 2 seconds or as told");
  watch->type_name("[LENGTH]")->expected(0, 1);
  latch->callback([&command, options, watch] {
    options->watches = watch->count() != 0;
    command.run = [&command, options] { return runLatch(command, *options); };
  });
}

}  // namespace veksys
