// A damaged byte costs the record it is in; where a reader cannot do without something, the other copy carries on.

#include <algorithm>
#include <random>

#include "platform/trace_support.h"
#include "platform/trc_format.h"
#include "veksys/codes.h"
#include "veksys/pd_types.h"

using namespace vektest;

namespace {

constexpr std::uint64_t kRingBytes = 0x100000;
constexpr std::uint32_t kSegments = 128;
constexpr std::uint64_t kSegmentBytes = vek::TRC_SEGMENT_BYTES_LEAST;
constexpr std::uint64_t kRingAt = vek::TRC_HEADER_BYTES;
constexpr std::uint64_t kDescriptorsAt = kRingAt + vek::TRC_HEADER_BYTES;
constexpr std::uint64_t kSegmentsAt = kRingAt + vek::trcSegmentsOffset(kSegments);

void writeMixed(std::uint64_t count) {
  char text[64];
  for (std::uint64_t i = 0; i < count; ++i) {
    std::fill(std::begin(text), std::end(text), static_cast<char>('a' + i % 26));
    pdtData2(kFunction, static_cast<std::uint32_t>(i), PD_TYPE_UINT, sizeof i, &i, PD_TYPE_STRINGN,
             static_cast<std::uint32_t>(mix(i) % sizeof text), text);
    pdtEvent(kFunction, 1, i);
  }
}

// Two threads that have ended, each with full segments behind it, and this one, which still owns its segment.
std::string writeDump(const Instance& instance) {
  EXPECT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  std::thread([] { writeMixed(150); }).join();
  std::thread([] { writeMixed(150); }).join();
  writeMixed(40);
  EXPECT_EQ(sqlt_dump_trace(instance.path("dump").c_str()), 0);
  return instance.path("dump");
}

// A dump that can be damaged one byte at a time.
class DumpFile {
 public:
  explicit DumpFile(const std::string& path) : path_(path), fd_(::open(path.c_str(), O_RDWR | O_CLOEXEC)) {
    whole_ = readFile(path_);
    used_ = 0;
    for (const ReadRecord& record : whole_) used_ = std::max(used_, record.segment + 1);
  }
  ~DumpFile() { ::close(fd_); }
  DumpFile(const DumpFile&) = delete;
  DumpFile& operator=(const DumpFile&) = delete;

  const std::vector<ReadRecord>& whole() const { return whole_; }
  std::uint32_t usedSegments() const { return used_; }

  // What is read while the byte at `offset` is another.
  template <class Change>
  std::vector<ReadRecord> readWith(std::uint64_t offset, Change change) {
    unsigned char byte = 0;
    EXPECT_EQ(::pread(fd_, &byte, 1, static_cast<off_t>(offset)), 1);
    const auto damaged = static_cast<unsigned char>(change(byte));
    EXPECT_EQ(::pwrite(fd_, &damaged, 1, static_cast<off_t>(offset)), 1);
    std::vector<ReadRecord> records = readFile(path_);
    EXPECT_EQ(::pwrite(fd_, &byte, 1, static_cast<off_t>(offset)), 1);
    return records;
  }

