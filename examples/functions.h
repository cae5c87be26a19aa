// Identifiers of the engine's traced functions, FID_<name>, made from functions.def.
#pragma once

#include <veksys/types.h>

namespace demo {

// The components that this engine plays a part of.
enum Component : std::uint32_t {
  SQLD = 0x04,    // data management: records
  SQLE = 0x05,    // base engine: processes, threads, requests
  SQLI = 0x09,    // index manager
  SQLR = 0x12,    // relational services: what packages ask of each other
  SQLUDI = 0xD8,  // ingest: the file and its stanzas
};
inline constexpr Component kComponents[] = {SQLD, SQLE, SQLI, SQLR, SQLUDI};

#define DEMO_FUNCTION(component, number, name) \
  inline constexpr EcfFunctionId FID_##name = ecfFunctionId(component, number);
#include "functions.def"
#undef DEMO_FUNCTION

}  // namespace demo
