// Attaching, taking segments, writing records.
//
// The protocol, with what may happen at each step. A thread that needs a segment:
//
//   1. advances the shared cursor and looks at the descriptor it names. Owned: next one.
//   2. swaps the owner word from 0 to its process's. From here the segment is its own. Killed here: the old records
//      are still there and readable, and the sweep frees the segment when the process's lock has gone.
//   3. zeroes guard and count, writes the id (twice) and zeros at the place of the first record. Killed here: readers
//      see guard 0 and pass over the segment; its old records are gone, which is what taking it meant.
//   4. stores the new sequence number into the guard. Readers may enter.
//
// A record: words behind the head, two zeros behind the record, then the head in one store. Killed or stopped before
// that store: readers see the zero in its place and ticks behind it, so they tell of a record that was begun; nothing
// else is affected, since nobody else writes here. Woken later, even after the ring has gone round thousands of times:
// the segment is still this thread's, and it goes on.
//
// Leaving a full segment: the count of its records, then the owner word back to 0, in one store.
#include "platform/trcapi.h"

#include <string.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "platform/dirs.h"
#include "platform/library_mutex.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/region.h"
#include "platform/thread.h"
#include "platform/trc_ring.h"
#include "platform/wint.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace vek {
namespace {

constexpr std::uint64_t kRetryAfter = 64;  // records lost before a thread without a segment searches again
constexpr unsigned kLockWaitMs = 2000;
constexpr std::int32_t kHostsPartition = INT32_MIN;  // that of the instance control block
constinit const std::atomic<std::uint64_t> g_noTrace{0};

struct Globals {
  std::atomic<bool> attached{false};
  std::atomic<bool> detaching{false};
  std::atomic<std::int32_t> partition{kHostsPartition};
  std::atomic<std::uint32_t> processId{0};  // 0: the process's own
  std::atomic<const TrcCallbacks*> callbacks{nullptr};
};

constinit Globals g_trace;

void tell(void (*TrcCallbacks::*what)()) noexcept {
  const TrcCallbacks* callbacks = g_trace.callbacks.load(std::memory_order_acquire);
  if (callbacks != nullptr && callbacks->*what != nullptr) (callbacks->*what)();
}

// The instance's trace state, or a word that reads "no trace" while the process is not attached.
constinit std::atomic<const std::atomic<std::uint64_t>*> g_traceState{&g_noTrace};

std::uint64_t traceState() noexcept {
  return g_traceState.load(std::memory_order_relaxed)->load(std::memory_order_relaxed);
}

// ---- segments ---------------------------------------------------------------------------------------------------

void leaveSegment(TrcWriter& writer) noexcept {
  if (writer.segment == nullptr) return;
  writer.segment->recordCount.store(writer.written, std::memory_order_relaxed);
  writer.segment->owner.store(0, std::memory_order_release);
  writer.segment = nullptr;
}

void countOverwritten(TrcRingHeader& header, const TrcSegmentDescriptor& descriptor) noexcept {
  const std::uint64_t previous = descriptor.guard.load(std::memory_order_relaxed);
  if (previous == 0 || previous <= header.cleared.sequence.load(std::memory_order_relaxed)) return;
  header.overwrittenSegments.fetch_add(1, std::memory_order_relaxed);
  header.overwrittenRecords.fetch_add(descriptor.recordCount.load(std::memory_order_relaxed),
                                      std::memory_order_relaxed);
}

// A signal handler may count lost records at any moment: the two numbers must be of the same one.
void numberSegment(const TrcWriter& writer, TrcSegmentId* id) noexcept {
  do {
    id->lostBefore = __atomic_load_n(&writer.lost, __ATOMIC_RELAXED);
    id->firstRecord = __atomic_load_n(&writer.attempted, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  } while (__atomic_load_n(&writer.lost, __ATOMIC_RELAXED) != id->lostBefore);
}

TrcSegmentId describe(const ThreadState& thread, std::uint64_t sequence) noexcept {
  TrcSegmentId id = {};
  const std::uint32_t processId = g_trace.processId.load(std::memory_order_relaxed);
  id.sequence = sequence;
  id.threadSerial = thread.serial;
  numberSegment(thread.trace, &id);
  id.startTicks = ossTicks();
  id.startRealtimeNs = ossRealtimeNs();
  id.processId = processId != 0 ? processId : thread.processId;
  id.threadId = thread.threadId;
  const std::int32_t partition = g_trace.partition.load(std::memory_order_relaxed);
  id.partition = partition != kHostsPartition ? partition : vekInstanceControl()->partition;
  ossProcessName(id.processName, sizeof id.processName);
  ::memcpy(id.threadName, thread.name, sizeof id.threadName);
  id.check = trcCheckOf(id);
  return id;
}

// Steps 3 and 4: the descriptor is this process's.
void openSegment(ThreadState& thread, std::uint32_t index) noexcept {
  TrcWriter& writer = thread.trace;
  TrcRing& ring = *writer.ring;
  TrcSegmentDescriptor& descriptor = *ring.descriptor(index);
  char* segment = ring.segment(index);
  countOverwritten(*ring.header(), descriptor);
  descriptor.guard.store(0, std::memory_order_relaxed);
  descriptor.recordCount.store(0, std::memory_order_relaxed);
  std::atomic_thread_fence(std::memory_order_release);
  const std::uint64_t sequence = ring.header()->lastSequence.fetch_add(1, std::memory_order_relaxed) + 1;
  const TrcSegmentId id = describe(thread, sequence);
  trcStoreWords(&descriptor.id, &id, sizeof id);
  // Whoever finds bytes of this use in the segment finds its id in the descriptor when it looks there afterwards.
  std::atomic_thread_fence(std::memory_order_release);
  trcStoreWords(segment, &id, sizeof id);
  writer.next = reinterpret_cast<std::uint64_t*>(segment + sizeof id);
  writer.limit = reinterpret_cast<std::uint64_t*>(segment + ring.segmentBytes) - 2;
  writer.seed = sequence;
  writer.written = 0;
  __atomic_store_n(writer.next, 0, __ATOMIC_RELAXED);
  __atomic_store_n(writer.next + 1, 0, __ATOMIC_RELAXED);
  descriptor.recordCount.store(TRC_COUNT_OPEN, std::memory_order_relaxed);
  descriptor.guard.store(sequence, std::memory_order_release);
  writer.segment = &descriptor;
}

// Steps 1 and 2. Answers how many owned segments it met, or -1 when it met nothing else.
int searchSegment(ThreadState& thread) noexcept {
  TrcRing& ring = *thread.trace.ring;
  const std::uint64_t mine = regionProcessOwner();
  for (std::uint32_t met = 0; met < ring.segmentCount; ++met) {
    const auto index =
        static_cast<std::uint32_t>(ring.header()->cursor.fetch_add(1, std::memory_order_relaxed) % ring.segmentCount);
    std::uint64_t expected = 0;
    auto& owner = ring.descriptor(index)->owner;
    if (owner.load(std::memory_order_relaxed) != 0 ||
        !owner.compare_exchange_strong(expected, mine, std::memory_order_acquire))
      continue;
    openSegment(thread, index);
    return static_cast<int>(met);
  }
  return -1;
}

// What dead processes hold is looked for once the searches of this process have met owned segments as often as a
// quarter of the ring has segments, at most ten times a second: the only system calls on the way of a record.
bool sweepIsDue(TrcRing& ring, int met) noexcept {
  const std::uint32_t newlyMet = met < 0 ? ring.segmentCount : static_cast<std::uint32_t>(met);
  if (newlyMet == 0) return false;
  const std::uint32_t sum = ring.ownedMet.fetch_add(newlyMet, std::memory_order_relaxed) + newlyMet;
  if (sum < ring.segmentCount / 4) return false;
  const std::uint64_t now = ossTicks();
  std::uint64_t due = ring.nextSweepTicks.load(std::memory_order_relaxed);
  if (now < due || !ring.nextSweepTicks.compare_exchange_strong(due, now + ring.ticksPerSecond / 10)) return false;
  ring.ownedMet.store(0, std::memory_order_relaxed);
  return true;
}

bool takeSegment(ThreadState& thread) noexcept {
  TrcWriter& writer = thread.trace;
  if (writer.attempted < writer.retryAt) return false;
  int met = searchSegment(thread);
  if (sweepIsDue(*writer.ring, met) && trcSweep() && met < 0) met = searchSegment(thread);
  writer.retryAt = met < 0 ? writer.attempted + kRetryAfter : 0;
  return met >= 0;
}

void countLost(TrcWriter& writer) noexcept {
  ++writer.attempted;
  ++writer.lost;
  if (writer.ring != nullptr) writer.ring->header()->lostRecords.fetch_add(1, std::memory_order_relaxed);
}

// ---- getting ready ----------------------------------------------------------------------------------------------

void leaveRing(TrcWriter& writer) noexcept {
  leaveSegment(writer);
  TrcRing* ring = std::exchange(writer.ring, nullptr);
  std::atomic_signal_fence(std::memory_order_seq_cst);  // a signal handler counts no loss in a ring that may be gone
  if (ring != nullptr) trcLeaveRing(ring);
  writer.retryAt = 0;
}

// Maps the ring; where that failed it is tried again only after some points, so that a lost object costs no system
// calls at each of them. In each ring a thread numbers its records anew: none of an earlier one are missing here.
void enterRing(TrcWriter& writer, std::uint64_t generation) noexcept {
  if (writer.generation != generation) {
    writer.generation = generation;
    writer.attempted = writer.lost = writer.retryAt = 0;
  }
  if (writer.attempted < writer.retryAt) return;
  writer.ring = trcEnterRing(generation);
  writer.retryAt = writer.ring == nullptr ? writer.attempted + kRetryAfter : 0;
}

bool enterCurrentRing(ThreadState& thread, std::uint64_t generation) noexcept {
  TrcWriter& writer = thread.trace;
  if (writer.ring != nullptr && writer.ring->generation != generation) leaveRing(writer);
  if (writer.ring == nullptr) enterRing(writer, generation);
  return writer.ring != nullptr && (writer.segment != nullptr || takeSegment(thread));
}

// The slow path of a point: attaches the process, makes the thread's state, follows the trace being switched or
// created anew. Null: nothing is to be written.
__attribute__((noinline)) ThreadState* getReady() noexcept {
  if (threadIsInsideLock() || g_trace.detaching.load(std::memory_order_relaxed)) return nullptr;
  if (!g_ports.attachTrace()) return nullptr;
  const std::uint64_t state = traceState();
  if ((state & 1U) == 0) return nullptr;
  ThreadState* thread = threadSelf();
  if (thread == nullptr) return nullptr;
  TrcWriter& writer = thread->trace;
  if (writer.inside || (writer.readyState == TRC_STATE_NEVER && writer.segment != nullptr)) {
    countLost(writer);  // a signal handler inside another point
    return nullptr;
  }
  writer.inside = true;
  const bool entered = enterCurrentRing(*thread, state >> 1);
  writer.readyState = entered ? state : TRC_STATE_NEVER;
  if (!entered) countLost(writer);
  writer.inside = false;
  return entered ? thread : nullptr;
}

// The segment is full: takes the next. On failure the thread holds none and its next point starts at getReady().
__attribute__((noinline)) bool turnSegment(ThreadState& thread) noexcept {
  const ErrnoKept kept;
  thread.trace.inside = true;
  leaveSegment(thread.trace);
  const bool taken = takeSegment(thread);
  if (!taken) countLost(thread.trace);
  thread.trace.inside = false;
  return taken;
}

// ---- records ----------------------------------------------------------------------------------------------------

constexpr std::uint32_t wordsFor(std::uint32_t bytes) noexcept { return bytes / 8 + (bytes % 8 != 0 ? 1 : 0); }

// Records up to this size fit into half of the smallest segment and are never cut.
constexpr std::uint64_t kUncutWords = (TRC_SEGMENT_BYTES_LEAST - sizeof(TrcSegmentId)) / 16;

std::uint32_t sizeOf(const PdtItem& item) noexcept { return item.data == nullptr ? 0 : item.size; }

// Words of a record that takes all of its items.
std::uint64_t uncutWords(std::uint32_t count, const PdtItem* items) noexcept {
  std::uint64_t words = TRC_RECORD_FIXED_WORDS + count;
  for (std::uint32_t i = 0; i < count; ++i) words += (std::uint64_t{sizeOf(items[i])} + 7) / 8;
  return words;
}

template <class T>
T bytesAt(const char* from) noexcept {
  T value;
  ::memcpy(&value, from, sizeof value);
  return value;
}

// Fewer than 8 bytes as a word that has them first in memory, then zeros. Put together in a register: a word loaded
// from where single bytes were just stored would wait for them.
inline std::uint64_t tailOf(const char* from, std::uint32_t count) noexcept {
  static_assert(std::endian::native == std::endian::little);
  std::uint64_t value = 0;
  if ((count & 1U) != 0) value = bytesAt<std::uint8_t>(from + count - 1);
  if ((count & 2U) != 0) value = value << 16 | bytesAt<std::uint16_t>(from + (count & 4U));
  if ((count & 4U) != 0) value = value << 32 | bytesAt<std::uint32_t>(from);
  return value;
}

// Type and size of an item as its word has them. They are read apart, as the caller has just stored them: a load across
// two younger stores would wait until both have left the store buffer.
inline std::uint64_t itemWord(const PdtItem& item) noexcept {
  std::uint32_t size = item.size;
  __asm__("" : "+r"(size));
  return item.type | static_cast<std::uint64_t>(size) << 32;
}

// Writes words one after the other and sums them up on the way. It is copied, never passed by address: its members
// live in registers, which is half of the cost of a record.
class RecordPen {
 public:
  RecordPen(std::uint64_t* at, std::uint64_t seed, std::uint64_t head) noexcept : at_(at), sum_(seed) {
    sum_.add(head);
  }

  void word(std::uint64_t value) noexcept {
    __atomic_store_n(++at_, value, __ATOMIC_RELAXED);
    sum_.add(value);
  }

  void bytes(const void* data, std::uint32_t count) noexcept {
    const char* from = static_cast<const char*>(data);
    for (const char* end = from + (count & ~7U); from != end; from += 8) word(bytesAt<std::uint64_t>(from));
    if (count % 8 != 0) word(tailOf(from, count % 8));
  }

  void item(const PdtItem& item) noexcept {
    if (item.data == nullptr) {
      word(item.type | static_cast<std::uint64_t>(std::min(item.size, TRC_ITEM_SIZE_MOST)) << 32 | TRC_ITEM_NULL);
      return;
    }
    word(itemWord(item));
    bytes(item.data, item.size);
  }

  std::uint64_t* end() const noexcept { return at_ + 1; }
  std::uint32_t check() const noexcept { return sum_.value(); }

 private:
  std::uint64_t* at_;
  TrcChecksum sum_;
};

// What a point brings with it besides its items.
struct Point {
  TrcKind kind;
  EcfFunctionId id;
  std::uint32_t probe;
  std::uint64_t value;
};

// A record that is being written at the writer's place: its head is kept back until the rest stands.
struct OpenRecord {
  std::uint64_t head;
  RecordPen pen;
};

inline OpenRecord openRecord(const TrcWriter& writer, const Point& point, std::uint64_t words,
                             std::uint32_t count) noexcept {
  const std::uint64_t head = trcHead(static_cast<std::uint32_t>(words), count, point.kind);
  OpenRecord record = {head, RecordPen(writer.next, writer.seed, head)};
  record.pen.word(ossTicks());
  record.pen.word(point.id | static_cast<std::uint64_t>(point.probe) << 32);
  record.pen.word(point.value);
  return record;
}

inline void commitRecord(TrcWriter& writer, const OpenRecord& record) noexcept {
  __atomic_store_n(record.pen.end(), 0, __ATOMIC_RELAXED);
  __atomic_store_n(record.pen.end() + 1, 0, __ATOMIC_RELAXED);
  __atomic_store_n(writer.next, record.head | static_cast<std::uint64_t>(record.pen.check()) << 32, __ATOMIC_RELEASE);
  writer.next = record.pen.end();
  ++writer.written;
  ++writer.attempted;
}

inline bool hasRoom(ThreadState& thread, std::uint64_t words) noexcept {
  return thread.trace.next + words <= thread.trace.limit || turnSegment(thread);
}

// Items that do not fit into `words`: each gets what the ones before have left, its true size is kept.
std::uint32_t cutWords(std::uint32_t count, const PdtItem* items, std::uint32_t wordsMost) noexcept {
  std::uint32_t left = wordsMost - TRC_RECORD_FIXED_WORDS - count * 2;
  for (std::uint32_t i = 0; i < count; ++i) left -= wordsFor(std::min(sizeOf(items[i]), left * 8));
  return wordsMost - left;
}

void penCutItems(RecordPen& pen, std::uint32_t count, const PdtItem* items, std::uint32_t wordsMost) noexcept {
  std::uint32_t left = wordsMost - TRC_RECORD_FIXED_WORDS - count * 2;  // an item word and a length word each
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint32_t stored = std::min(sizeOf(items[i]), left * 8);
    const std::uint64_t shown = std::min(items[i].size, TRC_ITEM_SIZE_MOST);
    pen.word(items[i].type | shown << 32 | TRC_ITEM_CUT | (items[i].data == nullptr ? TRC_ITEM_NULL : 0));
    pen.word(stored);
    pen.bytes(items[i].data, stored);
    left -= wordsFor(stored);
  }
}

// A record beyond kUncutWords: whole where half of a segment holds it, else cut.
__attribute__((noinline)) bool writeLarge(ThreadState& thread, Point point, std::uint32_t count,
                                          const PdtItem* items) noexcept {
  TrcWriter& writer = thread.trace;
  const auto wordsMost = static_cast<std::uint32_t>((writer.ring->segmentBytes - sizeof(TrcSegmentId)) / 16);
  const bool cut = uncutWords(count, items) > wordsMost;
  const std::uint64_t words = cut ? cutWords(count, items, wordsMost) : uncutWords(count, items);
  if (!hasRoom(thread, words)) return false;
  OpenRecord record = openRecord(writer, point, words, count);
  if (cut)
    penCutItems(record.pen, count, items, wordsMost);
  else
    for (std::uint32_t i = 0; i < count; ++i) record.pen.item(items[i]);
  commitRecord(writer, record);
  return true;
}

__attribute__((always_inline)) inline bool writeInside(ThreadState& thread, const Point& point, std::uint32_t count,
                                                       const PdtItem* items) noexcept {
  const std::uint64_t words = uncutWords(count, items);
  if (words > kUncutWords) [[unlikely]]
    return writeLarge(thread, point, count, items);
  if (!hasRoom(thread, words)) [[unlikely]]
    return false;
  OpenRecord record = openRecord(thread.trace, point, words, count);
#pragma GCC unroll 2  // a count known at compile time leaves no loop
  for (std::uint32_t i = 0; i < count; ++i) record.pen.item(items[i]);
  commitRecord(thread.trace, record);
  return true;
}

// Inlined into each point: what it brings stays in registers.
__attribute__((always_inline)) inline void writeRecord(const Point& point, std::uint32_t count,
                                                       const PdtItem* items) noexcept {
  ThreadState* thread = t_self;
  if (thread == nullptr || thread->trace.readyState != traceState()) [[unlikely]] {
    thread = getReady();
    if (thread == nullptr) return;
  }
  TrcWriter& writer = thread->trace;
  const std::uint64_t ready = writer.readyState;
  writer.readyState = TRC_STATE_NEVER;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  if (writer.segment == nullptr) [[unlikely]] {  // a signal handler came in just before and lost the segment
    countLost(writer);
    return;
  }
  if (!writeInside(*thread, point, count, items)) return;
  std::atomic_signal_fence(std::memory_order_seq_cst);
  writer.readyState = ready;
}

std::uint64_t parseDigits(const char*& text, unsigned base, bool* overflow) noexcept {
  std::uint64_t value = 0;
  for (;; ++text) {
    unsigned digit = 99;
    if (*text >= '0' && *text <= '9')
      digit = static_cast<unsigned>(*text - '0');
    else if ((*text | 0x20) >= 'a' && (*text | 0x20) <= 'f')
      digit = static_cast<unsigned>((*text | 0x20) - 'a' + 10);
    if (digit >= base) return value;
    *overflow |= value > (~0ULL >> 1) / base;
    value = value * base + digit;
  }
}

unsigned unitShift(char unit) noexcept {
  switch (unit | 0x20) {
    case 'k':
      return 10;
    case 'm':
      return 20;
    case 'g':
      return 30;
    default:
      return 0;
  }
}

}  // namespace

