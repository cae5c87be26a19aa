#include "trace_mask.h"

#include <algorithm>
#include <charconv>

#include "failure.h"
#include "instance.h"
#include "veksys/diag/trace.h"
#include "veksys/diag/trace_control.h"

namespace veksys {
namespace {

// Bits of a trace word with their place in the mask bytes of the settings record.
struct TypeRow {
  std::uint32_t bits;
  std::uint8_t byte;
  std::uint8_t bit;
  const char* name;  // null: a bit without a name, asked for as hex
};
constexpr TypeRow kTypes[] = {
    {SQLT_TRACE_ENTRY, 0, 0x02, "entry"},
    {SQLT_TRACE_EXIT, 0, 0x04, "exit"},
    {SQLT_TRACE_DATA, 0, 0x08, "data"},
    {SQLT_TRACE_ERROR, 0, 0x10, "error"},
    {SQLT_TRACE_PERFORMANCE, 1, 0x01, "perf"},
    {0x10, 0, 0x20, nullptr},
    {0x20, 0, 0x40, nullptr},
    {0x40, 0, 0x80, nullptr},
    {0x100, 1, 0x02, nullptr},
    {0x200, 1, 0x04, nullptr},
    {0x400, 1, 0x10, nullptr},
    {0x800, 1, 0x08, nullptr},
    {0x1000, 1, 0x20, nullptr},
    {0x2000, 1, 0x40, nullptr},
    {0x4000, 1, 0x80, nullptr},
    {0x8000, 2, 0x08, nullptr},
    {0x10000, 2, 0x04, nullptr},
    {0x220000, 2, 0x01, nullptr},
};

constexpr std::uint32_t allTypes() {
  std::uint32_t bits = 0;
  for (const TypeRow& row : kTypes) bits |= row.bits;
  return bits;
}

std::uint32_t parseType(const std::string& typed) {
  if (equalIgnoringCase(typed, "all")) return allTypes();
  for (const TypeRow& row : kTypes)
    if (row.name != nullptr && equalIgnoringCase(typed, row.name)) return row.bits;
  std::uint32_t bits = 0;
  const bool hex = typed.starts_with("0x") || typed.starts_with("0X");
  const char* end = typed.data() + typed.size();
  if (hex && std::from_chars(typed.data() + 2, end, bits, 16).ptr == end && bits != 0 && (bits & ~allTypes()) == 0)
    return bits;
  std::string names;
  for (const std::string& name : traceTypeNames()) names += (names.empty() ? "" : ", ") + name;
  wrongUse("\"" + typed + "\" is no type of trace point: there are " + names + ", and bits of the trace word as hex." +
           didYouMean(nearestNames(typed, traceTypeNames())));
}

}  // namespace

std::vector<std::string> traceTypeNames() {
  std::vector<std::string> names;
  for (const TypeRow& row : kTypes)
    if (row.name != nullptr) names.emplace_back(row.name);
  names.emplace_back("all");
  return names;
}

std::uint32_t parseTypes(const std::vector<std::string>& names) {
  std::uint32_t bits = 0;
  for (const std::string& list : names)
    for (const std::string& name : splitList(list)) bits |= parseType(name);
  return bits;
}

ComponentSet traceableComponents() {
  ComponentSet components;
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) components.set(component);
  return components;
}

TraceMask currentMask() {
  TraceMask mask;
  std::uint32_t common = allTypes();
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) {
    const std::uint32_t types = sqltTraceWord(component) & allTypes();
    if (types == 0) continue;
    mask.components.set(component);
    mask.types |= types;
    common &= types;
  }
  mask.uniform = mask.components.none() || common == mask.types;
  return mask;
}

void applyMask(const TraceMask& mask) {
  SqltTraceSettings settings = {};
  settings.options = SQLT_OPTION_COMPONENTS;
  settings.selection = SQLT_SELECT_MASK_BYTES;
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component)
    if (mask.components.test(component))
      settings.components[component / 8] =
          static_cast<std::uint8_t>(settings.components[component / 8] | 1U << (component % 8));
  for (const TypeRow& row : kTypes)
    if ((mask.types & row.bits) == row.bits)
      settings.mask[row.byte] = static_cast<std::uint8_t>(settings.mask[row.byte] | row.bit);
  const SqlzZrc result = sqltSetTraceFlags(&settings);
  if (result != 0) sayNo("The trace words cannot be written: " + describeCode(result) + ".");
}

void putTypes(Text& text, std::uint32_t types) {
  if ((types & allTypes()) == allTypes()) return text.put("all types");
  const std::size_t start = text.size();
  for (const TypeRow& row : kTypes) {
    if ((types & row.bits) == 0) continue;
    if (text.size() != start) text.put(", ");
    if (row.name != nullptr)
      text.put(row.name);
    else
      text.hexShort(row.bits);
  }
  if (text.size() == start) text.put("nothing");
}

void putComponents(Text& text, const ComponentSet& components) {
  if ((components & traceableComponents()) == traceableComponents()) return text.put("all components");
  std::vector<std::string> names;
  for (std::uint32_t component = 0; component < components.size(); ++component)
    if (components.test(component)) names.push_back(componentLabel(component));
  names.erase(std::unique(names.begin(), names.end()), names.end());
  if (names.empty()) return text.put("no component");
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i != 0) text.put(", ");
    text.put(names[i]);
  }
}

void putMaskMembers(JsonDocument& json, const TraceMask& mask) {
  json.array("components");
  for (std::uint32_t component = 0; component < SQLT_TRACE_COMPONENTS; ++component) {
    if (!mask.components.test(component)) continue;
    json.StartObject();
    json.member("number", component);
    json.member("prefix", componentLabel(component));
    json.array("types");
    for (const TypeRow& row : kTypes) {
      if ((sqltTraceWord(component) & row.bits) == 0) continue;
      Text bits;
      bits.hexShort(row.bits);
      json.value(row.name != nullptr ? std::string_view(row.name) : bits.view());
    }
    json.EndArray();
    json.EndObject();
  }
  json.EndArray();
}

}  // namespace veksys
