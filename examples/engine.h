// The engine as its coordinator sees it: worker processes, slots of shared memory, requests on their way.
//
// Belongs to one thread at a time. A worker that ends, however it ends, never leaves anyone waiting: its socket closes,
// and every request it had is answered with SQLE_AGENT_PARTNER_PART_DOWN.
#pragma once

#include <sys/types.h>
#include <veksys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "index.h"
#include "request.h"

namespace demo {

struct EngineOptions {
  unsigned workers;
  unsigned threads;         // per worker
  std::uint64_t fileBytes;  // roughly; sizes the index
};

inline constexpr unsigned kWorkersMost = 16;
inline constexpr unsigned kThreadsMost = 16;
inline constexpr unsigned kAnyWorker = 0;

struct WorkerState {
  pid_t process = -1;
  int socket = -1;  // -1: nothing can be sent to it
  unsigned outstanding = 0;
  int waitStatus = -1;  // once it has ended
};

class Engine {
 public:
  explicit Engine(const EngineOptions& options) noexcept : options_(options) {}
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Starts the workers. Call it while the process has no other thread: each worker is a fork of it.
  //
  //   Result   0; SQLO_NOMEM: no shared memory; SQLE_SPAWN_AGENT_FAILED: a worker could not be started
  SqlzZrc start();

  // A slot to fill in, null while all are on their way.
  Slot* freeSlot() noexcept;
  void release(Slot& slot) { free_.push_back(numberOf(slot)); }

  // Sends a slot to a worker, or to the one with the least to do. A worker that cannot be had answers at once, through
  // awaitReply, with SQLE_AGENT_PARTNER_PART_DOWN, or SQLE_SUBAGENTS_EXHAUSTED when there is none left at all.
  void submit(Slot& slot, unsigned worker);

  // Waits for the next slot to come back; null when none is on its way.
  Slot* awaitReply();

  // The worker that a slot was last sent to, from 1; kAnyWorker: to none.
  [[nodiscard]] unsigned workerOf(const Slot& slot) const noexcept { return sentTo_[numberOf(slot)]; }

  // Tells the workers to end and waits until they have. Does nothing the second time.
  void stop();

  [[nodiscard]] const std::vector<WorkerState>& workers() const noexcept { return workers_; }

 private:
  [[nodiscard]] std::uint32_t numberOf(const Slot& slot) const noexcept {
    return static_cast<std::uint32_t>(&slot - slots_);
  }
  SqlzZrc startWorker(unsigned number);
  [[noreturn]] void becomeWorker(unsigned number, int socket) noexcept;
  [[nodiscard]] unsigned leastBusyWorker() const noexcept;
  void collect(unsigned number);
  void loseWorker(unsigned number);
  void answer(std::uint32_t slot, SqlzZrc code);

  EngineOptions options_;
  bool running_ = false;
  std::vector<WorkerState> workers_;  // worker n stands at n - 1
  Slot* slots_ = nullptr;
  std::size_t slotCount_ = 0;
  Index::Entry* entries_ = nullptr;
  std::size_t entryCount_ = 0;
  std::vector<std::uint32_t> free_;
  std::vector<unsigned> sentTo_;        // by slot
  std::vector<bool> onItsWay_;          // by slot
  std::deque<std::uint32_t> returned_;  // slots with a reply that nobody took yet
};

}  // namespace demo
