#include "platform/thread.h"

#include <pthread.h>
#include <string.h>

#include <array>
#include <set>

#include "platform/ports.h"
#include "platform/region.h"
#include "platform/support.h"

namespace vek::platformtest {
namespace {

std::uint64_t ownerOf(std::uint32_t slot) {
  return static_cast<RegionThread*>(regionSection(RegionSectionId::kThreads))[slot].owner.load();
}

// Not a string: the end of the process notes its steps when static objects are gone.
constinit char g_steps[8] = {};
std::uint32_t g_slot;

// What a thread gives back, and in which order: both steps still find it and its slot.
void noteStep(char step) {
  g_steps[::strlen(g_steps)] = step;
  EXPECT_EQ(threadSelf()->threadSlot, g_slot);
  EXPECT_EQ(ownerOf(g_slot), regionProcessOwner());
}

constinit bool g_expectsEnd = false;

// Runs behind the library's own destructor.
[[gnu::destructor(101)]] void expectEnded() {
  const bool right = ::strcmp(g_steps, "ml") == 0 && processIsEnding();
  if (g_expectsEnd && !right) ::_exit(2);
}

void lateDestructor(void*) { EXPECT_EQ(threadSelf(), nullptr) << "a thread that has ended got a state again"; }

TEST_APART(ThreadEnd, GivesBackInOrder) {
  g_ports.flushMemoryCaches = [] { noteStep('m'); };
  g_ports.checkLatches = [] { noteStep('l'); };
  threadFacilityStart();
  pthread_key_t late;
  ASSERT_EQ(::pthread_key_create(&late, lateDestructor), 0);  // its destructor runs after the library's
  std::thread([late] {
    ::pthread_setspecific(late, g_steps);
    g_slot = threadSelf()->threadSlot;
    EXPECT_EQ(threadSelf(), threadSelf());
  }).join();
  EXPECT_STREQ(g_steps, "ml");
  EXPECT_EQ(ownerOf(g_slot), 0U);
  g_slot = threadSelf()->threadSlot;  // of the main thread: process exit runs the same steps
  ::memset(g_steps, 0, sizeof g_steps);
  g_expectsEnd = true;
}

TEST(ThreadState, SerialsAreUniqueInTheInstance) {
  const Instance instance;
  constexpr std::size_t kEach = 40;
  Shared<std::array<std::array<std::uint64_t, kEach>, 3>> serials;
  inProcesses(3, [&](unsigned who) {
    for (std::size_t i = 0; i < kEach; ++i) std::thread([&, i] { (*serials)[who][i] = threadSelf()->serial; }).join();
  });
  std::set<std::uint64_t> distinct;
  for (const auto& row : *serials) distinct.insert(row.begin(), row.end());
  EXPECT_EQ(distinct.size(), 3 * kEach);
  EXPECT_EQ(distinct.count(0), 0U);
}

// A host that has used up all keys: the library keeps off those of others and takes no slot that nobody would return.
TEST_APART(ThreadState, WithoutAKeyThereIsNone) {
  pthread_key_t first = 0;
  pthread_key_t last = 0;
  ASSERT_EQ(::pthread_key_create(&first, nullptr), 0);
  while (::pthread_key_create(&last, nullptr) == 0) {
  }
  std::vector<void*> values;
  for (pthread_key_t key = 0; key <= first; ++key) values.push_back(::pthread_getspecific(key));
  EXPECT_EQ(threadSelf(), nullptr);
  EXPECT_EQ(threadSelf(), nullptr);
  for (pthread_key_t key = 0; key <= first; ++key) EXPECT_EQ(::pthread_getspecific(key), values[key]);
  for (std::uint32_t slot = 0; slot < REGION_THREAD_SLOTS; ++slot) EXPECT_EQ(ownerOf(slot), 0U);
}

}  // namespace
}  // namespace vek::platformtest
