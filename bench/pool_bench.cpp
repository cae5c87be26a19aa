// Memory pools beside the allocators of the C library, mimalloc, jemalloc, tcmalloc, APR and the C++ library.
//
// Each allocator works in a process of its own, which this program starts with the allocator preloaded and asks in turn
// for rounds of work: pairs of 64 bytes; batches of 1,000 blocks of 16 to 1,024 bytes freed in random order; two
// threads that free what the other one allocated; and what a million such blocks take of the machine's memory. All
// allocators are called through the same two pointers.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <memory_resource>
#include <numeric>
#include <random>
#include <thread>

#include "instance.h"
#include "measure.h"
#include "veksys/memory.h"
#include "veksys/sync.h"

namespace {

constexpr std::size_t kBatch = 1000;
constexpr std::size_t kPairBytes = 64;
constexpr std::size_t kResidentBlocks = 1'000'000;
constexpr double kMostBest = 1.25;    // of the best peer, with fast blocks
constexpr double kMostList = 1.5;     // of a bare list, without
constexpr double kMostResident = 46;  // bytes beyond what was asked for

// ---- the allocators ---------------------------------------------------------------------------------------------

struct Allocator {
  const char* name;
  const char* preload;  // of a process that has this allocator as malloc
  bool (*prepare)();
  void* (*take)(std::size_t bytes);
  void (*give)(void* block, std::size_t bytes);
  bool isThreadSafe;
};

SQLO_MEM_POOL* g_pool;

bool preparePool() { return sqloGetPrivatePoolHandle(&g_pool) == 0; }
bool prepareFastPool() { return preparePool() && sqloEnableFastMemoryBlocks(g_pool, true) == 0; }
void* takeOfPool(std::size_t bytes) {
  void* block;
  (void)sqloMemPoolAllocate(g_pool, bytes, 0, __FILE__, __LINE__, &block);
  return block;
}
void giveToPool(void* block, std::size_t /*bytes*/) { (void)sqloMemPoolFree(block, __FILE__, __LINE__); }

bool nothing() { return true; }
void* takeOfMalloc(std::size_t bytes) { return std::malloc(bytes); }
void giveToMalloc(void* block, std::size_t /*bytes*/) { std::free(block); }

// The least that a shared allocator can do: a list behind a latch.
struct ListBlock {
  ListBlock* next;
};
alignas(128) SqloSpinLatch g_latch;
ListBlock* g_list;
bool prepareList() {
  g_latch.init(0);
  g_list = static_cast<ListBlock*>(std::malloc(kPairBytes));
  g_list->next = nullptr;
  return true;
}
void* takeOfList(std::size_t /*bytes*/) {
  (void)g_latch.captureLatch(__FILE__, __LINE__);
  ListBlock* block = g_list;
  g_list = block->next;
  g_latch.releaseLatch();
  return block;
}
void giveToList(void* block, std::size_t /*bytes*/) {
  auto* entry = static_cast<ListBlock*>(block);
  (void)g_latch.captureLatch(__FILE__, __LINE__);
  entry->next = g_list;
  g_list = entry;
  g_latch.releaseLatch();
}

std::pmr::memory_resource* g_resource;
bool prepareResource() {
  static std::pmr::synchronized_pool_resource resource;
  g_resource = &resource;
  return true;
}
void* takeOfResource(std::size_t bytes) { return g_resource->allocate(bytes, 16); }
void giveToResource(void* block, std::size_t bytes) { g_resource->deallocate(block, bytes, 16); }

// APR's pools free nothing by itself: a pool is cleared when as much as a batch has been given back.
void* g_aprPool;
void* (*g_aprTake)(void*, std::size_t);
void (*g_aprClear)(void*);
std::size_t g_aprGiven;
std::size_t g_aprTaken;
bool prepareApr() {
  void* library = ::dlopen("libapr-1.so.0", RTLD_NOW);
  if (library == nullptr) return false;
  const auto initialize = reinterpret_cast<int (*)()>(::dlsym(library, "apr_initialize"));
  const auto create = reinterpret_cast<int (*)(void**, void*, void*, void*)>(::dlsym(library, "apr_pool_create_ex"));
  g_aprTake = reinterpret_cast<void* (*)(void*, std::size_t)>(::dlsym(library, "apr_palloc"));
  g_aprClear = reinterpret_cast<void (*)(void*)>(::dlsym(library, "apr_pool_clear"));
  return initialize != nullptr && create != nullptr && g_aprTake != nullptr && g_aprClear != nullptr &&
         initialize() == 0 && create(&g_aprPool, nullptr, nullptr, nullptr) == 0;
}
void* takeOfApr(std::size_t bytes) {
  ++g_aprTaken;
  return g_aprTake(g_aprPool, bytes);
}
void giveToApr(void* /*block*/, std::size_t /*bytes*/) {
  if (++g_aprGiven != g_aprTaken || g_aprTaken < kBatch) return;
  g_aprClear(g_aprPool);
  g_aprGiven = g_aprTaken = 0;
}

constexpr Allocator kAllocators[] = {
    {"pool, fast blocks", nullptr, prepareFastPool, takeOfPool, giveToPool, true},
    {"pool", nullptr, preparePool, takeOfPool, giveToPool, true},
    {"list behind a latch", nullptr, prepareList, takeOfList, giveToList, false},
    {"glibc", nullptr, nothing, takeOfMalloc, giveToMalloc, true},
    {"mimalloc", "libmimalloc.so.2.0", nothing, takeOfMalloc, giveToMalloc, true},
    {"jemalloc", "libjemalloc.so.2", nothing, takeOfMalloc, giveToMalloc, true},
    {"tcmalloc", "libtcmalloc_minimal.so.4", nothing, takeOfMalloc, giveToMalloc, true},
    {"std::pmr", nullptr, prepareResource, takeOfResource, giveToResource, true},
    {"APR", nullptr, prepareApr, takeOfApr, giveToApr, false},
};
enum : std::size_t { kFast, kLatched, kList, kGlibc, kFirstPeer = kGlibc };

// ---- the work ----------------------------------------------------------------------------------------------------

double pairs(const Allocator& allocator) {
  constexpr std::size_t kCount = 200'000;
  const double nanoseconds = bench::nanosecondsOf([&] {
    for (std::size_t i = 0; i < kCount; ++i) {
      void* block = allocator.take(kPairBytes);
      *static_cast<volatile char*>(block) = 1;
      allocator.give(block, kPairBytes);
    }
  });
  return nanoseconds / kCount;
}

std::vector<std::size_t> randomSizes(std::size_t count) {
  std::mt19937 random(1);
  std::vector<std::size_t> sizes(count);
  for (std::size_t& size : sizes) size = 16 + random() % 1009;
  return sizes;
}

double batches(const Allocator& allocator) {
  constexpr std::size_t kRounds = 50;
  static const std::vector<std::size_t> sizes = randomSizes(kBatch);
  static const std::vector<std::size_t> order = [] {
    std::vector<std::size_t> numbers(kBatch);
    std::iota(numbers.begin(), numbers.end(), std::size_t{0});
    std::shuffle(numbers.begin(), numbers.end(), std::mt19937(2));
    return numbers;
  }();
  static std::vector<void*> blocks(kBatch);
  const double nanoseconds = bench::nanosecondsOf([&] {
    for (std::size_t round = 0; round < kRounds; ++round) {
      for (std::size_t i = 0; i < kBatch; ++i) blocks[i] = allocator.take(sizes[i]);
      for (const std::size_t i : order) allocator.give(blocks[i], sizes[i]);
    }
  });
  return nanoseconds / (kRounds * kBatch);
}

// Batches that go from one thread to the other: handing over costs little beside the blocks.
struct alignas(128) Lane {
  static constexpr std::size_t kPlaces = 4;  // batches under way
  std::atomic<std::size_t> written{0};
  alignas(128) std::atomic<std::size_t> read{0};
  alignas(128) void* places[kPlaces][kBatch];
};

constexpr std::size_t kChurnBatches = 100;

void churnSide(const Allocator& allocator, Lane& out, Lane& in, const std::vector<std::size_t>& sizes) {
  std::size_t sent = 0;
  std::size_t received = 0;
  while (sent < kChurnBatches || received < kChurnBatches) {
    if (sent < kChurnBatches && sent - out.read.load(std::memory_order_acquire) < Lane::kPlaces) {
      auto& batch = out.places[sent % Lane::kPlaces];
      for (std::size_t i = 0; i < kBatch; ++i) batch[i] = allocator.take(sizes[i]);
      out.written.store(++sent, std::memory_order_release);
    }
    if (received < in.written.load(std::memory_order_acquire)) {
      auto& batch = in.places[received % Lane::kPlaces];
      for (std::size_t i = 0; i < kBatch; ++i) allocator.give(batch[i], sizes[i]);
      in.read.store(++received, std::memory_order_release);
    } else {
      std::this_thread::yield();  // the other thread may have no processor
    }
  }
}

// Per block that a thread allocates and the other one frees; two threads do that at the same time.
double churn(const Allocator& allocator) {
  static const std::vector<std::size_t> sizes = randomSizes(kBatch);
  static Lane there;
  static Lane back;
  for (Lane* lane : {&there, &back}) lane->written = lane->read = 0;
  const double nanoseconds = bench::nanosecondsOf([&] {
    std::thread other([&] { churnSide(allocator, back, there, sizes); });
    churnSide(allocator, there, back, sizes);
    other.join();
  });
  return nanoseconds / (kChurnBatches * kBatch);
}

double residentBytes() {
  std::ifstream statm("/proc/self/statm");
  double total = 0;
  double resident = 0;
  statm >> total >> resident;
  return resident * static_cast<double>(::sysconf(_SC_PAGESIZE));
}

double resident(const Allocator& allocator) {
  const std::vector<std::size_t> sizes = randomSizes(kResidentBlocks);
  std::vector<void*> blocks(kResidentBlocks, nullptr);
  std::memset(blocks.data(), 1, kResidentBlocks * sizeof(void*));
  const double before = residentBytes();
  double asked = 0;
  for (std::size_t i = 0; i < kResidentBlocks; ++i) {
    blocks[i] = allocator.take(sizes[i]);
    std::memset(blocks[i], 1, sizes[i]);
    asked += static_cast<double>(sizes[i]);
  }
  const double beyond = residentBytes() - before - asked;
  for (std::size_t i = 0; i < kResidentBlocks; ++i) allocator.give(blocks[i], sizes[i]);
  return beyond / kResidentBlocks;
}

struct Work {
  const char* title;
  double (*run)(const Allocator& allocator);
  bool needsThreads;
  bool isForList;
};
constexpr Work kWorks[] = {
    {"A pair of 64 bytes, ns", pairs, false, true},
    {"Batches of 1,000 blocks of 16 to 1,024 bytes, freed in random order, ns a block", batches, false, false},
    {"Two threads, each freeing what the other allocated, ns a block", churn, true, false},
    {"Resident bytes beyond what was asked for, a million blocks", resident, false, false},
};
enum : std::size_t { kPairs, kBatches, kChurns, kResident };

bool doesWork(const Allocator& allocator, const Work& work) {
  return (allocator.isThreadSafe || !work.needsThreads) && (&allocator != &kAllocators[kList] || work.isForList);
}

// ---- a process for each allocator ---------------------------------------------------------------------------------

// Answers the number of a work with its figure, until there are no more.
int serve(std::size_t number) {
  const Allocator& allocator = kAllocators[number];
  std::size_t work = 0;
  const bool isReady = allocator.prepare();
  double answer = isReady ? 1 : 0;
  do {
    if (::write(STDOUT_FILENO, &answer, sizeof answer) != sizeof answer) return 1;
    if (::read(STDIN_FILENO, &work, sizeof work) != sizeof work) return 0;
    answer = kWorks[work].run(allocator);
  } while (isReady);
  return 0;
}

class Server {
 public:
  Server(const char* program, std::size_t number) {
    int toChild[2];
    int fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0) return;
    process_ = ::fork();
    if (process_ == 0) {
      ::dup2(toChild[0], STDIN_FILENO);
      ::dup2(fromChild[1], STDOUT_FILENO);
      if (kAllocators[number].preload != nullptr) ::setenv("LD_PRELOAD", kAllocators[number].preload, 1);
      ::execl(program, program, "--serve", std::to_string(number).c_str(), nullptr);
      ::_exit(1);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    to_ = toChild[1];
    from_ = fromChild[0];
    isReady_ = receive() == 1 && (kAllocators[number].preload == nullptr || hasLoaded(kAllocators[number].preload));
  }
  ~Server() {
    ::close(to_);
    ::close(from_);
    if (process_ > 0) ::waitpid(process_, nullptr, 0);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  bool isReady() const { return isReady_; }
  double run(std::size_t work) { return ::write(to_, &work, sizeof work) == sizeof work ? receive() : 0; }

 private:
  double receive() const {
    double answer = 0;
    return ::read(from_, &answer, sizeof answer) == sizeof answer ? answer : 0;
  }
  bool hasLoaded(const char* library) const {
    std::ifstream maps("/proc/" + std::to_string(process_) + "/maps");
    for (std::string line; std::getline(maps, line);)
      if (line.find(library) != std::string::npos) return true;
    return false;
  }

  pid_t process_ = -1;
  int to_ = -1;
  int from_ = -1;
  bool isReady_ = false;
};

// ---- the tables ---------------------------------------------------------------------------------------------------

using Servers = std::vector<std::unique_ptr<Server>>;

// What a million blocks take tells a process that has done nothing else.
std::vector<bench::Samples> measureResident() {
  std::vector<bench::Samples> samples(std::size(kAllocators));
  for (std::size_t i = 0; i < samples.size(); ++i) {
    if (!doesWork(kAllocators[i], kWorks[kResident])) continue;
    Server server("/proc/self/exe", i);
    if (server.isReady()) samples[i].push_back(server.run(kResident));
  }
  return samples;
}

std::vector<bench::Samples> measure(Servers& servers, std::size_t work, unsigned runs) {
  if (work == kResident) return measureResident();
  std::vector<bench::Samples> samples(servers.size());
  for (unsigned turn = 0; turn <= runs; ++turn)
    for (std::size_t i = 0; i < servers.size(); ++i) {
      if (!servers[i]->isReady() || !doesWork(kAllocators[i], kWorks[work])) continue;
      const double figure = servers[i]->run(work);
      if (turn != 0) samples[i].push_back(figure);
    }
  return samples;
}

// The peer with the smallest median.
std::size_t bestPeer(const std::vector<bench::Samples>& samples) {
  std::size_t best = kGlibc;
  for (std::size_t i = kFirstPeer; i < samples.size(); ++i)
    if (!samples[i].empty() && std::strcmp(kAllocators[i].name, "APR") != 0 &&
        bench::spreadOf(samples[i]).median < bench::spreadOf(samples[best]).median)
      best = i;
  return best;
}

bench::Samples times(bench::Samples samples, double factor) {
  for (double& sample : samples) sample *= factor;
  return samples;
}

void compare(bench::Table& table, const std::string& what, const bench::Samples& ours, const bench::Samples& peer,
             double most) {
  if (peer.empty()) return;
  const bench::Samples allowed = times(peer, most);
  table.row({what.c_str(), "", ours, allowed, bench::ratios(allowed, ours), 1});
}

void judge(bench::Table& table, std::size_t work, const std::vector<bench::Samples>& samples) {
  const std::size_t best = bestPeer(samples);
  if (work == kResident) {
    const bench::Samples allowed(samples[kFast].size(), kMostResident);
    for (const std::size_t pool : {kFast, kLatched}) compare(table, kAllocators[pool].name, samples[pool], allowed, 1);
    return;
  }
  compare(table, std::string("fast blocks: 1.25 x ") + kAllocators[best].name, samples[kFast], samples[best],
          kMostBest);
  if (work == kPairs)
    compare(table, "pool: 1.5 x list behind a latch", samples[kLatched], samples[kList], kMostList);
  else
    compare(table, "pool: glibc", samples[kLatched], samples[kGlibc], 1);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--serve") == 0) return serve(std::strtoul(argv[2], nullptr, 10));
  const unsigned runs = bench::runsFromArguments(argc, argv);
  if (runs == 0) return 2;
  ::signal(SIGPIPE, SIG_IGN);
  const bench::Instance instance;
  Servers servers;
  for (std::size_t i = 0; i < std::size(kAllocators); ++i) {
    servers.push_back(std::make_unique<Server>("/proc/self/exe", i));
    if (!servers.back()->isReady()) std::printf("%s is not there: measured without it\n", kAllocators[i].name);
  }
  bench::Table table;
  for (std::size_t work = 0; work < std::size(kWorks); ++work) {
    const auto samples = measure(servers, work, runs);
    table.title(kWorks[work].title);
    for (std::size_t i = 0; i < samples.size(); ++i)
      if (!samples[i].empty()) table.row({kAllocators[i].name, "", samples[i]});
    judge(table, work, samples);
  }
  return table.passed() ? 0 : 1;
}
