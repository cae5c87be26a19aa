// The reader of diagnostic logs over files from anywhere.
//
// An input is a log as it stands, or a recipe that puts one together: records whose identifiers are right, spoilt in
// ways the recipe chooses. Behind the reader's own promises (it goes forward, its pieces lie in the file and do not
// overlap, what it leaves out is line ends, going to the end leads to a record) all shapes of the output are made.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/veksys/command.h"
#include "tools/veksys/failure.h"
#include "tools/veksys/log_file.h"
#include "tools/veksys/log_pass.h"
#include "tools/veksys/log_query.h"
#include "tools/veksys/log_view.h"

namespace {

// Bytes of the input, taken from its front; zeros when it is used up.
class Recipe {
 public:
  Recipe(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool isEmpty() const { return size_ == 0; }
  unsigned take() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  std::string text(std::size_t most) {
    std::string text(reinterpret_cast<const char*>(data_), most < size_ ? most : size_);
    data_ += text.size();
    size_ -= text.size();
    return text;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};

enum Spoil : unsigned {
  kWrongOffset = 1,
  kWrongLength = 2,
  kCut = 4,
  kNoReturns = 8,
  kRubbish = 16,
  kNested = 32,  // the record stands inside the text of the one before, too
};

std::string recordAt(std::size_t offset, unsigned spoil, Recipe& recipe) {
  static const char* const kLevels[] = {"Severe", "Error", "Warning (x)", "Info", "Critical", "Event", "?"};
  std::string rest = std::string(" LEVEL: ") + kLevels[recipe.take() % 7] +
                     "\r\nPID     : 4711                 TID : 140737353922368PROC : p\r\nINSTANCE: i           NODE : "
                     "001           DB   : D\r\nFUNCTION: VEK, a, b, f, probe:10\r\nMESSAGE : ";
  rest += recipe.text(recipe.take()) + "\r\nRETCODE : ZRC=0x8B0F0000\r\nDATA #1 : String\r\n" +
          recipe.text(recipe.take() % 16) + "\r\n";
  const std::size_t length = 26 + 4 + 1 + 25 + rest.size() + ((spoil & kWrongLength) != 0 ? recipe.take() : 0);
  const std::size_t told = offset + 2 + ((spoil & kWrongOffset) != 0 ? recipe.take() : 0);
  std::string identifier = "I" + std::to_string(told) + "H" + std::to_string(length);
  identifier.resize(25, ' ');
  return "\r\n2025-11-21-10.00." + std::to_string(10 + recipe.take() % 50) + ".000000+060 " + identifier + rest;
}

std::string assemble(Recipe recipe) {
  std::string log;
  while (!recipe.isEmpty() && log.size() < 400'000) {
    const unsigned spoil = recipe.take();
    std::string record = recordAt(log.size(), spoil, recipe);
    if ((spoil & kCut) != 0) record.resize(record.size() * recipe.take() / 256);
    if ((spoil & kNoReturns) != 0) std::erase(record, '\r');
    if ((spoil & kRubbish) != 0) log += recipe.text(recipe.take());
    if ((spoil & kNested) != 0) log += recordAt(log.size(), 0, recipe).substr(0, 200);
    log += record;
  }
  return log;
}

void require(bool holds) {
  if (!holds) std::abort();
}

// Line ends between pieces are the only bytes that no piece has.
void requireGap(const std::string& log, std::uint64_t from, std::uint64_t to) {
  for (std::uint64_t i = from; i < to; ++i) require(log[i] == '\r' || log[i] == '\n');
}

void checkReader(const std::string& path, const std::string& log) {
  for (const bool growing : {false, true}) {
    veksys::LogFile file(path);
    veksys::LogReader reader(file, 0, growing);
    veksys::LogPiece piece;
    std::uint64_t end = 0;
    while (reader.next(&piece)) {
      require(piece.position >= end && piece.size > 0 && piece.position + piece.size <= log.size());
      requireGap(log, end, piece.position);
      require(log.compare(piece.position, piece.bytes.size(), piece.bytes) == 0);
      end = piece.position + piece.size;
    }
    if (!growing) requireGap(log, end, log.size());
  }
  veksys::LogFile file(path);
  for (const std::uint64_t back : {1U, 1000U, 100'000U}) require(veksys::logStartBefore(file, back) <= log.size());
}

void show(const std::string& path, bool json, const char* where, int shape) {
  veksys::Command command;
  command.json = json;
  try {
    veksys::LogPassOptions options;
    options.names = {path};
    if (where[0] != '\0') options.query.require(std::string(where));
    if (shape == 0) options.tail = 3;
    veksys::LogPass pass(std::move(options));
    const auto view = shape == 0   ? veksys::logTextView(command)
                      : shape == 1 ? veksys::logLineView(command)
                      : shape == 2 ? veksys::logJsonView(command)
                      : shape == 3 ? veksys::logCsvView(command)
                      : shape == 4 ? veksys::logFoldView(command, false)
                                   : veksys::logMinuteView(command, false);
    pass.run(*view, command.out);
    command.out.flush();
  } catch (const veksys::Failure&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string log = (data[0] & 1U) != 0 ? assemble(Recipe(data + 1, size - 1))
                                              : std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
  const int fd = ::memfd_create("log", MFD_CLOEXEC);
  if (fd < 0 || ::write(fd, log.data(), log.size()) != static_cast<ssize_t>(log.size())) std::abort();
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  checkReader(path, log);
  for (int shape = 0; shape < 6; ++shape) show(path, shape >= 4, "", shape);
  show(path, false, "level<=2 and code=SQLO_NOMEM and component~a or text~\"x\" and oserr!=28", 1);
  ::close(fd);
  return 0;
}
