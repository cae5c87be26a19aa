// Events of the peer, with the payloads of pdtEntry and pdtData2. Read several times by the peer's own headers, which
// ask for no include guard but this one. No session enables `off`.
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER veksys_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "lttng_provider.h"

#if !defined(VEKSYS_BENCH_LTTNG_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define VEKSYS_BENCH_LTTNG_PROVIDER_H

#include <lttng/tracepoint.h>

#include <cstdint>

// clang-format off
LTTNG_UST_TRACEPOINT_EVENT(veksys_bench, empty, LTTNG_UST_TP_ARGS(), LTTNG_UST_TP_FIELDS())

LTTNG_UST_TRACEPOINT_EVENT(veksys_bench, two,
  LTTNG_UST_TP_ARGS(std::int64_t, number, const char*, text),
  LTTNG_UST_TP_FIELDS(
    lttng_ust_field_integer(std::int64_t, number, number)
    lttng_ust_field_array(char, text, text, 32)))

LTTNG_UST_TRACEPOINT_EVENT(veksys_bench, off, LTTNG_UST_TP_ARGS(), LTTNG_UST_TP_FIELDS())
// clang-format on

#endif

#include <lttng/tracepoint-event.h>
