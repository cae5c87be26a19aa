// Reading a trace.
//
// Bytes come through pread only, from the shared object as from a dump file: a file that is cut short while it is read
// gives fewer bytes, never a fault. The merge keeps the segments sorted by their first ticks and loads one only when
// the time has come that it covers; a loaded segment stays until its last record has been given out.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <new>
#include <queue>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/dirs.h"
#include "platform/osse.h"
#include "platform/region.h"
#include "platform/trc_ring.h"
#include "platform/trcapi.h"
#include "veksys/codes.h"
#include "veksys/diag/trace_reader.h"
#include "veksys/host.h"

namespace vek {
namespace {

// One segment as the index knows it.
struct SegmentEntry {
  std::uint32_t index;
  bool owned;
  std::uint64_t sequence;
  std::uint64_t startTicks;
  std::uint64_t recordCount;
};

// What has been given out of a thread's records so far.
struct ThreadProgress {
  std::uint64_t nextRecord = 0;
  std::uint64_t lost = 0;
  bool known = false;  // nextRecord can be trusted: no damage since
  bool seen = false;   // a segment of it was given out
};

// A segment being given out.
struct LoadedSegment {
  SegmentEntry entry;
  TrcSegmentId id;
  std::unique_ptr<std::uint64_t[]> words;
  std::uint32_t wordCount = 0;
  std::uint32_t at = 0;     // word of the next record or damage
  std::uint64_t given = 0;  // records so far
  std::uint64_t ticks = 0;  // of what comes next: its place in the merge
  std::uint64_t searchBudget = 0;

  bool recordAt(std::uint32_t word) const noexcept {
    return trcCheckRecord(words.get() + word, wordCount - word, id.sequence) != 0;
  }
};

constexpr std::uint32_t kFirstWord = sizeof(TrcSegmentId) / 8;
constexpr std::uint64_t kSearchFactor = 64;  // words summed at most while looking for the next whole record, per word

// A head that could be one: spares most of the checksums while searching through rubble.
bool plausibleHead(std::uint64_t head) noexcept {
  return trcHeadKind(head) != 0 && trcHeadKind(head) < TRC_KINDS_END && trcHeadItems(head) <= TRC_MAX_ITEMS &&
         trcHeadWords(head) >= TRC_RECORD_FIXED_WORDS + trcHeadItems(head);
}

struct LaterFirst {
  bool operator()(const LoadedSegment* a, const LoadedSegment* b) const noexcept {
    return a->ticks != b->ticks ? a->ticks > b->ticks : a->id.sequence > b->id.sequence;
  }
};

// Ticks to clock: a straight line through the earliest and the latest pair that the trace carries.
struct Clock {
  std::uint64_t baseTicks = 0;
  std::int64_t baseNs = 0;
  double nsPerTick = 1.0;

  std::int64_t realtimeNs(std::uint64_t ticks) const noexcept {
    const auto distance = static_cast<double>(static_cast<std::int64_t>(ticks - baseTicks)) * nsPerTick;
    if (!(distance > -9e18 && distance < 9e18)) return baseNs;
    std::int64_t sum = 0;
    return __builtin_add_overflow(baseNs, static_cast<std::int64_t>(distance), &sum) ? baseNs : sum;
  }
};

}  // namespace
}  // namespace vek

using namespace vek;

struct SqltTraceReader::Implementation {
  int fd = -1;
  std::uint64_t ringOffset = 0;
  TrcRingConstants constants = {};
  TrcCleared cleared = {};
  SqltTraceInfo info = {};
  Clock clock;
  std::map<EcfFunctionId, std::string> names;
  std::vector<SegmentEntry> index;  // by startTicks
  std::size_t nextEntry = 0;
  std::vector<std::unique_ptr<LoadedSegment>> loaded;
  std::vector<std::unique_ptr<LoadedSegment>> spare;
  std::priority_queue<LoadedSegment*, std::vector<LoadedSegment*>, LaterFirst> heap;
  std::unordered_map<std::uint64_t, ThreadProgress> threads;
  std::vector<SqltTraceRecord> unreadable;  // segments whose id is gone, found while indexing
  std::deque<SqltTraceRecord> gaps;         // waiting to be given out before anything else
  LoadedSegment* current = nullptr;         // the segment of the record given out last

