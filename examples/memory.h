// The memory of a worker: a pool in the private set of its process, as the resource of its containers.
#pragma once

#include <veksys/memory/resource.h>

#include <cstdint>
#include <optional>

namespace demo {

class WorkerMemory {
 public:
  WorkerMemory() = default;
  ~WorkerMemory();
  WorkerMemory(const WorkerMemory&) = delete;
  WorkerMemory& operator=(const WorkerMemory&) = delete;

  // Makes the pool, of which each thread keeps freed blocks for its own next requests. What is still in use when it is
  // freed is reported in the diagnostic log.
  //
  //   Result   0, or the code of the library
  SqlzZrc open() noexcept;

  // For open memory only; any thread.
  std::pmr::memory_resource* resource() noexcept { return &*resource_; }

  // The most that the pool ever owned.
  [[nodiscard]] std::uint64_t peakBytes() const noexcept;

 private:
  std::optional<VekMemoryResource> resource_;
};

}  // namespace demo
