// The trace scope: one line at the top of a traced function.
//
//   SqlzZrc keyInsert(Page* page, Key key) noexcept {
//     SqltTraceScope<ecfFunctionId(9, 17)> trace;
//     ...
//     if (full) return trace.exit(SQLI_PAGE_FULL);
//     trace.data(10, page->header);                 // a data point, only when the word has bit 0x4
//     return trace.exit(0);
//   }
//
// With tracing off it costs one load of the component's trace word, one test and one untaken branch at entry, and one
// test at exit; everything else is behind a call.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

#include "veksys/diag/trace.h"
#include "veksys/pd_types.h"

// An item from a value: texts as strings (a character array up to its terminator, or whole when it has none), integers
// by signedness, pointers as pointers, anything else as bytes. A null text is recorded as null.
template <class T>
PdtItem pdtItem(const T& value) noexcept {
  constexpr auto size = static_cast<std::uint32_t>(sizeof(T));
  if constexpr (std::is_array_v<T> && std::is_same_v<std::remove_extent_t<T>, char>) {
    return {PD_TYPE_STRING, static_cast<std::uint32_t>(::strnlen(value, sizeof(T))), value};
  } else if constexpr (std::is_same_v<T, const char*> || std::is_same_v<T, char*>) {
    return {PD_TYPE_STRING, value == nullptr ? 0U : static_cast<std::uint32_t>(std::strlen(value)), value};
  } else if constexpr (std::is_convertible_v<const T&, std::string_view>) {
    const std::string_view text = value;
    return {PD_TYPE_STRINGN, static_cast<std::uint32_t>(text.size()), text.data()};
  } else {
    static_assert(std::is_trivially_copyable_v<T>, "a trace item is copied byte by byte");
    if constexpr (std::is_same_v<T, bool>) return {PD_TYPE_BOOL, size, &value};
    if constexpr (std::is_pointer_v<T>) return {PD_TYPE_PTR, size, &value};
    if constexpr (std::is_integral_v<T>) return {std::is_signed_v<T> ? PD_TYPE_SINT : PD_TYPE_UINT, size, &value};
    return {PD_TYPE_HEXDUMP, size, &value};
  }
}

extern "C" {
// The list forms behind the scope's typed ones: data and error with `itemCount` items (at most 20).
VEK_EXPORT void pdtDataItems(EcfFunctionId id, std::uint32_t probe, std::uint32_t itemCount,
                             const PdtItem* items) noexcept;
VEK_EXPORT void pdtErrorItems(EcfFunctionId id, std::uint32_t probe, std::int64_t returnCode, std::uint32_t itemCount,
                              const PdtItem* items) noexcept;
}

// How a scope reads its component's word. The library itself uses a nearer copy of the same page.
struct SqltSharedWords {
  // The trace word of a component below SQLT_TRACE_COMPONENTS.
  static std::uint32_t word(std::uint32_t component) noexcept { return sqltTraceWord(component); }
};

// Traces the function that it is the first line of: entry here, exit where the scope ends, points in between. Switched
// off it costs one load and one test each way. Belongs to one thread.
template <EcfFunctionId Id, class Words = SqltSharedWords>
class SqltTraceScope {
  static_assert(ecfIsFunctionId(Id) && ecfComponent(Id) < SQLT_TRACE_COMPONENTS, "not a traced function's identifier");

 public:
  static constexpr EcfFunctionId kFunctionId = Id;

  SqltTraceScope() noexcept : word_(Words::word(ecfComponent(Id))) {
    if ((word_ & SQLT_TRACE_AT_ENTRY) != 0) [[unlikely]]
      word_ = sqltScopeEntry(Id, word_);
  }
  ~SqltTraceScope() {
    if ((word_ & SQLT_TRACE_AT_EXIT) != 0) [[unlikely]]
      sqltScopeExit(Id, word_, returnCode_);
  }
  SqltTraceScope(const SqltTraceScope&) = delete;
  SqltTraceScope& operator=(const SqltTraceScope&) = delete;

  // Notes what the function returns and hands it back: `return trace.exit(rc);`
  template <class T>
  T exit(T returnCode) noexcept {
    if constexpr (std::is_pointer_v<T>)
      returnCode_ = static_cast<std::int64_t>(reinterpret_cast<std::uintptr_t>(returnCode));
    else
      returnCode_ = static_cast<std::int64_t>(returnCode);
    return returnCode;
  }

  // A data point with up to 20 values.
  template <class... T>
  void data(std::uint32_t probe, const T&... values) const noexcept {
    static_assert(sizeof...(T) >= 1 && sizeof...(T) <= 20);
    if ((word_ & SQLT_TRACE_DATA) == 0) [[likely]]
      return;
    const PdtItem items[] = {pdtItem(values)...};
    pdtDataItems(Id, probe, sizeof...(T), items);
  }

  // An error point with the code and up to 20 values.
  template <class... T>
  void error(std::uint32_t probe, std::int64_t returnCode, const T&... values) const noexcept {
    static_assert(sizeof...(T) <= 20);
    if ((word_ & SQLT_TRACE_ERROR) == 0) [[likely]]
      return;
    const std::array<PdtItem, sizeof...(T)> items = {pdtItem(values)...};
    pdtErrorItems(Id, probe, returnCode, sizeof...(T), items.data());
  }

 private:
  std::uint32_t word_;
  std::int64_t returnCode_ = 0;
};