// ---- attaching --------------------------------------------------------------------------------------------------

void trcGetWindowsIPCInfo(SqltSharedIPCInfo* out) noexcept {
  ::memset(out, 0, sizeof *out);
  ossCopyText(out->instance, sizeof out->instance, vekInstanceName());
  const bool shared = regionSharedStatus() == 0;
  if (!shared || sharedObjectPath(TRC_RING_SUFFIX, out->path, sizeof out->path) == 0) out->path[0] = '\0';
  out->bytes = trcInquireTraceBufferSize();
}

bool trcIsAttached() noexcept { return g_trace.attached.load(std::memory_order_acquire); }

SqlzZrc trcAttachShared(const TrcCallbacks& callbacks) noexcept {
  const SqlzZrc result = regionAttach();
  if (result != 0 || trcIsAttached()) return result;
  if (!wintMapShared(regionDescriptor(), regionSectionOffset(RegionSectionId::kTraceWords)))
    return SQLO_REGION_NO_MEMORY;
  g_trace.callbacks.store(&callbacks, std::memory_order_release);
  g_traceState.store(&trcControl()->state, std::memory_order_release);
  g_trace.attached.store(true, std::memory_order_release);
  return 0;
}

void trcDetachShared() noexcept {
  if (g_trace.detaching.exchange(true)) return;
  tell(&TrcCallbacks::detaching);
  trcReleaseThread();
  g_traceState.store(&g_noTrace, std::memory_order_release);
}

