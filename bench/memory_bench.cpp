// A request for memory beside an uncontended pair of the latch that it takes.
#include <cstdio>

#include "instance.h"
#include "measure.h"
#include "veksys/memory.h"
#include "veksys/sync.h"

namespace {

constexpr double kMostPairs = 3;

SqloMemController* g_controller;
SqloMemoryConsumer* g_consumer;
alignas(128) SqloSpinLatch g_latch;

void requests(std::uint64_t count) {
  for (; count != 0; --count) bench::keep(g_controller->requestMemory(g_consumer, 0, true, false, false));
}

void pairs(std::uint64_t count) {
  for (; count != 0; --count) {
    bench::keep(g_latch.captureLatch(__FILE__, __LINE__));
    g_latch.releaseLatch();
  }
}

bool prepare() {
  g_latch.init(0, SQLO_LATCH_BETWEEN_PROCESSES);
  g_controller = SqloMemController::instance();
  return g_controller != nullptr && g_controller->initialize(1U << 30, false, true, 0, 0) == 0 &&
         g_controller->registerConsumer(&g_consumer, 1U << 20, "bench", nullptr, nullptr, false,
                                        SQLO_MEM_CONSUMER_INSTANCE) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned runs = bench::runsFromArguments(argc, argv);
  if (runs == 0) return 2;
  const bench::Instance instance;
  if (!prepare()) {
    std::fprintf(stderr, "The memory controller cannot be had: 0x%08X\n",
                 static_cast<unsigned>(SqloMemController::instanceStatus()));
    return 1;
  }
  const bench::Body bodies[] = {requests, pairs};
  const std::vector<bench::Samples> ns = bench::measureInTurn(bodies, runs);
  bench::Samples pairsThrice = ns[1];
  for (double& sample : pairsThrice) sample *= kMostPairs;
  bench::Table table;
  table.title("Memory controller: a request that fits a fixed bound, beside three uncontended pairs of its latch");
  table.row({"request", "ns", ns[0], pairsThrice, bench::ratios(pairsThrice, ns[0]), 1});
  table.row({"latch pair", "ns", ns[1]});
  return table.passed() ? 0 : 1;
}
