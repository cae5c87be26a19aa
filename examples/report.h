// What the engine tells the person who ran it.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "client.h"
#include "engine.h"
#include "tracing.h"

namespace demo {

struct Facts {
  std::string path;
  EngineOptions options;
  TraceSetup trace;
  Outcome outcome;
  std::vector<WorkerState> workers;
  std::chrono::nanoseconds elapsed;
};

// Prints the report on standard output, in less than 60 lines; with colour when that is a terminal.
void printReport(const Facts& facts);

// Whether the worker came to its end by itself and without a fault.
bool endedWell(const WorkerState& worker) noexcept;

}  // namespace demo
