// Page latches of a thread.
//
// The array belongs to its thread, so nothing here needs a lock; it is mapped at the first page latch and lasts until
// the thread ends. An entry lies either in the chain of its latch's hash value or in the free list, both linked by
// index. Entries that were never used lie in neither: they are taken one after the other when the free list is empty.
#include "sync/sqloPageLatchTracking.h"

#include <strings.h>

#include <atomic>
#include <cstdint>
#include <iterator>

#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/thread.h"
#include "veksys/sync/page_latch.h"

namespace vek {
namespace {

constexpr std::int32_t kNone = -1;
constexpr std::uint32_t kHashBits = 7;

struct Entry {
  const void* pL;
  std::int32_t heldState;  // 0: free
  std::int32_t nextFreeEntry;
  std::int32_t nextPage;  // in the chain
  std::int32_t hashEntry;
};

struct PageLatchArray {
  std::int32_t chains[1U << kHashBits];
  std::int32_t firstFree;
  std::int32_t used;  // entries that were ever used: the first ones
  std::uint32_t notNoted;
  Entry entries[SQLO_PAGE_LATCH_ENTRIES];
};

thread_local constinit PageLatchArray* t_pageLatches __attribute__((tls_model("initial-exec"))) = nullptr;

// ---- whether there is an array ----------------------------------------------------------------------------------

enum Setting : int { kNotRead, kOff, kOn };
constinit std::atomic<int> g_setting{kNotRead};

bool isYes(const char* value) noexcept {
  for (const char* yes : {"YES", "ON", "TRUE", "1"})
    if (::strcasecmp(value, yes) == 0) return true;
  return false;
}

// Not asked inside a library lock: off for this once.
bool trackingIsOn() noexcept {
  if (g_setting.load(std::memory_order_relaxed) == kNotRead && !threadIsInsideLock()) sqloi_pageLatchReadSetting();
  return g_setting.load(std::memory_order_relaxed) == kOn;
}

// Without a state of the thread nobody would give the array back.
PageLatchArray* makeArray() noexcept {
  if (threadSelf() == nullptr) return nullptr;
  auto* array = static_cast<PageLatchArray*>(ossMapPages(sizeof(PageLatchArray)));
  if (array == nullptr) return nullptr;
  for (std::int32_t& chain : array->chains) chain = kNone;
  array->firstFree = kNone;
  t_pageLatches = array;
  return array;
}

PageLatchArray* arrayOrNew() noexcept {
  if (t_pageLatches != nullptr) return t_pageLatches;
  return trackingIsOn() ? makeArray() : nullptr;
}

// ---- entries ----------------------------------------------------------------------------------------------------

// Latches lie in records of equal size: the multiplication spreads what their low bits have in common.
std::int32_t hashOf(const void* latch) noexcept {
  constexpr std::uint64_t kGoldenRatio = 0x9E3779B97F4A7C15;
  return static_cast<std::int32_t>(reinterpret_cast<std::uintptr_t>(latch) * kGoldenRatio >> (64 - kHashBits));
}

// The link that leads to the entry of a latch: the head of its chain or a nextPage. It holds kNone when there is none.
std::int32_t& linkTo(PageLatchArray& array, const void* latch) noexcept {
  std::int32_t* link = &array.chains[hashOf(latch)];
  while (*link != kNone && array.entries[*link].pL != latch) link = &array.entries[*link].nextPage;
  return *link;
}

std::int32_t takeFreeEntry(PageLatchArray& array) noexcept {
  const std::int32_t free = array.firstFree;
  if (free != kNone) {
    array.firstFree = array.entries[free].nextFreeEntry;
    return free;
  }
  return array.used < static_cast<std::int32_t>(SQLO_PAGE_LATCH_ENTRIES) ? array.used++ : kNone;
}

void note(PageLatchArray& array, const void* latch, std::int32_t heldState) noexcept {
  const std::int32_t index = takeFreeEntry(array);
  if (index == kNone) {
    ++array.notNoted;
    return;
  }
  const std::int32_t hash = hashOf(latch);
  array.entries[index] = {latch, heldState, kNone, array.chains[hash], hash};
  array.chains[hash] = index;
}

void forget(PageLatchArray& array, std::int32_t& link) noexcept {
  const std::int32_t index = link;
  Entry& entry = array.entries[index];
  link = entry.nextPage;
  entry = {nullptr, 0, array.firstFree, kNone, kNone};
  array.firstFree = index;
}

}  // namespace

void sqloi_pageLatchReadSetting() noexcept {
  if (g_setting.load(std::memory_order_relaxed) != kNotRead) return;
  char value[16];
  const bool isOn = g_ports.readSetting("VEK_USE_PAGELATCH_TRACKING", value, sizeof value) && isYes(value);
  int expected = kNotRead;
  g_setting.compare_exchange_strong(expected, isOn ? kOn : kOff, std::memory_order_relaxed);
}

void sqloi_pageLatchThreadEnds() noexcept {
  if (t_pageLatches == nullptr) return;
  ossUnmapPages(t_pageLatches, sizeof(PageLatchArray));
  t_pageLatches = nullptr;
}

}  // namespace vek

void sqlo_page_latch_latch_track_helper(const void* latch, std::int32_t heldState) noexcept {
  if (latch == nullptr || heldState == 0) return;
  vek::PageLatchArray* array = vek::arrayOrNew();
  if (array == nullptr) return;
  const std::int32_t index = vek::linkTo(*array, latch);
  if (index == vek::kNone)
    vek::note(*array, latch, heldState);
  else
    array->entries[index].heldState = heldState;
}

void sqlo_page_latch_latch_track_conv_helper(const void* latch, std::int32_t heldState) noexcept {
  if (vek::t_pageLatches == nullptr || heldState == 0) return;
  const std::int32_t index = vek::linkTo(*vek::t_pageLatches, latch);
  if (index != vek::kNone) vek::t_pageLatches->entries[index].heldState = heldState;
}

void sqlo_page_latch_unlatch_track_helper(const void* latch) noexcept {
  if (vek::t_pageLatches == nullptr) return;
  std::int32_t& link = vek::linkTo(*vek::t_pageLatches, latch);
  if (link != vek::kNone) vek::forget(*vek::t_pageLatches, link);
}

std::size_t sqloPageLatchTrackingToString(char* buffer, std::size_t size) noexcept {
  if (size == 0) return 0;
  buffer[0] = '\0';
  const vek::PageLatchArray* array = vek::t_pageLatches;
  if (array == nullptr) return 0;
  std::size_t length = vek::ossSnprintf(buffer, size, "PAGE LATCH TRACKING ARRAY\n");
  for (std::int32_t i = 0; i < array->used; ++i) {
    const vek::Entry& entry = array->entries[i];
    length += vek::ossSnprintf(buffer + length, size - length,
                               "BPLatchEntry %d - LatchHeldState %d - nextFreeEntry %d\n"
                               "nextPage %d - hashEntry = %d - pL (0x%llx)\n",
                               i, entry.heldState, entry.nextFreeEntry, entry.nextPage, entry.hashEntry,
                               static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(entry.pL)));
  }
  if (array->notNoted != 0)
    length +=
        vek::ossSnprintf(buffer + length, size - length, "not noted, for want of an entry: %u\n", array->notNoted);
  return length;
}