void trcAfterFork() noexcept { g_trace.processId.store(0, std::memory_order_relaxed); }

void trcReleaseThread() noexcept {
  ThreadState* thread = t_self;
  if (thread == nullptr || thread->trace.inside) return;
  thread->trace.inside = true;
  thread->trace.readyState = TRC_STATE_NEVER;
  leaveRing(thread->trace);
}

bool trcGetBuffSizeFromStr(const char* text, std::uint64_t* bytesOut) noexcept {
  if (text == nullptr) return false;
  const bool hex = text[0] == '0' && (text[1] | 0x20) == 'x';
  const char* at = hex ? text + 2 : text;
  const char* digits = at;
  bool overflow = false;
  const std::uint64_t value = parseDigits(at, hex ? 16 : 10, &overflow);
  if (at == digits || overflow) return false;
  const unsigned shift = unitShift(*at);
  if (shift != 0) ++at;
  if (*at != '\0' || value > (~0ULL >> 1) >> shift) return false;
  *bytesOut = value << shift;
  return true;
}

// ---- control ----------------------------------------------------------------------------------------------------

void trcSwitch(bool on) noexcept {
  TrcControl* control = trcControl();
  if (control == nullptr) return;
  std::uint64_t state = control->state.load(std::memory_order_relaxed);
  while (state != 0 && !control->state.compare_exchange_weak(state, on ? state | 1U : state & ~1ULL)) {
  }
  tell(on ? &TrcCallbacks::switchedOn : &TrcCallbacks::switchedOff);
}

