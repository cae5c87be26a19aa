#include "log_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "failure.h"
#include "veksys/host.h"

namespace veksys {
namespace {

constexpr std::string_view kLogName = "vekdiag.log";
constexpr std::string_view kSeriesStart = "vekdiag.";
constexpr std::string_view kSeriesEnd = ".log";
constexpr std::string_view kBelow[] = {"HOST_", "NODE", "DIAG", "rotate"};  // of split paths, and of rotation
constexpr unsigned kDepth = 3;                                              // of them inside each other

// The number of a file of a rotating log.
std::optional<std::uint64_t> seriesNumber(std::string_view name) {
  if (!name.starts_with(kSeriesStart) || !name.ends_with(kSeriesEnd)) return std::nullopt;
  name.remove_prefix(kSeriesStart.size());
  if (name.size() <= kSeriesEnd.size()) return std::nullopt;
  name.remove_suffix(kSeriesEnd.size());
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  return error == std::errc{} && end == name.data() + name.size() ? std::optional(number) : std::nullopt;
}

bool isDirectory(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string pathOf(std::string directory, const std::string& name) {
  directory.append("/").append(name);
  return directory;
}

std::vector<std::string> namesIn(const std::string& directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(directory.c_str()), ::closedir);
  if (open == nullptr) sayNo("\"" + directory + "\" cannot be read: " + std::strerror(errno) + ".");
  while (const dirent* entry = ::readdir(open.get())) names.emplace_back(entry->d_name);
  std::sort(names.begin(), names.end());
  return names;
}

// The files of a rotating log in a directory, by number.
std::vector<std::string> rotatingFiles(const std::string& directory, const std::vector<std::string>& names) {
  std::vector<std::pair<std::uint64_t, std::string>> found;
  for (const std::string& name : names)
    if (const auto number = seriesNumber(name)) found.emplace_back(*number, pathOf(directory, name));
  std::sort(found.begin(), found.end());
  std::vector<std::string> paths;
  for (auto& [number, path] : found) paths.push_back(std::move(path));
  return paths;
}

// Nothing, which comes before every number, for no file of a series.
std::optional<std::uint64_t> numberOf(std::string_view path) { return seriesNumber(path.substr(path.rfind('/') + 1)); }

// How many numbers of a series stand between those of two files.
std::uint64_t numbersBetween(const std::string& one, const std::string& other) {
  const std::uint64_t from = numberOf(one).value_or(0);
  const std::uint64_t to = numberOf(other).value_or(0);
  return to > from ? to - from - 1 : 0;
}

bool comesBefore(const std::string& one, const std::string& other) { return numberOf(one) < numberOf(other); }

void findBelow(const std::string& directory, unsigned depth, std::vector<LogSeries>& found) {
  const std::vector<std::string> names = namesIn(directory);
  LogSeries rotating = {directory, true, rotatingFiles(directory, names)};
  if (!rotating.paths.empty()) found.push_back(std::move(rotating));
  for (const std::string& name : names) {
    const std::string path = pathOf(directory, name);
    if (name == kLogName && !isDirectory(path)) found.push_back({directory, false, {path}});
    const bool below = std::any_of(std::begin(kBelow), std::end(kBelow),
                                   [&](std::string_view start) { return name.starts_with(start); });
    if (below && depth > 0 && isDirectory(path)) findBelow(path, depth - 1, found);
  }
}

std::string withoutSeparator(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

std::string directoryOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

// An absolute path from the environment; anything else counts as not set.
std::string absoluteFrom(const char* variable) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] == '/' ? withoutSeparator(value) : "";
}

std::string homeDirectory() {
  if (std::string home = absoluteFrom("HOME"); !home.empty()) return home;
  const passwd* entry = ::getpwuid(::geteuid());
  return entry != nullptr && entry->pw_dir != nullptr && entry->pw_dir[0] == '/' ? entry->pw_dir : "/tmp";
}

}  // namespace

