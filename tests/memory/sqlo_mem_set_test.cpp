// Memory sets: their texts, thresholds and chunks, what the kernel says of them, failures, several processes.
#include <sched.h>
#include <sys/mount.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <random>
#include <sstream>
#include <vector>

#include "memory/set_support.h"
#include "memory/sqlo_mem_set_directory.h"

namespace vek::memorytest {
namespace {

TEST(MemSet, NamesTypesAndOptions) {
  const char* names[] = {"DBM_DBMS", "DBM_DB", "FMP_RESOURCES", "", "LOCAL_APL",     "",        "",
                         "",         "",       "PRIVATE",       "", "FCM_RESOURCES", "APL_CTL", "INVALID SET ID"};
  for (std::uint32_t type = 0; type < std::size(names); ++type) EXPECT_STREQ(sqloMemSetTypeName(type), names[type]);
  EXPECT_STREQ(sqloMemSetTypeName(0xFFFFFFFF), "INVALID SET ID");
  EXPECT_STREQ(sqloMemSetTypeClass(12), "APPLICATION");
  struct Row {
    std::uint32_t options;
    const char* text;
    std::size_t last;
  };
  const Row rows[] = {
      {0, "\t0", 2},
      {0x3, "\t0 | PINNED | CRITICAL", 11},
      {0x80000000, "\t0 | 0x80000000", 13},
      {0x10001000, "\t0 | OSS | ANY_ADDRESS", 14},
      {0x40010000, "\t0 | SEMAPHORES | AUTOMATIC_MAX_FREE", 21},
      {0x10 | 0x200 | 0x800 | 0x20000 | 0x4, "\t0 | CHUNK_KEEP | 0x20A10", 10},
  };
  for (const Row& row : rows) {
    char text[512];
    EXPECT_EQ(sqloMemSetOptionsToString(text, sizeof text, row.options), row.last);
    EXPECT_STREQ(text, row.text);
  }
  char all[1024];
  sqloMemSetOptionsToString(all, sizeof all, 0xFFFFFFFF);
  EXPECT_TRUE(holds(all, "SEMAPHORES | AUTOMATIC_MAX_FREE | KEY_PROTECTED | LAZY_DECOMMIT | 0x80020A10"));
  char small[8];
  sqloMemSetOptionsToString(small, sizeof small, 0x3);
  EXPECT_STREQ(small, "\t0 | PI");
}

TEST_APART(MemSet, MovesItsThresholds) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 2000, kOptions | SQLO_SET_LAZY_DECOMMIT));
  ASSERT_NE(set, nullptr);
  void* block = nullptr;
  ASSERT_EQ(takeChunks(*set, 1500, &block), 0);
  EXPECT_EQ(set->m_keepCommitChunks, 1500U) << "a lazy set keeps what it used";
  ASSERT_EQ(sqloi_setReturnChunks(*set, block, 1500), 0);
  EXPECT_EQ(set->m_committedChunks, 1500U);
  constexpr auto kFree = sqloUpdateMemorySetFreeThreshold;
  constexpr auto kKeep = sqloDecreaseMemorySetKeepCommitThresh;
  struct Row {
    SqlzZrc (*update)(SMemSet*, std::uint32_t) noexcept;
    std::uint32_t value;  // percent, hundredths of it
    SqlzZrc result;
    std::uint32_t maxFree;
    std::uint32_t kept;  // and committed: what is to be kept is not free
  };
  for (const Row& row : {Row{kFree, 100, 0, 2000, 1500},
                         {kFree, 50, 0, 1000, 1500},
                         {kFree, 1, 0, 257, 1500},
                         {kFree, 101, SQLO_INV_MEM, 257, 1500},
                         {kFree, 0, 0, 0, 1500},
                         {kKeep, 10'001, SQLO_INV_MEM, 0, 1500},
                         {kKeep, 0, 0, 0, 1243},
                         {kKeep, 2'000, 0, 0, 843}}) {
    EXPECT_EQ(row.update(set, row.value), row.result);
    EXPECT_EQ(set->m_maxFreeChunks, row.maxFree);
    EXPECT_EQ(set->m_keepCommitChunks, row.kept);
    EXPECT_EQ(set->m_committedChunks, row.kept);
  }
  EXPECT_EQ(set->m_maxFreePercent, 0U);
  ASSERT_EQ(takeChunks(*set, 700, &block), 0);
  EXPECT_EQ(sqloDecreaseMemorySetKeepCommitThresh(set, 10'000), 0);
  EXPECT_EQ(set->m_keepCommitChunks, 700U) << "never below what is used";
  EXPECT_EQ(set->m_decommittedChunks, 800U);
  {
    const SetOperation operation(*set);
    EXPECT_EQ(set->decreaseUseableMemory(300), 300U);
    EXPECT_EQ(set->usableChunks(), 1700U);
    EXPECT_EQ(set->decreaseUseableMemory(1000), 500U);
    EXPECT_EQ(set->increaseUseableMemory(9000), 800U);
    EXPECT_EQ(set->usableChunks(), 2000U);
    set->recommitChunksUntilTargetReached(1000);
    EXPECT_EQ(set->m_committedChunks, 1000U);
    EXPECT_EQ(set->m_recommitableChunks, 500U);
  }
  expectSound(instance, *set);
  EXPECT_EQ(sqlofshr(set), 0);
  SMemSet* plain = create(requestOf(SQLO_SET_PRIVATE, 10, 0));
  EXPECT_EQ(sqloUpdateMemorySetFreeThreshold(plain, 5), SQLO_INV_MEM);
  EXPECT_EQ(sqloDecreaseMemorySetKeepCommitThresh(plain, 5), SQLO_INV_MEM);
  EXPECT_FALSE(sqloMemSetIsResizable(plain));
}

// The cache of fast chunks is drained only when the low halves of the two sizes say so.
TEST_APART(MemSet, DrainsFastChunksByTheLowHalves) {
  for (const bool drains : {true, false}) {
    const std::uint32_t options = kOptions | SQLO_SET_LAZY_DECOMMIT | SQLO_SET_CHUNK_KEEP;
    SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, drains ? 300 : 250, options));
    void* blocks[5];
    for (void*& block : blocks) ASSERT_EQ(takeChunks(*set, 1, &block), 0);
    for (void* block : blocks) ASSERT_EQ(sqloi_setReturnChunks(*set, block, 1), 0);
    EXPECT_EQ(set->m_fastCount, 5U);
    EXPECT_EQ(sqloi_setReturnChunks(*set, blocks[0], 1), SQLO_INV_MEM) << "given back twice";
    EXPECT_EQ(sqloUpdateMemorySetFreeThreshold(set, 0), 0);
    EXPECT_EQ(sqloDecreaseMemorySetKeepCommitThresh(set, 0), 0);
    EXPECT_EQ(set->m_fastCount, drains ? 0U : 5U);
    expectSound(instance, *set);
    EXPECT_EQ(sqlofshr(set), 0);
  }
}

// Random work on a set; `alive` is asked to go on.
void useSet(SMemSet& set, std::uint32_t seed, std::uint32_t steps, const std::function<void()>& check) {
  struct Run {
    char* address;
    std::uint32_t chunks;
  };
  std::minstd_rand random(seed);
  std::vector<Run> runs;
  for (std::uint32_t step = 0; step < steps; ++step) {
    const auto chunks = static_cast<std::uint32_t>(1 + (random() % 3 == 0 ? random() % 40 : 0));
    void* block = nullptr;
    if (random() % 2 == 0 && takeChunks(set, chunks, &block) == 0) {
      std::memset(block, 1, 1);
      static_cast<char*>(block)[std::size_t{chunks} * SQLO_CHUNK_BYTES - 1] = 1;
      runs.push_back({static_cast<char*>(block), chunks});
    } else if (!runs.empty()) {
      std::swap(runs[random() % runs.size()], runs.back());
      Run& run = runs.back();
      const std::uint32_t part = random() % 4 == 0 ? 1 : run.chunks;  // the end of a run may stay
      EXPECT_EQ(sqloi_setReturnChunks(set, run.address, part), 0);
      run.address += std::size_t{part} * SQLO_CHUNK_BYTES;
      run.chunks -= part;
      if (run.chunks == 0) runs.pop_back();
    }
    if (random() % 50 == 0) sqloUpdateMemorySetFreeThreshold(&set, static_cast<std::uint32_t>(random() % 101));
    if (step % 100 == 0) check();
  }
  for (const Run& run : runs) EXPECT_EQ(sqloi_setReturnChunks(set, run.address, run.chunks), 0);
}

TEST_APART(MemSet, IsWhatTheKernelShows) {
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  for (const std::uint32_t type : {SQLO_SET_PRIVATE, SQLO_SET_DBM_DBMS})
    for (const std::uint32_t options : {0U, std::uint32_t{SQLO_SET_CHUNK_KEEP}, std::uint32_t{SQLO_SET_REDUCIBLE}}) {
      SMemSet* set = create(requestOf(type, 100, kOptions | options));
      ASSERT_NE(set, nullptr);
      useSet(*set, seed, 4000 / kSlower, [&] { expectSound(instance, *set); });
      expectSound(instance, *set);
      EXPECT_EQ(set->m_usedChunks, 0U);
      EXPECT_EQ(set->m_starts.count(), 0U);
      const std::string file = setFile(instance, *set);
      EXPECT_EQ(sqlofshr(set), 0);
      EXPECT_FALSE(sqloIsSetAlreadyConnected(type, "SAMPLE"));
      EXPECT_FALSE(std::filesystem::exists(file));
    }
}

// Failures by kind, as they stand in the log.
constexpr std::pair<const char*, const char*> kTexts[] = {
    {"Unmapped memory set failure", "probe:700"},
    {"Private memory and/or virtual address space exhausted", "probe:100"},
    {"Failure freeing private memory", "probe:300"},
    {"Failed memory commit operation", "probe:400"},
    {"Failed memory decommit operation", "probe:500"},
    {"New shared memory segment allocation", "probe:600"}};

// Any call of the system fails in turn, while sets are made, used and freed; what failed is told, nothing stays behind.
TEST_APART(MemSet, LosesNothingWhenTheSystemRefuses) {
  SqloMemController* controller = controllerOf(0xFFFFFFFF);
  makeFail<&OssCalls::mmap, &OssCalls::munmap, &OssCalls::mprotect, &OssCalls::madvise, &OssCalls::fallocate,
           &OssCalls::ftruncate>(-1, ENOMEM);
  for (const std::uint32_t type : {SQLO_SET_PRIVATE, SQLO_SET_DBM_DBMS}) {
    SqloMemSetRequest request = requestOf(type, 20, kOptions | SQLO_SET_REDUCIBLE);
    request.commitBytes = request.bytes;
    bool wasDue = true;
    for (int call = 0; wasDue; ++call) {
      Failure::callsLeft = call;
      SMemSet* set = nullptr;
      const SqlzZrc created = sqlocshr(&request, &set);
      EXPECT_TRUE(created == 0 || created == SQLO_NOSEG || created == SQLO_REGION_NO_MEMORY) << std::hex << created;
      if (set != nullptr) {
        EXPECT_EQ(sqloUpdateMemorySetFreeThreshold(set, 0), 0);
        useSet(*set, 7, 60, [] {});
      }
      wasDue = Failure::callsLeft < 0;
      Failure::callsLeft = -1;
      if (set != nullptr) {
        expectSound(instance, *set);
        EXPECT_FALSE(set->has(SQLO_SET_PENDING_REPORT));
        EXPECT_EQ(statsOf(controller).currentSize, set->m_allocatedChunks << SQLO_CHUNK_SHIFT) << "call " << call;
        EXPECT_EQ(sqlofshr(set), 0);
      }
      EXPECT_EQ(statsOf(controller).currentSize, 0U) << "call " << call;
      EXPECT_FALSE(std::filesystem::exists(instance.region() + ":set.1"));
      ASSERT_LT(call, 2000);
    }
  }
  for (std::size_t kind = 1; kind < std::size(kTexts); ++kind)
    EXPECT_GT(occurrences(logText(instance), kTexts[kind].first), 0U) << kTexts[kind].first;
}

// What failed under the latch is kept as six words, the first of an operation, and logged once the latch is released.
TEST_APART(MemSet, ReportsWhatFailedAfterwards) {
  SMemSet* set = create(requestOf(SQLO_SET_PRIVATE, 20));
  for (const std::uint32_t kind : {0U, 1U, 2U, 3U, 4U, 5U, 6U}) {
    const std::size_t before = logText(instance).size();
    {
      const SetOperation operation(*set);
      set->notePendingFailure(static_cast<SetFailure>(kind), ENOMEM, SQLO_NOMEM, {7, 8});
      set->notePendingFailure(SetFailure::kFree, EPERM, SQLO_NOSEG, {1, 2});
      EXPECT_TRUE(set->has(SQLO_SET_PENDING_REPORT));
      const std::uint32_t words[] = {ENOMEM, static_cast<std::uint32_t>(SQLO_NOMEM), 7, 8, 0, kind};
      EXPECT_EQ(std::memcmp(set->m_pending.words, words, sizeof words), 0);
      EXPECT_EQ(logText(instance).size(), before);
    }
    EXPECT_FALSE(set->has(SQLO_SET_PENDING_REPORT));
    const std::string log = logText(instance).substr(before);
    const auto& [text, probe] = kTexts[kind < std::size(kTexts) ? kind : 0];
    EXPECT_EQ(occurrences(log, text), 1U) << log;
    EXPECT_EQ(occurrences(log, probe), 1U) << log;
    EXPECT_EQ(occurrences(log, "PRIVATE"), kind == 3 || kind == 4 ? 1U : 0U) << log;
  }
}

// A file system that is really full: a code, no signal, and all that was got can be written to.
TEST(MemSet, IsToldOfAFullFileSystem) {
  const Instance instance;
  const int end = runInProcess([&] {
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", instance.directory().c_str(), "tmpfs", 0, "size=8m,mode=0700") != 0)
      ::_exit(kSkip);
    SMemSet* set = create(requestOf(SQLO_SET_DBM_DBMS, 400));
    ASSERT_NE(set, nullptr);
    void* block = nullptr;
    std::uint32_t got = 0;
    while (takeChunks(*set, 1, &block) == 0) {
      std::memset(block, 1, SQLO_CHUNK_BYTES);
      ++got;
    }
    EXPECT_GT(got, 10U);
    EXPECT_LT(got, 128U);
    expectSound(instance, *set);
    ASSERT_EQ(sqloi_setReturnChunks(*set, block, 1), 0);
    EXPECT_EQ(takeChunks(*set, 1, &block), 0);
    EXPECT_EQ(sqlofshr(set), 0);
  });
  if (end == kSkip) GTEST_SKIP() << "no file system can be mounted here";
  EXPECT_EQ(end, 0);
}

TEST_APART(MemSet, SaysWhatItCannotGive) {
  SMemSet* set = nullptr;
  const auto tryCreate = [&](const SqloMemSetRequest& request) { return sqlocshr(&request, &set); };
  EXPECT_EQ(tryCreate(requestOf(SQLO_SET_PRIVATE, 0)), SQLO_MEM_SIZE);
  EXPECT_EQ(tryCreate(requestOf(3, 10)), SQLO_INV_PARM);
  SqloMemSetRequest request = requestOf(SQLO_SET_PRIVATE, 10);
  request.heapBytes = request.bytes + 1;
  EXPECT_EQ(tryCreate(request), SQLO_MEM_SIZE);
  request.heapBytes = 0;
  request.maxBytes = 0xFFFFFFFF;
  request.paddingBytes = kMb;
  EXPECT_EQ(tryCreate(request), 0);
  ::setenv("VEKNTMEMSIZE", "DBM_DB:65536;PRIVATE:1048576", 1);
  request.paddingBytes = 0;
  request.maxBytes = 3 * kMb;
  EXPECT_EQ(tryCreate(request), 0);
  EXPECT_EQ(set->m_maxChunksAllowed, 16U);
  EXPECT_EQ(sqloMemSetSetMaxSize(set, 32 * SQLO_CHUNK_BYTES), 0);
  EXPECT_EQ(sqloMemSetGetGrowthLimit(set), 22 * SQLO_CHUNK_BYTES);
  EXPECT_EQ(sqloMemSetSetMaxSize(set, 9 * SQLO_CHUNK_BYTES), SQLO_MEM_SIZE);
  EXPECT_EQ(sqlofshr(set), 0);
  EXPECT_EQ(sqlofshr(set), SQLO_INV_MEM);
  ::unsetenv("VEKNTMEMSIZE");
  request.maxBytes = 0;
  ::setenv("VEKMEMDBG", "ALL", 1);
  ::setenv("VEK_DEFER_MEMORY_COMMIT", "ON", 1);
  request.commitBytes = SQLO_CHUNK_BYTES;
  EXPECT_EQ(tryCreate(request), 0);
  EXPECT_EQ(set->m_committedChunks, 1U);
  void* block = nullptr;
  ASSERT_EQ(takeChunks(*set, 1, &block), 0);
  ASSERT_EQ(sqloi_setReturnChunks(*set, block, 1), 0);
  EXPECT_EQ(*static_cast<unsigned char*>(block), 0xDD);
  ::unsetenv("VEK_DEFER_MEMORY_COMMIT");
  SqloMemController* controller = controllerOf(kMb);
  request.bytes = 2 * kMb;
  EXPECT_EQ(tryCreate(request), SQLO_NO_INS_MEM);
  request.bytes = kMb;
  request.maxBytes = 2 * kMb;
  request.options = kOptions | SQLO_SET_PINNED | SQLO_SET_LARGE_PAGES;
  ossCalls().mlock = [](auto...) { return errno = EPERM, -1; };
  ossCalls().madvise = [](auto...) { return errno = EINVAL, -1; };
  EXPECT_EQ(tryCreate(request), 0);
  EXPECT_EQ(set->m_options & (SQLO_SET_PINNED | SQLO_SET_LARGE_PAGES), 0U);
  EXPECT_EQ(sqloMemSetPageSize(set), 4096U);
  EXPECT_EQ(takeChunks(*set, 17, &block), SQLO_NOMEM) << "the controller does not let it grow";
  EXPECT_EQ(statsOf(controller).currentSize, kMb);
  EXPECT_EQ(sqlocshr(nullptr, &set), SQLO_INV_PARM);
  const std::string log = logText(instance);
  constexpr const char* kTruncated =
      "Set 9 size truncated from 3145728 bytes to 1048576 bytes  To avoid this truncation, either reduce your memory "
      "configuration parameters for this set or update the VEKNTMEMSIZE registry variable with the string "
      "PRIVATE:3145728.";
  for (const char* text : {"Insufficient set size for heap reservations.", kTruncated,
                           "Set 9 size truncated from 4294967295 bytes to 4294901760 bytes",
                           "The value requested for padding was 1048576, and the value assigned is 0.",
                           "No private set handle.", "Deferred memory commit is disabled in memory debug modes",
                           "Insufficient INSTANCE_MEMORY to allocate new memory set.",
                           "Can not continue with large page support, disabling to continue",
                           "Can not continue with VEK_PINNED_BP=true, disabling to continue", "pSetHdl was NULL"})
    EXPECT_EQ(occurrences(log, text), 1U) << text;
}

TEST_APART(MemSet, IsCommittedInTheBackground) {
  SqloMemSetRequest request = requestOf(SQLO_SET_DBM_DB, 30);
  request.commitBytes = 20 << SQLO_CHUNK_SHIFT;
  for (const bool isOn : {true, false}) {
    ::setenv("VEK_ENABLE_BG_COMMIT", isOn ? "TRUE" : "OFF", 1);
    SMemSet* set = create(request);
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(sqloBgCommitIsNeeded(set), isOn);
    EXPECT_EQ(set->m_committedChunks, isOn ? 0U : 20U);
    std::uint32_t total = 0;
    for (std::uint32_t committed = 1; committed != 0; total += committed)
      ASSERT_EQ(sqloBgCommit(set, 7, &committed), 0);
    EXPECT_EQ(total, isOn ? 20U : 0U);
    expectSound(instance, *set);
    EXPECT_EQ(sqlofshr(set), 0);
  }
  EXPECT_FALSE(sqloBgCommitIsNeeded(nullptr));
}

// ---- several processes ---------------------------------------------------------------------------------------------

TEST(MemSet, IsSharedAtOneAddress) {
  const Instance instance;
  Baton ready;
  Baton done;
  const pid_t owner = start([&] {
    SMemSet* set = create(requestOf(SQLO_SET_DBM_DBMS, 50));
    void* block = nullptr;
    ASSERT_EQ(takeChunks(*set, 3, &block), 0);
    *static_cast<void**>(block) = block;
    SMemSet* second = nullptr;
    SqloMemSetRequest request = requestOf(SQLO_SET_DBM_DBMS, 50);
    EXPECT_EQ(sqlocshr(&request, &second), SQLO_SHM_EXISTS);
    ready.give();
    ASSERT_TRUE(done.take());
    expectSound(instance, *set);
    EXPECT_EQ(set->m_usedChunks, 63U);
    EXPECT_GT(set->m_groupCount, 1U) << "another process made it grow";
    EXPECT_EQ(sqlofshr(set), 0);
    ready.give();
    ASSERT_TRUE(done.take());
  });
  ASSERT_TRUE(ready.take());
  inProcess([&] {
    SMemSet* set = nullptr;
    EXPECT_FALSE(sqloIsSetAlreadyConnected(SQLO_SET_DBM_DBMS, "SAMPLE"));
    EXPECT_EQ(sqlogmshr(SQLO_SET_DBM_DBMS, "OTHER", &set), SQLO_NOSEG);
    SqloMemSetInfo info;
    EXPECT_EQ(sqloqshr(SQLO_SET_DBM_DBMS, "SAMPLE", &info), 0);
    EXPECT_EQ(info.usedChunks, 3U);
    const auto becomes = [](SetState state) { DirectoryOperation().directory().entries[0].state = state; };
    becomes(SetState::kCreating);
    EXPECT_EQ(sqlogmshr(SQLO_SET_DBM_DBMS, "SAMPLE", &set), SQLO_NOTAVAIL);
    becomes(SetState::kReady);
    makeFail<&OssCalls::mmap>(-1, ENOMEM);
    Failure::callsLeft = 0;
    EXPECT_EQ(sqlogmshr(SQLO_SET_DBM_DBMS, "SAMPLE", &set), SQLO_NOSEG);
    Failure::callsLeft = -1;
    EXPECT_EQ(occurrences(logText(instance), "Memory set not ready to accept connections."), 1U);
    EXPECT_EQ(occurrences(logText(instance), "Set address is NULL."), 1U);
    ASSERT_EQ(sqloConnectIfNotConnected(SQLO_SET_DBM_DBMS, "SAMPLE", &set), 0);
    EXPECT_EQ(sqlogmshr(SQLO_SET_DBM_DBMS, "SAMPLE", &set), 0);
    EXPECT_EQ(occurrences(logText(instance), "Shared memory set is already connected."), 1U);
    void* first = std::bit_cast<void*>(set->addressOf(0));
    EXPECT_EQ(*static_cast<void**>(first), first);
    void* block = nullptr;
    ASSERT_EQ(takeChunks(*set, 60, &block), 0);
    std::memset(block, 1, std::size_t{60} << SQLO_CHUNK_SHIFT);
    done.give();
    ASSERT_TRUE(ready.take());
    std::memset(block, 2, std::size_t{60} << SQLO_CHUNK_SHIFT);  // freed, but still there for those connected
    EXPECT_EQ(sqloConnectIfNotConnected(SQLO_SET_DBM_DBMS, "SAMPLE", &set), SQLO_NOSEG);
    done.give();
  });
  EXPECT_EQ(finish(owner), 0);
}

// A forked child has its parent's connections, and connects anew where another set has taken a set's place since.
TEST(MemSet, IsAnotherOneForAChildOfFork) {
  const Instance instance;
  Baton ready;
  Baton done;
  inProcess([&] {
    EXPECT_EQ(sqlofshr(create(requestOf(SQLO_SET_DBM_DB, 10))), 0);
    SMemSet* set = create(requestOf(SQLO_SET_DBM_DBMS, 50));
    const pid_t child = start([&] {
      ASSERT_TRUE(ready.take());
      SMemSet* found = nullptr;
      SqloMemSetInfo info;
      ASSERT_EQ(sqlogmshr(SQLO_SET_DBM_DBMS, "SAMPLE", &found), 0);
      ASSERT_EQ(sqloGetSetInfo(found, &info), 0);
      EXPECT_EQ(info.allocatedChunks, 20U);
      EXPECT_EQ(sqlodshr(found), 0);
      done.give();
    });
    EXPECT_EQ(sqlofshr(set), 0);
    EXPECT_EQ(create(requestOf(SQLO_SET_DBM_DBMS, 20)), set) << "in the same place";
    ready.give();
    ASSERT_TRUE(done.take());
    EXPECT_EQ(finish(child), 0);
  });
}

TEST_APART(MemSet, IsRefusedWhereItsAddressIsTaken) {
  void* where = std::bit_cast<void*>(addressOfWindow(SHARED_WINDOWS, 1) + 4096);
  ASSERT_EQ(::mmap(where, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0), where);
  SMemSet* set = nullptr;
  const SqloMemSetRequest request = requestOf(SQLO_SET_DBM_DBMS, 50);
  EXPECT_EQ(sqlocshr(&request, &set), SQLO_ADDRESS_TAKEN);
  EXPECT_FALSE(sqloIsSetAlreadyConnected(SQLO_SET_DBM_DBMS, "SAMPLE"));
}

// Processes are killed at random in the middle of changes; those that live on find a sound set.
TEST(MemSet, SurvivesProcessesThatAreKilled) {
  const Instance instance;
  const std::uint32_t seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::minstd_rand random(seed);
  Baton ready;
  Baton done;
  const pid_t keeper = start([&] {
    SqloMemSetRequest request = requestOf(SQLO_SET_DBM_DBMS, 400, kOptions | SQLO_SET_CHUNK_KEEP | SQLO_SET_REDUCIBLE);
    request.maxBytes = 60'000U << SQLO_CHUNK_SHIFT;
    SMemSet* set = create(request);
    ready.give();
    ASSERT_TRUE(done.take());
    expectSound(instance, *set);
    EXPECT_EQ(sqlofshr(set), 0);
  });
  ASSERT_TRUE(ready.take());
  for (int turn = 0; turn < 30; ++turn) {
    const auto userSeed = static_cast<std::uint32_t>(random());
    const auto use = [&, userSeed] {
      SMemSet* set = nullptr;
      ASSERT_EQ(sqlogmshr(SQLO_SET_DBM_DBMS, "SAMPLE", &set), 0);
      ready.give();
      useSet(*set, userSeed, 300, [] {});
    };
    const pid_t doomed = start([&] {
      use();
      use();
    });
    const pid_t user = start(use);
    ASSERT_TRUE(ready.take());
    ::usleep(static_cast<useconds_t>(random() % 5'000));
    const int end = finishKilled(doomed);
    EXPECT_TRUE(end == -SIGKILL || end == 0) << end;
    EXPECT_EQ(finish(user), 0);
  }
  done.give();
  EXPECT_EQ(finish(keeper), 0);
}

}  // namespace
}  // namespace vek::memorytest
