// The diagnostic directories of a process: decided, published, looked at, reported.
#include "diag/base/pddiagpath.h"

#include <atomic>
#include <cstring>
#include <new>

#include "diag/base/pddiagpath_value.h"
#include "diag/base/traced.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "veksys/codes.h"
#include "veksys/host.h"

namespace vek {
namespace {

// What a decision was made from: when it differs, the decision is made anew.
struct Configured {
  char value[sizeof VekInstanceControl::DIAGPATH];
  char other[sizeof VekInstanceControl::DIAGPATH];  // DIAGPATH, for the alternate that must differ from it
  char instance[33];
  std::int16_t partition;
};

struct Decision {
  Configured configured = {};
  PdPathName name;
  SqlzZrc refusal = 0;  // why there is no such directory
  PdPathNotes notes;
  std::atomic<SqlzZrc> zrc = 0;  // as it was found when it was looked at last
  std::atomic<bool> isReported = false;
  bool isMapped = false;  // its memory goes back when another thread was first
};

enum Kind : std::uint8_t { kPrimary, kAlternate, kCachingFacility, kKinds };

struct Published {
  std::atomic<Decision*> decision = nullptr;
  std::atomic<bool> isFirstTaken = false;
  alignas(Decision) unsigned char first[sizeof(Decision)] = {};
};

constinit Published g_published[kKinds];
constinit std::atomic<bool> g_reportIsDue = false;

enum SwitchState : int { kNotSwitched, kSwitched, kSwitchReported };
constinit std::atomic<int> g_switch = kNotSwitched;

template <std::size_t Bytes>
std::string_view field(const char (&text)[Bytes]) noexcept {
  return {text, ::strnlen(text, Bytes)};
}

bool isSet(const char* value) noexcept {
  while (*value == ' ') ++value;
  return *value != '\0';
}

// ---- deciding ---------------------------------------------------------------------------------------------------

const char* valueOf(Kind kind, const VekInstanceControl& control) noexcept {
  if (kind == kAlternate) return control.ALT_DIAGPATH;
  return kind == kCachingFacility ? control.CF_DIAGPATH : control.DIAGPATH;
}

bool isStillConfigured(Kind kind, const Configured& known) noexcept {
  const VekInstanceControl& control = *vekInstanceControl();
  return control.partition == known.partition &&
         std::strncmp(valueOf(kind, control), known.value, sizeof known.value) == 0 &&
         (kind != kAlternate || std::strncmp(control.DIAGPATH, known.other, sizeof known.other) == 0) &&
         std::strcmp(vekInstanceName(), known.instance) == 0;
}

void configure(Kind kind, Configured* out) noexcept {
  const VekInstanceControl& control = *vekInstanceControl();
  std::memcpy(out->value, valueOf(kind, control), sizeof out->value);
  if (kind == kAlternate) std::memcpy(out->other, control.DIAGPATH, sizeof out->other);
  ossCopyText(out->instance, sizeof out->instance, vekInstanceName());
  out->partition = control.partition;
}

// Makes the directory when it is missing, and says whether it may be used.
SqlzZrc look(const PdPathName& name) noexcept {
  const SqlzZrc zrc = pdi_verifyDirectory(name.path);
  if (zrc != SQLO_PATH_NOT_EXIST) return zrc;
  const SqlzZrc made = pdi_makeDirectory(name.path);
  return made != 0 ? made : pdi_verifyDirectory(name.path);
}

bool isOneDirectory(const PdPathName& one, const PdPathName& other) noexcept {
  if (std::strcmp(one.path, other.path) == 0) return true;
  OssFileFacts facts[2];
  return ossFileFacts(one.path, OssLink::kTarget, &facts[0]) == 0 &&
         ossFileFacts(other.path, OssLink::kTarget, &facts[1]) == 0 && facts[0].device == facts[1].device &&
         facts[0].inode == facts[1].inode;
}

bool namesNothing(SqlzZrc zrc) noexcept { return zrc == SQLO_PATH_NOT_ABSOLUTE || zrc == SQLO_PATH_TOO_LONG; }

void noteUnusable(const char* parameter, std::string_view value, SqlzZrc zrc, PdPathNotes* notes) noexcept {
  notes->add(FID_pdGetDiagPath, 20, zrc, "%s ( %.*s ) is not an absolute path of at most %zu characters", parameter,
             static_cast<int>(value.size()), value.data(), PD_DIAGPATH_BYTES - 1);
}

void decidePrimary(Decision* out) noexcept {
  const std::string_view value = field(out->configured.value);
  const SqlzZrc zrc = pdi_nameOwnDiagPath(value, &out->name, &out->notes);
  if (!namesNothing(zrc)) return;
  const bool hasDefault = pdi_defaultDiagPath(&out->name);
  if (!isSet(out->configured.value) || !hasDefault) {
    out->refusal = zrc;
    return;
  }
  noteUnusable("DIAGPATH", value, zrc, &out->notes);
  out->notes.add(FID_pdGetDiagPath, 30, SQLT_DIAGPATH_FALLBACK, "The default diagnostic path is used instead: %s",
                 out->name.path);
}

Decision* decided(Kind kind) noexcept;

void decideAlternate(Decision* out) noexcept {
  if (!isSet(out->configured.value)) {
    out->refusal = SQLT_DIAGPATH_NO_ALTERNATE;
    out->notes.add(FID_sqltGetAltDiagPath, 10, out->refusal, "DBM CFG param ALT_DIAGPATH is not set");
    return;
  }
  const std::string_view value = field(out->configured.value);
  const SqlzZrc zrc = pdi_nameOwnDiagPath(value, &out->name, &out->notes);
  if (namesNothing(zrc)) {
    out->refusal = zrc;
    noteUnusable("ALT_DIAGPATH", value, zrc, &out->notes);
    return;
  }
  const Decision* primary = decided(kPrimary);
  if (primary == nullptr || !isOneDirectory(primary->name, out->name)) return;
  out->refusal = SQLT_DIAGPATH_SAME_AS_ALTERNATE;
  out->notes.add(FID_sqltGetAltDiagPath, 20, out->refusal, "ALT_DIAGPATH and DIAGPATH should not be the same");
}

void decideCachingFacility(Decision* out) noexcept {
  const std::string_view value = field(out->configured.value);
  const SqlzZrc zrc = pdi_nameOwnDiagPath(value, &out->name, &out->notes);
  if (!namesNothing(zrc)) return;
  out->refusal = zrc;
  noteUnusable("CF_DIAGPATH", value, zrc, &out->notes);
}

// Memory for a decision: the first of a kind is part of the library.
Decision* newDecision(Published& published) noexcept {
  if (!published.isFirstTaken.exchange(true)) return new (published.first) Decision;
  void* pages = ossMapPages(sizeof(Decision));
  if (pages == nullptr) return nullptr;
  auto* decision = new (pages) Decision;
  decision->isMapped = true;
  return decision;
}

void dropDecision(Decision* decision, Published& published) noexcept {
  if (decision->isMapped)
    ossUnmapPages(decision, sizeof *decision);
  else
    published.isFirstTaken.store(false);
}

Decision* decideAnew(Kind kind, Decision* known) noexcept {
  Published& published = g_published[kind];
  Decision* fresh = newDecision(published);
  if (fresh == nullptr) return known;
  configure(kind, &fresh->configured);
  if (kind == kPrimary) decidePrimary(fresh);
  if (kind == kAlternate) decideAlternate(fresh);
  if (kind == kCachingFacility) decideCachingFacility(fresh);
  if (fresh->refusal == 0) fresh->zrc.store(look(fresh->name), std::memory_order_relaxed);
  if (!published.decision.compare_exchange_strong(known, fresh)) {
    dropDecision(fresh, published);
    return known;
  }
  g_reportIsDue.store(true, std::memory_order_release);
  return fresh;
}

// The decision for a kind in force; null only when there is none yet and no memory for one.
Decision* decided(Kind kind) noexcept {
  Decision* known = g_published[kind].decision.load(std::memory_order_acquire);
  if (known != nullptr && isStillConfigured(kind, known->configured)) [[likely]]
    return known;
  return decideAnew(kind, known);
}

// Whether the directory of a decision can be used, looking again when it could not be.
SqlzZrc usability(Decision* decision) noexcept {
  if (decision == nullptr) return SQLO_NOMEM;
  if (decision->refusal != 0) return decision->refusal;
  SqlzZrc zrc = decision->zrc.load(std::memory_order_relaxed);
  if (zrc == 0) [[likely]]
    return 0;
  zrc = look(decision->name);
  decision->zrc.store(zrc, std::memory_order_relaxed);
  return zrc;
}

Decision* inUse() noexcept {
  if (g_switch.load(std::memory_order_relaxed) != kNotSwitched) [[unlikely]] {
    Decision* alternate = decided(kAlternate);
    if (alternate != nullptr && alternate->refusal == 0) return alternate;
  }
  return decided(kPrimary);
}

PdDiagDirectory directoryOf(Decision* decision) noexcept {
  if (decision == nullptr) return {"", 0, SQLO_NOMEM};
  return {decision->name.path, decision->name.length, usability(decision)};
}

// ---- reporting --------------------------------------------------------------------------------------------------

void reportSwitch() noexcept {
  int expected = kSwitched;
  if (!g_switch.compare_exchange_strong(expected, kSwitchReported)) return;
  const Decision* from = decided(kPrimary);
  const Decision* to = decided(kAlternate);
  if (from == nullptr || to == nullptr) return;
  PdPathNotes notes;
  notes.add(FID_pdSwitchToAltDiagPath, 10, SQLT_DIAGPATH_FALLBACK,
            "The diagnostic path %s is not written to any more by this process, but its alternate: %s", from->name.path,
            to->name.path);
  notes.report();
}

void reportOnce(Decision* decision) noexcept {
  if (decision != nullptr && !decision->isReported.exchange(true)) decision->notes.report();
}

// ---- the default directories ------------------------------------------------------------------------------------

// A default path that was found usable. Filled once by whoever comes first.
struct Kept {
  enum State : std::uint8_t { kEmpty, kBeingFilled, kFilled };
  std::atomic<State> state = kEmpty;
  PdPathName name;
};

constinit Kept g_default;
constinit Kept g_defaultAlternate;

void keep(const PdPathName& name, Kept* kept) noexcept {
  if (name.length < PD_DIAGPATH_SHORTEST_KEPT) return;
  Kept::State expected = Kept::kEmpty;
  if (!kept->state.compare_exchange_strong(expected, Kept::kBeingFilled)) return;
  kept->name = name;
  kept->state.store(Kept::kFilled, std::memory_order_release);
}

// ---- giving out -------------------------------------------------------------------------------------------------

SqlzZrc giveOut(SqlzZrc zrc, const PdPathName& name, char* buffer, std::size_t bytes) noexcept {
  if (zrc != 0) return zrc;
  if (name.length >= bytes) return SQLO_PATH_TOO_LONG;
  std::memcpy(buffer, name.path, name.length + 1);
  return 0;
}

SqlzZrc getDefault(bool (*nameIt)(PdPathName*), Kept* kept, char* buffer, std::size_t bytes) noexcept {
  if (kept->state.load(std::memory_order_acquire) == Kept::kFilled) return giveOut(0, kept->name, buffer, bytes);
  PdPathName name;
  if (!nameIt(&name)) return SQLO_PATH_TOO_LONG;
  const SqlzZrc zrc = look(name);
  if (zrc == 0) keep(name, kept);
  return giveOut(zrc, name, buffer, bytes);
}

SqlzZrc getDecided(Decision* decision, char* buffer, std::size_t bytes) noexcept {
  const SqlzZrc zrc = usability(decision);
  pdiReportDiagPath();
  return zrc != 0 ? zrc : giveOut(0, decision->name, buffer, bytes);
}

// Not inline: its switch becomes a jump through a table, which the proof of the trace's cost cannot follow.
[[gnu::noinline]] SqlzZrc getPath(std::uint32_t kind, char* buffer, std::size_t bytes) noexcept {
  if (buffer == nullptr || bytes == 0) return SQLO_INV_PARM;
  buffer[0] = '\0';
  switch (kind) {
    case PD_DIAGPATH_DEFAULT:
      return getDefault(pdi_defaultDiagPath, &g_default, buffer, bytes);
    case PD_DIAGPATH_PRIMARY:
      return getDecided(decided(kPrimary), buffer, bytes);
    case PD_DIAGPATH_ALTERNATE:
      return getDecided(decided(kAlternate), buffer, bytes);
    case PD_DIAGPATH_CA:
      return getDecided(decided(isSet(vekInstanceControl()->CF_DIAGPATH) ? kCachingFacility : kPrimary), buffer, bytes);
    case PD_DIAGPATH_IN_USE:
      return getDecided(inUse(), buffer, bytes);
    default:
      return SQLO_INV_PARM;
  }
}

}  // namespace

PdDiagDirectory pdiDiagDirectory() noexcept { return directoryOf(inUse()); }

PdDiagDirectory pdiAlternateDirectory() noexcept {
  if (!isSet(vekInstanceControl()->ALT_DIAGPATH)) return {"", 0, SQLT_DIAGPATH_NO_ALTERNATE};
  return directoryOf(decided(kAlternate));
}

PdDiagDirectory pdiTrustedDirectory() noexcept {
  PdDiagDirectory directory = pdiDiagDirectory();
  if (directory.zrc == SQLT_DIAGPATH_NOT_TRUSTED && pdiSwitchToAlternate() == 0) directory = pdiDiagDirectory();
  if (directory.zrc == SQLT_DIAGPATH_NOT_TRUSTED) directory.length = 0;
  return directory;
}

SqlzZrc pdiRenewDiagDirectory() noexcept {
  Decision* decision = inUse();
  if (decision == nullptr) return SQLO_NOMEM;
  if (decision->refusal != 0) return decision->refusal;
  const SqlzZrc zrc = look(decision->name);
  decision->zrc.store(zrc, std::memory_order_relaxed);
  return zrc;
}

bool pdiIsOnAlternate() noexcept { return g_switch.load(std::memory_order_relaxed) != kNotSwitched; }

SqlzZrc pdiSwitchToAlternate() noexcept {
  if (pdiIsOnAlternate()) return 0;
  const SqlzZrc zrc = usability(decided(kAlternate));
  if (zrc != 0) return zrc;
  int expected = kNotSwitched;
  if (g_switch.compare_exchange_strong(expected, kSwitched)) g_reportIsDue.store(true, std::memory_order_release);
  return 0;
}

void pdiReportDiagPath() noexcept {
  if (!g_reportIsDue.load(std::memory_order_acquire)) [[likely]]
    return;
  g_reportIsDue.store(false, std::memory_order_relaxed);
  if (isSet(vekInstanceControl()->ALT_DIAGPATH))
    (void)decided(kAlternate);  // a mistake in it shows before it is needed
  for (Published& published : g_published) reportOnce(published.decision.load(std::memory_order_acquire));
  reportSwitch();
}

}  // namespace vek

