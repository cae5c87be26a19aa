// Processes that are killed at a chosen instruction.
#pragma once

#include <sys/ptrace.h>

#include <functional>

#include "platform/support.h"

namespace vek::platformtest {

// A process that stops between `prepare` and `body`, and can be led through `body` instruction by instruction.
class Victim {
 public:
  Victim(const std::function<void()>& prepare, const std::function<void()>& body) : process_(::fork()) {
    if (process_ == 0) {
      prepare();
      if (::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) ::_exit(kSkip);
      ::raise(SIGSTOP);
      body();
      ::_exit(0);
    }
    int status = 0;
    ::waitpid(process_, &status, 0);
    canRun_ = WIFSTOPPED(status);
  }
  ~Victim() {
    if (!gone_) finishKilled(process_);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  bool canRun() const { return canRun_; }

  // Leads it on; returns how many instructions it did before it ended.
  unsigned step(unsigned instructions) {
    for (unsigned done = 0; done < instructions; ++done) {
      if (!resume(PTRACE_SINGLESTEP)) return done;
    }
    return instructions;
  }

  // Lets it run until it sleeps on a semaphore, and stops it there; a stopped thread that held a latch of the library's
  // own would be waited for like any other.
  void runUntilAsleep() {
    ::ptrace(PTRACE_CONT, process_, nullptr, nullptr);
    while (!sleepsOnFutex()) ::usleep(200);
    ::kill(process_, SIGSTOP);
    int status = 0;
    ::waitpid(process_, &status, 0);
  }

 private:
  bool sleepsOnFutex() const {
    std::ifstream in("/proc/" + std::to_string(process_) + "/syscall");
    long number = -1;
    return in >> number && number == SYS_futex;
  }

  bool resume(__ptrace_request how) {
    int status = 0;
    if (::ptrace(how, process_, nullptr, nullptr) != 0 || ::waitpid(process_, &status, 0) < 0) return false;
    gone_ = WIFEXITED(status) || WIFSIGNALED(status);
    return !gone_;
  }

  pid_t process_;
  bool canRun_ = false;
  bool gone_ = false;
};

}  // namespace vek::platformtest
