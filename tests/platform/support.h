// What tests share: an instance of their own, bodies in processes of their own (the library's state is one per process,
// and the test program itself never touches it), batons between processes, texts and hosts, and failing services. It
// brings the headers that nearly all of them use.
#pragma once

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/osse.h"
#include "veksys/host.h"

namespace vek::platformtest {

inline constexpr int kSkip = 77;  // exit code of a body that cannot run here

// An instance whose directories are its own instead of the machine's; gone at the end of the scope.
class Instance {
 public:
  Instance() {
    char pattern[] = "/dev/shm/veksys_platform.XXXXXX";
    directory_ = ::mkdtemp(pattern);
    ::setenv("VEK_SHM_DIR", directory_.c_str(), 1);
    ::setenv("VEK_INSTANCE_DIR", (directory_ + "/instance").c_str(), 1);
    ::setenv("VEKINSTANCE", "platformtest", 1);
  }
  ~Instance() {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    for (const char* name : {"VEK_SHM_DIR", "VEK_INSTANCE_DIR", "VEKINSTANCE"}) ::unsetenv(name);
  }
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;

  const std::string& directory() const { return directory_; }
  std::string path(const char* name) const { return directory_ + "/" + name; }
  std::string region() const { return directory_ + "/veksys." + std::to_string(::geteuid()) + ".platformtest"; }

 private:
  std::string directory_;
};

inline int expectationsFailed() {
  return ::testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count();
}

// Ends without exit handlers or a sanitizer's last checks, which miss the threads of a forked child's parent and the
// rights of a process that has changed its user.
inline void endAtOnce() { ::syscall(SYS_exit_group, expectationsFailed() != 0 ? 1 : 0); }

// Multiplies the rounds of the randomised tests.
inline unsigned stressFactor() {
  const char* text = ::getenv("VEKSYS_STRESS");
  const long factor = text == nullptr ? 1 : std::strtol(text, nullptr, 10);
  return factor < 1 ? 1U : static_cast<unsigned>(factor);
}

// Starts `body` in a process of its own, which ends with 1 when an expectation failed in it and is killed when it
// hangs.
template <class Body>
pid_t start(Body body) {
  (void)std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child != 0) return child;
  ::alarm(240 * stressFactor());
  const int before = expectationsFailed();
  body();
  (void)std::fflush(nullptr);
  ::exit(expectationsFailed() != before ? 1 : 0);
}

