#include "log_view.h"

#include "clock.h"
#include "json.h"
#include "veksys/diag/rc.h"

namespace veksys {
namespace {

constexpr std::string_view kStateNames[] = {"whole", "half-written", "damaged"};
constexpr std::string_view kLevelColours[] = {"", "\x1b[1;31m", "\x1b[31m", "\x1b[33m", "", "\x1b[1;31m", "\x1b[36m"};

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return (byte < ' ' && c != '\r' && c != '\n' && c != '\t') || byte == 0x7F;
}

// What is wrong with a piece, as a line of its own between the records.
void putMark(Text& text, const LogEntry& entry) {
  const LogPiece& piece = *entry.piece;
  if (piece.kind == LogPiece::Kind::kWhole && !piece.scanned) return;
  text.put("<< veksys: ");
  if (piece.kind == LogPiece::Kind::kWhole)
    text.put("record that stands elsewhere than it tells");
  else if (piece.kind == LogPiece::Kind::kDamaged)
    text.put("damaged, no record");
  else
    text.put("half-written or damaged record");
  text.put(", ");
  text.grouped(piece.size);
  if (piece.kind == LogPiece::Kind::kHalf) {
    text.put(" of ");
    text.grouped(piece.head.length);
  }
  text.put(" bytes at ");
  text.decimal(piece.position);
  text.put(" of ");
  putSafe(text, *entry.path);
  if (piece.bytes.size() < piece.size) text.put(", the beginning shown");
  text.put(" >>");
}

// ---- text -------------------------------------------------------------------------------------------------------

// As it stands in the file; on a terminal line by line, without control characters.
class LogTextView : public LogView {
 public:
  explicit LogTextView(Command& command) : command_(&command), terminal_(isTerminal(STDOUT_FILENO)) {}

  void show(const LogEntry& entry) override {
    Output& out = command_->out;
    if (!first_) out.put(terminal_ ? "\n" : "\r\n");
    first_ = false;
    const std::size_t mark = out.size();
    putMark(out, entry);
    if (out.size() != mark) out.put(terminal_ ? "\n" : "\r\n");
    if (terminal_)
      putLines(entry);
    else
      out.put(entry.piece->bytes);
    if (!entry.piece->bytes.ends_with('\n') && !terminal_) out.put("\r\n");
    out.settle();
  }

 private:
  void putLines(const LogEntry& entry) {
    Output& out = command_->out;
    const std::uint32_t level = entry.piece->kind == LogPiece::Kind::kDamaged ? 0 : entry.piece->head.level;
    std::string_view rest = entry.piece->bytes;
    for (bool head = true; !rest.empty(); head = false) {
      if (head) out.put(logColour(*command_, level));
      putSafe(out, takeLogLine(rest));
      if (head) out.put(logColourEnd(*command_, level));
      out.put('\n');
    }
  }

  Command* command_;
  bool terminal_;
  bool first_ = true;
};

// ---- one line per record ----------------------------------------------------------------------------------------

constexpr std::size_t kGistMost = 400;

class LogLineView : public LogView {
 public:
  explicit LogLineView(Command& command) : command_(&command) {}

  void show(const LogEntry& entry) override {
    Output& out = command_->out;
    const LogPiece& piece = *entry.piece;
    if (piece.kind == LogPiece::Kind::kDamaged) {
      putMark(out, entry);
      out.lineEnd();
      return;
    }
    putHead(*entry.record);
    putWhat(*entry.record);
    if (piece.kind == LogPiece::Kind::kHalf || piece.scanned) {
      out.put("  ");
      putMark(out, entry);
    }
    out.lineEnd();
  }

 private:
  void putHead(LogRecord& record) {
    Output& out = command_->out;
    const LogHead& head = record.head();
    out.put(head.stamp.substr(0, 10));
    out.put(' ');
    for (const std::size_t part : {11U, 14U}) {
      out.put(head.stamp.substr(part, 2));
      out.put(':');
    }
    out.put(head.stamp.substr(17, 6));
    out.put("  ");
    out.put(logColour(*command_, head.level));
    const std::size_t level = out.size();
    putSafe(out, head.levelName);
    out.padTo(level, 8);
    out.put(logColourEnd(*command_, head.level));
    out.put("  ");
    const std::size_t who = out.size();
    putSafe(out, record.text(LogField::kProcess));
    out.put(' ');
    putSafe(out, record.text(LogField::kPid));
    out.put('/');
    putSafe(out, record.text(LogField::kTid));
    out.padTo(who, 26);
  }

