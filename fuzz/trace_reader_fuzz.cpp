// Dump files from anywhere, read by the reader and shown by every view.
//
// The first byte chooses. Even: the rest is the file as it is. Odd: the rest is a recipe from which a dump with sound
// checks is assembled, so that what lies behind the checks is reached too; its other bits leave single checks wrong.
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/trc_format.h"
#include "tools/veksys/trace_export.h"
#include "tools/veksys/trace_views.h"

namespace {

constexpr std::uint32_t kSegments = 3;
constexpr std::uint64_t kSegmentBytes = vek::TRC_SEGMENT_BYTES_LEAST;

enum Spoil : std::uint8_t { kSpoilConstants = 2, kSpoilCopies = 4, kSpoilIds = 8, kSpoilRecords = 16, kCutFile = 32 };

// The recipe: values taken off the front; zeros when it is used up.
class Recipe {
 public:
  Recipe(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}
  bool isEmpty() const { return at_ == end_; }
  void take(void* to, std::size_t bytes) {
    const std::size_t count = std::min(bytes, static_cast<std::size_t>(end_ - at_));
    std::memcpy(to, at_, count);
    at_ += count;
  }
  template <class T>
  T take() {
    T value = {};
    take(&value, sizeof value);
    return value;
  }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};

template <class T>
void store(std::string& file, std::size_t offset, const T& value) {
  std::memcpy(file.data() + offset, reinterpret_cast<const char*>(&value), sizeof value);
}

// Records until the segment or the recipe ends. Each: kind, items, words, then its words.
void putRecords(Recipe& recipe, std::uint8_t spoil, std::uint64_t sequence, std::vector<std::uint64_t>& words) {
  const std::size_t most = (kSegmentBytes - sizeof(vek::TrcSegmentId)) / 8 - 1;
  for (unsigned left = recipe.take<std::uint8_t>() % 64; left > 0 && !recipe.isEmpty(); --left) {
    const std::uint32_t kind = recipe.take<std::uint8_t>() % 12;
    const std::uint32_t items = recipe.take<std::uint8_t>() % 24;
    const std::uint32_t count = 4 + recipe.take<std::uint8_t>() % 40;
    if (words.size() + count > most) return;
    const std::uint64_t head = vek::trcHead(count, items, kind);
    const std::size_t at = words.size();
    vek::TrcChecksum sum(sequence);
    sum.add(head);
    words.push_back(head);
    for (std::uint32_t i = 1; i < count; ++i) {
      // Small numbers mostly: sizes, types and ticks that make sense.
      words.push_back(recipe.take<std::uint8_t>() % 4 == 0 ? recipe.take<std::uint64_t>()
                                                           : recipe.take<std::uint16_t>());
      sum.add(words.back());
    }
    const bool spoilt = (spoil & kSpoilRecords) != 0 && recipe.take<std::uint8_t>() % 8 == 0;
    words[at] = head | static_cast<std::uint64_t>(sum.value() + (spoilt ? 1 : 0)) << 32;
  }
}

void putSegment(Recipe& recipe, std::uint8_t spoil, std::uint32_t index, std::string& file) {
  vek::TrcSegmentDescriptor descriptor = {};
  vek::TrcSegmentId& id = descriptor.id;
  id.sequence = recipe.take<std::uint8_t>();
  id.threadSerial = recipe.take<std::uint8_t>() % 4;
  id.firstRecord = recipe.take<std::uint16_t>();
  id.lostBefore = recipe.take<std::uint8_t>();
  id.startTicks = recipe.take<std::uint16_t>();
  id.startRealtimeNs = recipe.take<std::int64_t>();
  recipe.take(id.processName, sizeof id.processName);
  recipe.take(id.threadName, sizeof id.threadName);
  id.check = vek::trcCheckOf(id) + ((spoil & kSpoilIds) != 0 ? 1 : 0);
  descriptor.owner = recipe.take<std::uint8_t>() % 2;
  descriptor.guard = recipe.take<std::uint8_t>() % 8 == 0 ? 0 : id.sequence;
  descriptor.recordCount = recipe.take<std::uint8_t>();
  std::vector<std::uint64_t> words;
  putRecords(recipe, spoil, id.sequence, words);
  const std::size_t at = vek::TRC_HEADER_BYTES + vek::trcSegmentsOffset(kSegments) + index * kSegmentBytes;
  store(file, vek::TRC_HEADER_BYTES * 2 + index * sizeof descriptor, descriptor);
  store(file, at, id);
  if (!words.empty()) std::memcpy(file.data() + at + sizeof id, words.data(), words.size() * 8);
}

std::string assemble(std::uint8_t spoil, Recipe recipe) {
  const std::uint64_t ring = vek::trcObjectBytes(kSegments, kSegmentBytes);
  std::string file(vek::TRC_HEADER_BYTES + ring, '\0');
  vek::TrcRingConstants constants = {};
  std::memcpy(constants.magic, vek::TRC_RING_MAGIC, sizeof constants.magic);
  constants.layoutVersion = vek::TRC_LAYOUT_VERSION;
  constants.segmentCount = kSegments;
  constants.ringBytes = kSegments * kSegmentBytes;
  constants.segmentBytes = kSegmentBytes;
  constants.ticksPerSecond = 1 + recipe.take<std::uint32_t>();
  constants.createdRealtimeNs = recipe.take<std::int64_t>();
  recipe.take(constants.instance, sizeof constants.instance);
  constants.check = vek::trcCheckOf(constants);
  vek::TrcRingHeader header = {};
  header.again = constants;
  if ((spoil & kSpoilCopies) != 0) ++header.again.check;
  if ((spoil & kSpoilConstants) != 0) ++constants.check;
  header.constants = constants;
  header.cleared.sequence = recipe.take<std::uint8_t>() % 4;
  header.cleared.ticks = recipe.take<std::uint16_t>();
  header.cleared.check = vek::trcCheckOf(header.cleared);
  store(file, vek::TRC_HEADER_BYTES, header);
  for (std::uint32_t index = 0; index < kSegments; ++index) putSegment(recipe, spoil, index, file);

  vek::TrcDumpHeader head = {};
  std::memcpy(head.magic, vek::TRC_DUMP_MAGIC, sizeof head.magic);
  head.layoutVersion = vek::TRC_LAYOUT_VERSION;
  head.nameCount = recipe.take<std::uint8_t>();
  head.ringOffset = vek::TRC_HEADER_BYTES;
  head.ringBytes = ring;
  head.namesOffset = file.size();
  for (unsigned i = 0; i < head.nameCount && !recipe.isEmpty(); ++i) {
    const vek::TrcDumpName name = {recipe.take<std::uint32_t>(), recipe.take<std::uint8_t>()};
    file.append(reinterpret_cast<const char*>(&name), sizeof name);
    file.append(name.bytes / 2, 'n');
  }
  head.namesBytes = file.size() - head.namesOffset;
  head.check = vek::trcCheckOf(head);
  store(file, 0, head);
  if ((spoil & kCutFile) != 0) file.resize(recipe.take<std::uint16_t>() % file.size());
  return file;
}

// Runs one view; a refusal is an answer like any other.
template <class View>
void show(const std::string& path, bool json, const veksys::FilterOptions& filter, View view) {
  veksys::Command command;
  command.json = json;
  try {
    veksys::TracePass pass(path, filter);
    view(pass, command);
    command.out.flush();
  } catch (const veksys::Failure&) {
  }
}

void showAll(const std::string& path) {
  using namespace veksys;
  FilterOptions every;
  FilterOptions failed;
  failed.errors = true;
  failed.since = "5s";
  for (const bool json : {false, true}) {
    for (const FilterOptions& filter : {every, failed}) {
      show(path, json, filter, runFormat);
      show(path, json, filter, [](TracePass& pass, Command& to) { runFlow(pass, to, {false, true}); });
      show(path, json, filter, [](TracePass& pass, Command& to) { runFlow(pass, to, {true, false}); });
      show(path, json, filter, [](TracePass& pass, Command& to) { runStat(pass, to, {}); });
    }
  }
  show(path, false, every, [](TracePass& pass, Command&) { exportChrome(pass, "/dev/null"); });
  show(path, false, every, [](TracePass& pass, Command&) { exportCtfStream(pass, "/dev/null"); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool recipe = (data[0] & 1U) != 0;
  const std::string file = recipe ? assemble(data[0], Recipe(data + 1, size - 1))
                                  : std::string(reinterpret_cast<const char*>(data) + 1, size - 1);
  const int fd = ::memfd_create("dump", MFD_CLOEXEC);
  if (fd < 0 || ::write(fd, file.data(), file.size()) != static_cast<ssize_t>(file.size())) std::abort();
  showAll("/proc/self/fd/" + std::to_string(fd));
  ::close(fd);
  return 0;
}
