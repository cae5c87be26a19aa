// What fires: the components and the types of points that are chosen.
//
// The trace words of all components are written in one go from a settings record, which carries one set of components
// and one set of types for all of them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "json.h"
#include "names.h"
#include "text.h"

namespace veksys {

// The words of type names: entry, exit, data, error, perf, all.
std::vector<std::string> traceTypeNames();

// The bits of a trace word for names of types ("entry", "all") or bits as hex ("0x100"). Throws Failure for others.
std::uint32_t parseTypes(const std::vector<std::string>& names);

inline constexpr std::uint32_t TRACE_TYPES_USUAL = 0xF;  // entry, exit, data, error

// The choice in force, read from the words of the attached instance.
struct TraceMask {
  ComponentSet components;
  std::uint32_t types = 0;  // of all components together
  bool uniform = true;      // every component has the same types
};
TraceMask currentMask();

// Every component that has a trace word.
ComponentSet traceableComponents();

// Writes the choice for all processes of the instance; an existing trace is switched on by that. Throws Failure when
// the instance refuses.
void applyMask(const TraceMask& mask);

void putTypes(Text& text, std::uint32_t types);                  // "entry, exit"
void putComponents(Text& text, const ComponentSet& components);  // "all components" or "SQLO, SQLZ"
void putMaskMembers(JsonDocument& json, const TraceMask& mask);

}  // namespace veksys
