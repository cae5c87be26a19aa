#include "platform/fault.h"

#include <sys/resource.h>

#include "support.h"

namespace vek::platformtest {
namespace {

#if defined(__SANITIZE_THREAD__)
constexpr bool kHandsSignalsOn = true;
#else
constexpr bool kHandsSignalsOn = false;
#endif

void touch(void* address) { *static_cast<volatile int*>(address) = 1; }
void nothing(void*) {}

// A page that nobody may touch.
int* forbidden() { return static_cast<int*>(::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)); }

void maskAll(int how) {
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(how, &all, nullptr);
}

TEST(FaultGuard, LeavesTheBodyAndTellsWhatItWas) {
  inProcess([] {
    int* page = forbidden();
    static Fault fault;
    for (int turn = 0; turn < 3; ++turn) {  // the signal is not left blocked
      EXPECT_FALSE(faultGuard(touch, page, &fault));
      EXPECT_EQ(fault.signal, SIGSEGV);
      EXPECT_EQ(fault.address, page);
      EXPECT_GT(fault.stack.frameCount, 0U);
    }
    EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
    EXPECT_FALSE(faultGuard(
        [](void* inner) {
          EXPECT_FALSE(faultGuard(touch, inner, nullptr));
          touch(inner);  // the outer guard's, now that the inner one is gone
        },
        page, nullptr));
  });
}

// A handler of the program that interrupts the body, and faults, is the program's matter; the body goes on.
TEST(FaultGuard, LeavesNoBodyForAFaultOfASignalHandler) {
  // It runs a handler with every signal blocked, whatever mask was asked for: a fault in there ends the process.
  if (kHandsSignalsOn) GTEST_SKIP() << "the thread sanitizer hands signals on in its own way";
  for (const int flags : {0, SA_ONSTACK})
    inProcess([flags] {
      static sigjmp_buf place;
      static int handled;
      static int* page = forbidden();
      std::vector<char> stack(1 << 16);
      const stack_t alternate = {.ss_sp = stack.data(), .ss_flags = 0, .ss_size = stack.size()};
      ASSERT_EQ(::sigaltstack(&alternate, nullptr), 0);
      struct sigaction action = {};
      action.sa_flags = flags | SA_NODEFER;
      action.sa_handler = [](int) {
        ++handled;
        ::siglongjmp(place, 1);
      };
      ::sigaction(SIGSEGV, &action, nullptr);
      action.sa_handler = [](int) {
        if (sigsetjmp(place, 1) == 0) touch(page);
        EXPECT_FALSE(faultGuard(touch, page, nullptr));
      };
      ::sigaction(SIGUSR1, &action, nullptr);
      EXPECT_FALSE(faultGuard(
          [](void*) {
            ::raise(SIGUSR1);
            EXPECT_EQ(handled, 1);
            touch(page);
          },
          nullptr, nullptr));
      EXPECT_EQ(handled, 1);
    });
}

TEST(FaultGuard, IsOfItsThreadAlone) {
  inProcess([] {
    inThreads(4, [](unsigned i) {
      int* page = forbidden();
      sigset_t after;
      if (i < 2) maskAll(SIG_BLOCK);
      for (int turn = 0; turn < 200; ++turn)
        EXPECT_EQ(faultGuard(i % 2 == 0 ? touch : nothing, page, nullptr), i % 2 != 0);
      ::pthread_sigmask(SIG_BLOCK, nullptr, &after);
      EXPECT_EQ(::sigismember(&after, SIGSEGV), i < 2 ? 1 : 0);
    });
    maskAll(SIG_BLOCK);  // later than the first guard: noticed by the 16th behind it
    for (int turn = 0; turn < 16; ++turn) EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
    EXPECT_FALSE(faultGuard(touch, forbidden(), nullptr));
  });
}

// ---- what had been there before ---------------------------------------------------------------------------------

void fault() { touch(forbidden()); }
void exitWith9(int) { ::_exit(9); }
void exitWith8(int signal, siginfo_t* info, void* context) {
  ::_exit(signal == SIGSEGV && info != nullptr && context != nullptr ? 8 : 1);
}

void handleDetailed(void (*handler)(int, siginfo_t*, void*), struct sigaction* before = nullptr) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  ::sigaction(SIGSEGV, &action, before);
}