  void putWhat(LogRecord& record) {
    Output& out = command_->out;
    out.put("  ");
    putSafe(out, record.text(LogField::kFunction));
    out.put(':');
    putSafe(out, record.text(LogField::kProbe));
    const std::string_view database = record.text(LogField::kDatabase);
    if (!database.empty()) {
      out.put("  [");
      putSafe(out, database);
      out.put(']');
    }
    for (const std::string_view part : {logCodeName(record), logGist(record).substr(0, kGistMost)}) {
      if (part.empty()) continue;
      out.put("  ");
      putInOneLine(part);
    }
  }

  void putInOneLine(std::string_view text) {
    bool first = true;
    while (!text.empty()) {
      const std::string_view line = takeLogLine(text);
      if (!first) command_->out.put(' ');
      first = false;
      putSafe(command_->out, line);
    }
  }

  Command* command_;
};

// ---- JSON -------------------------------------------------------------------------------------------------------

class LogJsonView : public LogView {
 public:
  explicit LogJsonView(Command& command) : command_(&command) {}

  void show(const LogEntry& entry) override {
    json_.begin(command_->out);
    if (entry.piece->kind != LogPiece::Kind::kDamaged) {
      putHead(entry.record->head());
      putFields(*entry.record);
      putCode(*entry.record);
      putSections(*entry.record);
    } else {
      text("bytes", entry.piece->bytes);
    }
    text("file", *entry.path);
    json_.member("offset", entry.piece->position);
    json_.member("length", entry.piece->size);
    json_.member("state", logStateName(*entry.piece));
    json_.EndObject();
    command_->out.lineEnd();
  }

 private:
  void text(std::string_view name, std::string_view content) { putJsonText(json_, safe_, name, content); }

  void putHead(const LogHead& head) {
    safe_.clear();
    ClockText::iso(safe_, head.moment);
    json_.member("time", safe_.view());
    json_.member("time_ns", head.moment);
    json_.member("utc_offset_minutes", head.zoneMinutes);
    json_.member("level", head.level);
    text("level_name", head.levelName);
    if (!head.secondLevel.empty()) text("second_level", head.secondLevel);
  }

  void putFields(LogRecord& record) {
    for (const LogFieldName& field : logFieldNames()) {
      const bool known = field.field < LogField::kTime && field.field != LogField::kCode;
      const std::string_view content = known ? record.text(field.field) : std::string_view();
      if (content.empty()) continue;
      const auto number = field.kind == LogFieldKind::kNumber ? record.number(field.field) : std::nullopt;
      if (!number.has_value())
        text(field.name, content);
      else if (content[0] == '-')
        json_.member(field.name, static_cast<std::int64_t>(*number));
      else
        json_.member(field.name, *number);
    }
  }

  void putCode(LogRecord& record) {
    const std::string_view shown = record.text(LogField::kCode);
    if (shown.empty()) return;
    const LogCode code = record.code();
    json_.object("code");
    if (code.kind == LogCode::Kind::kReturnCode || code.kind == LogCode::Kind::kEcf) {
      safe_.clear();
      safe_.hexCode(code.value);
      json_.member("hex", safe_.view());
      json_.member("decimal", static_cast<std::int32_t>(code.value));
    }
    const SqlzZrcEntry* entry =
        code.kind == LogCode::Kind::kReturnCode ? sqlzFindZrc(static_cast<SqlzZrc>(code.value)) : nullptr;
    if (entry != nullptr) json_.member("name", entry->name);
    text("text", shown);
    json_.EndObject();
  }

  // Everything behind the header, section by section.
  void putSections(LogRecord& record) {
    std::string_view rest = record.body();
    if (rest.empty()) return;
    json_.array("sections");
    while (!rest.empty()) {
      std::string_view label;
      const char* begin = rest.data();
      std::string_view line = takeLogLine(rest);
      if (opensLogSection(line)) {
        label = line.substr(0, 8);
        begin += 10;
      }
      const char* end = rest.data();
      for (std::string_view ahead = rest; !ahead.empty(); rest = ahead, end = rest.data())
        if (opensLogSection(takeLogLine(ahead))) break;
      putSection(label, {begin, static_cast<std::size_t>(end - begin)});
    }
    json_.EndArray();
  }

