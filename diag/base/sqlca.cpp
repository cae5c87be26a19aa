// Folding of failures into the SQL communications area.
#include "veksys/diag/sqlca.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <iterator>

#include "diag/base/traced.h"
#include "platform/host.h"
#include "platform/osse.h"
#include "platform/ports.h"
#include "veksys/codes.h"
#include "veksys/diag/rc.h"

namespace vek {
namespace {

struct SqlStateRow {
  std::int32_t sqlcode;
  char state[6];
  std::int32_t rank;
};

#include "sqlstates.inc"

constexpr std::int32_t kNoRank = 0;
constexpr std::uint32_t kLevelError = 2;
constexpr std::size_t kStateBytes = 5;
constexpr sqlca kEmptyArea = {
    .sqlcaid = {'S', 'Q', 'L', 'C', 'A', ' ', ' ', ' '},
    .sqlcabc = sizeof(sqlca),
    .sqlcode = 0,
    .sqlerrml = 0,
    .sqlerrmc = {},
    .sqlerrp = {'V', 'E', 'K', 'S', 'Y', 'S', ' ', ' '},
    .sqlerrd = {},
    .sqlwarn = {},
    .sqlstate = {'0', '0', '0', '0', '0'},
};

const SqlStateRow* stateRow(std::int32_t sqlcode) noexcept {
  const auto* found =
      std::lower_bound(std::begin(kSqlStates), std::end(kSqlStates), sqlcode,
                       [](const SqlStateRow& row, std::int32_t wanted) { return row.sqlcode < wanted; });
  return found != std::end(kSqlStates) && found->sqlcode == sqlcode ? found : nullptr;
}

const char* stateOf(std::int32_t sqlcode) noexcept {
  if (sqlcode == 0) return "00000";
  if (const SqlStateRow* row = stateRow(sqlcode); row != nullptr) return row->state;
  return sqlcode > 0 ? "01000" : "58004";
}

std::int32_t rankOf(std::int32_t sqlcode) noexcept {
  const SqlStateRow* row = stateRow(sqlcode);
  return row != nullptr ? row->rank : kNoRank;
}

// Whether a new SQL code replaces the one that an area holds.
bool replaces(std::int32_t existing, std::int32_t fresh) noexcept {
  if (existing < 0) return false;
  if (existing == 0 || fresh < 0) return true;
  return fresh > 0 && sqlzewsc(existing, fresh);
}

// The first token at which the sum of the lengths is no length any more, or `count`.
std::int32_t firstBadLength(std::int32_t count, const SqlzToken* tokens) noexcept {
  std::int32_t sum = 0;
  for (std::int32_t index = 0; index < count; ++index)
    if (tokens[index].length < 0 || __builtin_add_overflow(sum, tokens[index].length, &sum)) return index;
  return count;
}

void reportBadLength(std::int32_t count, std::int32_t index) noexcept {
  char message[96];
  ossSnprintf(message, sizeof message, "Invalid token length for SQLCA (token count %d, token index %d)", count, index);
  g_ports.reportEvent({FID_sqlzStoreVariableMsgTokensInSqlca, 10, kLevelError, SQLO_INV_PARM, message});
}

// Joins the tokens into a blank field; returns the bytes used.
std::size_t joinTokens(char* field, std::size_t bytes, std::int32_t count, const SqlzToken* tokens) noexcept {
  std::size_t used = 0;
  for (std::int32_t index = 0; index < count && used < bytes; ++index) {
    if (index > 0) field[used++] = SQLZ_SQLCA_TOKEN_SEPARATOR;
    const auto length = tokens[index].text != nullptr ? static_cast<std::size_t>(tokens[index].length) : 0;
    const std::size_t part = std::min(length, bytes - used);
    if (part > 0) std::memcpy(field + used, tokens[index].text, part);
    used += part;
  }
  return used;
}

// What is folded.
struct Failure {
  SqlzZrc zrc;
  std::int32_t sqlcode;
  std::int32_t tokenCount;
  const SqlzToken* tokens;
};

void overwrite(SqlzCallerContext* context, sqlca* area, SqlzErrorCallback callback, const Failure& failure) noexcept {
  if (context != nullptr) context->flags |= SQLZ_CONTEXT_SQLCA_SET;
  if (callback != nullptr) callback(context, area, failure.zrc, failure.sqlcode);
  area->sqlerrml = 0;
  std::int32_t tokenCount = failure.tokenCount;
  (void)sqlzStoreVariableMsgTokensInSqlca(area, &tokenCount, failure.tokens);  // the code counts more than its tokens
  area->sqlcode = failure.sqlcode;
  sqlzelsc(failure.sqlcode, area->sqlstate);
  area->sqlerrd[0] = failure.zrc;
  if (failure.sqlcode == SQLZ_SQLCODE_INTERNAL_ERROR) hostDumpEngineUnit(failure.zrc);
}

void fold(SqlzCallerContext* context, sqlca* area, SqlzErrorCallback callback, const Failure& failure) noexcept {
  if (area != nullptr && replaces(area->sqlcode, failure.sqlcode)) overwrite(context, area, callback, failure);
}

// The pairs of a variadic call, as many as an area can take.
struct TokenList {
  SqlzToken tokens[SQLZ_SQLCA_TOKEN_MAXIMUM];

