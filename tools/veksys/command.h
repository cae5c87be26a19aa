// The frame every subcommand hangs in.
#pragma once

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "output.h"

namespace veksys {

// What holds for the whole command line.
struct Command {
  std::string instance;  // empty: the environment decides
  bool json = false;
  bool colour = false;  // standard output takes colours
  Output out{STDOUT_FILENO};
  std::function<int()> run;  // set by the subcommand that was chosen; its result is the exit status
};

// Accepts how many of something to show. (A plain unsigned option would take "-1" for a huge number.)
inline CLI::Validator countOption() {
  return {[](std::string& typed) {
            const bool digits =
                !typed.empty() && typed.size() <= 18 && typed.find_first_not_of("0123456789") == std::string::npos;
            const bool accepted = digits && typed.find_first_not_of('0') != std::string::npos;
            return accepted ? std::string() : "\"" + typed + "\" is no count: a whole number from 1 on is";
          },
          ""};
}

// Refuses an empty text, which the library of options takes for none at all: "<sentence>".
inline CLI::Validator notEmpty(std::string sentence) {
  return {[sentence = std::move(sentence)](std::string& typed) { return typed.empty() ? sentence : std::string(); },
          ""};
}

void addLatch(CLI::App& app, Command& command);
void addLog(CLI::App& app, Command& command);
void addMemory(CLI::App& app, Command& command);
void addRc(CLI::App& app, Command& command);
void addTrace(CLI::App& app, Command& command);

// The part of `log` that changes something.
void addLogLevel(CLI::App& log, Command& command);

// The parts of `trace`.
void addTraceControl(CLI::App& trace, Command& command);  // on, off, mask, clear, dump
void addTraceStatus(CLI::App& trace, Command& command);
void addTraceViews(CLI::App& trace, Command& command);  // format, flow, stat, export

}  // namespace veksys
