// The tracepoint that stands beside a record's entry: a name and, in the event's header, the time.

#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER quorvil_bench

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/peers/lttngProvider.h"

// The tracer reads this file several times.
#if !defined(QUORVIL_BENCH_LTTNGPROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define QUORVIL_BENCH_LTTNGPROVIDER_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT(quorvil_bench, entry, LTTNG_UST_TP_ARGS(const char*, name),
                           LTTNG_UST_TP_FIELDS(lttng_ust_field_string(name, name)))

#endif

#include <lttng/tracepoint-event.h>