std::string instanceLogDirectory() {
  if (const std::string named = absoluteFrom("VEK_INSTANCE_DIR"); !named.empty()) return named + "/diag";
  std::string state = absoluteFrom("XDG_STATE_HOME");
  if (state.empty()) state = homeDirectory() + "/.local/state";
  return state + "/veksys/" + vekInstanceName() + "/diag";
}

std::vector<LogSeries> findLogs(const std::vector<std::string>& names) {
  std::vector<LogSeries> found;
  for (const std::string& typed : names) {
    const std::string name = withoutSeparator(typed);
    if (isDirectory(name))
      findBelow(name, kDepth, found);
    else
      found.push_back({directoryOf(name), false, {name}});
  }
  return found;
}

std::unique_ptr<LogFile> openLogOf(const LogSeries& series, std::size_t file) {
  try {
    return std::make_unique<LogFile>(series.paths[file]);
  } catch (const Failure&) {
    if (!series.isRotating || ::access(series.paths[file].c_str(), F_OK) == 0) throw;
    return nullptr;
  }
}

// ---- one series -------------------------------------------------------------------------------------------------

void LogSeriesReader::startAt(Place place) {
  next_ = place.file;
  start_ = place.position;
}

// False for a file that rotation has taken away since its directory was read.
bool LogSeriesReader::open(std::size_t file, std::uint64_t position) {
  file_ = openLogOf(series_, file);
  if (file_ == nullptr) return false;
  if (series_.isRotating && !path_.empty()) missed_ += numbersBetween(path_, series_.paths[file]);
  path_ = series_.paths[file];
  const bool isLast = file + 1 == series_.paths.size();
  isOver_ = !isLast;
  reader_.emplace(*file_, position, growing_ && isLast);
  return true;
}

bool LogSeriesReader::openNext() {
  while (next_ < series_.paths.size()) {
    const std::size_t file = next_++;
    const std::uint64_t position = std::exchange(start_, 0);
    if (open(file, position)) return true;
  }
  return false;
}

void LogSeriesReader::leave() {
  faults_.add(reader_->faults());
  reader_.reset();
  file_.reset();
}

bool LogSeriesReader::next(LogPiece* piece) {
  for (;;) {
    if (!reader_.has_value() && !openNext()) return false;
    if (reader_->next(piece)) return true;
    if (!isOver_) return false;
    reader_->finish();
    if (reader_->next(piece)) return true;
    leave();
  }
}

std::string LogSeriesReader::renew() {
  std::string sentence;
  if (const std::uint64_t missed = std::exchange(missed_, 0); missed != 0)
    sentence = std::to_string(missed) + (missed == 1 ? " file" : " files") + " in front of \"" + path_ +
               "\" went with rotation before they could be read.";
  if (series_.isRotating) {
    // Asked before the file is read once more: what is written after this stands in the new file.
    std::vector<std::string> paths = rotatingFiles(series_.directory, namesIn(series_.directory));
    next_ = static_cast<std::size_t>(std::upper_bound(paths.begin(), paths.end(), path_, comesBefore) - paths.begin());
    series_.paths = std::move(paths);
    isOver_ = isOver_ || next_ < series_.paths.size();
  } else if (file_ != nullptr && !file_->isCurrent() && ::access(path_.c_str(), R_OK) == 0) {
    isOver_ = true;
    next_ = 0;
    sentence = "\"" + path_ + "\" has been replaced; going on in the new file.";
  }
  if (file_ == nullptr) return sentence;
  file_->refresh();
  if (reader_->position() > file_->size()) {
    faults_.add(reader_->faults());
    reader_.emplace(*file_, 0, growing_);
    sentence = "\"" + path_ + "\" has become shorter; reading it from its beginning.";
  }
  return sentence;
}

LogFaults LogSeriesReader::faults() const {
  LogFaults all = faults_;
  if (reader_.has_value()) all.add(reader_->faults());
  return all;
}

}  // namespace veksys
