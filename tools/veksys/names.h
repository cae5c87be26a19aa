// Names that a person types and reads: components, point types, return codes; and what was probably meant.
#pragma once

#include <bitset>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "text.h"
#include "veksys/diag/rc.h"
#include "veksys/types.h"

namespace veksys {

using ComponentSet = std::bitset<256>;

// Splits at commas, leaving out empty parts and blanks around them.
std::vector<std::string> splitList(std::string_view list);

// The components named by prefix ("SQLO"), name ("index manager") or number ("15", "0x0F"), or "all". A prefix stands
// for every component that carries it. Throws Failure for a name that no component has.
ComponentSet parseComponents(const std::vector<std::string>& names);

// "SQLO", or "0x42" for a component without a row.
void putComponent(Text& text, std::uint32_t component);
std::string componentLabel(std::uint32_t component);
bool isKnownComponent(std::uint32_t component);

// The candidates closest to what was typed, closest first; none when nothing comes close.
std::vector<std::string> nearestNames(std::string_view typed, const std::vector<std::string>& candidates,
                                      std::size_t most = 3);
std::vector<std::string> nearestCodeNames(std::string_view typed);

// " Did you mean A, B or C?", or nothing.
std::string didYouMean(const std::vector<std::string>& names);

std::vector<std::string> componentNames();

// Whether a name fits a shell-like pattern of '*' and '?', regardless of case. Linear in memory-free steps.
bool globMatches(std::string_view pattern, std::string_view name);

bool equalIgnoringCase(std::string_view a, std::string_view b);
std::string lowerCase(std::string_view text);

// The whole catalogue of return codes.
class Catalogue {
 public:
  static const SqlzZrcEntry* begin();
  static const SqlzZrcEntry* end();
};

}  // namespace veksys