bool trcIsOn() noexcept { return (traceState() & 1U) != 0; }

void trcClear() noexcept {
  const RegionLock lock(kLockWaitMs);  // clearings one after the other; without it this one is left out
  if (!lock.held()) return;
  TrcRing* ring = trcEnterRing(traceState() >> 1);
  if (ring == nullptr) return;
  TrcRingHeader* header = ring->header();
  trcStoreCleared(*header, {header->lastSequence.load(std::memory_order_relaxed), ossTicks()});
  header->overwrittenSegments.store(0, std::memory_order_relaxed);
  header->overwrittenRecords.store(0, std::memory_order_relaxed);
  header->lostRecords.store(0, std::memory_order_relaxed);
  trcLeaveRing(ring);
}

std::uint64_t trcInquireTraceBufferSize() noexcept {
  TrcRing* ring = trcEnterRing(traceState() >> 1);
  if (ring == nullptr) return 0;
  const std::uint64_t bytes = ring->header()->constants.ringBytes;
  trcLeaveRing(ring);
  return bytes;
}

const TrcRingHeader* trcControlBlock() noexcept { return trcCurrentHeader(traceState() >> 1); }

void trcSetGlobals(const std::int16_t* partition, const std::uint32_t* processId) noexcept {
  if (partition != nullptr) g_trace.partition.store(*partition, std::memory_order_relaxed);
  if (processId != nullptr) g_trace.processId.store(*processId, std::memory_order_relaxed);
  ThreadState* thread = t_self;
  if (thread != nullptr && thread->trace.segment != nullptr && thread->trace.readyState != TRC_STATE_NEVER)
    thread->trace.limit = thread->trace.next;  // the next record goes into a new segment
}

