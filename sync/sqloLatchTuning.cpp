#include "sync/sqloLatchTuning.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstring>
#include <string_view>

#include "diag/base/traced.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "platform/thread.h"
#include "veksys/codes.h"
#include "veksys/diag/log.h"
#include "veksys/sync/latch_control.h"
#include "veksys_functions.h"

namespace vek {
namespace {

constexpr std::uint32_t kNumberMost = 1'000'000;

// With one processor nobody can give a latch back while another thread spins: who does not get one leaves the processor
// at once. Only what the settings say is kept there.
constexpr LatchTuning kOneProcessor = {.outer = 0,
                                       .inner = 0,
                                       .waste = 0,
                                       .sloop = 0,
                                       .xloop = 0,
                                       .swaste = 0,
                                       .xwaste = 0,
                                       .sleepMin = 50,
                                       .sleepMid = 1000,
                                       .sleepMax = 10'000,
                                       .sleepInc = 1000,
                                       .disableSmtPriorities = 0,
                                       .enableAdaptiveSleep = 0,
                                       .enableConstrainedSpin = 0,
                                       .fighterCount = 1};

// With more: the loop count 2 feeds OUTER, the larger of it and of the waste value 10 SLOOP and XLOOP, the pair of 50
// SWASTE and XWASTE. A thread then spins for a shared latch about as long as it takes to put it to sleep and wake it.
// It looks rarely: each look takes the latch's line away from the holder, who has to fetch it back before it can
// release, and while the waiter stays away the holder takes several turns at the cost of one. Who waits for a spin
// latch looks four times as often: it is held for a few instructions only.
constexpr std::uint32_t kLoopCount = 2;
constexpr std::uint32_t kWasteValue = 10;
constexpr std::uint32_t kPair = 50;

LatchTuning defaultTuning(std::uint32_t processors) noexcept {
  LatchTuning tuning = kOneProcessor;
  tuning.fighterCount = processors;
  if (processors < 2) return tuning;
  tuning.outer = kLoopCount;
  tuning.inner = kPair;
  tuning.waste = kPair / 4;
  tuning.sloop = tuning.xloop = std::max(kLoopCount, kWasteValue);
  tuning.swaste = tuning.xwaste = kPair;
  return tuning;
}

struct Keyword {
  const char* name;
  std::uint32_t LatchTuning::*field;
  bool isSwitch;  // alone it means 1
};

constexpr Keyword kKeywords[] = {
    {"OUTER", &LatchTuning::outer, false},
    {"INNER", &LatchTuning::inner, false},
    {"WASTE", &LatchTuning::waste, false},
    {"SLEEPINC", &LatchTuning::sleepInc, false},
    {"DISABLE_SMT_PRIORITIES", &LatchTuning::disableSmtPriorities, true},
    {"ENABLE_ADAPTIVE_SLEEP", &LatchTuning::enableAdaptiveSleep, true},
    {"ENABLE_CONSTRAINED_SPIN", &LatchTuning::enableConstrainedSpin, true},
    {"FIGHTER_COUNT", &LatchTuning::fighterCount, false},
    {"SLEEP_MIN", &LatchTuning::sleepMin, false},
    {"SLEEP_MID", &LatchTuning::sleepMid, false},
    {"SLEEP_MAX", &LatchTuning::sleepMax, false},
    {"SLOOP", &LatchTuning::sloop, false},
    {"XLOOP", &LatchTuning::xloop, false},
    {"XWASTE", &LatchTuning::xwaste, false},
    {"SWASTE", &LatchTuning::swaste, false},
};

enum Progress : std::uint32_t { kUnset = 0, kReading = 1, kSet = 2 };

// Fixed once it is set, but for sqloInitializeLatchTuningInfo, which a server calls before its threads run.
struct Tunings {
  std::atomic<std::uint32_t> progress{kUnset};
  LatchTuning slots[LATCH_TUNING_SLOTS] = {};
};

constinit Tunings g_tunings;
constexpr LatchTuning kWhileReading = kOneProcessor;
constinit std::atomic<std::uint32_t> g_fighters{0};
thread_local constinit std::uint32_t t_lastRest __attribute__((tls_model("initial-exec"))) = 0;

bool equalIgnoringCase(std::string_view left, std::string_view right) noexcept {
  return left.size() == right.size() && ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

const Keyword* findKeyword(std::string_view name) noexcept {
  for (const Keyword& keyword : kKeywords)
    if (equalIgnoringCase(name, keyword.name)) return &keyword;
  return nullptr;
}

bool readNumber(std::string_view text, std::uint32_t* out) noexcept {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *out);
  return error == std::errc{} && end == text.data() + text.size() && *out <= kNumberMost;
}

// "XLOOP=80", "12.XLOOP=80", "ENABLE_ADAPTIVE_SLEEP". False: not understood, nothing is changed.
bool applyWord(std::string_view word, LatchTuning* slots) noexcept {
  std::uint32_t first = 0;
  std::uint32_t last = LATCH_TUNING_SLOTS - 1;
  if (const std::size_t dot = word.find('.'); dot != std::string_view::npos) {
    if (!readNumber(word.substr(0, dot), &first) || first >= SQLO_LATCH_TYPE_COUNT) return false;
    first = last = std::min(first, last);
    word.remove_prefix(dot + 1);
  }
  const std::size_t equals = word.find('=');
  const Keyword* keyword = findKeyword(word.substr(0, equals));
  std::uint32_t number = 1;
  if (keyword == nullptr) return false;
  if (equals == std::string_view::npos ? !keyword->isSwitch : !readNumber(word.substr(equals + 1), &number))
    return false;
  for (std::uint32_t slot = first; slot <= last; ++slot) slots[slot].*keyword->field = number;
  return true;
}

void reportWord(std::string_view word, const char* setting) noexcept {
  (void)pdLogPrintf(
      PD_LOG_RC_ZRC, FID_sqloInitializeLatchTuningInfo, SQLO_INV_PARM, 10, PD_LEVEL_WARNING,
      "%s: \"%.*s\" is not understood. Accepted: KEYWORD=number or <latch type>.KEYWORD=number, numbers up "
      "to %u, with OUTER, INNER, WASTE, SLEEPINC, FIGHTER_COUNT, SLEEP_MIN, SLEEP_MID, SLEEP_MAX, SLOOP, "
      "XLOOP, XWASTE, SWASTE; DISABLE_SMT_PRIORITIES, ENABLE_ADAPTIVE_SLEEP, ENABLE_CONSTRAINED_SPIN alone",
      setting, static_cast<int>(word.size()), word.data(), kNumberMost);
}

SqlzZrc applyTuneSetting(LatchTuning* slots) noexcept {
  char value[16384];  // every slot can have all of them
  if (!g_ports.readSetting("VEK_LATCH_TUNE", value, sizeof value)) return 0;
  SqlzZrc result = 0;
  for (std::string_view left = value; !left.empty();) {
    const std::size_t end = std::min(left.find_first_of(", \t;"), left.size());
    const std::string_view word = left.substr(0, end);
    left.remove_prefix(std::min(end + 1, left.size()));
    if (word.empty() || applyWord(word, slots)) continue;
    reportWord(word, "VEK_LATCH_TUNE");
    result = SQLO_INV_PARM;
  }
  return result;
}

// VEKSPINLATCHES says how often a shared latch is tried before its requester sleeps; NO: not at all.
SqlzZrc applySpinSetting(LatchTuning* slots) noexcept {
  char value[32];
  if (!g_ports.readSetting("VEKSPINLATCHES", value, sizeof value)) return 0;
  std::uint32_t attempts = 0;
  for (const char* yes : {"YES", "ON", "TRUE", "Y"})
    if (equalIgnoringCase(value, yes)) return 0;
  bool understood = false;
  for (const char* no : {"NO", "OFF", "FALSE", "N"}) understood = understood || equalIgnoringCase(value, no);
  if (!understood && !readNumber(value, &attempts)) {
    (void)pdLogPrintf(PD_LOG_RC_ZRC, FID_sqloInitializeLatchTuningInfo, SQLO_INV_PARM, 20, PD_LEVEL_WARNING,
                      "VEKSPINLATCHES: \"%s\" is not understood. Accepted: YES, NO, or a number of attempts up to %u",
                      value, kNumberMost);
    return SQLO_INV_PARM;
  }
  for (std::uint32_t slot = 0; slot < LATCH_TUNING_SLOTS; ++slot) slots[slot].sloop = slots[slot].xloop = attempts;
  return 0;
}

SqlzZrc readTuning() noexcept {
  LatchTuning slots[LATCH_TUNING_SLOTS];
  std::fill_n(slots, LATCH_TUNING_SLOTS, defaultTuning(ossProcessors()));
  const SqlzZrc spin = applySpinSetting(slots);
  const SqlzZrc tune = applyTuneSetting(slots);
  std::copy_n(slots, LATCH_TUNING_SLOTS, g_tunings.slots);
  g_tunings.progress.store(kSet, std::memory_order_release);
  return spin != 0 ? spin : tune;
}

}  // namespace

void sqloi_prepareTuning() noexcept {
  std::uint32_t expected = kUnset;
  if (!g_tunings.progress.compare_exchange_strong(expected, kReading, std::memory_order_acq_rel)) return;
  (void)readTuning();
}

// Before the settings are read, and in the thread that is reading them: nothing is asked for inside a conflict.
const LatchTuning& sqloi_tuning(std::uint32_t typeId) noexcept {
  if (g_tunings.progress.load(std::memory_order_acquire) != kSet) return kWhileReading;
  return g_tunings.slots[std::min(typeId, LATCH_TUNING_SLOTS - 1)];
}

void sqloi_wasteTime(const LatchTuning& tuning, std::uint32_t pauses) noexcept {
  if (tuning.disableSmtPriorities == 0) return ossWasteTime(pauses);
  for (std::uint32_t i = 0; i < pauses * 32; ++i) __asm__ volatile("" ::: "memory");
}

SpinLeave::SpinLeave(const LatchTuning& tuning) noexcept : counted_(tuning.enableConstrainedSpin != 0), granted_(true) {
  if (counted_) granted_ = g_fighters.fetch_add(1, std::memory_order_relaxed) < tuning.fighterCount;
}
SpinLeave::~SpinLeave() {
  if (counted_) g_fighters.fetch_sub(1, std::memory_order_relaxed);
}

LatchRest::LatchRest(const LatchTuning& tuning) noexcept : tuning_(tuning), microseconds_(tuning.sleepMin) {
  if (tuning.enableAdaptiveSleep != 0) microseconds_ = std::max(tuning.sleepMin, t_lastRest / 2);
  microseconds_ = std::max(std::min(microseconds_, tuning.sleepMax), std::uint32_t{1});
}

void LatchRest::rest() noexcept {
  ossSleepUs(microseconds_);
  t_lastRest = microseconds_;
  const std::uint32_t next = microseconds_ < tuning_.sleepMid ? microseconds_ * 2 : microseconds_ + tuning_.sleepInc;
  microseconds_ = std::max(std::min(next, tuning_.sleepMax), std::uint32_t{1});
}

}  // namespace vek

SqlzZrc sqloInitializeLatchTuningInfo() noexcept {
  vek::VekTrace<vek::FID_sqloInitializeLatchTuningInfo> trace;
  return trace.exit(vek::readTuning());
}
