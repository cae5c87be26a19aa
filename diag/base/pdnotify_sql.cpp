// SQL codes in the administration notification log: the message with its tokens in their places.
#include <algorithm>
#include <cstring>
#include <string_view>

#include "diag/base/pdnotify.h"
#include "diag/base/traced.h"
#include "platform/fault.h"
#include "platform/osse.h"
#include "veksys/codes.h"
#include "veksys/diag/sqlca.h"

namespace vek {
namespace {

constexpr std::size_t kTokensMost = SQLZ_SQLCA_TOKEN_MAXIMUM;
constexpr std::uint32_t kNotifyLevelMost = 4;

struct Tokens {
  std::string_view text[kTokensMost];
  std::size_t count = 0;

  void add(std::string_view token) noexcept {
    if (count < kTokensMost) text[count++] = token;
  }
};

// The names of the places in a message, in the order in which they appear first; the n-th stands for the n-th token.
struct Places {
  std::string_view name[kTokensMost];
  std::size_t count = 0;

  std::size_t indexOf(std::string_view wanted) noexcept {
    const auto found = static_cast<std::size_t>(std::find(name, name + count, wanted) - name);
    if (found == count && count < kTokensMost) name[count++] = wanted;
    return found;
  }
};

// The place at the beginning of a text: <lower-case-name>. Empty when there is none.
std::string_view placeAt(std::string_view text) noexcept {
  const std::size_t end = text.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789-", 1);
  const bool isPlace = end != std::string_view::npos && end > 1 && text[end] == '>';
  return isPlace ? text.substr(0, end + 1) : std::string_view{};
}

// A token keeps to its line: what would end it is taken out later, but a line end inside would begin another line.
void penToken(PdPen& pen, std::string_view token) noexcept {
  for (const char c : token) pen.character(c == '\r' || c == '\n' ? ' ' : c);
}

// Writes a message with the tokens in their places; returns how many of them have one.
std::size_t penMessage(PdPen& pen, std::string_view message, const Tokens& tokens) noexcept {
  Places places;
  while (!message.empty()) {
    const std::size_t plain = std::min(message.find('<'), message.size());
    pen.text(message.substr(0, plain));
    message.remove_prefix(plain);
    if (message.empty()) break;
    const std::string_view place = placeAt(message);
    const std::size_t index = place.empty() ? tokens.count : places.indexOf(place);
    const std::size_t length = place.empty() ? 1 : place.size();
    if (index < tokens.count)
      penToken(pen, tokens.text[index]);
    else
      pen.text(message.substr(0, length));
    message.remove_prefix(length);
  }
  pen.newLine();
  return std::min(places.count, tokens.count);
}

void penTokensWithoutPlace(PdPen& pen, const Tokens& tokens, std::size_t from) noexcept {
  for (std::size_t i = from; i < tokens.count; ++i) {
    pen.text(i == from ? "Tokens: " : ", ");
    penToken(pen, tokens.text[i]);
  }
  if (from < tokens.count) pen.newLine();
}

SqlzZrc checkLevel(std::uint32_t level) noexcept {
  if (level < 1 || level > kNotifyLevelMost) return SQLT_NOTIFY_LEVEL_RANGE;
  return sqltTestNotifyLevel(pdLogNotify(level)) ? 0 : SQLT_NOLOG;
}

// Adds the tokens of an area, which stand one behind the other.
void addTokensOf(const sqlca& area, Tokens* out) noexcept {
  const int used = std::clamp<int>(area.sqlerrml, 0, sizeof area.sqlerrmc);
  std::string_view rest(area.sqlerrmc, static_cast<std::size_t>(used));
  while (!rest.empty()) {
    const std::size_t length = std::min(rest.find(SQLZ_SQLCA_TOKEN_SEPARATOR), rest.size());
    out->add(rest.substr(0, length));
    rest.remove_prefix(std::min(length + 1, rest.size()));
  }
}

// An SQL code on its way into an entry.
struct Telling {
  const char* message;
  std::uint32_t tokenCount;
  const char* const* tokens;  // as the caller passed them
  const sqlca* area;          // that holds them instead, or null
  char lines[4096];
};

void penLines(PdPen& pen, std::string_view message, const Tokens& tokens) noexcept {
  const std::size_t placed = penMessage(pen, message, tokens);
  penTokensWithoutPlace(pen, tokens, placed);
}

// Runs under the fault guard: tokens are the caller's.
void tell(void* context) noexcept {
  auto& telling = *static_cast<Telling*>(context);
  Tokens tokens;
  if (telling.area != nullptr) addTokensOf(*telling.area, &tokens);
  for (std::uint32_t i = 0; i < telling.tokenCount && i < kTokensMost; ++i)
    tokens.add(telling.tokens[i] != nullptr ? telling.tokens[i] : "");
  PdPen pen(telling.lines, sizeof telling.lines);
  penLines(pen, telling.message, tokens);
  pen.finish("...(cut)\r\n");
}

// Takes an area over, so that it is read once and may change meanwhile. False: it cannot be read.
bool takeArea(const sqlca* area, sqlca* out) noexcept {
  struct Copy {
    const sqlca* from;
    sqlca* to;
  } copy = {area, out};
  return faultGuard(
      [](void* context) {
        const auto& of = *static_cast<Copy*>(context);
        std::memcpy(of.to, of.from, sizeof *of.to);
      },
      &copy, nullptr);
}

// The entry of tokens that lead nowhere.
void tellWithoutTokens(Telling& telling) noexcept {
  PdPen pen(telling.lines, sizeof telling.lines);
  penLines(pen, telling.message, {});
  pen.text("The tokens could not be read.\r\n");
  pen.finish("...(cut)\r\n");
}

SqlzZrc writeSqlcode(EcfFunctionId functionId, std::uint32_t probe, std::int32_t sqlcode, std::uint32_t tokenCount,
                     const char* const* tokens, const sqlca* area) noexcept {
  char message[2048];
  if (sqlzGetSqlMessage(sqlcode, message, sizeof message) == 0)
    ossSnprintf(message, sizeof message, "SQL code %d", sqlcode);
  Telling telling = {.message = message, .tokenCount = tokenCount, .tokens = tokens, .area = area, .lines = {}};
  if (!faultGuard(tell, &telling, nullptr)) tellWithoutTokens(telling);
  const SqlzZrc zrc =
      pdi_writeNotification({sqlcode < 0 ? PD_LEVEL_ERROR : PD_LEVEL_WARNING, functionId, probe, telling.lines});
  pdi_reportNotifyFailures();
  return zrc;
}

}  // namespace
}  // namespace vek