  TokenList(std::int32_t count, std::va_list& pairs) noexcept {
    for (std::int32_t index = 0; index < std::min(count, SQLZ_SQLCA_TOKEN_MAXIMUM); ++index) {
      tokens[index].length = va_arg(pairs, std::int32_t);
      tokens[index].text = va_arg(pairs, const char*);
    }
  }
};

}  // namespace
}  // namespace vek

void sqlzInitSqlca(sqlca* area) noexcept {
  if (area == nullptr) return;
  *area = vek::kEmptyArea;
  std::memset(area->sqlerrmc, ' ', sizeof area->sqlerrmc);
  std::memset(area->sqlwarn, ' ', sizeof area->sqlwarn);
}

void sqlzSqlcodeToSqlca(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                        std::int32_t sqlcode, std::int32_t tokenCount, ...) noexcept {
  std::va_list pairs;
  va_start(pairs, tokenCount);
  const vek::TokenList list(tokenCount, pairs);
  va_end(pairs);
  sqlzSqlcodeToSqlcaTokens(context, area, zrc, callback, sqlcode, tokenCount, list.tokens);
}

void sqlzSqlcodeToSqlcaTokens(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                              std::int32_t sqlcode, std::int32_t tokenCount, const SqlzToken* tokens) noexcept {
  vek::VekTrace<vek::FID_sqlzSqlcodeToSqlca> trace;
  trace.data(10, zrc, sqlcode, tokenCount);
  vek::fold(context, area, callback, {zrc, sqlcode, tokenCount, tokens});
  (void)trace.exit(area != nullptr ? area->sqlcode : 0);
}

void sqlzRcToSqlca(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                   std::int32_t tokenCount, ...) noexcept {
  std::va_list pairs;
  va_start(pairs, tokenCount);
  const vek::TokenList list(tokenCount, pairs);
  va_end(pairs);
  sqlzRcToSqlcaTokens(context, area, zrc, callback, tokenCount, list.tokens);
}

void sqlzRcToSqlcaTokens(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                         std::int32_t tokenCount, const SqlzToken* tokens) noexcept {
  vek::VekTrace<vek::FID_sqlzRcToSqlca> trace;
  if (zrc == 0) return;
  const std::int32_t sqlcode = sqlzGetZRCInfo(zrc, nullptr, nullptr, nullptr, nullptr);
  trace.data(10, zrc, sqlcode, tokenCount);
  vek::fold(context, area, callback, {zrc, sqlcode, tokenCount, tokens});
  (void)trace.exit(sqlcode);
}

SqlzZrc sqlzStoreVariableMsgTokensInSqlca(sqlca* area, std::int32_t* tokenCount, const SqlzToken* tokens) noexcept {
  vek::VekTrace<vek::FID_sqlzStoreVariableMsgTokensInSqlca> trace;
  if (area == nullptr || tokenCount == nullptr) return trace.exit(0);
  *tokenCount = std::min(*tokenCount, SQLZ_SQLCA_TOKEN_MAXIMUM);
  const std::int32_t count = tokens != nullptr ? *tokenCount : 0;
  const std::int32_t bad = vek::firstBadLength(count, tokens);
  if (bad < count) {
    trace.error(10, SQLO_INV_PARM, count, bad);
    vek::reportBadLength(count, bad);
    return trace.exit(SQLO_INV_PARM);
  }
  char field[sizeof area->sqlerrmc];
  std::memset(field, ' ', sizeof field);
  area->sqlerrml = static_cast<std::int16_t>(vek::joinTokens(field, sizeof field, count, tokens));
  std::memcpy(area->sqlerrmc, field, sizeof field);
  return trace.exit(0);
}

bool sqlzewsc(std::int32_t existing, std::int32_t fresh) noexcept {
  vek::VekTrace<vek::FID_sqlzewsc> trace;
  trace.data(10, existing, fresh);
  return trace.exit(vek::rankOf(fresh) > vek::rankOf(existing));
}

void sqlzelsc(std::int32_t sqlcode, char* state) noexcept {
  vek::VekTrace<vek::FID_sqlzelsc> trace;
  if (state != nullptr) std::memcpy(state, vek::stateOf(sqlcode), vek::kStateBytes);
  (void)trace.exit(sqlcode);
}
