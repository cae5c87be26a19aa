// Control of the trace: sizes, masks, life cycle, and what happens when the machine refuses.
#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <random>

#include "platform/trace_support.h"
#include "platform/trcapi.h"
#include "veksys/codes.h"

using namespace vektest;
using vek::OssCalls;

namespace {

constexpr std::uint64_t kRingBytes = 0x100000;
constexpr std::uint32_t kKept = 0x40000;
constexpr std::uint32_t kAllOnes = 0xFD23FFFF;

TEST(TraceControl, SizesAreBoundedAndRoundedDown) {
  const struct {
    const char* defaultSize;
    std::uint64_t asked;
    std::uint64_t got;
  } cases[] = {
      {nullptr, 0, 0x200000},
      {nullptr, 0xFFFFF, 0x200000},
      {nullptr, 0x100000, 0x100000},
      {nullptr, 0x1FFFFF, 0x100000},
      {nullptr, 0x3FFFFFFF, 0x20000000},
      {nullptr, 0x40000000, 0x40000000},
      {nullptr, 0x40000001, 0x200000},
      {"4M", ~0ULL, 0x400000},
      {"8M", 0x100000, 0x100000},
      {"3072K", 1, 0x300000},
      {"much", 0, 0x200000},
      {"512K", 0, 0x200000},
      {"2G", 0, 0x200000},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(testing::Message() << (each.defaultSize == nullptr ? "-" : each.defaultSize) << " " << each.asked);
    const Instance instance;
    inProcess([&each] {
      vek::ossCalls().fallocate = [](int, int, off_t, off_t) { return 0; };  // the largest need not fit the machine
      if (each.defaultSize != nullptr) ::setenv("VEKTRC_DEF_BUFFSIZE", each.defaultSize, 1);
      ASSERT_EQ(sqltTraceFacilityCreate(each.asked), 0);
      EXPECT_EQ(sqltInquireTraceBufferSize(), each.got);
      pdtEvent(kFunction, 1, 1);
      EXPECT_EQ(readInstance().size(), 1U);
    });
  }
}

TEST(TraceControl, SizeTexts) {
  const std::pair<const char*, std::uint64_t> sizes[] = {
      {"0", 0},
      {"2097152", 0x200000},
      {"2M", 0x200000},
      {"2m", 0x200000},
      {"3k", 3072},
      {"1G", 0x40000000},
      {"0x200000", 0x200000},
      {"0XaBk", 0xAB * 1024},
      {"9223372036854775807", 0x7FFFFFFFFFFFFFFF},
  };
  for (const auto& [text, wanted] : sizes) {
    std::uint64_t bytes = 12345;
    EXPECT_TRUE(vek::trcGetBuffSizeFromStr(text, &bytes)) << text;
    EXPECT_EQ(bytes, wanted) << text;
  }
  for (const char* none : {"9223372036854775808", "8589934592G", "99999999999999999999", "", "M", "0x", "12X", "1MB",
                           "1 M", " 1", "-1", "1A", static_cast<const char*>(nullptr)}) {
    std::uint64_t bytes = 12345;
    EXPECT_FALSE(vek::trcGetBuffSizeFromStr(none, &bytes)) << (none == nullptr ? "null" : none);
    EXPECT_EQ(bytes, 12345U);
  }
}

SqltTraceSettings settingsFor(std::uint32_t options, std::initializer_list<std::uint32_t> components) {
  SqltTraceSettings settings = {};
  settings.options = options;
  settings.selection = SQLT_SELECT_MASK_BYTES;
  for (const std::uint32_t component : components)
    settings.components[component / 8] |= static_cast<std::uint8_t>(1U << (component % 8));
  return settings;
}

// Applies the record; the chosen component's word must be `chosen`, every other one `others`, the event word all.
void expectWords(const SqltTraceSettings& settings, std::uint32_t component, std::uint32_t chosen,
                 std::uint32_t others) {
  ASSERT_EQ(sqltSetTraceFlags(&settings), 0);
  for (std::uint32_t i = 0; i < SQLT_TRACE_COMPONENTS; ++i)
    ASSERT_EQ(sqltTraceWord(i), i == component ? chosen : others) << "component " << i;
  EXPECT_EQ(*p_sqltevents, chosen | others);
}

TEST_APART(TraceFlags, MaskBytesChooseTheBitsOfTheComponentsInTheBitmap) {
  // By mask byte, then by bit: the word's bits. Byte 1 crosses 0x08 and 0x10.
  static constexpr std::uint32_t kBits[3][8] = {
      {0, 0x1, 0x2, 0x4, 0x8, 0x10, 0x20, 0x40},
      {0x80, 0x100, 0x200, 0x800, 0x400, 0x1000, 0x2000, 0x4000},
      {0x220000, 0, 0x10000, 0x8000, 0, 0, 0, 0},
  };
  for (const std::uint32_t option : {SQLT_OPTION_COMPONENTS, SQLT_OPTION_COMPONENTS_TOO})
    for (const std::uint32_t component : {0U, 9U, 134U, 241U})
      for (std::uint32_t byte = 0; byte < 3; ++byte)
        for (std::uint32_t bit = 0; bit < 8; ++bit) {
          SqltTraceSettings settings = settingsFor(option, {component});
          settings.mask[byte] = static_cast<std::uint8_t>(1U << bit);
          expectWords(settings, component, kBits[byte][bit], 0);
        }
  SqltTraceSettings all = settingsFor(SQLT_OPTION_COMPONENTS, {9});
  std::fill(std::begin(all.mask), std::end(all.mask), std::uint8_t{0xFF});
  expectWords(all, 9, 0x23FFFF, 0);
  all.selection = 0xFF & ~SQLT_SELECT_MASK_BYTES;
  expectWords(all, 9, 0, 0);
}

TEST_APART(TraceFlags, WithoutABitmapAllButTheOptionsAreSetAndWorkloadDisplayIsKept) {
  SqltTraceSettings settings = settingsFor(0, {9});
  settings.mask[0] = 0x02;
  expectWords(settings, 0, kAllOnes, kAllOnes);
  settings.options = SQLT_OPTION_ALL;
  expectWords(settings, 0, kAllOnes | 0x100000, kAllOnes | 0x100000);

  sqltSetWorkloadDisplay(true);
  settings.options = 0;
  expectWords(settings, 0, kAllOnes | kKept, kAllOnes | kKept);
  settings.options = SQLT_OPTION_COMPONENTS;
  expectWords(settings, 9, 0x1, kKept);
  sqltSetWorkloadDisplay(true);
  settings.options = SQLT_OPTION_COMPONENTS | SQLT_OPTION_ALL;
  expectWords(settings, 9, 0x100001, kKept | 0x100000);
  EXPECT_EQ(sqltSetTraceFlags(nullptr), SQLO_INV_PARM);
}

TEST(TraceFlags, ClientInterfaceHasOptionsOfItsOwn) {
  const std::array<std::uint32_t, 3> cases[] = {
      {0, 0, 0},
      {0x40000, 0x80000, 0x80000},
      {0x2000000, 0x1000000, 0},
      {0x2100000, 0x1400000, 0},
      {0x2200000, 0x1800000, 0},
      {0x2300000, 0x1C00000, 0},
      {0x8000000, 0x2000000, 0},
      {0x8300000, 0x2000000, 0},
      {0xA340000, 0x1C80000, 0x80000},
      {0xA300000, 0x1C00000, 0}};  // the other option counts only without selection
  const Instance instance;
  for (const char* disable : {"", "TRUE", "true", "FALSE"}) {
    SCOPED_TRACE(disable);
    inProcess([&cases, disable] {
      ::setenv("VEK_CLITRC_DISABLE", disable, 1);
      const bool disabled = std::string(disable) == "TRUE";
      for (const auto& [options, addedOtherwise, addedWhenDisabled] : cases) {
        const std::uint32_t added = disabled ? addedWhenDisabled : addedOtherwise;
        SqltTraceSettings settings = settingsFor(options | SQLT_OPTION_COMPONENTS, {SQLT_CLIENT_INTERFACE});
        settings.mask[0] = 0x02;
        expectWords(settings, SQLT_CLIENT_INTERFACE, 0x1 | added, 0);
        settings.options = options;
        expectWords(settings, SQLT_CLIENT_INTERFACE, kAllOnes | added, kAllOnes);
        settings = settingsFor(options | SQLT_OPTION_COMPONENTS, {9});
        settings.mask[0] = 0x02;
        expectWords(settings, 9, 0x1, 0);
      }
    });
  }
}

TEST_APART(TraceFlags, ClearingKeepsWorkloadDisplayOfTheEventWordAlone) {
  ASSERT_EQ(sqltinit(), (1ULL << 32) | 1U);
  for (const std::uint32_t events : {0U, kKept, 0xFFFFFFFFU, ~kKept}) {
    std::fill_n(g_sqltCompTraceFlags, SQLT_TRACE_COMPONENTS + 1, kKept | 0x3);
    *p_sqltevents = events;
    sqltClearTraceFlags();
    for (std::uint32_t i = 0; i < SQLT_TRACE_COMPONENTS; ++i) ASSERT_EQ(sqltTraceWord(i), events & kKept);
    EXPECT_EQ(*p_sqltevents, events & kKept);
    EXPECT_EQ(g_sqltCompTraceFlags[SQLT_TRACE_COMPONENTS], kKept | 0x3) << "behind the last word";
  }
}

// ---- life cycle -------------------------------------------------------------------------------------------------

TEST_APART(TraceControl, IsCreatedOnceAndGivesItsMemoryBack) {
  EXPECT_EQ(sqltTraceFacilityDelete(), SQLT_TRACE_NOT_CREATED);
  EXPECT_EQ(sqlt_dump_trace(instance.path("dump").c_str()), SQLT_TRACE_NOT_CREATED);
  for (const char* none : {"", static_cast<const char*>(nullptr)}) EXPECT_EQ(sqlt_dump_trace(none), SQLO_INV_PARM);
  EXPECT_EQ(sqltInquireTraceBufferSize(), 0U);
  EXPECT_FALSE(sqltTraceActive());

  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  EXPECT_EQ(sqltTraceFacilityCreate(kRingBytes * 2), SQLT_TRACE_ALREADY_CREATED);
  pdtEvent(kFunction, 1, 1);
  const void* const record = pdGetGTRecPtr();
  EXPECT_NE(record, nullptr);
  std::thread([record] { EXPECT_EQ(pdGetGTRecPtr(), record) << "one for the process"; }).join();
  SqltSharedIPCInfo info;
  ASSERT_EQ(sqltTrcSharedIPCInfo(&info), 0);
  EXPECT_EQ(info.bytes, kRingBytes);
  EXPECT_STREQ(info.instance, "platformtest");
  EXPECT_EQ(sqltTrcSharedIPCInfo(nullptr), SQLO_INV_PARM);
  const int object = ::open(info.path, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(sqltTraceFacilityDelete(), 0);
  struct stat status = {};
  ASSERT_EQ(::fstat(object, &status), 0);
  EXPECT_LT(static_cast<std::uint64_t>(status.st_blocks) * 512, kRingBytes / 4) << "memory goes back at once";
  ::close(object);
  EXPECT_EQ(pdGetGTRecPtr(), nullptr);
  EXPECT_FALSE(std::filesystem::exists(info.path));
  EXPECT_EQ(sqltTraceFacilityDelete(), SQLT_TRACE_NOT_CREATED);
}

TEST_APART(TraceControl, ClientInterfaceDeletesWhatItCreated) {
  EXPECT_EQ(sqltTraceFacilityCLIDelete(), 0);
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  EXPECT_EQ(sqltTraceFacilityCLICreate(kRingBytes * 2), 0);
  EXPECT_EQ(sqltTraceFacilityCLIDelete(), 0);
  EXPECT_EQ(sqltInquireTraceBufferSize(), kRingBytes) << "not the client interface's to delete";
  pdtEvent(kFunction, 1, 1);
  EXPECT_EQ(sqltTraceFacilityDelete(), 0);

  EXPECT_EQ(sqltTraceFacilityCLICreate(kRingBytes * 2), 0);
  EXPECT_EQ(sqltInquireTraceBufferSize(), kRingBytes * 2);
  pdtEvent(kFunction, 1, 2);
  EXPECT_EQ(readInstance().size(), 1U) << "the thread follows to the new ring";
  EXPECT_EQ(sqltTraceFacilityCLIDelete(), 0);
  EXPECT_EQ(sqltInquireTraceBufferSize(), 0U);
  std::uint64_t auxiliary = 1;
  EXPECT_EQ(sqltTrcAuxBufferSize(&auxiliary), 0);
  EXPECT_EQ(auxiliary, 0U);
  EXPECT_EQ(sqltTrcAuxBufferSize(nullptr), SQLO_INV_PARM);
}

TEST_APART(TraceControl, ClearingForgetsWhatWasAndNothingThatComes) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  for (const std::uint64_t before : {0U, 1U, 20U, 1000U, 200'000U})
    for (const std::uint64_t after : {0U, 1U, 20U, 3000U}) {
      for (std::uint64_t i = 0; i < before; ++i) pdtEvent(kFunction, 1, i);
      pdtClearBuffer();
      for (std::uint64_t i = 0; i < after; ++i) pdtEvent(kFunction, 2, i);
      const std::vector<ReadRecord> records = readInstance();
      ASSERT_EQ(records.size(), after) << before << " before";
      for (std::uint64_t i = 0; i < after; ++i)
        EXPECT_TRUE(records[i].probe == 2 && records[i].value == static_cast<std::int64_t>(i));
    }
}

TEST_APART(TraceControl, DisablingStopsAllProcessesAndKeepsTheRecords) {
  const SqltTraceSettings settings = settingsFor(0, {});
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  pdtEvent(kFunction, 1, 1);
  inProcess([&settings] {
    ASSERT_EQ(sqltSetTraceFlags(&settings), 0);
    pdtClearBuffer();
    pdtDisable();
  });
  EXPECT_EQ(sqltTraceWord(9), 0U);
  EXPECT_FALSE(sqltTraceActive());
  pdtEvent(kFunction, 2, 1);
  const std::vector<ReadRecord> kept = readInstance();
  for (const ReadRecord& record : kept) EXPECT_NE(record.function, kFunction);
  EXPECT_FALSE(kept.empty()) << "the other process traced its own calls";
  ASSERT_EQ(sqltSetTraceFlags(&settings), 0);
  EXPECT_TRUE(sqltTraceActive());
  pdtEvent(kFunction, 3, 1);
  EXPECT_EQ(readInstance().back().probe, 3U);
}

TEST_APART(TraceControl, RecordsCarryThePartitionAndProcessTheyAreToldTo) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  pdtEvent(kFunction, 1, 1);
  sqltSetTrcDftNodeNum(7);
  pdtEvent(kFunction, 1, 2);
  sqltspid(1234);
  pdtEvent(kFunction, 1, 3);
  const auto self = static_cast<std::uint32_t>(::getpid());
  using Told = std::vector<std::pair<std::int32_t, std::uint32_t>>;
  Told told;
  SqltTraceReader reader;
  ASSERT_EQ(reader.openInstance(), 0);
  for (SqltTraceRecord record; reader.next(&record);)
    told.emplace_back(record.thread.partition, record.thread.processId);
  EXPECT_EQ(told, (Told{{0, self}, {7, self}, {7, 1234}}));
}

void createDeleteWriteAndRead(const std::string& dump, unsigned seed) {
  std::mt19937_64 random(seed);
  for (unsigned i = 0; i < 150 * stressFactor(); ++i) {
    const std::uint64_t what = random() % 8;
    SqlzZrc result = 0;
    if (what == 0) result = sqltTraceFacilityCreate(kRingBytes << random() % 3);
    if (what == 1) result = sqltTraceFacilityDelete();
    if (what == 2) result = sqlt_dump_trace(dump.c_str());
    if (what == 3) pdtClearBuffer();
    EXPECT_TRUE(result == 0 || result == SQLT_TRACE_ALREADY_CREATED || result == SQLT_TRACE_NOT_CREATED)
        << what << ": " << result;
    for (std::uint64_t k = 0; k < 200; ++k) pdtEvent(kFunction, 1, k);
    SqltTraceReader reader;
    if (what == 4 && reader.openInstance() == 0) readAll(reader);
  }
}

TEST(TraceControl, CreatorsDeletersWritersAndReadersAtTheSameTime) {
  const Instance instance;
  const std::string dump = instance.path("dump");
  inProcesses(3, [&](unsigned process) {
    inThreads(2, [&](unsigned thread) { createDeleteWriteAndRead(dump, 4 + process * 2 + thread); });
  });
  inProcess([&dump] {
    SqltTraceReader reader;
    EXPECT_EQ(reader.openFile(dump.c_str()), 0);
    (void)sqltTraceFacilityDelete();
    ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
    pdtEvent(kFunction, 1, 1);
    EXPECT_EQ(readInstance().size(), 1U);
  });
}

// Runs the operation with the 1st, 2nd, ... call of any of the services failing, until there are no more calls, and has
// each result checked.
template <auto... Members, class Operation, class Check>
void eachCallFails(int error, const Operation& operation, const Check& check) {
  bool failed = true;
  for (int n = 0; failed && n < 2000; ++n) {
    makeFail<Members...>(n, error);
    const SqlzZrc result = operation();
    failed = std::exchange(Failure::callsLeft, -1) < 0;
    check(result, failed);
  }
}

void expectNoRing(const std::string& directory) {
  for (const auto& file : std::filesystem::directory_iterator(directory))
    EXPECT_FALSE(holds(file.path(), ".trace")) << file.path();
}

TEST_APART(TraceRefused, EachCallOfCreatingFails) {
  ASSERT_EQ(sqltinit(), (1ULL << 32) | 1U);
  const auto create = [] { return sqltTraceFacilityCreate(kRingBytes); };
  const auto check = [&](SqlzZrc result, bool failed) {
    EXPECT_TRUE(result == 0 || (failed && (result == SQLT_TRACE_NO_SPACE || result == SQLT_TRACE_CREATE_FAILED)))
        << result;
    EXPECT_EQ(sqltInquireTraceBufferSize(), result == 0 ? kRingBytes : 0U);
    EXPECT_EQ(sqltTraceFacilityDelete(), result == 0 ? 0 : SQLT_TRACE_NOT_CREATED);
    expectNoRing(instance.directory());
  };
  for (const int error : {ENOSPC, EIO, EACCES})
    eachCallFails<&OssCalls::open, &OssCalls::ftruncate, &OssCalls::fallocate, &OssCalls::pwrite, &OssCalls::rename>(
        error, create, check);
  eachCallFails<&OssCalls::fallocate>(EINTR, create, check);
}

TEST_APART(TraceRefused, EachCallOfDumpingFailsAndLeavesTheOldFile) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  for (std::uint64_t i = 0; i < 3000; ++i) pdtEvent(kFunction, 1, i);
  const std::string target = instance.path("dump");
  const auto dump = [&target] {
    std::ofstream(target, std::ios::binary) << "an earlier file";
    return sqlt_dump_trace(target.c_str());
  };
  const auto check = [&](SqlzZrc result, bool failed) {
    EXPECT_TRUE(result == 0 || (failed && result == SQLT_TRACE_DUMP_FAILED)) << result;
    SqltTraceReader reader;
    const bool replaced = reader.openFile(target.c_str()) == 0;
    EXPECT_TRUE(replaced || (result != 0 && contentOf(target) == "an earlier file"));
    for (const auto& file : std::filesystem::directory_iterator(instance.directory()))
      EXPECT_TRUE(file.path() == target || !holds(file.path(), "/dump")) << "nothing half-written stays";
  };
  for (const int error : {ENOSPC, EIO})
    eachCallFails<&OssCalls::open, &OssCalls::fsync, &OssCalls::rename>(error, dump, check);
  eachCallFails<&OssCalls::pwrite>(ENOSPC, dump, check);
}

TEST_APART(TraceRefused, PointsGoOnWithoutARingThatCannotBeMapped) {
  ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes), 0);
  static unsigned tried = 0;
  vek::ossCalls().mmap = [](void*, std::size_t, int, int, int, off_t) { return ++tried, errno = ENOMEM, MAP_FAILED; };
  for (std::uint64_t i = 0; i < 1000; ++i) pdtEvent(kFunction, 1, i);
  EXPECT_LT(tried, 20U) << "not at every point";
  vek::ossCalls().mmap = ::mmap;
  for (std::uint64_t i = 0; i < 100; ++i) pdtEvent(kFunction, 2, i);
  EXPECT_EQ(readInstance().back().value, 99);
}

// A file system too small for a ring beside the region, or for a dump.
TEST(TraceRefused, FullFileSystem) {
  const Instance instance;
  const std::string small = instance.path("small");
  std::filesystem::create_directory(small);
  if (::mount("none", small.c_str(), "tmpfs", 0, "size=3712k,mode=0700") != 0)
    GTEST_SKIP() << "mounting needs a privilege";
  inProcess([&small] {
    ::setenv("VEK_SHM_DIR", small.c_str(), 1);
    EXPECT_EQ(sqltTraceFacilityCreate(kRingBytes), SQLT_TRACE_NO_SPACE);
    expectNoRing(small);
  });
  inProcess([&small] {
    ASSERT_EQ(sqltTraceFacilityCreate(kRingBytes * 4), 0);
    const std::string target = small + "/dump";
    std::ofstream(target) << "an earlier file";
    EXPECT_EQ(sqlt_dump_trace(target.c_str()), SQLT_TRACE_DUMP_FAILED);
    EXPECT_EQ(contentOf(target), "an earlier file");
  });
  ::umount2(small.c_str(), MNT_DETACH);
}

}  // namespace