// The exit code of a child, or minus the signal that killed it.
inline int finish(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Waits until a stopped or finished state of a child is known, and tells whether it stopped.
inline bool waitUntilStopped(pid_t child) {
  int status = 0;
  return ::waitpid(child, &status, WUNTRACED) == child && WIFSTOPPED(status);
}

inline int finishKilled(pid_t child) {
  ::kill(child, SIGKILL);
  return finish(child);
}

template <class Body>
int runInProcess(Body body) {
  return finish(start(body));
}

template <class Body>
void inProcess(Body body) {
  EXPECT_EQ(runInProcess(body), 0) << "the process of this body failed or died";
}

// Does body(0), body(1), ... at the same time in as many threads, or processes, and waits for them.
template <class Body>
void inThreads(unsigned count, Body body) {
  std::vector<std::jthread> threads;
  for (unsigned i = 0; i < count; ++i) threads.emplace_back([&body, i] { body(i); });
}

template <class Body>
void inProcesses(unsigned count, Body body) {
  std::vector<pid_t> processes;
  for (unsigned i = 0; i < count; ++i) processes.push_back(start([&] { body(i); }));
  for (const pid_t process : processes) EXPECT_EQ(finish(process), 0);
}

inline void inInstance(void (*body)(const Instance& instance)) {
  const Instance instance;
  inProcess([&] { body(instance); });
}

// TEST and TEST_F whose body runs in a process and an instance of its own, `instance`: for what attaches a process on
// its way. The fixture is set up in the process of the program; of its members the body sees the static ones.
#define TEST_APART(suite, name)                                                      \
  static void suite##_##name##_apart(const ::vek::platformtest::Instance& instance); \
  TEST(suite, name) { ::vek::platformtest::inInstance(suite##_##name##_apart); }     \
  static void suite##_##name##_apart([[maybe_unused]] const ::vek::platformtest::Instance& instance)

#define TEST_APART_F(fixture, name)                                                         \
  struct fixture##_##name##_Apart : fixture {                                               \
    static void run(const ::vek::platformtest::Instance& instance);                         \
  };                                                                                        \
  TEST_F(fixture, name) { ::vek::platformtest::inInstance(fixture##_##name##_Apart::run); } \
  void fixture##_##name##_Apart::run([[maybe_unused]] const ::vek::platformtest::Instance& instance)

// Counted signals between processes. A take that nobody answers fails instead of hanging.
class Baton {
 public:
  Baton() { EXPECT_EQ(::pipe(ends_), 0); }
  ~Baton() {
    ::close(ends_[0]);
    ::close(ends_[1]);
  }
  Baton(const Baton&) = delete;
  Baton& operator=(const Baton&) = delete;

  void give(std::size_t count = 1) {
    for (; count > 0; --count) EXPECT_EQ(::write(ends_[1], "x", 1), 1);
  }
  bool take(std::size_t count = 1) {
    for (; count > 0; --count) {
      pollfd ready = {ends_[0], POLLIN, 0};
      char byte;
      if (::poll(&ready, 1, 30'000) != 1 || ::read(ends_[0], &byte, 1) != 1) return false;
    }
    return true;
  }

 private:
  int ends_[2] = {-1, -1};
};

// One object that processes started later share.
template <class T>
class Shared {
 public:
  Shared() : object_(new (map()) T{}) {}
  ~Shared() { ::munmap(object_, sizeof(T)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  T* operator->() const { return object_; }
  T& operator*() const { return *object_; }

 private:
  static void* map() { return ::mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0); }
  T* object_;
};

// ---- texts and hosts --------------------------------------------------------------------------------------------

inline std::string contentOf(const std::string& path) {
  return (std::ostringstream() << std::ifstream(path, std::ios::binary).rdbuf()).str();
}

inline bool holds(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Installs a host of which `fill` sets what it is to have.
template <class Fill>
void installHost(Fill fill) {
  VekHost host = {};
  host.size = sizeof host;
  fill(host);
  EXPECT_EQ(vekHostInstall(&host), 0);
}

// Installs one that has a control block of the test's own, and gives that.
inline VekInstanceControl& installControl() {
  static VekInstanceControl control;
  control = *vekInstanceControl();
  installHost(
      [](VekHost& host) { host.instanceControl = [](void*) -> const VekInstanceControl* { return &control; }; });
  return control;
}

// ---- failing services -------------------------------------------------------------------------------------------

inline constexpr int kKilled = -1;  // in place of an error: the process is killed before the call

// The n-th call of any service (counted from 0) fails with `error`. Giving a record lock back never does.
struct Failure {
  static inline int callsLeft = -1;
  static inline int error = 0;

  static bool isDue() {
    if (callsLeft < 0 || callsLeft-- != 0) return false;
    if (error == kKilled) ::raise(SIGKILL);
    errno = error;
    return true;
  }
};

template <auto Member, class Result, class... Arguments>
struct FailingCall {
  static inline Result (*real)(Arguments...) = nullptr;

  static Result call(Arguments... arguments) {
    if (!isUnlock(arguments...) && Failure::isDue()) {
      if constexpr (std::is_pointer_v<Result>)
        return MAP_FAILED;
      else
        return -1;
    }
    return real(arguments...);
  }
  template <class... All>
  static bool isUnlock(All...) {
    return false;
  }
  static bool isUnlock(int, int, short type, off_t, off_t, int*) { return type == F_UNLCK; }
};

template <auto Member, class Result, class... Arguments>
void makeFailing(Result (*OssCalls::*)(Arguments...)) {
  using Call = FailingCall<Member, Result, Arguments...>;
  if (ossCalls().*Member == Call::call) return;
  Call::real = ossCalls().*Member;
  ossCalls().*Member = Call::call;
}

template <auto... Members>
void makeFail(int call, int error) {
  (makeFailing<Members>(Members), ...);
  Failure::callsLeft = call;
  Failure::error = error;
}

}  // namespace vek::platformtest
