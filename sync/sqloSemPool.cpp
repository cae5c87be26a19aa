#include "sync/sqloSemPool.h"

#include <bit>

#include "platform/osse.h"
#include "platform/region.h"
#include "veksys/codes.h"
#include "veksys/host.h"
#include "veksys/sync/latch_control.h"

namespace vek {
namespace {

constexpr std::uint32_t kElements = REGION_SEMAPHORE_BYTES / sizeof(SemElement);

constexpr std::uint32_t kLocalElements = 1024;

// A semaphore of the region as this process has opened it. `generation` is stored last.
struct Opened {
  std::atomic<std::uint32_t> generation{0};
  std::atomic<OssSemaphore*> semaphore{nullptr};
};

constinit LocalSemElement g_local[kLocalElements] = {};
constinit std::atomic<std::uint64_t> g_localUsed[kLocalElements / 64] = {};
constinit Opened g_opened[kElements][WAITER_KINDS] = {};
constinit std::atomic<std::uint32_t> g_nextElement{0};

SemElement* elements() noexcept { return static_cast<SemElement*>(regionSection(RegionSectionId::kSemaphores)); }

bool isShared(SemElementRef reference) noexcept { return reference - 1 < kElements; }
std::uint32_t indexOf(SemElementRef reference) noexcept { return static_cast<std::uint32_t>(reference - 1); }

LocalSemElement* localOf(SemElementRef reference) noexcept {
  return reinterpret_cast<LocalSemElement*>(reference);  // NOLINT(performance-no-int-to-ptr): it was made of one
}

struct Name {
  char text[128];
};

Name nameOf(std::uint32_t index, std::uint32_t generation, std::uint32_t kind) noexcept {
  char instance[96];
  regionIdentity(*regionHeader(), instance, sizeof instance);  // two regions never share a semaphore
  Name name;
  const std::uintptr_t offset = (std::uintptr_t{index} + 1) * sizeof(SemElement);
  const void* address = reinterpret_cast<const void*>(offset);  // NOLINT(performance-no-int-to-ptr): only printed
  const int number = static_cast<int>((generation % 0x20000000U) * WAITER_KINDS + kind);
  if (sqloConstructResourceNameForAddress(name.text, sizeof name.text, "/", instance, number, address) == 0)
    sqloPanic(SQLO_SEM_HANDLE_INVALID, "sqloConstructResourceNameForAddress failed", nullptr);
  return name;
}

void removeSemaphores(std::uint32_t index, std::uint32_t generation) noexcept {
  for (std::uint32_t kind = 0; kind < WAITER_KINDS; ++kind) ossRemoveSemaphore(nameOf(index, generation, kind).text);
}

OssSemaphore* openNamed(std::uint32_t index, std::uint32_t generation, std::uint32_t kind) noexcept {
  OssSemaphore* semaphore = nullptr;
  const int error = ossOpenSemaphore(nameOf(index, generation, kind).text, &semaphore);
  if (error != 0) {
    const bool isShared = kind == static_cast<std::uint32_t>(WaiterKind::kShared);
    sqloPanic(sqlzZrc(SQLZ_ZRC_ERROR_FLAG | (SQLZ_ZRC_TYPE_OS_ERROR << SQLZ_ZRC_TYPE_SHIFT) |
                      static_cast<std::uint32_t>(error)),
              isShared ? "OpenSemaphore failed" : "OpenEvent failed", nullptr);
  }
  return semaphore;
}

// Of threads that open a semaphore at the same time the first one's counts. The semaphore of an earlier generation is
// closed: the latch that it belonged to is gone.
OssSemaphore* opened(std::uint32_t index, std::uint32_t kind) noexcept {
  const std::uint32_t generation = elements()[index].generation;
  Opened& place = g_opened[index][kind];
  if (place.generation.load(std::memory_order_acquire) == generation)
    return place.semaphore.load(std::memory_order_relaxed);
  OssSemaphore* before = place.semaphore.load(std::memory_order_acquire);
  OssSemaphore* semaphore = openNamed(index, generation, kind);
  if (place.semaphore.compare_exchange_strong(before, semaphore, std::memory_order_acq_rel)) {
    if (before != nullptr) ossCloseSemaphore(before);
    place.generation.store(generation, std::memory_order_release);
  } else {
    ossCloseSemaphore(semaphore);  // the same one, counted twice
  }
  return semaphore;
}

OssSemaphore* semaphoreOf(SemElementRef reference, WaiterKind kind) noexcept {
  const auto at = static_cast<std::uint32_t>(kind);
  return isShared(reference) ? opened(indexOf(reference), at) : &localOf(reference)->semaphores[at];
}

void clear(SemElement& element) noexcept {
  for (std::uint32_t& waiters : element.waiters) waiters = 0;
  element.attached = element.upgrading = 0;
}

bool draw(SemElement& element, std::uint32_t index, std::uint32_t run) noexcept {
  std::uint32_t drawnIn = element.run.load(std::memory_order_relaxed);
  if (drawnIn == run || !element.run.compare_exchange_strong(drawnIn, run, std::memory_order_acq_rel)) return false;
  if (drawnIn != 0) removeSemaphores(index, element.generation);  // left over from an earlier run
  ++element.generation;
  clear(element);
  return true;
}

}  // namespace

SqlzZrc sqloi_drawSharedElement(SemElementRef* out) noexcept {
  const SqlzZrc attached = regionAttach();
  if (attached != 0) return attached;
  if (regionSharedStatus() != 0) return regionSharedStatus();
  const std::uint32_t run = regionRun();
  const std::uint32_t first = g_nextElement.fetch_add(1, std::memory_order_relaxed) + regionProcessSlot() * 64;
  for (std::uint32_t i = 0; i < kElements; ++i) {
    const std::uint32_t index = (first + i) % kElements;
    if (!draw(elements()[index], index, run)) continue;
    *out = std::uint64_t{index} + 1;
    return 0;
  }
  return SQLO_NOMEM_LATCH_POOL;
}

SemElementRef sqloi_drawLocalElement() noexcept {
  for (std::uint32_t word = 0; word < kLocalElements / 64; ++word) {
    std::uint64_t used = g_localUsed[word].load(std::memory_order_relaxed);
    while (~used != 0) {
      const auto bit = static_cast<std::uint32_t>(std::countr_one(used));
      if (!g_localUsed[word].compare_exchange_weak(used, used | (1ULL << bit), std::memory_order_acq_rel)) continue;
      LocalSemElement& local = g_local[word * 64 + bit];
      clear(local.element);
      for (OssSemaphore& semaphore : local.semaphores) ossInitSemaphore(&semaphore);
      return reinterpret_cast<std::uintptr_t>(&local);
    }
  }
  return 0;
}

namespace {

void freeLocal(const LocalSemElement* local) noexcept {
  const auto index = static_cast<std::uint32_t>(local - g_local);
  g_localUsed[index / 64].fetch_and(~(1ULL << (index % 64)), std::memory_order_release);
}

}  // namespace

void sqloi_freeElement(SemElementRef reference) noexcept {
  if (reference == 0) return;
  if (!isShared(reference)) return freeLocal(localOf(reference));
  if (elements() == nullptr) return;
  SemElement& element = elements()[indexOf(reference)];
  removeSemaphores(indexOf(reference), element.generation);
  element.run.store(0, std::memory_order_release);
}

SemElement* sqloi_elementOf(SemElementRef reference) noexcept {
  if (reference == 0) return nullptr;
  if (!isShared(reference)) return &localOf(reference)->element;
  return elements() == nullptr ? nullptr : &elements()[indexOf(reference)];
}

void sqloi_postElement(SemElementRef reference, WaiterKind kind, std::uint32_t count) noexcept {
  if (count == 0) return;
  OssSemaphore* semaphore = semaphoreOf(reference, kind);
  for (; count > 0; --count) ossPostSemaphore(semaphore);
}

bool sqloi_waitElement(SemElementRef reference, WaiterKind kind, unsigned milliseconds) noexcept {
  return ossWaitSemaphore(semaphoreOf(reference, kind), milliseconds);
}

void sqloi_closeSemaphores() noexcept {
  for (auto& element : g_opened)
    for (Opened& place : element) {
      place.generation.store(0, std::memory_order_relaxed);
      OssSemaphore* semaphore = place.semaphore.exchange(nullptr, std::memory_order_acq_rel);
      if (semaphore != nullptr) ossCloseSemaphore(semaphore);
    }
}

std::size_t sqloConstructResourceNameForAddress(char* buffer, std::size_t bytes, const char* prefix,
                                                const char* instance, int number, const void* address) noexcept {
  char whole[512];
  const std::size_t length =
      ossSnprintf(whole, sizeof whole, "%s%s%s_%d%p", prefix, REGION_SEMAPHORE_PREFIX, instance, number, address);
  if (length >= bytes) return 0;
  ossCopyText(buffer, bytes, whole);
  return length;
}

}  // namespace vek