TEST(FaultHandler, HandsOnWhatNoGuardCatches) {
  if (kHandsSignalsOn) GTEST_SKIP() << "the thread sanitizer hands signals on in its own way";
  const struct {
    const char* what;
    void (*before)();
    void (*fault)();
    int end;
  } cases[] = {
      {"nothing installed, a fault", [] {}, fault, -SIGSEGV},
      {"nothing installed, a signal that was sent", [] {}, [] { ::raise(SIGBUS); }, -SIGBUS},
      {"a plain handler", [] { ::signal(SIGSEGV, exitWith9); }, fault, 9},
      {"a handler that takes the details", [] { handleDetailed(exitWith8); }, fault, 8},
      {"ignored, a fault", [] { ::signal(SIGSEGV, SIG_IGN); }, fault, -SIGSEGV},
      {"ignored, a signal that was sent", [] { ::signal(SIGFPE, SIG_IGN); }, [] { ::raise(SIGFPE); }, 0},
      {"sent while a guard is in force", [] { ::signal(SIGSEGV, exitWith9); },
       [] { (void)faultGuard([](void*) { ::raise(SIGSEGV); }, nullptr, nullptr); }, 9},
      {"the capture first",
       [] {
         ::signal(SIGSEGV, exitWith9);
         faultSetCapture([](int, siginfo_t*, void*) { ::_exit(7); });
       },
       fault, 7},
      {"the capture faults itself",
       [] {
         ::signal(SIGSEGV, exitWith9);
         faultSetCapture([](int, siginfo_t*, void*) { fault(); });
       },
       fault, 9},
  };
  for (const auto& each : cases)
    EXPECT_EQ(runInProcess([&] {
                for (const int signal : {SIGSEGV, SIGBUS, SIGFPE}) ::signal(signal, SIG_DFL);  // not a sanitizer's
                each.before();
                EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
                each.fault();
              }),
              each.end)
        << each.what;
}

// A handler that the program installs later counts until the guards look again; it then stands behind ours. One that
// hands on what it was installed over ends at the first one of the program, not in a circle.
TEST(FaultHandler, PutsItselfBeforeHandlersInstalledLater) {
  if (kHandsSignalsOn) GTEST_SKIP() << "the thread sanitizer hands signals on in its own way";
  static struct sigaction found = {};
  static int handed = 0;
  const auto installLater = [] {
    ::signal(SIGSEGV, exitWith9);
    EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
    const auto handOn = [](int signal, siginfo_t* info, void* context) {
      if (++handed > 3) ::_exit(10);
      found.sa_sigaction(signal, info, context);
    };
    handleDetailed(handOn, &found);
  };
  EXPECT_EQ(runInProcess([&] {
              installLater();
              EXPECT_FALSE(faultGuard(touch, forbidden(), nullptr));  // by the later handler, which hands it on
              EXPECT_EQ(handed, 1);
              for (int i = 0; i < 64; ++i) EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
              EXPECT_FALSE(faultGuard(touch, forbidden(), nullptr));
              EXPECT_EQ(handed, 1);
              touch(forbidden());  // ours, the later one, ours, the first one
            }),
            9);
  EXPECT_EQ(runInProcess([] {  // one that hands nothing on
              EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
              ::signal(SIGSEGV, exitWith9);
              for (int i = 0; i < 64; ++i) EXPECT_TRUE(faultGuard(nothing, nullptr, nullptr));
              EXPECT_FALSE(faultGuard(touch, forbidden(), nullptr));
              touch(forbidden());
            }),
            9);
}

// A write past the limit on file sizes fails inside a guard and is the program's business outside of it.
TEST(FaultGuard, TakesTheSignalOfAFileThatGrewTooLarge) {
  const Instance instance;
  const auto writePastLimit = [&] {
    ::signal(SIGXFSZ, SIG_DFL);
    const int fd = ::open(instance.path("large").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const rlimit none = {0, 0};
    EXPECT_EQ(::setrlimit(RLIMIT_FSIZE, &none), 0);
    maskAll(SIG_BLOCK);  // it must not stay waiting for a host that unblocks it
    static int failed;
    failed = 0;
    EXPECT_TRUE(faultGuard([](void* file) { failed = ::write(*static_cast<int*>(file), "x", 1) < 0 ? errno : 0; },
                           const_cast<int*>(&fd), nullptr));
    EXPECT_EQ(failed, EFBIG);
    maskAll(SIG_UNBLOCK);
    return fd;
  };
  inProcess([&] { writePastLimit(); });
  EXPECT_EQ(runInProcess([&] { (void)!::write(writePastLimit(), "x", 1); }), -SIGXFSZ);
}

}  // namespace
}  // namespace vek::platformtest
