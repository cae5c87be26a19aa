// The example engine: a coordinator, worker processes with several threads each, and a client whose requests they
// serve. It reads a file of `Key: value` stanzas, tells what it found, and leaves a trace to look at.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <veksys/diag/rc.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <iostream>
#include <string>
#include <thread>

#include "blocks.h"
#include "client.h"
#include "engine.h"
#include "host.h"
#include "report.h"
#include "tracing.h"

namespace demo {
namespace {

enum ExitCode { kRan = 0, kWorkerFailed = 1, kWrongUse = 2 };

constexpr std::uint64_t kUnknownFileBytes = 64 << 20;  // assumed of what tells no size, such as a pipe

struct Options {
  std::string path = "/var/lib/dpkg/status";
  unsigned workers = 3;
  unsigned threads = 4;
  bool keepTraceSettings = false;
};

void complain(const std::string& sentence) { std::cerr << "veksys_demo: " << sentence << '\n'; }

// 0, or the exit code to end with: help was asked for, or the options are wrong.
int parseOptions(int argc, char** argv, Options* options, bool* goOn) {
  CLI::App app("Reads a file of `Key: value` stanzas with a small engine of several processes, every function traced.");
  app.add_option("FILE", options->path, "The file to read; anything that can be read from front to end")
      ->capture_default_str();
  app.add_option("--workers", options->workers, "Worker processes")
      ->check(CLI::Range(1U, kWorkersMost))
      ->capture_default_str();
  app.add_option("--threads", options->threads, "Threads of each worker")
      ->check(CLI::Range(1U, kThreadsMost))
      ->capture_default_str();
  app.add_flag("--keep-trace-settings", options->keepTraceSettings, "Neither create the trace nor switch anything on");
  app.footer("Ends with 0: it ran; 1: a worker failed; 2: wrong use.");
  try {
    app.parse(argc, argv);
    *goOn = true;
    return kRan;
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    complain(error.what());
    complain("accepted: [FILE] [--workers 1..16] [--threads 1..16] [--keep-trace-settings] [--help]");
    return kWrongUse;
  }
}

// A descriptor of the file, or -1 after saying what is wrong with it.
int openFile(const std::string& path, std::uint64_t* bytes) {
  struct stat facts;
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const bool known = descriptor >= 0 && ::fstat(descriptor, &facts) == 0;
  if (known && !S_ISDIR(facts.st_mode)) {
    *bytes = S_ISREG(facts.st_mode) ? static_cast<std::uint64_t>(facts.st_size) : kUnknownFileBytes;
    return descriptor;
  }
  complain("cannot read " + path + ": " + std::strerror(known ? EISDIR : errno) +
           ". Name a file of `Key: value` stanzas that you may read.");
  if (descriptor >= 0) ::close(descriptor);
  return -1;
}

std::string described(SqlzZrc code) {
  char text[512];
  pdZRCGetDescription(code, text, sizeof text);
  return std::string(text, std::strcspn(text, "\r\n"));
}

// What the client gets out of the engine, in a thread of its own.
Outcome runClient(Engine& engine, int descriptor) {
  Outcome outcome;
  std::thread([&] {
    const EngineUnit unit(kClientUnit, "client");
    BlockReader reader(descriptor);
    outcome = Client(engine, reader).run();
  }).join();
  return outcome;
}

int exitCodeOf(const Facts& facts) {
  for (const WorkerState& worker : facts.workers)
    if (!endedWell(worker)) return kWorkerFailed;
  if (facts.outcome.readCode == 0) return kRan;
  complain(facts.path + " could not be read to its end: " + described(facts.outcome.readCode));
  return kWrongUse;
}

int run(const Options& options, int descriptor, std::uint64_t fileBytes) {
  if (installHost() != 0) {
    complain("VEKINSTANCE is no instance name: 1 to 32 letters, digits, '_', '-' or '.' are accepted.");
    return kWrongUse;
  }
  const EngineUnit unit(kCoordinatorUnit, "coordinator");
  const auto begin = std::chrono::steady_clock::now();
  Facts facts = {options.path, {options.workers, options.threads, fileBytes}, {}, {}, {}, {}};
  facts.trace = prepareTrace(options.keepTraceSettings);
  Engine engine(facts.options);
  if (const SqlzZrc code = engine.start(); code != 0) {
    complain("the engine did not start: " + described(code));
    return kWorkerFailed;
  }
  facts.outcome = runClient(engine, descriptor);
  engine.stop();
  facts.workers = engine.workers();
  facts.elapsed = std::chrono::steady_clock::now() - begin;
  printReport(facts);
  return exitCodeOf(facts);
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) try {
  demo::Options options;
  bool goOn = false;
  const int code = demo::parseOptions(argc, argv, &options, &goOn);
  if (!goOn) return code;
  std::uint64_t fileBytes = 0;
  const int descriptor = demo::openFile(options.path, &fileBytes);
  return descriptor < 0 ? demo::kWrongUse : demo::run(options, descriptor, fileBytes);
} catch (const std::exception& fault) {
  std::cerr << "veksys_demo: " << fault.what() << '\n';
  return demo::kWorkerFailed;
}
