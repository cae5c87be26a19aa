// The SQL communications area and how a failure is folded into it.
//
// An area belongs to one thread at a time. Nothing here fails towards the caller; a null area is ignored.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "veksys/export.h"
#include "veksys/types.h"

inline constexpr std::int32_t SQLZ_SQLCA_TOKEN_MAXIMUM = 35;
inline constexpr char SQLZ_SQLCA_TOKEN_SEPARATOR = '\xFF';

// The communications area of embedded SQL. Texts are not terminated; unused characters are blank.
struct sqlca {
  char sqlcaid[8];          // "SQLCA   "
  std::int32_t sqlcabc;     // size of the area in bytes
  std::int32_t sqlcode;     // 0 success, negative an error, positive a warning
  std::int16_t sqlerrml;    // bytes used in sqlerrmc
  char sqlerrmc[70];        // message tokens, separated by SQLZ_SQLCA_TOKEN_SEPARATOR
  char sqlerrp[8];          // product and module
  std::int32_t sqlerrd[6];  // the first word receives the return code behind the SQL code
  char sqlwarn[11];
  char sqlstate[5];
};
static_assert(sizeof(sqlca) == 136 && offsetof(sqlca, sqlerrmc) == 18 && offsetof(sqlca, sqlerrp) == 88 &&
              offsetof(sqlca, sqlerrd) == 96 && offsetof(sqlca, sqlwarn) == 120 && offsetof(sqlca, sqlstate) == 131);

// A message token; its text need not be terminated. A null text counts as an empty one.
struct SqlzToken {
  std::int32_t length;  // bytes, not negative
  const char* text;
};

inline constexpr std::uint32_t SQLZ_CONTEXT_SQLCA_SET = 64;  // an area was written on behalf of this caller

// What a caller keeps for itself across calls.
struct SqlzCallerContext {
  std::uint32_t flags;  // SQLZ_CONTEXT_...
  void* owner;          // the caller's own, not looked at here
};

extern "C" {

// Called right before an area takes a new SQL code, while it still holds the old one.
using SqlzErrorCallback = void (*)(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, std::int32_t sqlcode);

// Makes an area empty: identifier, size, SQL code 0, state "00000", blanks and zeros.
VEK_EXPORT void sqlzInitSqlca(sqlca* area) noexcept;

// Folds an SQL code and the return code behind it into an area. What the area holds decides:
//
//   an error             stays: the first error wins
//   nothing (0)          is overwritten
//   a warning            is overwritten by an error, by a warning that ranks higher (sqlzewsc), and by nothing else
//
// Overwriting sets SQLZ_CONTEXT_SQLCA_SET in `context`, calls `callback`, stores the tokens (as
// sqlzStoreVariableMsgTokensInSqlca does, after clearing sqlerrml), the SQL code, its state and the return code. An
// SQL code -901 that was stored has the host dump the current engine unit. `context` and `callback` may be null.
//
//   tokenCount   number of pairs that follow, each a std::int32_t length and a const char* text
VEK_EXPORT void sqlzSqlcodeToSqlca(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                                   std::int32_t sqlcode, std::int32_t tokenCount, ...) noexcept;

// The same with the SQL code that sqlzGetZRCInfo gives for the return code. 0 leaves the area as it is.
VEK_EXPORT void sqlzRcToSqlca(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                              std::int32_t tokenCount, ...) noexcept;

// Both with the tokens as an array; a null array counts as no tokens.
VEK_EXPORT void sqlzSqlcodeToSqlcaTokens(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc,
                                         SqlzErrorCallback callback, std::int32_t sqlcode, std::int32_t tokenCount,
                                         const SqlzToken* tokens) noexcept;
VEK_EXPORT void sqlzRcToSqlcaTokens(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                                    std::int32_t tokenCount, const SqlzToken* tokens) noexcept;

// Joins tokens with the separator into sqlerrmc, cut to its 70 bytes, and sets sqlerrml to the length stored. More
// than SQLZ_SQLCA_TOKEN_MAXIMUM tokens are cut to that number, which is written back.
//
//   Result   0; SQLO_INV_PARM: a token's length is negative or the lengths pass 32 bits. That is logged and nothing is
//            stored (a count that was cut stays cut).
VEK_EXPORT SqlzZrc sqlzStoreVariableMsgTokensInSqlca(sqlca* area, std::int32_t* tokenCount,
                                                     const SqlzToken* tokens) noexcept;

// Warning precedence: true when the warning `fresh` ranks higher than the warning `existing`. Lost or cut data ranks
// above substituted values, those above degraded access plans, those above options passed over, those above "no row
// found" and mere information. Of two warnings of one rank the first stays; a code without a rank ranks lowest.
VEK_EXPORT bool sqlzewsc(std::int32_t existing, std::int32_t fresh) noexcept;

// Writes the SQL state of an SQL code, five characters without a terminator. A code that has none of its own gets
// "00000" for 0, "01000" for a warning, "58004" for an error.
VEK_EXPORT void sqlzelsc(std::int32_t sqlcode, char* state) noexcept;

}  // extern "C"

// A token over a text, which must outlive it.
inline SqlzToken sqlzTextToken(std::string_view text) noexcept {
  return {static_cast<std::int32_t>(text.size()), text.data()};
}

// The folds with tokens as texts, checked by the compiler: sqlzFoldSqlcode(context, area, zrc, callback, -204, name).
template <class... Texts>
void sqlzFoldSqlcode(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                     std::int32_t sqlcode, const Texts&... texts) noexcept {
  const SqlzToken tokens[] = {sqlzTextToken(texts)..., SqlzToken{0, nullptr}};
  sqlzSqlcodeToSqlcaTokens(context, area, zrc, callback, sqlcode, sizeof...(Texts), tokens);
}

// The same for a return code: sqlzFoldZrc(context, area, zrc, callback, name).
template <class... Texts>
void sqlzFoldZrc(SqlzCallerContext* context, sqlca* area, SqlzZrc zrc, SqlzErrorCallback callback,
                 const Texts&... texts) noexcept {
  const SqlzToken tokens[] = {sqlzTextToken(texts)..., SqlzToken{0, nullptr}};
  sqlzRcToSqlcaTokens(context, area, zrc, callback, sizeof...(Texts), tokens);
}