  Implementation() = default;
  Implementation(const Implementation&) = delete;
  Implementation& operator=(const Implementation&) = delete;
  ~Implementation() { ossClose(fd); }

  // ---- opening --------------------------------------------------------------------------------------------------

  bool readAt(void* to, std::size_t bytes, std::uint64_t offset) const noexcept {
    std::size_t count = 0;
    return ossReadAt(fd, to, bytes, offset, &count) == 0 && count == bytes;
  }

  SqlzZrc openRing(std::uint64_t offset, std::uint64_t bytes) {
    TrcRingHeader header = {};
    if (bytes < sizeof header || !readAt(static_cast<void*>(&header), sizeof header, offset))
      return SQLT_TRACE_NOT_A_TRACE;
    const TrcRingConstants* sound = trcSoundConstants(header, bytes);
    if (sound == nullptr) return SQLT_TRACE_NOT_A_TRACE;
    ringOffset = offset;
    constants = *sound;
    cleared = trcCleared(header);
    fillInfo(header);
    clock = {constants.createdTicks, constants.createdRealtimeNs, 1e9 / static_cast<double>(constants.ticksPerSecond)};
    readIndex();
    setClock();
    rewind();
    return 0;
  }

  void fillInfo(const TrcRingHeader& header) noexcept {
    ossCopyText(info.instance, sizeof info.instance,
                std::string(constants.instance, sizeof constants.instance).c_str());
    info.ringBytes = constants.ringBytes;
    info.segmentBytes = constants.segmentBytes;
    info.segmentCount = constants.segmentCount;
    info.overwrittenSegments = header.overwrittenSegments.load(std::memory_order_relaxed);
    info.overwrittenRecords = header.overwrittenRecords.load(std::memory_order_relaxed);
    info.lostRecords = header.lostRecords.load(std::memory_order_relaxed);
    info.ticksPerSecond = constants.ticksPerSecond;
    info.createdRealtimeNs = constants.createdRealtimeNs;
    info.readRealtimeNs = ossRealtimeNs();
  }

  // Whichever copy of the segment's id is sound; the descriptor's first.
  bool soundId(const TrcSegmentDescriptor& descriptor, std::uint32_t segment, TrcSegmentId* id) const noexcept {
    if (descriptor.id.check == trcCheckOf(descriptor.id)) {
      *id = descriptor.id;
      return true;
    }
    return readAt(id, sizeof *id, segmentOffset(segment)) && id->check == trcCheckOf(*id);
  }

  std::uint64_t segmentOffset(std::uint32_t segment) const noexcept {
    return ringOffset + trcSegmentsOffset(constants.segmentCount) + segment * constants.segmentBytes;
  }

  void readIndex() {
    constexpr std::uint32_t kBatch = 256;
    std::vector<TrcSegmentDescriptor> batch(kBatch);
    for (std::uint32_t first = 0; first < constants.segmentCount; first += kBatch) {
      const std::uint32_t count = std::min(kBatch, constants.segmentCount - first);
      const std::uint64_t at = ringOffset + TRC_HEADER_BYTES + first * sizeof(TrcSegmentDescriptor);
      if (!readAt(static_cast<void*>(batch.data()), count * sizeof(TrcSegmentDescriptor), at)) break;
      for (std::uint32_t i = 0; i < count; ++i) indexSegment(batch[i], first + i);
    }
    std::sort(index.begin(), index.end(), [](const SegmentEntry& a, const SegmentEntry& b) {
      return a.startTicks != b.startTicks ? a.startTicks < b.startTicks : a.sequence < b.sequence;
    });
  }

  void indexSegment(const TrcSegmentDescriptor& descriptor, std::uint32_t segment) {
    const bool owned = descriptor.owner.load(std::memory_order_relaxed) != 0;
    const std::uint64_t recordCount = descriptor.recordCount.load(std::memory_order_relaxed);
    info.segmentsOwned += owned ? 1 : 0;
    TrcSegmentId id;
    // Never used, or being taken at this moment; a guard of 0 beside a count is damage.
    if (descriptor.guard.load(std::memory_order_relaxed) == 0 && recordCount == 0) return;
    if (!soundId(descriptor, segment, &id)) {
      unreadable.push_back(gapOf(SqltGapReason::kUnreadable, {}, constants.createdTicks));
      unreadable.back().segment = segment;
      unreadable.back().gapBytes = constants.segmentBytes;
      return;
    }
    ++info.segmentsUsed;
    index.push_back({segment, owned || recordCount == TRC_COUNT_OPEN, id.sequence, id.startTicks, recordCount});
  }

