// Which kernels this processor runs.
#include "values/sqlv_packed_kernels.h"

namespace vek {
namespace {

constexpr SqlvKernels kPortable = {};

}  // namespace

const SqlvKernels& sqlvi_kernels() noexcept { return kPortable; }

const SqlvKernels* sqlvi_kernelsNamed(const char* name) noexcept {
  return std::strcmp(name, "portable") == 0 ? &kPortable : nullptr;
}

}  // namespace vek