namespace {

// Frees a dead writer's segment, with the count of its records known from now on.
void freeSegment(const TrcRing& ring, std::uint32_t index, std::uint64_t owner) noexcept {
  TrcSegmentDescriptor& descriptor = *ring.descriptor(index);
  const std::uint64_t sequence = descriptor.guard.load(std::memory_order_relaxed);
  descriptor.recordCount.store(trcCountRecords(ring.segment(index), ring.segmentBytes, sequence),
                               std::memory_order_relaxed);
  descriptor.owner.compare_exchange_strong(owner, 0, std::memory_order_release);
}

}  // namespace

bool trcSweep() noexcept {
  if (threadIsInsideLock()) return false;
  const RegionLock lock(0);
  if (!lock.held()) return false;
  TrcRing* ring = trcEnterRing(traceState() >> 1);
  if (ring == nullptr) return false;
  std::uint64_t alive[REGION_PROCESS_SLOTS] = {};  // owner words known to live: one system call per process
  for (std::uint32_t index = 0; index < ring->segmentCount; ++index) {
    const std::uint64_t owner = ring->descriptor(index)->owner.load(std::memory_order_acquire);
    const std::uint32_t slot = regionOwnerSlot(owner) % REGION_PROCESS_SLOTS;
    if (owner == 0 || alive[slot] == owner) continue;
    if (regionOwnerLives(owner))
      alive[slot] = owner;
    else
      freeSegment(*ring, index, owner);
  }
  trcLeaveRing(ring);
  return true;
}

