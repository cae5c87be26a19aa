// The catalogue of memory pools.
#include <array>

#include "veksys/memory/pool.h"

namespace vek {
namespace {

struct PoolRow {
  const char* name = "";
  const char* description = "";
  const char* parameter = "";
  const char* type = "";
};

constexpr auto kPools = [] {
  std::array<PoolRow, SQLO_POOL_MAXHEAPID + 1> rows;
#define SQLO_POOL_ID(number, symbol, name, description, parameter, type) \
  rows[number] = {name, description, parameter, type};
#include "veksys/memory/pools.def"
#undef SQLO_POOL_ID
  return rows;
}();

const PoolRow& rowOf(std::uint32_t id) noexcept { return kPools[id < kPools.size() ? id : 0]; }

}  // namespace
}  // namespace vek

std::uint32_t sqloGetMinMemPoolID() noexcept { return SQLO_POOL_APPH; }
std::uint32_t sqloGetMaxMemPoolID() noexcept { return SQLO_POOL_MAXHEAPID; }
const char* sqloGetMemPoolName(std::uint32_t id) noexcept { return vek::rowOf(id).name; }
const char* sqloGetMemPoolDescription(std::uint32_t id) noexcept { return vek::rowOf(id).description; }
const char* sqloGetMemPoolConfigParam(std::uint32_t id) noexcept { return vek::rowOf(id).parameter; }
const char* sqloGetMemPoolType(std::uint32_t id) noexcept { return vek::rowOf(id).type; }
