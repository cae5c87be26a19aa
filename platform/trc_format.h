// The layout of the shared trace, as it stands in shared memory and in a dump file.
//
//   ring     | header page | segment descriptors | segment 0 | segment 1 | ...
//   segment  | segment id (copy of the descriptor's) | record | record | ... | two zero words
//   record   | head | ticks | function id, probe | value | items ...          (64-bit words)
//   item     | type, size, flags | [stored bytes when cut] | data, padded with zeros to a word
//
// Invariants a reader may rely on, whatever happened to the writers:
//   1. A segment has one writer at a time: the thread that owns its descriptor. Ownership passes on only when it is
//      released or when the owner's process is dead.
//   2. A record's head is stored last. Until then the word reads zero, so a record is there whole or not at all. The
//      word behind it reads zero until a record is begun there: so one that was never finished shows.
//   3. A record's checksum covers all its words and the segment's sequence number: neither a damaged record nor one
//      left from an earlier use of the segment passes it.
//   4. Everything a reader cannot do without stands twice: the segment id in descriptor and segment, the ring's
//      constants and what was cleared twice in the header page. Each copy carries its own check. A guard that reads
//      zero is believed only together with the count of records.
//   5. A thread numbers its records, lost ones included; a segment tells the number of its first one. So a gap shows
//      how many are missing, and where.
#pragma once

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace vek {

// The ring of an instance lies beside its region. No instance name holds a colon, so that no two objects meet.
inline constexpr const char* TRC_RING_SUFFIX = ":trace";

inline constexpr char TRC_RING_MAGIC[8] = {'V', 'E', 'K', 'T', 'R', 'N', 'G', '\0'};
inline constexpr char TRC_DUMP_MAGIC[8] = {'V', 'E', 'K', 'T', 'D', 'M', 'P', '\0'};
inline constexpr std::uint32_t TRC_LAYOUT_VERSION = 1;
inline constexpr std::uint64_t TRC_HEADER_BYTES = 4096;
inline constexpr std::uint64_t TRC_SEGMENT_BYTES_LEAST = 8ULL * 1024;
inline constexpr std::uint64_t TRC_SEGMENT_BYTES_MOST = 64ULL * 1024;
inline constexpr std::uint32_t TRC_MAX_ITEMS = 20 + 1;  // a marker's text is an item too

// Sizes up to 4 MiB use the smallest segments; larger rings have 512 or more, so that many threads find one each and
// what a stopped thread holds is a small part of the whole.
constexpr std::uint64_t trcSegmentBytes(std::uint64_t ringBytes) noexcept {
  std::uint64_t bytes = TRC_SEGMENT_BYTES_LEAST;
  while (bytes < TRC_SEGMENT_BYTES_MOST && ringBytes / bytes > 512) bytes *= 2;
  return bytes;
}

// ---- checks -----------------------------------------------------------------------------------------------------

// A sum over 64-bit words, rotated with every word so that places and the bits of different words do not stand for each
// other, and mixed into 32 bits at the end. Two instructions a word: the sum is most of the cost of a record with
// items, and anything stronger shows in it. Damage to a single word always changes the sum; the 32 bits that are kept
// miss it once in 2^32. It guards against damage, not against an adversary.
class TrcChecksum {
 public:
  explicit TrcChecksum(std::uint64_t seed) noexcept : sum_(seed * kMix) {}

  void add(std::uint64_t word) noexcept { sum_ = std::rotl(sum_, 7) + word; }

  std::uint32_t value() const noexcept { return static_cast<std::uint32_t>(((sum_ ^ (sum_ >> 31)) * kMix) >> 32); }

 private:
  static constexpr std::uint64_t kMix = 0xD6E8FEB86659FD93U;
  std::uint64_t sum_;
};

// The check of a record made of 64-bit words, over everything but the check itself.
template <class Record>
std::uint64_t trcCheckOf(const Record& record) noexcept {
  static_assert(sizeof(Record) % 8 == 0 && offsetof(Record, check) == sizeof(Record) - 8);
  TrcChecksum sum(sizeof(Record));
  for (std::size_t at = 0; at + 8 < sizeof(Record); at += 8) {
    std::uint64_t word;
    std::memcpy(&word, reinterpret_cast<const char*>(&record) + at, 8);
    sum.add(word);
  }
  return 0x100000000U | sum.value();  // never 0, so that cleared memory does not pass
}

// Copies whole words of memory that another thread or process may be writing or reading at the same time.
inline void trcStoreWords(void* to, const void* from, std::size_t bytes) noexcept {
  for (std::size_t at = 0; at + 8 <= bytes; at += 8) {
    std::uint64_t word;
    std::memcpy(&word, static_cast<const char*>(from) + at, 8);
    __atomic_store_n(reinterpret_cast<std::uint64_t*>(static_cast<char*>(to) + at), word, __ATOMIC_RELAXED);
  }
}
inline void trcLoadWords(void* to, const void* from, std::size_t bytes) noexcept {
  for (std::size_t at = 0; at + 8 <= bytes; at += 8) {
    const auto* source = reinterpret_cast<const std::uint64_t*>(static_cast<const char*>(from) + at);
    const std::uint64_t word = __atomic_load_n(source, __ATOMIC_RELAXED);
    std::memcpy(static_cast<char*>(to) + at, &word, 8);
  }
}

// ---- ring -------------------------------------------------------------------------------------------------------

// What never changes after creation.
struct TrcRingConstants {
  char magic[8];
  std::uint32_t layoutVersion;
  std::uint32_t segmentCount;
  std::uint64_t ringBytes;  // as asked for: header and descriptors come on top
  std::uint64_t segmentBytes;
  std::uint64_t generation;
  std::uint64_t ownerUser;
  std::uint64_t ticksPerSecond;  // as measured at creation; a reader refines it
  std::uint64_t createdTicks;
  std::int64_t createdRealtimeNs;
  char bootId[40];
  char instance[40];
  std::uint64_t madeByClientInterface;
  std::uint64_t check;
};

// What pdtClearBuffer hides: segments up to a sequence, as far as their records are older than the ticks.
struct TrcClearing {
  std::atomic<std::uint64_t> sequence;
  std::atomic<std::uint64_t> ticks;
  std::atomic<std::uint64_t> check;  // of the two; all three are 0 as long as nothing was cleared
};

struct TrcRingHeader {
  TrcRingConstants constants;
  alignas(64) std::atomic<std::uint64_t> cursor;  // where the next search for a segment begins
  std::atomic<std::uint64_t> lastSequence;        // sequence numbers handed out
  std::atomic<std::uint64_t> overwrittenSegments;
  std::atomic<std::uint64_t> overwrittenRecords;
  std::atomic<std::uint64_t> lostRecords;
  TrcClearing cleared;
  TrcClearing clearedAgain;
  alignas(64) std::uint8_t space[2048 - 320];
  TrcRingConstants again;
};
static_assert(sizeof(TrcRingHeader) <= TRC_HEADER_BYTES);

struct TrcSegmentId {
  std::uint64_t sequence;      // order of acquisition in this ring, from 1
  std::uint64_t threadSerial;  // the writing thread, unique in the instance
  std::uint64_t firstRecord;   // number of the segment's first record among all that this thread attempted
  std::uint64_t lostBefore;    // how many of those attempted before could not be written
  std::uint64_t startTicks;
  std::int64_t startRealtimeNs;
  std::uint32_t processId;
  std::uint32_t threadId;
  std::int32_t partition;
  std::uint32_t reserved;
  char processName[16];
  char threadName[16];
  std::uint64_t check;
};
static_assert(sizeof(TrcSegmentId) == 104);

inline constexpr std::uint64_t TRC_COUNT_OPEN = ~0ULL;

struct TrcSegmentDescriptor {
  std::atomic<std::uint64_t> owner;        // 0 free, else the owner word of the writer's process
  std::atomic<std::uint64_t> guard;        // sequence of the id below; 0 while it is being replaced or was never used
  std::atomic<std::uint64_t> recordCount;  // TRC_COUNT_OPEN while written, 0 like the guard, else known by release
  TrcSegmentId id;
};
static_assert(sizeof(TrcSegmentDescriptor) == 128);

constexpr std::uint64_t trcSegmentsOffset(std::uint64_t segmentCount) noexcept {
  return (TRC_HEADER_BYTES + segmentCount * sizeof(TrcSegmentDescriptor) + 4095) / 4096 * 4096;
}
constexpr std::uint64_t trcObjectBytes(std::uint64_t segmentCount, std::uint64_t segmentBytes) noexcept {
  return trcSegmentsOffset(segmentCount) + segmentCount * segmentBytes;
}

// ---- record -----------------------------------------------------------------------------------------------------

inline constexpr std::uint32_t TRC_RECORD_FIXED_WORDS = 4;

// The head word.
//
//   63..32  checksum
//   31..16  words in the record, the head included
//   15..8   count of items
//   7..0    kind
constexpr std::uint64_t trcHead(std::uint32_t words, std::uint32_t items, std::uint32_t kind) noexcept {
  return (static_cast<std::uint64_t>(words & 0xFFFFU) << 16) | ((items & 0xFFU) << 8) | (kind & 0xFFU);
}
constexpr std::uint32_t trcHeadWords(std::uint64_t head) noexcept {
  return static_cast<std::uint32_t>(head >> 16) & 0xFFFFU;
}
constexpr std::uint32_t trcHeadItems(std::uint64_t head) noexcept {
  return static_cast<std::uint32_t>(head >> 8) & 0xFFU;
}
constexpr std::uint32_t trcHeadKind(std::uint64_t head) noexcept { return static_cast<std::uint32_t>(head) & 0xFFU; }
constexpr std::uint32_t trcHeadChecksum(std::uint64_t head) noexcept { return static_cast<std::uint32_t>(head >> 32); }

// The item word.
//
//   63..56  flags
//   55..32  size in bytes as the caller gave it, 0xFFFFFF for larger ones
//   31..0   PD type
inline constexpr std::uint64_t TRC_ITEM_CUT = 1ULL << 56;   // a word with the stored bytes follows
inline constexpr std::uint64_t TRC_ITEM_NULL = 1ULL << 57;  // the pointer was null: nothing is stored
inline constexpr std::uint32_t TRC_ITEM_SIZE_MOST = 0xFFFFFFU;

// ---- dump file --------------------------------------------------------------------------------------------------

// A dump file is this header page, the ring object (every segment as it was when it was copied), then the names.
struct TrcDumpHeader {
  char magic[8];
  std::uint32_t layoutVersion;
  std::uint32_t nameCount;
  std::uint64_t ringOffset;
  std::uint64_t ringBytes;
  std::uint64_t namesOffset;
  std::uint64_t namesBytes;
  std::int64_t dumpedRealtimeNs;
  std::uint64_t dumpedTicks;
  std::uint64_t check;
};

// One name of a dump's name list; the text follows without a terminator.
struct TrcDumpName {
  std::uint32_t key;
  std::uint32_t bytes;
};

}  // namespace vek
