#include "sync/sqloLatchDebug.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "platform/osse.h"
#include "platform/ports.h"
#include "veksys/codes.h"
#include "veksys/diag/log.h"
#include "veksys_functions.h"

namespace vek {
namespace {

constexpr std::uint32_t kTypes = SQLO_LATCH_TYPE_COUNT;
constexpr std::uint32_t kRowWords = (kTypes + 63) / 64;
constexpr std::uint32_t kPlaces = 8192;
constexpr std::uint32_t kProbes = 64;
constexpr std::uint32_t kReports = 16;

// Where two latch types, or two latches of one type, were first taken one inside the other.
struct Place {
  std::atomic<std::uint64_t> key;  // 0 free; typesKey or latchesKey
  std::uint32_t heldFile;          // regionTextOf
  std::uint32_t heldLine;
  std::uint32_t line;
  const char* file;
};

struct Report {
  std::atomic<const SqloLatchTable*> owner;  // null: free
  char text[1024];
};

// Which types were taken while which was held, in this process; from the system when the checks are switched on.
struct LockOrder {
  std::atomic<std::uint64_t> taken[kTypes][kRowWords];  // [held][taken]
  Place places[kPlaces];
  Report reports[kReports];
};

constinit std::atomic<LockOrder*> g_order{nullptr};   // null: the checks are off
constinit std::atomic<bool> g_settingIsKnown{false};  // stored last

std::uint64_t typesKey(std::uint32_t held, std::uint32_t taken) noexcept { return (held + 1) << 16 | (taken + 1); }

// Two addresses mixed into one word, differently in either order.
std::uint64_t latchesKey(std::uint64_t held, std::uint64_t taken) noexcept {
  return ((held * 0x9E3779B97F4A7C15U ^ taken) * 0xC2B2AE3D27D4EB4FU) | (1ULL << 63);
}

Place* findPlace(LockOrder& order, std::uint64_t key) noexcept {
  for (std::uint32_t probe = 0; probe < kProbes; ++probe) {
    Place& place = order.places[((key * 0x9E3779B97F4A7C15U >> 32) + probe) % kPlaces];
    if (place.key.load(std::memory_order_acquire) == key) return &place;
  }
  return nullptr;
}

// A place for a key that has none. Null: it has one, or there is no room.
Place* newPlace(LockOrder& order, std::uint64_t key) noexcept {
  for (std::uint32_t probe = 0; probe < kProbes; ++probe) {
    Place& place = order.places[((key * 0x9E3779B97F4A7C15U >> 32) + probe) % kPlaces];
    std::uint64_t found = 0;
    if (place.key.compare_exchange_strong(found, key)) return &place;
    if (found == key) return nullptr;
  }
  return nullptr;
}

// True when the edge is new.
bool addEdge(LockOrder& order, std::uint32_t held, std::uint32_t taken) noexcept {
  const std::uint64_t bit = 1ULL << (taken % 64);
  std::atomic<std::uint64_t>& word = order.taken[held][taken / 64];
  return (word.load(std::memory_order_relaxed) & bit) == 0 && (word.fetch_or(bit) & bit) == 0;
}

// A shortest way of types taken one inside the other from `from` to `to`: breadth first. Returns its length, 0: none.
std::uint32_t findWay(LockOrder& order, std::uint32_t from, std::uint32_t to, std::uint16_t* way,
                      std::uint32_t room) noexcept {
  std::uint16_t cameFrom[kTypes];
  std::uint16_t queue[kTypes];
  std::memset(cameFrom, 0xFF, sizeof cameFrom);
  std::uint32_t head = 0;
  std::uint32_t tail = 0;
  queue[tail++] = static_cast<std::uint16_t>(from);
  cameFrom[from] = static_cast<std::uint16_t>(from);
  while (head < tail && cameFrom[to] == 0xFFFF) {
    const std::uint16_t type = queue[head++];
    for (std::uint32_t word = 0; word < kRowWords; ++word)
      for (std::uint64_t left = order.taken[type][word].load(std::memory_order_relaxed); left != 0; left &= left - 1) {
        const auto next = static_cast<std::uint16_t>(word * 64 + static_cast<std::uint32_t>(std::countr_zero(left)));
        if (cameFrom[next] != 0xFFFF) continue;
        cameFrom[next] = type;
        queue[tail++] = next;
      }
  }
  if (cameFrom[to] == 0xFFFF) return 0;
  std::uint32_t length = 0;
  for (auto type = static_cast<std::uint16_t>(to);; type = cameFrom[type]) {
    if (length < room) way[length++] = type;
    if (type == from) break;
  }
  std::reverse(way, way + length);
  return length;
}

const char* fileName(std::uint32_t number) noexcept {
  const auto* names = static_cast<const RegionNames*>(regionSection(RegionSectionId::kNames));
  const char* name = names == nullptr ? nullptr : regionTextOf(*names, number);
  return name == nullptr ? "?" : name;
}

std::size_t appendPlace(const Place* place, std::uint32_t held, std::uint32_t taken, char* text,
                        std::size_t room) noexcept {
  const std::size_t length =
      ossSnprintf(text, room, "\n%s inside %s", sqloLatchTypeName(taken), sqloLatchTypeName(held));
  if (place == nullptr) return length;
  return length + ossSnprintf(text + length, room - length, ": %s line %u, inside what %s line %u captured",
                              place->file == nullptr ? "?" : place->file, place->line, fileName(place->heldFile),
                              place->heldLine);
}

Report* reserveReport(LockOrder& order, const SqloLatchTable* table) noexcept {
  for (Report& report : order.reports) {
    const SqloLatchTable* free = nullptr;
    if (report.owner.compare_exchange_strong(free, table)) return &report;
  }
  return nullptr;  // what is not written now is met again in the next process
}

// A report that says where each type of `way` was taken inside the one before, the first one inside the last.
void noteInversion(LockOrder& order, SqloLatchTable* table, const std::uint16_t* way, std::uint32_t length) noexcept {
  Report* report = reserveReport(order, table);
  if (report == nullptr) return;
  constexpr std::size_t kRoom = sizeof report->text;
  std::size_t at =
      ossSnprintf(report->text, kRoom, "Latches are captured in orders that can block each other for good:");
  for (std::uint32_t i = 0; i < length; ++i) {
    const std::uint32_t held = way[i == 0 ? length - 1 : i - 1];
    at += appendPlace(findPlace(order, typesKey(held, way[i])), held, way[i], report->text + at, kRoom - at);
  }
  table->hasReports = true;
}

// The same for two latches of one type.
void noteSwap(LockOrder& order, SqloLatchTable* table, std::uint32_t type, const Place& one,
              const Place& other) noexcept {
  Report* report = reserveReport(order, table);
  if (report == nullptr) return;
  constexpr std::size_t kRoom = sizeof report->text;
  std::size_t at =
      ossSnprintf(report->text, kRoom, "Two latches of one type are captured in orders that can block each other:");
  for (const Place* place : {&one, &other}) at += appendPlace(place, type, type, report->text + at, kRoom - at);
  table->hasReports = true;
}

// A capture inside a hold.
struct Nesting {
  const LatchMark& held;
  const LatchSubject& subject;
  const char* file;
  std::uint32_t line;

