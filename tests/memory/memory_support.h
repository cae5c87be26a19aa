// What tests of memory share: an instance with a controller, an engine unit for the calling thread, the log as text.
#pragma once

#include <algorithm>
#include <atomic>
#include <string>

#include "platform/support.h"
#include "veksys/codes.h"
#include "veksys/host.h"
#include "veksys/memory.h"

namespace vek::memorytest {

using namespace platformtest;

inline constexpr std::uint32_t kMb = 1024 * 1024;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
inline constexpr std::uint32_t kSlower = 10;
#else
inline constexpr std::uint32_t kSlower = 1;
#endif

inline std::string logText(const Instance& instance) { return contentOf(instance.path("instance/diag/vekdiag.log")); }

inline std::size_t occurrences(const std::string& text, const std::string& what) {
  std::size_t count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// Makes every thread of this process an engine unit.
inline void becomeEngine() {
  installHost([](VekHost& host) {
    host.currentEngineUnit = [](void*, VekEngineUnit* unit) {
      unit->number = 1;
      return true;
    };
  });
}

// The controller of the instance, made active with a fixed bound.
inline SqloMemController* controllerOf(std::uint32_t bound) {
  SqloMemController* controller = SqloMemController::instance();
  EXPECT_NE(controller, nullptr);
  if (controller == nullptr) return nullptr;
  EXPECT_EQ(controller->initialize(bound, false, true, 0, 0), 0);
  return controller;
}

inline SqloMemPartitionStats statsOf(SqloMemController* controller) {
  SqloMemPartitionStats stats;
  EXPECT_EQ(controller->queryStats(&stats), 0);
  return stats;
}

// A consumer with a cache that it gives up when it is asked, by whatever thread.
struct Consumer {
  SqloMemController* controller;
  std::atomic<SqloMemoryConsumer*> record{nullptr};
  std::uint32_t cached;
  std::uint32_t calls = 0;
  std::uint32_t askedBytes = 0;
  std::atomic<bool> refuses{false};  // answers that it released everything, and releases nothing

  Consumer(SqloMemController* of, const char* name, std::uint32_t size, std::uint32_t cache,
           SqloMemConsumerKind kind = SQLO_MEM_CONSUMER_INSTANCE)
      : controller(of), cached(cache) {
    SqloMemoryConsumer* registered = nullptr;
    EXPECT_EQ(controller->registerConsumer(&registered, size, name, this, release, false, kind), 0);
    record = registered;
    controller->setCachedMemory(record, cache, false);
  }
  Consumer(const Consumer&) = delete;
  Consumer& operator=(const Consumer&) = delete;

  static std::uint32_t release(std::uint32_t bytes, void* argument) {
    auto* self = static_cast<Consumer*>(argument);
    ++self->calls;
    self->askedBytes = bytes;
    if (self->refuses) return bytes;
    const std::uint32_t released = std::min(bytes, self->cached);
    self->cached -= released;
    self->controller->freeMemory(self->record, released, true);
    self->controller->setCachedMemory(self->record, self->cached, true);
    return released;
  }

  SqlzZrc request(std::uint32_t bytes, bool reclaims = false, bool force = false, bool persist = false) const {
    return controller->requestMemory(record, bytes, reclaims, force, persist);
  }
};

}  // namespace vek::memorytest
