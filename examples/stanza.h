// From text to fields: how blocks fall into stanzas, stanzas into lines, lines into fields.
//
// A stanza is a run of lines up to a blank one. A line `Name: value` begins a field; a line that begins with a blank
// continues the field before it. Nothing is copied: every view leads into the text that was given.
#pragma once

#include <cstdint>
#include <memory_resource>
#include <string_view>
#include <vector>

#include "findings.h"

namespace demo {

inline constexpr std::size_t kLineMost = 32'768;  // bytes of a line; a longer one is cut and ends its field

struct Field {
  std::string_view name;   // as written
  std::string_view value;  // with the line ends and blanks of its continuation lines, without blanks around it
  std::uint64_t line;
};

struct Stanza {
  explicit Stanza(std::pmr::memory_resource* memory) : fields(memory) {}

  std::uint64_t line = 0;
  std::pmr::vector<Field> fields;

  // The first field of that name, whatever its case; null when there is none.
  [[nodiscard]] const Field* find(std::string_view name) const noexcept;
};

// Walks the lines of a text, numbered from the given one. Line ends, carriage returns among them, are taken off.
class LineReader {
 public:
  LineReader(std::string_view text, std::uint64_t firstLine) noexcept : rest_(text), nextNumber_(firstLine) {}
  bool next() noexcept;
  [[nodiscard]] std::string_view line() const noexcept { return line_; }
  [[nodiscard]] std::uint64_t number() const noexcept { return nextNumber_ - 1; }
  [[nodiscard]] std::string_view rest() const noexcept { return rest_; }

 private:
  std::string_view rest_;
  std::string_view line_;
  std::uint64_t nextNumber_;
};

// Walks the stanzas of a text.
class StanzaReader {
 public:
  StanzaReader(std::string_view text, std::uint64_t firstLine) noexcept : lines_(text, firstLine) {}
  bool next() noexcept;
  [[nodiscard]] std::string_view text() const noexcept { return text_; }
  [[nodiscard]] std::uint64_t line() const noexcept { return line_; }
  [[nodiscard]] bool isLast() const noexcept { return lines_.rest().empty(); }

 private:
  LineReader lines_;
  std::string_view text_;
  std::uint64_t line_ = 0;
};

bool isBlank(std::string_view line) noexcept;
std::string_view trimmed(std::string_view text) noexcept;
bool isControl(char c) noexcept;  // of the C0 set, other than a tab or a line end
bool equalIgnoringCase(std::string_view a, std::string_view b) noexcept;

// Takes the text of a stanza, free of blank lines, apart. What is odd is noted in `findings`, which know the stanza's
// verdict afterwards; the fields that could be read are there nevertheless.
//
//   Result   0, or the code of the first error, else of the first warning
SqlzZrc parseStanza(std::string_view text, std::uint64_t line, Findings& findings, Stanza* out);

}  // namespace demo
