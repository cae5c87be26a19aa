// Memory for small records of the library that are made where malloc must not be called: a thread's state is made by
// its first trace point, which may stand in a signal handler that interrupted malloc. The first records
// are part of the library, further ones come from the system in slabs and are kept; what is given back is handed out
// again.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <new>

#include "platform/library_mutex.h"
#include "platform/osse.h"

namespace vek {

template <class Record, std::size_t kFirst>
class StatePool {
 public:
  constexpr StatePool() noexcept = default;

  // A record with its default values, or null.
  Record* make() noexcept {
    const std::lock_guard guard(lock_);
    if (free_ == nullptr && used_ < kFirst) free_ = new (first_ + used_++) Slot{nullptr};
    if (free_ == nullptr) addSlab();
    if (free_ == nullptr) return nullptr;
    Slot* slot = free_;
    free_ = slot->next;
    return new (slot) Record{};
  }

  void giveBack(Record* record) noexcept {
    if (record == nullptr) return;
    record->~Record();
    const std::lock_guard guard(lock_);
    free_ = new (record) Slot{free_};
  }

  // For the fork handlers.
  void lockForFork() noexcept { lock_.lock(); }
  void unlockAfterFork() noexcept { lock_.unlock(); }

 private:
  union alignas(Record) Slot {
    Slot* next;
    char bytes[sizeof(Record)];
  };

  static constexpr std::size_t kSlabBytes = 16384;

  void addSlab() noexcept {
    void* slab = ossCalls().mmap(nullptr, kSlabBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (slab == MAP_FAILED) return;
    auto* slots = static_cast<Slot*>(slab);
    for (std::size_t i = 0; i < kSlabBytes / sizeof(Slot); ++i) free_ = new (slots + i) Slot{free_};
  }

  LibraryMutex lock_;
  Slot* free_ = nullptr;
  std::size_t used_ = 0;
  Slot first_[kFirst] = {};
};

}  // namespace vek