  void putSection(std::string_view label, std::string_view content) {
    while (label.ends_with(' ')) label.remove_suffix(1);
    if (content.ends_with('\n')) content.remove_suffix(content.ends_with("\r\n") ? 2 : 1);
    json_.StartObject();
    json_.member("label", label);
    text("text", content);
    json_.EndObject();
  }

  Command* command_;
  JsonLine json_;
  Text safe_;
};

// ---- CSV --------------------------------------------------------------------------------------------------------

class LogCsvView : public LogView {
 public:
  explicit LogCsvView(Command& command) : command_(&command) {
    command_->out.put("time,level,second_level");
    for (const LogFieldName& field : logFieldNames()) {
      if (field.field >= LogField::kTime) continue;
      command_->out.put(',');
      command_->out.put(field.name);
    }
    command_->out.put(",gist,file,offset,length,state");
    command_->out.lineEnd();
  }

  void show(const LogEntry& entry) override {
    Output& out = command_->out;
    LogRecord& record = *entry.record;
    const bool isRecord = entry.piece->kind != LogPiece::Kind::kDamaged;
    if (isRecord) ClockText::iso(out, record.head().moment);
    out.put(',');
    if (isRecord) putCsv(out, record.head().levelName);
    out.put(',');
    if (isRecord) putCsv(out, record.head().secondLevel);
    for (const LogFieldName& field : logFieldNames()) {
      if (field.field >= LogField::kTime) continue;
      out.put(',');
      if (isRecord) putCsv(out, record.text(field.field));
    }
    out.put(',');
    putCsv(out, isRecord ? logGist(record) : entry.piece->bytes.substr(0, kGistMost));
    out.put(',');
    putCsv(out, *entry.path);
    out.put(',');
    out.decimal(entry.piece->position);
    out.put(',');
    out.decimal(entry.piece->size);
    out.put(',');
    out.put(logStateName(*entry.piece));
    out.lineEnd();
  }

 private:
  Command* command_;
};

}  // namespace

std::string_view logStateName(const LogPiece& piece) {
  if (piece.kind == LogPiece::Kind::kWhole && piece.scanned) return "scanned";
  return kStateNames[static_cast<std::size_t>(piece.kind)];
}

namespace {

// "DATA #1 : String, 12 bytes": what it is stands on the next line.
bool isValueBelow(std::string_view line) noexcept {
  return line.starts_with("DATA #") && (line.ends_with(" bytes") || line.ends_with(": <preformatted>"));
}

}  // namespace

std::string_view logGist(LogRecord& record) {
  if (const std::string_view message = record.text(LogField::kMessage); !message.empty()) return message;
  if (const std::string_view error = record.text(LogField::kOsError); !error.empty()) return error;
  constexpr std::string_view kTellLittle[] = {"RETCODE ", "CALLED  ", "IMPACT  ", "CALLSTCK"};
  std::string_view rest = record.body();
  while (!rest.empty()) {
    const std::string_view line = takeLogLine(rest);
    if (!opensLogSection(line) || line.ends_with(": <Empty variable list>")) continue;
    if (std::any_of(std::begin(kTellLittle), std::end(kTellLittle),
                    [&](std::string_view label) { return line.starts_with(label); }))
      continue;
    return isValueBelow(line) ? takeLogLine(rest) : line.substr(10);
  }
  return record.text(LogField::kImpact);
}

std::string_view logCodeName(LogRecord& record) {
  const std::string_view shown = record.text(LogField::kCode);
  const LogCode code = record.code();
  if (code.kind != LogCode::Kind::kReturnCode) return shown.substr(0, shown.find_first_of("\r\n"));
  const SqlzZrcEntry* entry = sqlzFindZrc(static_cast<SqlzZrc>(code.value));
  return entry != nullptr ? std::string_view(entry->name) : shown.substr(4, 10);
}

