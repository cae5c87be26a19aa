// One pass over logs: the records chosen from all series, merged by time.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "log_files.h"
#include "log_query.h"
#include "log_view.h"
#include "log_watch.h"

namespace veksys {

struct LogPassOptions {
  std::vector<std::string> names;  // of files and directories
  LogQuery query;
  std::optional<std::uint64_t> tail;
  std::optional<std::uint64_t> limit;
  bool follow = false;
};

class LogPass {
 public:
  explicit LogPass(LogPassOptions options);  // throws Failure when there is no log, unless it is to be followed

  // Shows what there is; with `follow`, goes on until the limit is reached or the reader of the output has gone.
  void run(LogView& view, Output& out);

  std::uint64_t shown() const noexcept { return shown_; }
  LogFaults faults() const;

  // Says on standard error what was met besides whole records.
  void remarkFaults() const;

 private:
  // A series with its next entry.
  struct Lane {
    Lane(LogSeries series, bool follow) : reader(std::move(series), follow) {}
    LogSeriesReader reader;
    LogPiece piece = {};
    LogRecord record;
    bool isLoaded = false;
    std::int64_t moment = 0;  // never goes back, so that a clock that did does not hold the other series up
  };

  void addLane(LogSeries series);
  bool load(Lane& lane);
  bool chooses(Lane& lane) const;
  void showAll(LogView& view);
  void rewind(std::uint64_t count);
  std::uint64_t rewindLane(Lane& lane, std::uint64_t count) const;
  std::uint64_t placeLast(const LogSeries& series, std::size_t file, std::uint64_t count,
                          std::uint64_t* position) const;
  void renew();
  bool isFull() const noexcept { return options_.limit.has_value() && shown_ >= *options_.limit; }

  LogPassOptions options_;
  std::vector<std::unique_ptr<Lane>> lanes_;
  std::uint64_t skip_ = 0;  // entries before those of the tail
  std::uint64_t shown_ = 0;
};

}  // namespace veksys