// ---- points -----------------------------------------------------------------------------------------------------

void _gtraceEntry(EcfFunctionId id, std::uint64_t correlator, std::uint32_t itemCount, const PdtItem* items) noexcept {
  writeRecord({TRC_ENTRY, id, 0, correlator}, itemCount, items);
}

void _gtraceExit(EcfFunctionId id, std::int64_t returnCode, std::uint32_t itemCount, const PdtItem* items) noexcept {
  writeRecord({TRC_EXIT, id, 0, static_cast<std::uint64_t>(returnCode)}, itemCount, items);
}

void _gtraceVar(EcfFunctionId id, std::uint32_t probe, TrcKind kind, std::uint64_t value, std::uint32_t itemCount,
                const PdtItem* items) noexcept {
  writeRecord({kind, id, probe, value}, itemCount, items);
}

void _gtraceData2(EcfFunctionId id, std::uint32_t probe, VEK_TRACE_ITEMS_2) noexcept {
  const PdtItem items[] = {{type1, size1, data1}, {type2, size2, data2}};
  writeRecord({TRC_DATA, id, probe, 0}, 2, items);
}

void _gtraceErrorVar(EcfFunctionId id, std::uint32_t probe, TrcKind kind, std::int64_t returnCode,
                     std::uint32_t itemCount, const PdtItem* items) noexcept {
  writeRecord({kind, id, probe, static_cast<std::uint64_t>(returnCode)}, itemCount, items);
}

}  // namespace vek
