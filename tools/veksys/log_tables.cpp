// Views about all records chosen: repeats folded, a field's values counted, records per minute. Each keeps a table of
// fixed size; what does not fit any more is counted together, and said so.
#include <sys/ioctl.h>

#include <algorithm>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "clock.h"
#include "json.h"
#include "log_view.h"

namespace veksys {
namespace {

constexpr std::size_t kRowsMost = 65'536;
constexpr std::size_t kTextMost = 512;  // of a text that a row keeps
constexpr std::int64_t kSecond = 1'000'000'000;

// From when to when, and how often.
struct Span {
  std::uint64_t count = 0;
  std::int64_t first = 0;
  std::int64_t last = 0;

  void add(std::int64_t moment) noexcept {
    first = count == 0 ? moment : std::min(first, moment);
    last = count == 0 ? moment : std::max(last, moment);
    ++count;
  }
};

// To the millisecond, which is what records tell.
void putMoment(Text& text, ClockText& clock, std::int64_t moment) {
  clock.dateTime(text, moment);
  text.cutTo(text.size() - 6);
}

template <class Json>
void putSpanMembers(Json& json, Text& scratch, const Span& span) {
  json.member("count", span.count);
  for (const auto& [name, moment] : {std::pair("first", span.first), std::pair("last", span.last)}) {
    scratch.clear();
    ClockText::iso(scratch, moment);
    json.member(name, scratch.view());
  }
}

void putSpanCsv(Text& text, const Span& span) {
  text.decimal(span.count);
  text.put(',');
  ClockText::iso(text, span.first);
  text.put(',');
  ClockText::iso(text, span.last);
}

void remarkSpill(std::uint64_t records, const char* what) {
  Text text;
  text.grouped(records);
  text.put(records == 1 ? " record is" : " records are");
  text.put(" counted together: there are more than ");
  text.grouped(kRowsMost);
  text.put(what);
  text.put('.');
  remark(text.view());
}

// The first of each kind of record and how often it came.
struct Fold {
  Span span;
  std::uint32_t level = 0;
  std::string function;
  std::string probe;
  std::string code;
  std::string gist;
};

// ---- repeats ----------------------------------------------------------------------------------------------------

// Records are repeats of each other when level, function, probe, code and message are the same.
class LogFoldView : public LogView {
 public:
  LogFoldView(Command& command, bool csv) : command_(&command), csv_(csv) {}

  void show(const LogEntry& entry) override {
    if (entry.piece->kind == LogPiece::Kind::kDamaged) return;
    LogRecord& record = *entry.record;
    makeKey(record);
    auto row = rows_.find(std::string(key_.view()));
    if (row == rows_.end()) {
      if (folds_.size() >= kRowsMost) return others_.add(record.head().moment);
      row = rows_.emplace(std::string(key_.view()), folds_.size()).first;
      folds_.push_back(describe(record));
    }
    folds_[row->second].span.add(record.head().moment);
  }

  void finish() override {
    if (csv_) {
      command_->out.put("count,first,last,level,function,probe,code,gist");
      command_->out.lineEnd();
    }
    for (const Fold& fold : folds_) csv_ ? putAsCsv(fold) : command_->json ? putAsJson(fold) : putAsText(fold);
    if (others_.count != 0) remarkSpill(others_.count, " kinds of records");
  }

 private:
  // Long texts are told apart by what they begin with and their length.
  void makeKey(LogRecord& record) {
    key_.clear();
    key_.decimal(record.head().level);
    for (const LogField field : {LogField::kComponent, LogField::kFunction, LogField::kProbe}) {
      key_.put('\n');
      key_.put(record.text(field));
    }
    for (const std::string_view text : {logCodeName(record), logGist(record)}) {
      key_.put('\n');
      key_.put(text.substr(0, kTextMost));
      key_.decimal(text.size());
    }
  }

  static Fold describe(LogRecord& record) {
    Fold fold;
    fold.level = record.head().level;
    fold.function = record.text(LogField::kFunction);
    fold.probe = record.text(LogField::kProbe);
    fold.code = logCodeName(record);
    fold.gist = logGist(record).substr(0, kTextMost);
    return fold;
  }

  void putAsText(const Fold& fold) {
    Output& out = command_->out;
    out.decimalRight(fold.span.count, 8);
    out.put(" x  ");
    putMoment(out, clock_, fold.span.first);
    if (fold.span.count > 1) {
      out.put(" to ");
      putMoment(out, clock_, fold.span.last);
    } else {
      out.fill(' ', 27);
    }
    out.put("  ");
    out.put(logColour(*command_, fold.level));
    const std::size_t level = out.size();
    out.put(logLevelName(fold.level));
    out.padTo(level, 8);
    out.put(logColourEnd(*command_, fold.level));
    out.put("  ");
    putSafe(out, fold.function + ":" + fold.probe);
    for (const std::string* text : {&fold.code, &fold.gist}) {
      if (text->empty()) continue;
      out.put("  ");
      std::string_view rest = *text;
      putSafe(out, takeLogLine(rest));
    }
    out.lineEnd();
  }

