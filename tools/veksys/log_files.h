// The files of a log: found, put in order, and read one after the other while they rotate.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "log_file.h"

namespace veksys {

// Files that follow each other in time: a single log, or the numbered files of a rotating one, the oldest first.
struct LogSeries {
  std::string directory;
  bool isRotating = false;
  std::vector<std::string> paths;

  // What tells it from others, whatever files it has at the moment.
  std::string key() const { return isRotating ? directory + "/#" : paths.empty() ? directory : paths[0]; }
};

// The diagnostic directory of the instance. It need not exist.
std::string instanceLogDirectory();

// The series that files and directories name; of a directory those in it and in the directories of hosts and members
// below it. Throws Failure for a name that is neither file nor directory.
std::vector<LogSeries> findLogs(const std::vector<std::string>& names);

// Opens a file of a series; null when rotation has taken it away since the series was found. Throws Failure for one
// that cannot be read.
std::unique_ptr<LogFile> openLogOf(const LogSeries& series, std::size_t file);

// Reads a series from its oldest file, or the place told, to its end, and on when it grows.
class LogSeriesReader {
 public:
  LogSeriesReader(LogSeries series, bool growing) : series_(std::move(series)), growing_(growing) {}

  // Where a record begins.
  struct Place {
    std::size_t file = 0;
    std::uint64_t position = 0;
  };
  void startAt(Place place);

  // False at the end of what has been written so far. What a piece points to is valid until the next call.
  bool next(LogPiece* piece);

  // Looks whether the file has grown, was replaced or is followed by another one. Call it when next() has answered
  // false. The answer says in a sentence what a reader of the output should know; mostly nothing.
  std::string renew();

  const LogSeries& series() const noexcept { return series_; }
  const std::string& path() const noexcept { return path_; }
  LogFaults faults() const;

 private:
  bool open(std::size_t file, std::uint64_t position);
  bool openNext();
  void leave();

  LogSeries series_;
  bool growing_;
  bool isOver_ = false;  // the file is complete: another one has taken its place
  std::size_t next_ = 0;
  std::uint64_t start_ = 0;   // in the next file
  std::uint64_t missed_ = 0;  // files between those read that rotation took away, until that is told
  std::string path_;
  std::unique_ptr<LogFile> file_;
  std::optional<LogReader> reader_;
  LogFaults faults_;  // of files that were left
};

}  // namespace veksys
