#include "engine.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <veksys/codes.h>
#include <veksys/diag/trace_scope.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <string>

#include "functions.h"
#include "worker.h"

namespace demo {
namespace {

constexpr std::size_t kSlotsPerThread = 2;  // one at work, one waiting

// Memory that this process and its forks share; pages are taken when they are first touched. Null when there is none.
void* sharedMemory(std::size_t bytes) noexcept {
  void* const memory =
      ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  return memory == MAP_FAILED ? nullptr : memory;
}

void closeSocket(int& socket) noexcept {
  if (socket >= 0) ::close(socket);
  socket = -1;
}

}  // namespace

Engine::~Engine() {
  stop();
  if (slots_ != nullptr) ::munmap(slots_, slotCount_ * sizeof(Slot));
  if (entries_ != nullptr) ::munmap(entries_, entryCount_ * sizeof(Index::Entry));
}

SqlzZrc Engine::start() {
  SqltTraceScope<FID_startEngine> trace;
  running_ = true;
  slotCount_ = kSlotsPerThread * options_.workers * options_.threads;
  entryCount_ = Index::entriesFor(options_.fileBytes);
  slots_ = static_cast<Slot*>(sharedMemory(slotCount_ * sizeof(Slot)));
  entries_ = static_cast<Index::Entry*>(sharedMemory(entryCount_ * sizeof(Index::Entry)));
  if (slots_ == nullptr || entries_ == nullptr) return trace.exit(SQLO_NOMEM);
  sentTo_.assign(slotCount_, kAnyWorker);
  onItsWay_.assign(slotCount_, false);
  free_.resize(slotCount_);
  std::iota(free_.rbegin(), free_.rend(), 0U);
  for (unsigned number = 1; number <= options_.workers; ++number)
    if (const SqlzZrc code = startWorker(number); code != 0) return trace.exit(code);
  return trace.exit(SqlzZrc{0});
}

// Messages on the socket keep their bounds, so any thread of the worker can take the next one.
SqlzZrc Engine::startWorker(unsigned number) {
  SqltTraceScope<FID_startWorker> trace;
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return trace.exit(SQLE_SPAWN_AGENT_FAILED);
  WorkerState worker;
  worker.process = ::fork();
  if (worker.process == 0) {
    ::close(ends[0]);
    becomeWorker(number, ends[1]);
  }
  ::close(ends[1]);
  worker.socket = ends[0];
  if (worker.process < 0) {
    closeSocket(worker.socket);
    return trace.exit(SQLE_SPAWN_AGENT_FAILED);
  }
  workers_.push_back(worker);
  trace.data(1, number, worker.process);
  return trace.exit(SqlzZrc{0});
}

// In the new process: lets go of the coordinator's ends, so that a socket closes when the coordinator ends.
void Engine::becomeWorker(unsigned number, int socket) noexcept {
  for (WorkerState& other : workers_) closeSocket(other.socket);
  std::exit(runWorker({number, options_.threads, socket, slots_, slotCount_, Index(entries_, entryCount_)}));
}

Slot* Engine::freeSlot() noexcept {
  if (free_.empty()) return nullptr;
  Slot* const slot = &slots_[free_.back()];
  free_.pop_back();
  return slot;
}

unsigned Engine::leastBusyWorker() const noexcept {
  unsigned best = kAnyWorker;
  for (unsigned number = 1; number <= workers_.size(); ++number) {
    if (workers_[number - 1].socket < 0) continue;
    if (best == kAnyWorker || workers_[number - 1].outstanding < workers_[best - 1].outstanding) best = number;
  }
  return best;
}

void Engine::submit(Slot& slot, unsigned worker) {
  SqltTraceScope<FID_submitRequest> trace;
  if (worker == kAnyWorker) worker = leastBusyWorker();
  const std::uint32_t number = numberOf(slot);
  trace.data(1, slot.request.number, worker, number);
  sentTo_[number] = worker;
  if (worker == kAnyWorker) return answer(number, trace.exit(SQLE_SUBAGENTS_EXHAUSTED));
  WorkerState& state = workers_[worker - 1];
  if (state.socket < 0) return answer(number, trace.exit(SQLE_AGENT_PARTNER_PART_DOWN));
  onItsWay_[number] = true;
  ++state.outstanding;
  // A worker that has just ended is noticed by awaitReply, which then answers this slot too.
  ::send(state.socket, &number, sizeof number, MSG_NOSIGNAL);
}

Slot* Engine::awaitReply() {
  SqltTraceScope<FID_awaitReply> trace;
  while (returned_.empty()) {
    std::vector<pollfd> sockets;
    std::vector<unsigned> numbers;
    for (unsigned number = 1; number <= workers_.size(); ++number) {
      if (workers_[number - 1].outstanding == 0) continue;
      sockets.push_back({workers_[number - 1].socket, POLLIN, 0});
      numbers.push_back(number);
    }
    if (sockets.empty()) return nullptr;
    ::poll(sockets.data(), sockets.size(), -1);
    for (std::size_t i = 0; i < sockets.size(); ++i)
      if (sockets[i].revents != 0) collect(numbers[i]);
  }
  Slot* const slot = &slots_[returned_.front()];
  returned_.pop_front();
  trace.data(1, slot->request.number, slot->reply.area.sqlcode);
  return slot;
}

// Takes every slot that a worker has sent back. The end of its socket comes after the last of them; an error that
// reports the end early is passed over once.
void Engine::collect(unsigned number) {
  WorkerState& worker = workers_[number - 1];
  for (;;) {
    std::uint32_t slot;
    const ssize_t count = ::recv(worker.socket, &slot, sizeof slot, MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) return;
    if (count < 0 && (errno == EINTR || errno == ECONNRESET)) continue;
    if (count != sizeof slot) return loseWorker(number);
    if (slot >= slotCount_ || !onItsWay_[slot] || sentTo_[slot] != number) continue;
    onItsWay_[slot] = false;
    --worker.outstanding;
    returned_.push_back(slot);
  }
}

void Engine::loseWorker(unsigned number) {
  SqltTraceScope<FID_loseWorker> trace;
  WorkerState& worker = workers_[number - 1];
  trace.error(1, SQLE_AGENT_PARTNER_PART_DOWN, number, worker.process, worker.outstanding);
  closeSocket(worker.socket);
  worker.outstanding = 0;
  for (std::uint32_t slot = 0; slot < slotCount_; ++slot) {
    if (!onItsWay_[slot] || sentTo_[slot] != number) continue;
    onItsWay_[slot] = false;
    answer(slot, SQLE_AGENT_PARTNER_PART_DOWN);
  }
  trace.exit(SQLE_AGENT_PARTNER_PART_DOWN);
}

// Answers in the place of a worker; what that one may have written so far does not count.
void Engine::answer(std::uint32_t slot, SqlzZrc code) {
  Reply& reply = slots_[slot].reply;
  reply = {};
  sqlzInitSqlca(&reply.area);
  sqlzFoldZrc(nullptr, &reply.area, code, nullptr, "worker " + std::to_string(sentTo_[slot]),
              "request " + std::to_string(slots_[slot].request.number));
  returned_.push_back(slot);
}

void Engine::stop() {
  if (!running_) return;
  running_ = false;
  SqltTraceScope<FID_stopEngine> trace;
  for (WorkerState& worker : workers_) closeSocket(worker.socket);
  for (WorkerState& worker : workers_) {
    while (::waitpid(worker.process, &worker.waitStatus, 0) < 0 && errno == EINTR) {
    }
  }
}

}  // namespace demo