  void putAsJson(const Fold& fold) {
    json_.begin(command_->out);
    putSpanMembers(json_, scratch_, fold.span);
    json_.member("level", fold.level);
    json_.member("level_name", logLevelName(fold.level));
    const std::pair<std::string_view, const std::string*> texts[] = {
        {"function", &fold.function}, {"probe", &fold.probe}, {"code", &fold.code}, {"gist", &fold.gist}};
    for (const auto& [name, text] : texts) putJsonText(json_, scratch_, name, *text);
    json_.EndObject();
    command_->out.lineEnd();
  }

  void putAsCsv(const Fold& fold) {
    Output& out = command_->out;
    putSpanCsv(out, fold.span);
    out.put(',');
    out.put(logLevelName(fold.level));
    for (const std::string* text : {&fold.function, &fold.probe, &fold.code, &fold.gist}) {
      out.put(',');
      putCsv(out, *text);
    }
    out.lineEnd();
  }

  Command* command_;
  bool csv_;
  std::unordered_map<std::string, std::size_t> rows_;
  std::vector<Fold> folds_;  // in the order of their first record
  Span others_;
  Text key_;
  Text scratch_;
  ClockText clock_;
  JsonLine json_;
};

// ---- values of a field ------------------------------------------------------------------------------------------

class LogCountView : public LogView {
 public:
  LogCountView(Command& command, const LogFieldName& field, bool csv) : command_(&command), field_(field), csv_(csv) {}

  void show(const LogEntry& entry) override {
    if (entry.piece->kind == LogPiece::Kind::kDamaged) return;
    const std::string_view text =
        field_.field == LogField::kCode ? logCodeName(*entry.record) : entry.record->text(field_.field);
    const std::string value(text.substr(0, kTextMost));
    auto row = rows_.find(value);
    if (row == rows_.end()) {
      if (rows_.size() >= kRowsMost) return others_.add(entry.record->head().moment);
      row = rows_.emplace(value, Span{}).first;
    }
    row->second.add(entry.record->head().moment);
  }

  void finish() override {
    std::vector<std::pair<std::string, Span>> sorted(rows_.begin(), rows_.end());
    std::sort(sorted.begin(), sorted.end(), [](const auto& a, const auto& b) {
      return a.second.count != b.second.count ? a.second.count > b.second.count : a.first < b.first;
    });
    if (csv_) {
      command_->out.put("count,first,last,");
      command_->out.put(field_.name);
      command_->out.lineEnd();
    }
    for (const auto& [value, span] : sorted)
      csv_ ? putAsCsv(value, span) : command_->json ? putAsJson(value, span) : putAsText(value, span);
    if (others_.count != 0) remarkSpill(others_.count, " values");
  }

 private:
  void putAsText(const std::string& value, const Span& span) {
    Output& out = command_->out;
    out.decimalRight(span.count, 10);
    out.put("  ");
    putMoment(out, clock_, span.first);
    out.put(" to ");
    putMoment(out, clock_, span.last);
    out.put("  ");
    putSafe(out, value.empty() ? std::string_view("(none)") : std::string_view(value));
    out.lineEnd();
  }

  void putAsJson(const std::string& value, const Span& span) {
    json_.begin(command_->out);
    putJsonText(json_, scratch_, field_.name, value);
    putSpanMembers(json_, scratch_, span);
    json_.EndObject();
    command_->out.lineEnd();
  }

  void putAsCsv(const std::string& value, const Span& span) {
    putSpanCsv(command_->out, span);
    command_->out.put(',');
    putCsv(command_->out, value);
    command_->out.lineEnd();
  }

  Command* command_;
  LogFieldName field_;
  bool csv_;
  std::unordered_map<std::string, Span> rows_;
  Span others_;
  Text scratch_;
  ClockText clock_;
  JsonLine json_;
};

// ---- records per minute -----------------------------------------------------------------------------------------

// How bars are made up, the worst first.
enum Worth : std::size_t { kBad, kWarning, kOther, kWorths };

struct Minute {
  std::uint64_t counts[kWorths] = {};
  std::uint64_t all() const noexcept { return counts[kBad] + counts[kWarning] + counts[kOther]; }
};

// A table that is full is counted in longer steps from then on.
struct Step {
  std::int64_t seconds;
  const char* name;
};
constexpr Step kSteps[] = {{60, "minute"}, {600, "ten minutes"}, {3600, "hour"}, {86400, "day"}, {864000, "ten days"}};

class LogMinuteView : public LogView {
 public:
  LogMinuteView(Command& command, bool csv) : command_(&command), csv_(csv) {}