SqlzZrc sqlt_logadmin(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t notifyLevel, std::int32_t sqlcode,
                      std::uint32_t tokenCount, const char* const* tokens) noexcept {
  vek::VekTrace<vek::FID_sqlt_logadmin> trace;
  const vek::ErrnoKept kept;
  if (tokenCount != 0 && tokens == nullptr) return trace.exit(SQLO_INV_PARM);
  const SqlzZrc refusal = vek::checkLevel(notifyLevel);
  if (refusal != 0) return trace.exit(refusal);
  return trace.exit(vek::writeSqlcode(functionId, probe, sqlcode, tokenCount, tokens, nullptr));
}

SqlzZrc sqlt_logadmin_api(EcfFunctionId functionId, std::uint32_t probe, std::uint32_t notifyLevel,
                          const sqlca* area) noexcept {
  vek::VekTrace<vek::FID_sqlt_logadmin_api> trace;
  const vek::ErrnoKept kept;
  if (area == nullptr) return trace.exit(SQLO_INV_PARM);
  const SqlzZrc refusal = vek::checkLevel(notifyLevel);
  if (refusal != 0) return trace.exit(refusal);
  sqlca taken;
  if (!vek::takeArea(area, &taken)) return trace.exit(SQLO_INV_PARM);
  if (taken.sqlcode == 0) return trace.exit(SQLT_NOLOG);
  return trace.exit(vek::writeSqlcode(functionId, probe, taken.sqlcode, 0, nullptr, &taken));
}
