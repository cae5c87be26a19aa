// What is made of the records that were chosen.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "command.h"
#include "json_line.h"
#include "log_file.h"
#include "log_query.h"
#include "log_record.h"

namespace veksys {

// A stretch of a log on its way to the output.
struct LogEntry {
  const LogPiece* piece;
  LogRecord* record;  // its fields; those of damage are empty
  const std::string* path;
};

class LogView {
 public:
  LogView() = default;
  LogView(const LogView&) = delete;
  LogView& operator=(const LogView&) = delete;
  virtual ~LogView() = default;
  virtual void show(const LogEntry& entry) = 0;
  virtual void finish() {}
};

// Record by record.
std::unique_ptr<LogView> logTextView(Command& command);
std::unique_ptr<LogView> logLineView(Command& command);
std::unique_ptr<LogView> logJsonView(Command& command);
std::unique_ptr<LogView> logCsvView(Command& command);

// About all of them; they print when the last one has been seen.
std::unique_ptr<LogView> logFoldView(Command& command, bool csv);
std::unique_ptr<LogView> logCountView(Command& command, const LogFieldName& field, bool csv);
std::unique_ptr<LogView> logMinuteView(Command& command, bool csv);

// ---- what views share -------------------------------------------------------------------------------------------

// "whole", "half-written", "damaged" or "scanned".
std::string_view logStateName(const LogPiece& piece);

// The text that says best what a record is about: its message, else the first value it carries.
std::string_view logGist(LogRecord& record);

// "SQLO_NOMEM", or the code as it stands; empty when there is none.
std::string_view logCodeName(LogRecord& record);

// A field of CSV, in quotes where it needs them.
void putCsv(Text& text, std::string_view field);

// A member of a JSON object for a text of any bytes: with line feeds at its line ends. One that holds bytes which are
// no character has them as \xNN and each backslash as two, and a member <name>_escaped tells so: no two texts look the
// same. `scratch` is overwritten.
void putJsonText(JsonLine& json, Text& scratch, std::string_view name, std::string_view foreign);

// The colour of a level on a terminal, and the end of it; empty texts when there are no colours.
std::string_view logColour(const Command& command, std::uint32_t level);
std::string_view logColourEnd(const Command& command, std::uint32_t level);

}  // namespace veksys
