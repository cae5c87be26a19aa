#include "platform/wint.h"

#include <sys/mman.h>

#include "platform/osse.h"

// The words of components 0..241 as a process finds them before it attaches; the rest of the page is zero.
#define WORDS_1 vek::WINT_UNATTACHED
#define WORDS_2 WORDS_1, WORDS_1
#define WORDS_10 WORDS_2, WORDS_2, WORDS_2, WORDS_2, WORDS_2
#define WORDS_80 WORDS_10, WORDS_10, WORDS_10, WORDS_10, WORDS_10, WORDS_10, WORDS_10, WORDS_10
#define WORDS_242 WORDS_80, WORDS_80, WORDS_80, WORDS_2

#if defined(__SANITIZE_THREAD__)
extern "C" void AnnotateIgnoreWritesBegin(const char* file, int line);
extern "C" void AnnotateIgnoreWritesEnd(const char* file, int line);
#define IGNORE_WRITES_BEGIN() AnnotateIgnoreWritesBegin(__FILE__, __LINE__)
#define IGNORE_WRITES_END() AnnotateIgnoreWritesEnd(__FILE__, __LINE__)
#else
#define IGNORE_WRITES_BEGIN() static_cast<void>(0)
#define IGNORE_WRITES_END() static_cast<void>(0)
#endif

namespace {
constexpr std::size_t kPageBytes = vek::WINT_PAGE_WORDS * sizeof(std::uint32_t);
static_assert(kPageBytes == 4096);
constexpr std::uint32_t kInitial[] = {WORDS_242};
static_assert(sizeof kInitial / sizeof kInitial[0] == SQLT_TRACE_COMPONENTS);
}  // namespace

alignas(kPageBytes) constinit std::uint32_t g_sqltCompTraceFlags[vek::WINT_PAGE_WORDS] = {WORDS_242};
constinit std::uint32_t* p_sqltevents = &g_sqltCompTraceFlags[vek::WINT_EVENT_WORD];

namespace vek {

alignas(kPageBytes) constinit std::uint32_t i_compTraceWords[WINT_PAGE_WORDS] = {WORDS_242};

namespace {

// The system exchanges the page under readers that never stop; the thread sanitizer would take that for a write.
bool mapOver(void* page, int fd, std::uint64_t offset) noexcept {
  IGNORE_WRITES_BEGIN();
  const void* mapped =
      ossCalls().mmap(page, kPageBytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, static_cast<off_t>(offset));
  IGNORE_WRITES_END();
  return mapped != MAP_FAILED;
}

}  // namespace

bool wintMapShared(int fd, std::uint64_t offset) noexcept {
  return mapOver(g_sqltCompTraceFlags, fd, offset) && mapOver(i_compTraceWords, fd, offset);
}

void wintStore(std::uint32_t index, std::uint32_t value) noexcept {
  __atomic_store_n(&g_sqltCompTraceFlags[index], value, __ATOMIC_RELAXED);
  __atomic_store_n(&i_compTraceWords[index], value, __ATOMIC_RELAXED);
}

std::uint32_t wintEvents() noexcept { return __atomic_load_n(p_sqltevents, __ATOMIC_RELAXED); }

void wintSilence() noexcept {
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) wintStore(component, 0);
}

}  // namespace vek
