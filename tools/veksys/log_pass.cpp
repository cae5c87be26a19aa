#include "log_pass.h"

#include <sys/stat.h>

#include <algorithm>
#include <deque>

#include "failure.h"

namespace veksys {
namespace {

constexpr std::uint64_t kFirstStepBack = 256U << 10;

std::string listOf(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

// Directories that do not exist yet hold nothing yet.
std::vector<LogSeries> findThose(const std::vector<std::string>& names, bool mayLack) {
  std::vector<std::string> there;
  struct stat status;
  for (const std::string& name : names)
    if (!mayLack || ::stat(name.c_str(), &status) == 0) there.push_back(name);
  return findLogs(there);
}

std::string countOf(std::uint64_t count, const char* one, const char* many) {
  Text text;
  text.grouped(count);
  text.put(count == 1 ? one : many);
  return std::string(text.view());
}

}  // namespace

LogPass::LogPass(LogPassOptions options) : options_(std::move(options)) {
  for (LogSeries& series : findThose(options_.names, options_.follow)) addLane(std::move(series));
  if (lanes_.empty() && !options_.follow)
    sayNo("There is no log in " + listOf(options_.names) + ": a file vekdiag.log, or vekdiag.1.log and so on.");
  if (options_.tail.has_value()) rewind(*options_.tail);
}

void LogPass::addLane(LogSeries series) {
  lanes_.push_back(std::make_unique<Lane>(std::move(series), options_.follow));
}

// Damage has no fields: it is shown when everything is.
bool LogPass::chooses(Lane& lane) const {
  if (lane.piece.kind == LogPiece::Kind::kDamaged) {
    lane.record.take({}, {});
    return options_.query.isEmpty();
  }
  lane.record.take(lane.piece.bytes, lane.piece.head);
  return options_.query.chooses(lane.record);
}

bool LogPass::load(Lane& lane) {
  while (!lane.isLoaded && lane.reader.next(&lane.piece)) {
    if (!chooses(lane)) continue;
    lane.isLoaded = true;
    if (lane.piece.kind != LogPiece::Kind::kDamaged) lane.moment = std::max(lane.moment, lane.piece.head.moment);
  }
  return lane.isLoaded;
}

void LogPass::showAll(LogView& view) {
  while (!isFull()) {
    Lane* first = nullptr;
    for (const std::unique_ptr<Lane>& lane : lanes_)
      if (load(*lane) && (first == nullptr || lane->moment < first->moment)) first = lane.get();
    if (first == nullptr) return;
    first->isLoaded = false;
    if (skip_ > 0) {
      --skip_;
      continue;
    }
    view.show({&first->piece, &first->record, &first->reader.path()});
    ++shown_;
  }
}

// ---- the last ones ----------------------------------------------------------------------------------------------

// Each series begins where its last `count` entries do; together they may be more, and the first of those are skipped.
void LogPass::rewind(std::uint64_t count) {
  std::uint64_t found = 0;
  for (const std::unique_ptr<Lane>& lane : lanes_) found += rewindLane(*lane, count);
  skip_ = found > count ? found - count : 0;
}

// Answers how many entries stand from there on.
std::uint64_t LogPass::rewindLane(Lane& lane, std::uint64_t count) const {
  const LogSeries& series = lane.reader.series();
  std::uint64_t found = 0;
  LogSeriesReader::Place place = {series.paths.size(), 0};
  for (std::size_t file = series.paths.size(); file-- > 0 && found < count;) {
    std::uint64_t position = 0;
    const std::uint64_t here = placeLast(series, file, count - found, &position);
    if (here > 0 || file + 1 == series.paths.size()) place = {file, position};
    found += here;
  }
  lane.reader.startAt(place);
  return found;
}

// The position of the last `count` entries of a file, going back in growing steps. Answers how many there are. When
// there are none, the position is near the end.
std::uint64_t LogPass::placeLast(const LogSeries& series, std::size_t file, std::uint64_t count,
                                 std::uint64_t* position) const {
  const std::unique_ptr<LogFile> open = openLogOf(series, file);
  if (open == nullptr) return 0;
  for (std::uint64_t back = kFirstStepBack;; back *= 4) {
    const std::uint64_t start = logStartBefore(*open, back);
    Lane scratch({}, false);
    std::deque<std::uint64_t> places;
    LogReader reader(*open, start, false);
    while (reader.next(&scratch.piece)) {
      *position = scratch.piece.position;
      if (!chooses(scratch)) continue;
      places.push_back(scratch.piece.position);
      if (places.size() > count) places.pop_front();
    }
    if (places.size() < count && start > 0) continue;
    if (!places.empty()) *position = places.front();
    return places.size();
  }
}

// ---- on and on --------------------------------------------------------------------------------------------------

void LogPass::renew() {
  for (LogSeries& series : findThose(options_.names, true)) {
    const std::string key = series.key();
    const bool known =
        std::any_of(lanes_.begin(), lanes_.end(), [&](const auto& lane) { return lane->reader.series().key() == key; });
    if (!known) addLane(std::move(series));
  }
}

void LogPass::run(LogView& view, Output& out) {
  showAll(view);
  if (!options_.follow) return view.finish();
  LogWatch watch;
  while (!isFull()) {
    for (const std::string& name : options_.names) watch.add(name);
    for (const std::unique_ptr<Lane>& lane : lanes_) watch.add(lane->reader.series().directory);
    out.flush();
    watch.wait();
    renew();
    for (const std::unique_ptr<Lane>& lane : lanes_) {
      const std::string sentence = lane->reader.renew();
      if (!sentence.empty()) remark(sentence);
    }
    showAll(view);
  }
}

LogFaults LogPass::faults() const {
  LogFaults all;
  for (const std::unique_ptr<Lane>& lane : lanes_) all.add(lane->reader.faults());
  return all;
}

void LogPass::remarkFaults() const {
  for (const std::unique_ptr<Lane>& lane : lanes_) {
    const LogFaults faults = lane->reader.faults();
    const std::string& name = lane->reader.path();
    if (faults.halves != 0)
      remark("\"" + name + "\" holds " + countOf(faults.halves, " record that is", " records that are") +
             " half-written or damaged.");
    if (faults.places != 0)
      remark("\"" + name + "\" holds " + countOf(faults.damagedBytes, " byte", " bytes") + " in " +
             countOf(faults.places, " place", " places") + " that belong to no record; reading went on at the next " +
             "line that looks like the beginning of one.");
    if (faults.moves != 0)
      remark("\"" + name + "\" was cut, joined or changed: from byte " + std::to_string(faults.firstMove) +
             " on, records stand elsewhere than they tell.");
  }
}

}  // namespace veksys
