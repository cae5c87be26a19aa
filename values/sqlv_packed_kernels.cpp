// Which kernels this processor runs.
#include "values/sqlv_packed_kernels.h"

#include <atomic>

#include "values/sqlv_packed_avx2.h"

namespace vek {
namespace {

constexpr SqlvKernels kNone = {};
constinit std::atomic<const SqlvKernels*> g_chosen = nullptr;

}  // namespace

const SqlvKernels& sqlvi_kernels() noexcept {
  const SqlvKernels* chosen = g_chosen.load(std::memory_order_relaxed);
  if (chosen == nullptr) [[unlikely]] {
    const SqlvKernels* avx2 = sqlvi_avx2Kernels();
    chosen = avx2 != nullptr ? avx2 : &kNone;
    g_chosen.store(chosen, std::memory_order_relaxed);  // two threads choose the same
  }
  return *chosen;
}

void sqlvi_useKernels(bool use) noexcept { g_chosen.store(use ? nullptr : &kNone, std::memory_order_relaxed); }

}  // namespace vek
