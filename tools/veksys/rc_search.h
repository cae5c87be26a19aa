// Finding return codes by words of their name or text.
#pragma once

#include <string>
#include <vector>

#include "veksys/diag/rc.h"

namespace veksys {

// The codes in whose name or text every word occurs, regardless of case; best first: the name itself, names that begin
// with the first word, all words in the name, all words whole in the text, the rest; by value within a rank.
std::vector<const SqlzZrcEntry*> searchCodes(const std::vector<std::string>& words);

}  // namespace veksys