  void setClock() {
    if (index.empty()) return;
    TrcSegmentId last;
    if (!readAt(&last, sizeof last, segmentOffset(index.back().index)) || last.check != trcCheckOf(last)) return;
    const auto ticks = static_cast<double>(static_cast<std::int64_t>(last.startTicks - clock.baseTicks));
    const auto ns = static_cast<double>(last.startRealtimeNs) - static_cast<double>(clock.baseNs);
    const double measured = ns / ticks;
    // A short distance says little, and a clock that was set in between says something wrong.
    if (ns > 50e6 && measured > clock.nsPerTick * 0.99 && measured < clock.nsPerTick * 1.01) clock.nsPerTick = measured;
  }

  bool readNames(const TrcDumpHeader& head, std::uint64_t fileBytes) {
    std::uint64_t at = head.namesOffset;
    const std::uint64_t end = std::min(fileBytes, head.namesOffset + std::min(head.namesBytes, fileBytes));
    for (std::uint32_t i = 0; i < head.nameCount && at + sizeof(TrcDumpName) <= end; ++i) {
      TrcDumpName entry;
      if (!readAt(&entry, sizeof entry, at)) return false;
      at += sizeof entry;
      if (entry.bytes > 255 || at + entry.bytes > end) return false;
      std::string text(entry.bytes, '\0');
      if (!readAt(text.data(), text.size(), at)) return false;
      std::replace_if(
          text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
      names.emplace(entry.key, std::move(text));
      at += entry.bytes;
    }
    return true;
  }

  // ---- gaps -----------------------------------------------------------------------------------------------------

  static SqltTraceThread threadOf(const TrcSegmentId& id) noexcept {
    SqltTraceThread thread = {};
    thread.serial = id.threadSerial;
    thread.processId = id.processId;
    thread.threadId = id.threadId;
    thread.partition = id.partition;
    ::memcpy(thread.processName, id.processName, sizeof id.processName);
    ::memcpy(thread.threadName, id.threadName, sizeof id.threadName);
    return thread;
  }

  SqltTraceRecord gapOf(SqltGapReason reason, const SqltTraceThread& thread, std::uint64_t ticks) const noexcept {
    SqltTraceRecord record = {};
    record.kind = SqltRecordKind::kGap;
    record.gapReason = reason;
    record.thread = thread;
    record.ticks = ticks;
    record.realtimeNs = clock.realtimeNs(ticks);
    return record;
  }

  bool isCleared(const LoadedSegment& segment) const noexcept {
    return segment.ticks < cleared.ticks && segment.entry.sequence <= cleared.sequence;
  }

  void addGap(SqltGapReason reason, const LoadedSegment& segment, std::uint64_t records, std::uint64_t bytes) {
    if (isCleared(segment)) return;
    gaps.push_back(gapOf(reason, threadOf(segment.id), segment.ticks));
    SqltTraceRecord& gap = gaps.back();
    gap.gapRecords = records;
    gap.gapBytes = bytes;
    gap.number = segment.id.firstRecord + segment.given;
    gap.segment = segment.entry.index;
    gap.offset = segment.at * 8;
  }

  // What lies between this segment and the thread's one before it.
  void addGapBefore(const LoadedSegment& segment) {
    ThreadProgress& progress = threads[segment.id.threadSerial];
    const bool trusted = progress.known || (!progress.seen && cleared.sequence == 0);
    const std::uint64_t from = progress.known ? progress.nextRecord : 0;
    const std::uint64_t missing = segment.id.firstRecord > from ? segment.id.firstRecord - from : 0;
    const std::uint64_t lostNow = segment.id.lostBefore > progress.lost ? segment.id.lostBefore - progress.lost : 0;
    const std::uint64_t lost = std::min(lostNow, missing);
    if (trusted && missing > lost) addGap(SqltGapReason::kOverwritten, segment, missing - lost, 0);
    if (trusted && lost > 0) addGap(SqltGapReason::kLost, segment, lost, 0);
    progress.known = progress.seen = true;
    progress.lost = segment.id.lostBefore;
    progress.nextRecord = segment.id.firstRecord;
  }

  // ---- segments -------------------------------------------------------------------------------------------------

  std::unique_ptr<LoadedSegment> takeBuffer() {
    if (!spare.empty()) {
      std::unique_ptr<LoadedSegment> segment = std::move(spare.back());
      spare.pop_back();
      return segment;
    }
    auto segment = std::make_unique<LoadedSegment>();
    segment->words = std::make_unique<std::uint64_t[]>(constants.segmentBytes / 8);
    return segment;
  }

  // The bytes of a segment, when they still are the ones the index speaks of.
  bool fetch(const SegmentEntry& entry, LoadedSegment* segment) const noexcept {
    const std::uint64_t at = ringOffset + TRC_HEADER_BYTES + entry.index * sizeof(TrcSegmentDescriptor);
    TrcSegmentDescriptor descriptor = {};
    if (!readAt(segment->words.get(), constants.segmentBytes, segmentOffset(entry.index)) ||
        !readAt(static_cast<void*>(&descriptor), sizeof descriptor, at) ||
        !soundId(descriptor, entry.index, &segment->id))
      return false;
    return segment->id.sequence == entry.sequence;
  }

  void load(const SegmentEntry& entry) {
    auto segment = takeBuffer();
    segment->entry = entry;
    segment->ticks = entry.startTicks;
    segment->at = kFirstWord;
    segment->given = 0;
    if (!fetch(entry, segment.get())) {
      segment->id = {};
      addGap(SqltGapReason::kUnreadable, *segment, 0, constants.segmentBytes);
      spare.push_back(std::move(segment));
      return;
    }
    segment->wordCount = static_cast<std::uint32_t>(constants.segmentBytes / 8);
    segment->searchBudget = segment->wordCount * kSearchFactor;
    addGapBefore(*segment);
    loaded.push_back(std::move(segment));
    advance(loaded.back().get());
  }

  void retire(LoadedSegment* segment) {
    ThreadProgress& progress = threads[segment->id.threadSerial];
    if (progress.known) progress.nextRecord = segment->id.firstRecord + segment->given;
    const auto found =
        std::find_if(loaded.begin(), loaded.end(), [&](const auto& each) { return each.get() == segment; });
    std::swap(*found, loaded.back());
    spare.push_back(std::move(loaded.back()));
    loaded.pop_back();
  }

  // Finds the segment's next whole record and puts it back into the merge, or gives the segment up.
  void advance(LoadedSegment* segment) {
    if (segment->at < segment->wordCount && !segment->recordAt(segment->at) && !skipRubble(segment)) {
      retire(segment);
      return;
    }
    if (segment->at >= segment->wordCount) {
      retire(segment);
      return;
    }
    segment->ticks = segment->words[segment->at + 1];
    heap.push(segment);
  }

  // At a word that is no record: the end of the records, an unfinished one, or damage. True when a record follows.
  bool skipRubble(LoadedSegment* segment) {
    const std::uint64_t head = segment->words[segment->at];
    const bool complete = !segment->entry.owned && segment->given >= segment->entry.recordCount;
    if (head == 0 && (complete || segment->entry.owned)) {
      addUnfinished(*segment);
      return false;
    }
    std::uint32_t word = segment->at + 1;
    while (word + TRC_RECORD_FIXED_WORDS <= segment->wordCount && !foundAt(segment, word)) ++word;
    const bool found = word + TRC_RECORD_FIXED_WORDS <= segment->wordCount;
    const std::uint32_t end = found ? word : segment->wordCount;
    addGap(SqltGapReason::kDamaged, *segment, 0, static_cast<std::uint64_t>(end - segment->at) * 8);
    threads[segment->id.threadSerial].known = false;
    segment->at = end;
    ++segment->given;
    return found;
  }

  static bool foundAt(LoadedSegment* segment, std::uint32_t word) noexcept {
    const std::uint64_t head = segment->words[word];
    if (!plausibleHead(head) || trcHeadWords(head) > segment->wordCount - word) return false;
    if (segment->searchBudget < trcHeadWords(head)) return false;
    segment->searchBudget -= trcHeadWords(head);
    return segment->recordAt(word);
  }

  // A record that was begun: its ticks stand already.
  void addUnfinished(const LoadedSegment& segment) {
    if (segment.at + 1 >= segment.wordCount || segment.words[segment.at + 1] == 0) return;
    addGap(SqltGapReason::kUnfinished, segment, 1, 0);
  }

  // ---- records --------------------------------------------------------------------------------------------------

  // Loads every segment that begins before the next record in the merge.
  void loadDue() {
    while (nextEntry < index.size() && (heap.empty() || index[nextEntry].startTicks <= heap.top()->ticks)) {
      load(index[nextEntry++]);  // one taken before clearing too: its owner may have written into it afterwards
    }
  }

  bool decodeItems(const std::uint64_t* at, const std::uint64_t* end, std::uint32_t count,
                   SqltTraceRecord* record) const noexcept {
    for (std::uint32_t i = 0; i < count; ++i) {
      if (at >= end) return false;
      const std::uint64_t word = *at++;
      SqltTraceItem& item = record->items[i];
      item.type = static_cast<std::uint32_t>(word);
      item.size = static_cast<std::uint32_t>(word >> 32) & TRC_ITEM_SIZE_MOST;
      item.isNull = (word & TRC_ITEM_NULL) != 0;
      item.stored = item.isNull ? 0 : item.size;
      if ((word & TRC_ITEM_CUT) != 0) {
        if (at >= end) return false;
        item.stored = static_cast<std::uint32_t>(std::min<std::uint64_t>(*at++, item.size));
      }
      const std::uint64_t words = item.stored / 8 + (item.stored % 8 != 0 ? 1 : 0);
      if (words > static_cast<std::uint64_t>(end - at)) return false;
      item.data = at;
      at += words;
    }
    return true;
  }

  // Fills in the record at the segment's place. False: it has a sound checksum but no sense.
  bool decode(const LoadedSegment& segment, SqltTraceRecord* record) const noexcept {
    const std::uint64_t* at = segment.words.get() + segment.at;
    const std::uint64_t head = at[0];
    const std::uint32_t items = trcHeadItems(head);
    if (!plausibleHead(head)) return false;
    record->kind = static_cast<SqltRecordKind>(trcHeadKind(head));
    record->gapRecords = record->gapBytes = 0;
    record->ticks = at[1];
    record->realtimeNs = clock.realtimeNs(at[1]);
    record->functionId = static_cast<EcfFunctionId>(at[2]);
    record->probe = static_cast<std::uint32_t>(at[2] >> 32);
    record->value = static_cast<std::int64_t>(at[3]);
    record->thread = threadOf(segment.id);
    record->number = segment.id.firstRecord + segment.given;
    record->segment = segment.entry.index;
    record->offset = segment.at * 8;
    record->itemCount = items;
    return decodeItems(at + TRC_RECORD_FIXED_WORDS, at + trcHeadWords(head), items, record);
  }

  bool giveGap(SqltTraceRecord* record) {
    if (gaps.empty()) return false;
    *record = gaps.front();
    gaps.pop_front();
    return true;
  }

  bool next(SqltTraceRecord* record) {
    for (;;) {
      if (current != nullptr) stepPast(std::exchange(current, nullptr));
      loadDue();
      if (giveGap(record)) return true;
      if (heap.empty()) return false;
      LoadedSegment* segment = heap.top();
      heap.pop();
      current = segment;
      if (!isCleared(*segment) && decode(*segment, record)) return true;
    }
  }

  void stepPast(LoadedSegment* segment) {
    segment->at += trcHeadWords(segment->words[segment->at]);
    ++segment->given;
    advance(segment);
  }

  void rewind() {
    while (!heap.empty()) heap.pop();
    for (auto& segment : loaded) spare.push_back(std::move(segment));
    loaded.clear();
    threads.clear();
    gaps.assign(unreadable.begin(), unreadable.end());
    current = nullptr;
    nextEntry = 0;
  }
};

namespace {

SqlzZrc codeOfOpen(int error) noexcept {
  return error == ENOENT || error == ENOTDIR ? SQLT_TRACE_NOT_CREATED : SQLT_TRACE_READ_FAILED;
}

// Opens the object the live ring of the instance lives in; a private ring by a descriptor of its own.
int openLiveObject(int* fd) noexcept {
  if (regionHeader() != nullptr && regionSharedStatus() != 0) {
    *fd = trcPrivateRing() < 0 ? -1 : ::fcntl(trcPrivateRing(), F_DUPFD_CLOEXEC, 0);
    return *fd < 0 ? ENOENT : 0;
  }
  char path[PATH_BYTES];
  if (sharedObjectPath(TRC_RING_SUFFIX, path, sizeof path) == 0) return ENAMETOOLONG;
  return ossOpen(path, O_RDONLY | O_NONBLOCK, 0, fd);
}

bool isRegularFile(int fd, std::uint64_t* bytes) noexcept {
  struct stat status;
  if (ossCalls().fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  *bytes = static_cast<std::uint64_t>(status.st_size);
  return true;
}

// Runs what may allocate; a reader without memory answers a code like any other failure.
template <class Body>
SqlzZrc guarded(Body body) noexcept {
  try {
    return body();
  } catch (...) {
    return SQLT_TRACE_READ_FAILED;
  }
}

}  // namespace

SqltTraceReader::SqltTraceReader() noexcept = default;
SqltTraceReader::~SqltTraceReader() = default;
SqltTraceReader::SqltTraceReader(SqltTraceReader&&) noexcept = default;
SqltTraceReader& SqltTraceReader::operator=(SqltTraceReader&&) noexcept = default;

SqlzZrc SqltTraceReader::openInstance() noexcept {
  implementation_.reset();
  (void)regionAttach();  // for the names that other processes left there; without a region they stay unnamed
  return guarded([this] {
    auto opened = std::make_unique<Implementation>();
    std::uint64_t bytes = 0;
    const int error = openLiveObject(&opened->fd);
    if (error != 0) return codeOfOpen(error);
    if (!isRegularFile(opened->fd, &bytes)) return static_cast<SqlzZrc>(SQLT_TRACE_NOT_A_TRACE);
    const SqlzZrc result = opened->openRing(0, bytes);
    if (result != 0) return result;
    const TrcControl* control = trcControl();
    opened->info.active = control != nullptr && (control->state.load(std::memory_order_relaxed) & 1U) != 0;
    implementation_ = std::move(opened);
    return SqlzZrc{0};
  });
}

SqlzZrc SqltTraceReader::openFile(const char* path) noexcept {
  implementation_.reset();
  if (path == nullptr || path[0] == '\0') return SQLO_INV_PARM;
  return guarded([this, path] {
    auto opened = std::make_unique<Implementation>();
    const OssUncancelled here;
    // A link to a dump is the reader's own choice.
    opened->fd = ossAboveStandard(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (opened->fd < 0) return codeOfOpen(errno);
    std::uint64_t bytes = 0;
    TrcDumpHeader head = {};
    if (!isRegularFile(opened->fd, &bytes) || bytes < TRC_HEADER_BYTES || !opened->readAt(&head, sizeof head, 0))
      return static_cast<SqlzZrc>(SQLT_TRACE_NOT_A_TRACE);
    const bool sound = ::memcmp(head.magic, TRC_DUMP_MAGIC, sizeof head.magic) == 0 &&
                       head.layoutVersion == TRC_LAYOUT_VERSION && head.check == trcCheckOf(head);
    // The ring stands at a fixed place and vouches for itself: without a sound header only the names are missing.
    const SqlzZrc result = opened->openRing(TRC_HEADER_BYTES, bytes - TRC_HEADER_BYTES);
    if (result != 0) return result;
    opened->info.fromFile = true;
    if (sound) {
      opened->info.readRealtimeNs = head.dumpedRealtimeNs;
      (void)opened->readNames(head, bytes);
    }
    implementation_ = std::move(opened);
    return SqlzZrc{0};
  });
}

bool SqltTraceReader::next(SqltTraceRecord* record) noexcept {
  if (implementation_ == nullptr || record == nullptr) return false;
  try {
    return implementation_->next(record);
  } catch (...) {
    implementation_.reset();  // no memory for another segment: the trace ends here
    return false;
  }
}

void SqltTraceReader::rewind() noexcept {
  if (implementation_ != nullptr) (void)guarded([this] { return implementation_->rewind(), SqlzZrc{0}; });
}

const SqltTraceInfo* SqltTraceReader::info() const noexcept {
  return implementation_ == nullptr ? nullptr : &implementation_->info;
}

const char* SqltTraceReader::functionName(EcfFunctionId id) const noexcept {
  if (implementation_ != nullptr) {
    const auto found = implementation_->names.find(id);
    if (found != implementation_->names.end()) return found->second.c_str();
  }
  return ecfGetFunctionName(id);
}
