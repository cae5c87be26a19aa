// The log calls with items that the compiler checks:
//
//   pdLogValues(PD_LOG_RC_ZRC, FID, rc, 10, PD_LEVEL_ERROR, "index page", pageNumber, header);
//
// Texts, integers, pointers and flat structures become items by their type, as in a trace point (pdtItem); a value in
// pdLogItem says its PD type itself, one in pdLogArgument is printed as an argument of the function.
#pragma once

#include <array>
#include <cstdint>
#include <type_traits>

#include "veksys/diag/log.h"
#include "veksys/diag/trace_scope.h"

// An item of a PD type of the caller's choosing. The value must live until the log call returns.
template <class T>
PdtItem pdLogItem(std::uint32_t type, const T& value) noexcept {
  PdtItem item = pdtItem(value);
  item.type = type;
  return item;
}

// The value as an argument of the function: "ARG".
template <class T>
PdtItem pdLogArgument(const T& value) noexcept {
  PdtItem item = pdtItem(value);
  item.type |= PD_ITEM_ARGUMENT;
  return item;
}

// Either an item as it is, or the item of a value.
template <class T>
PdtItem pdLogItemOf(const T& value) noexcept {
  if constexpr (std::is_same_v<T, PdtItem>)
    return value;
  else
    return pdtItem(value);
}

// Adds the values to a described record and writes it. Results as of every log call.
template <class... T>
SqlzZrc pdLogCallValues(PdLogCall call, const T&... values) noexcept {
  const std::array<PdtItem, sizeof...(T)> items = {pdLogItemOf(values)...};
  call.size = sizeof call;
  call.itemsAnnounced = sizeof...(T) != 0;
  call.itemCount = sizeof...(T);
  call.items = items.data();
  call.arguments = nullptr;
  return pdLogCall(&call);
}

// pdLog with values.
template <class... T>
SqlzZrc pdLogValues(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                    std::uint32_t level, const T&... values) noexcept {
  return pdLogCallValues(pdLogDescribe(flags, functionId, returnCode, probe, level), values...);
}

// pdLogRC with values.
template <class... T>
SqlzZrc pdLogRCValues(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                      std::uint32_t level, EcfFunctionId calledFunctionId, const T&... values) noexcept {
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.calledFunctionId = calledFunctionId;
  return pdLogCallValues(call, values...);
}

// pdLogSysRC with values.
template <class... T>
SqlzZrc pdLogSysRCValues(std::uint64_t flags, EcfFunctionId functionId, std::int64_t returnCode, std::uint32_t probe,
                         std::uint32_t level, const char* calledSystemFunction, std::int32_t osError,
                         const T&... values) noexcept {
  PdLogCall call = pdLogDescribe(flags, functionId, returnCode, probe, level);
  call.calledSystemFunction = calledSystemFunction;
  call.hasOsError = true;
  call.osError = osError;
  return pdLogCallValues(call, values...);
}
