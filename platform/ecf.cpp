// Names of components and functions. The library's own come from tables; the host's from its record; those of other
// processes from the instance region.
#include <strings.h>

#include <algorithm>
#include <array>
#include <iterator>

#include "platform/host.h"
#include "platform/region.h"
#include "veksys/host.h"

namespace vek {
namespace {

struct EcfComponentRow {
  const char* shortName;
  const char* secondPrefix;
  const char* name;
};

struct EcfFunctionRow {
  EcfFunctionId id;
  const char* name;
};

#include "ecf_tables.inc"

constexpr EcfComponentRow kNoComponent = {nullptr, nullptr, nullptr};

const EcfComponentRow& componentOf(EcfFunctionId id) noexcept {
  return ecfIsFunctionId(id) ? kComponents[ecfComponent(id)] : kNoComponent;
}

// Where the functions of each component begin; most components have none here, and are done with at once.
constexpr auto kFirstOf = [] {
  std::array<std::uint16_t, std::size(kComponents) + 1> first = {};
  for (const EcfFunctionRow& row : kFunctions) ++first[ecfComponent(row.id) + 1];
  for (std::size_t i = 1; i < first.size(); ++i) first[i] = static_cast<std::uint16_t>(first[i] + first[i - 1]);
  return first;
}();

const char* ownFunctionName(EcfFunctionId id) noexcept {
  const std::uint32_t component = ecfComponent(id);
  const EcfFunctionRow* const end = kFunctions + kFirstOf[component + 1];
  const auto* found = std::lower_bound(kFunctions + kFirstOf[component], end, id,
                                       [](const EcfFunctionRow& row, EcfFunctionId wanted) { return row.id < wanted; });
  return found != end && found->id == id ? found->name : nullptr;
}

const char* internedFunctionName(EcfFunctionId id) noexcept {
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  return names == nullptr ? nullptr : regionFindName(*names, id);
}

std::int32_t findComponent(const char* wanted, const char* EcfComponentRow::*column) noexcept {
  for (std::size_t number = 0; number < std::size(kComponents); ++number) {
    const char* text = kComponents[number].*column;
    if (text != nullptr && ::strcasecmp(text, wanted) == 0) return static_cast<std::int32_t>(number);
  }
  return -1;
}

}  // namespace
}  // namespace vek

const char* ecfGetComponentName(EcfFunctionId id) noexcept {
  const char* name = vek::componentOf(id).name;
  return name != nullptr ? name : "Unknown";
}

const char* ecfGetComponentShortName(EcfFunctionId id) noexcept { return vek::componentOf(id).shortName; }

const char* ecfGetFunctionName(EcfFunctionId id) noexcept {
  if (const char* name = vek::ownFunctionName(id); name != nullptr) return name;
  if (const char* name = vek::hostFunctionName(id); name != nullptr) return name;
  return vek::internedFunctionName(id);
}

std::int32_t ecfFindComponent(const char* name) noexcept {
  if (name == nullptr) return -1;
  std::int32_t found = -1;
  for (const auto column :
       {&vek::EcfComponentRow::shortName, &vek::EcfComponentRow::secondPrefix, &vek::EcfComponentRow::name})
    if (found < 0) found = vek::findComponent(name, column);
  return found;
}