using vek::VekTrace;

SqlzZrc sqltGetDiagPath(char* buffer, std::size_t bytes, bool alternate) noexcept {
  VekTrace<vek::FID_sqltGetDiagPath> trace;
  return trace.exit(vek::getPath(alternate ? PD_DIAGPATH_ALTERNATE : PD_DIAGPATH_PRIMARY, buffer, bytes));
}

SqlzZrc sqltGetAltDiagPath(char* buffer, std::size_t bytes) noexcept {
  VekTrace<vek::FID_sqltGetAltDiagPath> trace;
  return trace.exit(vek::getPath(PD_DIAGPATH_ALTERNATE, buffer, bytes));
}

SqlzZrc sqltGetCaDiagPath(char* buffer, std::size_t bytes) noexcept {
  VekTrace<vek::FID_sqltGetCaDiagPath> trace;
  return trace.exit(vek::getPath(PD_DIAGPATH_CA, buffer, bytes));
}

SqlzZrc sqltGetDefaultDiagPath(char* buffer, std::size_t bytes) noexcept {
  VekTrace<vek::FID_sqltGetDefaultDiagPath> trace;
  return trace.exit(vek::getPath(PD_DIAGPATH_DEFAULT, buffer, bytes));
}

SqlzZrc sqltGetDefaultAltDiagPath(char* buffer, std::size_t bytes) noexcept {
  VekTrace<vek::FID_sqltGetDefaultAltDiagPath> trace;
  if (buffer == nullptr || bytes == 0) return trace.exit(SQLO_INV_PARM);
  buffer[0] = '\0';
  return trace.exit(vek::getDefault(vek::pdi_defaultAltDiagPath, &vek::g_defaultAlternate, buffer, bytes));
}

SqlzZrc pdGetDiagPath(std::uint32_t kind, char* buffer, std::size_t bytes) noexcept {
  VekTrace<vek::FID_pdGetDiagPath> trace;
  return trace.exit(vek::getPath(kind, buffer, bytes));
}

SqlzZrc pdSwitchToAltDiagPath() noexcept {
  VekTrace<vek::FID_pdSwitchToAltDiagPath> trace;
  const SqlzZrc zrc = vek::pdiSwitchToAlternate();
  vek::pdiReportDiagPath();
  return trace.exit(zrc);
}