  void show(const LogEntry& entry) override {
    if (entry.piece->kind == LogPiece::Kind::kDamaged) return;
    const LogHead& head = entry.record->head();
    const Worth worth = head.level == 1 || head.level == 2 || head.level == 5 ? kBad
                        : head.level == 3                                     ? kWarning
                                                                              : kOther;
    ++minutes_[stepOf(head.moment)].counts[worth];
    while (minutes_.size() > kRowsMost && step_ + 1 < std::size(kSteps)) coarsen();
  }

  void finish() override {
    if (csv_) {
      command_->out.put("time,severe_and_error,warning,other");
      command_->out.lineEnd();
    }
    std::uint64_t most = 1;
    for (const auto& [moment, minute] : minutes_) most = std::max(most, minute.all());
    const std::int64_t length = kSteps[step_].seconds * kSecond;
    std::int64_t before = minutes_.empty() ? 0 : minutes_.begin()->first - length;
    for (const auto& [moment, minute] : minutes_) {
      if (!csv_ && !command_->json) putGap(moment - before - length);
      csv_ ? putAsCsv(moment, minute) : command_->json ? putAsJson(moment, minute) : putAsText(moment, minute, most);
      before = moment;
    }
    if (step_ != 0)
      remark("There are records in more than 65,536 minutes; each line stands for " +
             std::string(step_ == 1 || step_ == 4 ? "" : "one ") + kSteps[step_].name + ".");
  }

 private:
  std::int64_t stepOf(std::int64_t moment) const noexcept {
    const std::int64_t length = kSteps[step_].seconds * kSecond;
    const std::int64_t rest = moment % length;
    return moment - (rest < 0 ? rest + length : rest);
  }

  void coarsen() {
    ++step_;
    std::map<std::int64_t, Minute> longer;
    for (const auto& [moment, minute] : minutes_)
      for (std::size_t worth = 0; worth < kWorths; ++worth)
        longer[stepOf(moment)].counts[worth] += minute.counts[worth];
    minutes_.swap(longer);
  }

  // Bars share what a terminal has besides time and count; elsewhere 60 columns.
  static std::size_t barColumns() {
    winsize size = {};
    if (!isTerminal(STDOUT_FILENO) || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col < 50) return 60;
    return static_cast<std::size_t>(size.ws_col) - 30;
  }

  void putGap(std::int64_t ns) {
    if (ns <= 0) return;
    command_->out.put("                  (nothing for ");
    putSpan(command_->out, ns);
    command_->out.put(')');
    command_->out.lineEnd();
  }

  void putAsText(std::int64_t moment, const Minute& minute, std::uint64_t most) {
    Output& out = command_->out;
    clock_.dateTime(out, moment);
    out.cutTo(out.size() - 13);  // to the minute
    out.decimalRight(minute.all(), 10);
    out.put("  ");
    constexpr std::uint32_t kLevels[] = {2, 3, 4};
    constexpr char kSigns[] = {'#', '=', '-'};
    std::uint64_t seen = 0;
    std::size_t drawn = 0;
    for (std::size_t worth = 0; worth < kWorths; ++worth) {
      seen += minute.counts[worth];
      const std::size_t until =
          minute.counts[worth] == 0 ? drawn : std::max<std::size_t>(seen * columns_ / most, drawn + 1);
      out.put(logColour(*command_, kLevels[worth]));
      out.fill(kSigns[worth], until - drawn);
      out.put(logColourEnd(*command_, kLevels[worth]));
      drawn = until;
    }
    out.lineEnd();
  }

  void putAsJson(std::int64_t moment, const Minute& minute) {
    json_.begin(command_->out);
    scratch_.clear();
    ClockText::iso(scratch_, moment);
    json_.member("time", scratch_.view());
    json_.member("seconds", kSteps[step_].seconds);
    json_.member("count", minute.all());
    json_.member("severe_and_error", minute.counts[kBad]);
    json_.member("warning", minute.counts[kWarning]);
    json_.member("other", minute.counts[kOther]);
    json_.EndObject();
    command_->out.lineEnd();
  }

  void putAsCsv(std::int64_t moment, const Minute& minute) {
    ClockText::iso(command_->out, moment);
    for (const std::uint64_t count : minute.counts) {
      command_->out.put(',');
      command_->out.decimal(count);
    }
    command_->out.lineEnd();
  }

  Command* command_;
  bool csv_;
  std::size_t step_ = 0;
  std::size_t columns_ = barColumns();
  std::map<std::int64_t, Minute> minutes_;
  Text scratch_;
  ClockText clock_;
  JsonLine json_;
};

}  // namespace

std::unique_ptr<LogView> logFoldView(Command& command, bool csv) { return std::make_unique<LogFoldView>(command, csv); }
std::unique_ptr<LogView> logCountView(Command& command, const LogFieldName& field, bool csv) {
  return std::make_unique<LogCountView>(command, field, csv);
}
std::unique_ptr<LogView> logMinuteView(Command& command, bool csv) {
  return std::make_unique<LogMinuteView>(command, csv);
}

}  // namespace veksys