namespace {

// How many bytes at the beginning of a text are one character of JSON: CR LF is one, the end of a line. 0: a byte that
// is none, be it no UTF-8, a control character of two bytes, or half of a line end.
std::size_t characterBytes(std::string_view text) noexcept {
  if (text[0] == '\r') return text.starts_with("\r\n") ? 2 : 0;
  if (text[0] == '\n') return 0;
  return static_cast<unsigned char>(text[0]) < 0x80 ? 1 : wideCharacter(text);
}

void putHex(Text& text, char byte) {
  text.put("\\x");
  text.hex(static_cast<unsigned char>(byte), 2);
}

// Puts a text with line feeds at its line ends, up to the first byte that is no character. True: there is none.
bool putWhileText(Text& text, std::string_view foreign) {
  const auto isPlain = [](char c) { return static_cast<unsigned char>(c) < 0x80 && c != '\r' && c != '\n'; };
  while (!foreign.empty()) {
    std::size_t plain = 0;
    while (plain < foreign.size() && isPlain(foreign[plain])) ++plain;
    text.put(foreign.substr(0, plain));
    foreign.remove_prefix(plain);
    if (foreign.empty()) return true;
    const std::size_t bytes = characterBytes(foreign);
    if (bytes == 0) return false;
    text.put(foreign[0] == '\r' ? std::string_view("\n") : foreign.substr(0, bytes));
    foreign.remove_prefix(bytes);
  }
  return true;
}

// Puts a text that holds such bytes: they become \xNN, and a backslash becomes two.
void putEscaped(Text& text, std::string_view foreign) {
  while (!foreign.empty()) {
    const std::size_t bytes = characterBytes(foreign);
    if (bytes == 0)
      putHex(text, foreign[0]);
    else
      (void)putWhileText(text, foreign.substr(0, bytes));
    if (foreign[0] == '\\') text.put('\\');
    foreign.remove_prefix(std::max<std::size_t>(bytes, 1));
  }
}

// Bytes that are no character become \xNN.
void putCsvText(Text& text, std::string_view foreign) {
  while (!foreign.empty()) {
    const std::size_t bytes = foreign[0] == '\n' ? 1 : characterBytes(foreign);
    if (bytes == 0)
      putHex(text, foreign[0]);
    else
      text.put(foreign[0] == '\r' ? std::string_view("\n") : foreign.substr(0, bytes));
    foreign.remove_prefix(std::max<std::size_t>(bytes, 1));
  }
}

}  // namespace

// Control characters stay out even of quoted fields: programs that show tables show them to a terminal.
void putCsv(Text& text, std::string_view field) {
  const bool quoted = field.find_first_of(",\"\r\n") != std::string_view::npos;
  if (quoted) text.put('"');
  while (!field.empty()) {
    std::size_t plain = 0;
    while (plain < field.size() && field[plain] != '"' && !isControl(field[plain])) ++plain;
    putCsvText(text, field.substr(0, plain));
    if (plain < field.size()) {
      text.put(field[plain] == '"' ? "\"\"" : "\\x");
      if (field[plain] != '"') text.hex(static_cast<unsigned char>(field[plain]), 2);
      ++plain;
    }
    field.remove_prefix(plain);
  }
  if (quoted) text.put('"');
}

void putJsonText(JsonLine& json, Text& scratch, std::string_view name, std::string_view foreign) {
  scratch.clear();
  const bool isText = putWhileText(scratch, foreign);
  if (!isText) {
    scratch.clear();
    putEscaped(scratch, foreign);
  }
  json.member(name, scratch.view());
  if (isText) return;
  scratch.clear();
  scratch.put(name);
  scratch.put("_escaped");
  json.member(scratch.view(), true);
}

std::string_view logColour(const Command& command, std::uint32_t level) {
  return command.colour && level <= LOG_LEVEL_MOST ? kLevelColours[level] : std::string_view();
}

std::string_view logColourEnd(const Command& command, std::uint32_t level) {
  return logColour(command, level).empty() ? "" : "\x1b[0m";
}

std::unique_ptr<LogView> logTextView(Command& command) { return std::make_unique<LogTextView>(command); }
std::unique_ptr<LogView> logLineView(Command& command) { return std::make_unique<LogLineView>(command); }
std::unique_ptr<LogView> logJsonView(Command& command) { return std::make_unique<LogJsonView>(command); }
std::unique_ptr<LogView> logCsvView(Command& command) { return std::make_unique<LogCsvView>(command); }

}  // namespace veksys
