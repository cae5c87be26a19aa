#include "platform/system_facts.h"

#include <fcntl.h>
#include <gnu/libc-version.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "platform/osse.h"

namespace vek {
namespace {

// Of the longest file that is read: one processor of /proc/cpuinfo, whose features take 4 KB at most.
constexpr std::size_t kTextBytes = std::size_t{8} * 1024;
constexpr std::uint64_t kKibibyte = 1024;

struct Text {
  char bytes[kTextBytes];
  std::size_t length = 0;

  std::string_view view() const noexcept { return {bytes, length}; }
};

// The beginning of a file of the kernel; empty when it cannot be read.
std::string_view readText(const char* path, Text* out) noexcept {
  int fd = -1;
  out->length = 0;
  if (ossOpen(path, O_RDONLY, 0, &fd) != 0) return {};
  if (ossReadAt(fd, out->bytes, sizeof out->bytes, 0, &out->length) != 0) out->length = 0;
  ossClose(fd);
  return out->view();
}

std::string_view trimmed(std::string_view text) noexcept {
  const auto isBlank = [](char c) { return static_cast<unsigned char>(c) <= ' '; };
  while (!text.empty() && isBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back())) text.remove_suffix(1);
  return text;
}

void copyView(char* field, std::size_t bytes, std::string_view text) noexcept {
  const std::size_t count = std::min(text.size(), bytes - 1);
  text.copy(field, count);
  std::memset(field + count, 0, bytes - count);
}

// The number a text begins with, 0 when it begins with none.
std::uint64_t numberOf(std::string_view text) noexcept {
  std::uint64_t value = 0;
  const std::string_view digits = trimmed(text);
  std::from_chars(digits.data(), digits.data() + digits.size(), value);
  return value;
}

std::uint64_t readNumber(const char* path, Text* text) noexcept { return numberOf(readText(path, text)); }

// What stands behind "name" and a colon at the beginning of a line.
std::string_view valueOf(std::string_view text, std::string_view name) noexcept {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    const std::string_view line = text.substr(0, end);
    const std::size_t colon = line.find(':');
    if (colon != std::string_view::npos && trimmed(line.substr(0, colon)) == name)
      return trimmed(line.substr(colon + 1));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return {};
}

// How many processors a list such as "0-3,8" names.
std::uint32_t listedProcessors(std::string_view list) noexcept {
  std::uint64_t count = 0;
  for (list = trimmed(list); !list.empty();) {
    const std::size_t comma = std::min(list.find(','), list.size());
    const std::string_view range = list.substr(0, comma);
    const std::size_t dash = range.find('-');
    const std::uint64_t first = numberOf(range);
    const std::uint64_t last = dash == std::string_view::npos ? first : numberOf(range.substr(dash + 1));
    count += last >= first ? last - first + 1 : 0;
    list.remove_prefix(std::min(comma + 1, list.size()));
  }
  return static_cast<std::uint32_t>(count);
}

void readSystem(SystemFacts* out) noexcept {
  utsname names;
  if (::uname(&names) == 0) {
    ossCopyText(out->host, sizeof out->host, names.nodename);
    ossSnprintf(out->system, sizeof out->system, "%s %s %s", names.sysname, names.release, names.version);
    ossCopyText(out->machine, sizeof out->machine, names.machine);
  }
  ossSnprintf(out->libcVersion, sizeof out->libcVersion, "glibc %s", ::gnu_get_libc_version());
  ossBootId(out->boot, sizeof out->boot);
}

// Names differ between processor families; the first that is there counts.
std::string_view firstOf(std::string_view text, std::initializer_list<std::string_view> names) noexcept {
  for (const std::string_view name : names)
    if (const std::string_view value = valueOf(text, name); !value.empty()) return value;
  return {};
}

void readProcessor(SystemFacts* out, Text* text) noexcept {
  const std::string_view info = readText("/proc/cpuinfo", text);
  copyView(out->processor, sizeof out->processor, firstOf(info, {"model name", "Processor", "cpu", "CPU part"}));
  copyView(out->features, sizeof out->features, firstOf(info, {"flags", "Features", "features", "isa"}));
}

std::uint32_t usableProcessors() noexcept {
  constexpr std::size_t kProcessorsMost = 8192;
  unsigned long words[kProcessorsMost / (8 * sizeof(unsigned long))] = {};
  if (::sched_getaffinity(0, sizeof words, reinterpret_cast<cpu_set_t*>(words)) != 0) return 0;
  std::uint32_t count = 0;
  for (const unsigned long word : words) count += static_cast<std::uint32_t>(__builtin_popcountl(word));
  return count;
}

// Every socket counts as equal to that of the first processor.
void readTopology(SystemFacts* out, Text* text) noexcept {
  const long online = ::sysconf(_SC_NPROCESSORS_ONLN);
  out->processorsOnline = online > 0 ? static_cast<std::uint32_t>(online) : 0;
  out->processorsUsable = usableProcessors();
  const std::string_view topology = "/sys/devices/system/cpu/cpu0/topology/";
  char path[128];
  const auto listed = [&](const char* name) {
    ossSnprintf(path, sizeof path, "%.*s%s", static_cast<int>(topology.size()), topology.data(), name);
    return listedProcessors(readText(path, text));
  };
  const std::uint32_t inSocket = listed("package_cpus_list");
  const std::uint32_t inCore = listed("core_cpus_list");
  if (inSocket == 0 || inCore == 0) return;
  out->threadsPerCore = inCore;
  out->coresPerSocket = inSocket / inCore;
  out->sockets = std::max(1U, out->processorsOnline / inSocket);
}

std::uint64_t sizeOf(std::string_view text) noexcept {
  const std::string_view size = trimmed(text);
  const std::uint64_t number = numberOf(size);
  if (size.ends_with('K')) return number * kKibibyte;
  return size.ends_with('M') ? number * kKibibyte * kKibibyte : number;
}

void readCaches(SystemFacts* out, Text* text) noexcept {
  for (std::size_t i = 0; i < SYSTEM_FACTS_CACHES; ++i) {
    char path[96];
    const auto fact = [&](const char* name) {
      ossSnprintf(path, sizeof path, "/sys/devices/system/cpu/cpu0/cache/index%zu/%s", i, name);
      return readText(path, text);
    };
    CacheFacts& cache = out->caches[i];
    cache.level = static_cast<std::uint32_t>(numberOf(fact("level")));
    if (cache.level == 0) return;
    copyView(cache.kind, sizeof cache.kind, trimmed(fact("type")));
    cache.bytes = sizeOf(fact("size"));
  }
}

void readMemory(SystemFacts* out, Text* text) noexcept {
  const std::string_view info = readText("/proc/meminfo", text);
  out->memoryBytes = numberOf(valueOf(info, "MemTotal")) * kKibibyte;
  out->memoryAvailableBytes = numberOf(valueOf(info, "MemAvailable")) * kKibibyte;
  out->swapBytes = numberOf(valueOf(info, "SwapTotal")) * kKibibyte;
  const long page = ::sysconf(_SC_PAGESIZE);
  out->pageBytes = page > 0 ? static_cast<std::uint64_t>(page) : 0;
}

// The limit of one control group, SYSTEM_FACTS_UNLIMITED when it has none ("max", or more than there can be).
std::uint64_t groupLimit(const char* root, std::string_view group, const char* file, Text* text) noexcept {
  constexpr std::uint64_t kNoLimitBytes = std::uint64_t{1} << 60;
  char path[1024];
  ossSnprintf(path, sizeof path, "%s%.*s/%s", root, static_cast<int>(group.size()), group.data(), file);
  const std::uint64_t bytes = readNumber(path, text);
  return bytes == 0 || bytes >= kNoLimitBytes ? SYSTEM_FACTS_UNLIMITED : bytes;
}

// The least of the limits of a group and of those above it.
std::uint64_t leastLimit(const char* root, std::string_view group, const char* file, Text* text) noexcept {
  std::uint64_t least = SYSTEM_FACTS_UNLIMITED;
  for (;;) {
    least = std::min(least, groupLimit(root, group, file, text));
    const std::size_t slash = group.rfind('/');
    if (slash == std::string_view::npos) return least;
    group = group.substr(0, slash);
  }
}

std::uint64_t readMemoryLimit(Text* text) noexcept {
  char group[512] = "";
  const std::string_view groups = readText("/proc/self/cgroup", text);
  const std::size_t own = groups.find("0::");
  if (own != std::string_view::npos) {
    const std::string_view rest = groups.substr(own + 3);
    copyView(group, sizeof group, rest.substr(0, rest.find('\n')));
  }
  return std::min(leastLimit("/sys/fs/cgroup", group, "memory.max", text),
                  groupLimit("/sys/fs/cgroup/memory", "", "memory.limit_in_bytes", text));
}

struct LimitRow {
  int resource;
  const char* name;
  const char* unit;
};

constexpr LimitRow kLimits[] = {
    {RLIMIT_CORE, "core file", "bytes"}, {RLIMIT_DATA, "data", "bytes"},
    {RLIMIT_STACK, "stack", "bytes"},    {RLIMIT_AS, "address space", "bytes"},
    {RLIMIT_FSIZE, "file", "bytes"},     {RLIMIT_NOFILE, "open files", ""},
    {RLIMIT_NPROC, "processes", ""},     {RLIMIT_MEMLOCK, "locked memory", "bytes"},
};
static_assert(std::size(kLimits) <= SYSTEM_FACTS_LIMITS);

std::uint64_t limitOf(rlim_t value) noexcept { return value == RLIM_INFINITY ? SYSTEM_FACTS_UNLIMITED : value; }

void readLimits(SystemFacts* out) noexcept {
  for (const LimitRow& row : kLimits) {
    struct rlimit limit;
    if (::getrlimit(static_cast<__rlimit_resource_t>(row.resource), &limit) != 0) continue;
    out->limits[out->limitCount++] = {row.name, row.unit, limitOf(limit.rlim_cur), limitOf(limit.rlim_max)};
  }
}

}  // namespace

void ossSystemFacts(SystemFacts* out) noexcept {
  Text text;
  *out = {};
  readSystem(out);
  readProcessor(out, &text);
  readTopology(out, &text);
  readCaches(out, &text);
  readMemory(out, &text);
  out->memoryLimitBytes = readMemoryLimit(&text);
  readLimits(out);
}

bool ossMemoryFacts(MemoryFacts* out) noexcept {
  Text text;
  const std::string_view info = readText("/proc/meminfo", &text);
  out->memoryBytes = numberOf(valueOf(info, "MemTotal")) * kKibibyte;
  out->availableBytes = numberOf(valueOf(info, "MemAvailable")) * kKibibyte;
  out->limitBytes = readMemoryLimit(&text);
  return out->memoryBytes != 0;
}

}  // namespace vek