 private:
  std::string path_;
  int fd_;
  std::vector<ReadRecord> whole_;
  std::uint32_t used_;
};

constexpr std::uint32_t kStep = kSanitized ? 11 : 1;  // every byte, where that does not take minutes

unsigned allBits(unsigned byte) { return byte ^ 0xFF; }
unsigned oneBit(unsigned byte) { return byte ^ 0x01; }
unsigned cleared(unsigned) { return 0; }
constexpr unsigned (*kChanges[])(unsigned) = {allBits, oneBit, cleared};

// The rest reads identically; what is missing is the one record that the byte lies in, and no gap blames anything else.
void expectAtMostTheDamagedRecordMissing(const std::vector<ReadRecord>& whole, const std::vector<ReadRecord>& read,
                                         std::uint32_t segment, std::uint32_t offset) {
  for (const ReadRecord& record : read)
    EXPECT_TRUE(!record.isGap() || record.gapReason == SqltGapReason::kDamaged ||
                record.gapReason == SqltGapReason::kUnfinished);
  const std::vector<ReadRecord> left = withoutGaps(read);
  const auto [lost, next] = std::mismatch(whole.begin(), whole.end(), left.begin(), left.end());
  if (lost == whole.end()) {
    EXPECT_EQ(left.size(), whole.size());
    return;
  }
  EXPECT_TRUE(lost->segment == segment && lost->offset <= offset) << "lost " << lost->offset << " by " << offset;
  EXPECT_TRUE(std::equal(lost + 1, whole.end(), next, left.end())) << "more than one record lost by " << offset;
  for (const ReadRecord& record : whole)
    EXPECT_FALSE(record.segment == segment && record.offset > lost->offset && record.offset <= offset);
}

TEST_APART(TraceDamage, AByteOfASegmentCostsAtMostTheRecordItIsIn) {
  DumpFile dump(writeDump(instance));
  ASSERT_EQ(dump.whole(), withoutGaps(dump.whole()));
  ASSERT_EQ(dump.whole().size(), 680U);
  const std::uint32_t segments[] = {0, 1, dump.usedSegments() - 1};  // a thread's first, its last, one in use
  const std::uint32_t steps[] = {1, 5, 7};
  for (std::size_t turn = 0; turn < std::size(segments); ++turn)
    for (std::uint32_t at = 0; at < kSegmentBytes && !testing::Test::HasFailure(); at += steps[turn] * kStep) {
      const std::uint64_t offset = kSegmentsAt + segments[turn] * kSegmentBytes + at;
      expectAtMostTheDamagedRecordMissing(dump.whole(), dump.readWith(offset, kChanges[turn]), segments[turn], at);
    }
}

TEST_APART(TraceDamage, HeadersAndDescriptorsHaveASecondCopy) {
  DumpFile dump(writeDump(instance));
  const std::pair<std::uint64_t, std::uint64_t> ranges[] = {
      {0, sizeof(vek::TrcDumpHeader)},
      {kRingAt, sizeof(vek::TrcRingHeader)},
      {kDescriptorsAt, (dump.usedSegments() + 1) * sizeof(vek::TrcSegmentDescriptor)},
  };
  for (const auto& [start, bytes] : ranges)
    for (std::uint64_t offset = start; offset < start + bytes; offset += kStep)
      for (const auto change : kChanges) {
        const std::vector<ReadRecord> read = withoutGaps(dump.readWith(offset, change));
        ASSERT_TRUE(read == dump.whole()) << "byte " << offset - start << " of the range at " << start;
      }
}

// Whatever the bytes are: a code or records, never a fault, and always an end.
TEST_APART(TraceDamage, RubbleIsReadToItsEnd) {
  const std::string path = writeDump(instance);
  std::mt19937_64 random(77);
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  for (unsigned round = 0; round < 40 * stressFactor(); ++round) {
    for (int i = 0; i < 200; ++i) {
      const std::uint64_t word = random() >> (random() % 64);
      const std::uint64_t reach = random() % 2 == 0 ? 16 * kSegmentBytes : kRingBytes;
      ASSERT_EQ(::pwrite(fd, &word, sizeof word, static_cast<off_t>(kDescriptorsAt + random() % reach)), 8);
    }
    SqltTraceReader reader;
    ASSERT_EQ(reader.openFile(path.c_str()), 0);
    EXPECT_LT(readAll(reader).size(), 100'000U);
  }
  ASSERT_EQ(::ftruncate(fd, static_cast<off_t>(kSegmentsAt + 100)), 0);
  SqltTraceReader reader;
  EXPECT_EQ(reader.openFile(path.c_str()), SQLT_TRACE_NOT_A_TRACE);
  ASSERT_EQ(::ftruncate(fd, 10), 0);
  EXPECT_EQ(reader.openFile(path.c_str()), SQLT_TRACE_NOT_A_TRACE);
  ::close(fd);
}

}  // namespace