  std::uint32_t heldType() const noexcept { return markType(held.word.load(std::memory_order_relaxed)); }
  std::uint64_t heldLatch() const noexcept { return held.latch.load(std::memory_order_relaxed); }
  std::uint64_t takenLatch() const noexcept { return reinterpret_cast<std::uint64_t>(subject.latch); }

  void tell(Place& place) const noexcept {
    const std::uint64_t word = held.word.load(std::memory_order_relaxed);
    place.heldFile = markFile(word);
    place.heldLine = markLine(word);
    place.line = line;
    place.file = file;
  }
};

void checkTypes(LockOrder& order, SqloLatchTable* table, const Nesting& nesting, std::uint32_t taken) noexcept {
  const std::uint32_t held = nesting.heldType();
  if (!addEdge(order, held, taken)) return;
  if (Place* place = newPlace(order, typesKey(held, taken)); place != nullptr) nesting.tell(*place);
  std::uint16_t way[32];
  const std::uint32_t length = findWay(order, taken, held, way, 32);
  if (length != 0) noteInversion(order, table, way, length);
}

// Of one type the latches themselves have an order, as far as there is room to note it.
void checkLatches(LockOrder& order, SqloLatchTable* table, const Nesting& nesting, std::uint32_t type) noexcept {
  Place* place = newPlace(order, latchesKey(nesting.heldLatch(), nesting.takenLatch()));
  if (place == nullptr) return;
  nesting.tell(*place);
  const Place* other = findPlace(order, latchesKey(nesting.takenLatch(), nesting.heldLatch()));
  if (other != nullptr) noteSwap(order, table, type, *place, *other);
}

void checkOrder(LockOrder& order, SqloLatchTable* table, const Nesting& nesting, std::uint32_t taken) noexcept {
  const std::uint32_t held = nesting.heldType();
  if (held == taken)
    checkLatches(order, table, nesting, taken);
  else if (held < kTypes)
    checkTypes(order, table, nesting, taken);
}

// ---- what blocks the thread at once -----------------------------------------------------------------------------

bool exclusiveWaits(const LatchSubject& subject) noexcept {
  if (!subject.isShareable) return false;
  const auto* latch = static_cast<const SQLO_SLATCH_CAS32*>(subject.latch);
  return (latch->flags() & SQLO_LATCH_NO_X_STARVATION) != 0 &&
         (latch->state() & (SQLO_SLATCH_WAITER_X | SQLO_SLATCH_RESERVED_X)) != 0;
}

// What is wrong with asking for a latch that the thread holds already, or null.
const char* selfConflict(const LatchSubject& subject, std::uint64_t heldWord) noexcept {
  if (subject.way != LatchWay::kWaits) return nullptr;
  if (subject.isExclusive || (heldWord & MARK_EXCLUSIVE) != 0) return "A thread waits for a latch that it holds itself";
  if (exclusiveWaits(subject))
    return "A thread that shares a latch asks to share it again, behind a waiting exclusive requester";
  return nullptr;
}

void reportSelfConflict(const char* what, const LatchSubject& subject, std::uint64_t heldWord, const char* file,
                        std::uint32_t line) noexcept {
  (void)pdLogPrintf(PD_LOG_RC_ZRC | PD_LOG_CALL_STACK, FID_sqloDebugLatches, SQLO_LATCH_ORDER_VIOLATED, 20,
                    PD_LEVEL_ERROR, "%s: %s at %p, captured in %s line %u, asked for in %s line %u", what,
                    sqloLatchTypeName(subject.typeId()), subject.latch, fileName(markFile(heldWord)),
                    markLine(heldWord), file == nullptr ? "?" : file, line);
}

// ---- the setting ------------------------------------------------------------------------------------------------

bool settingSaysOn() noexcept {
  char value[16];
  if (!g_ports.readSetting("VEK_LATCH_DEBUG", value, sizeof value)) return false;
  bool on = false;
  for (const char* yes : {"YES", "ON", "TRUE", "Y", "1"}) on = on || ::strcasecmp(value, yes) == 0;
  return on;
}

void switchOn() noexcept {
  void* pages = ossMapPages(sizeof(LockOrder));
  if (pages == nullptr) return;
  LockOrder* none = nullptr;
  if (!g_order.compare_exchange_strong(none, new (pages) LockOrder{}, std::memory_order_acq_rel))
    ossUnmapPages(pages, sizeof(LockOrder));
}

}  // namespace

LatchDebug sqloi_latchDebug() noexcept {
  if (!g_settingIsKnown.load(std::memory_order_acquire)) return LatchDebug::kUnknown;
  return g_order.load(std::memory_order_acquire) == nullptr ? LatchDebug::kOff : LatchDebug::kOn;
}

void sqloi_readLatchDebug() noexcept {
  if (sqloi_latchDebug() != LatchDebug::kUnknown) return;
  if (settingSaysOn()) switchOn();
  g_settingIsKnown.store(true, std::memory_order_release);
}

void sqloi_debugCapture(SqloLatchTable* table, const LatchSubject& subject, const char* file,
                        std::uint32_t line) noexcept {
  LockOrder* order = g_order.load(std::memory_order_acquire);
  const std::uint32_t taken = subject.typeId() < kTypes ? subject.typeId() : 0;
  const char* reported = nullptr;
  for (const LatchMark* at = table->page->marks; at != table->top; ++at) {
    const LatchMark& mark = *at;
    const std::uint64_t word = mark.word.load(std::memory_order_relaxed);
    if ((word & MARK_STATE) != MARK_ACTIVE) continue;
    if (mark.latch.load(std::memory_order_relaxed) != reinterpret_cast<std::uint64_t>(subject.latch)) {
      if (subject.way == LatchWay::kWaits) checkOrder(*order, table, {mark, subject, file, line}, taken);
    } else if (const char* what = selfConflict(subject, word); what != nullptr && reported == nullptr) {
      reported = what;
      reportSelfConflict(what, subject, word, file, line);
    }
  }
}

void sqloi_debugReport(SqloLatchTable* table) noexcept {
  LockOrder* order = g_order.load(std::memory_order_acquire);
  if (order == nullptr) return;
  table->hasReports = false;
  for (Report& report : order->reports) {
    if (report.owner.load(std::memory_order_relaxed) != table) continue;
    (void)pdLogPrintf(PD_LOG_RC_ZRC, FID_sqloDebugLatches, SQLO_LATCH_ORDER_INVERTED, 10, PD_LEVEL_WARNING, "%s",
                      report.text);
    report.owner.store(nullptr, std::memory_order_release);
  }
}

}  // namespace vek
