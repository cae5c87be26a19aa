// From fields to a package record: normalised texts, numbers, and what other packages may ask for.
#pragma once

#include <cstdint>
#include <memory_resource>
#include <string>
#include <string_view>

#include "findings.h"
#include "index.h"
#include "stanza.h"

namespace demo {

struct Package {
  explicit Package(std::pmr::memory_resource* memory)
      : name(memory), architecture(memory), section(memory), provides(memory), depends(memory), recommends(memory) {}

  std::uint64_t line = 0;  // of its stanza
  std::pmr::string name;   // lower case; empty: the stanza has none and there is no package
  std::pmr::string architecture;
  std::pmr::string section;   // without the archive area before a slash
  std::pmr::string provides;  // lists as written, their control characters replaced
  std::pmr::string depends;   // Pre-Depends and Depends
  std::pmr::string recommends;
  std::uint64_t installedKib = 0;
  bool installed = false;  // its files are there, so it provides and needs something
};

// Makes a record of a stanza's fields; notes what is missing or cannot be read.
//
//   Result   0, or the code of the first error of the stanza so far, else of the first warning
SqlzZrc makePackage(const Stanza& stanza, Findings& findings, Package* out);

// Puts the package and, when it is installed, the names it provides into the index. 0, or SQLI_INDEX_PAGES_EXHAUSTED.
SqlzZrc indexPackage(const Package& package, Index& index, Findings& findings);

// Walks a list such as "libc6 (>= 2.36), default-mta | mail-transport-agent" item by item, split at one character.
class ListReader {
 public:
  ListReader(std::string_view list, char separator) noexcept : rest_(list), separator_(separator) {}
  bool next() noexcept;  // skips empty items
  [[nodiscard]] std::string_view item() const noexcept { return item_; }

 private:
  std::string_view rest_;
  std::string_view item_;
  char separator_;
};

// The bare name in a list item: without version, architecture and what else follows.
std::string_view nameOfItem(std::string_view item) noexcept;

}  // namespace demo
