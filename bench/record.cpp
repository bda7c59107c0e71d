// One entry of a timing record: `TimeCollector::add` beside the clock that it cannot do without, and beside an active
// tracepoint. The list is wiped whenever it is full, which counts.

#include "Quorvil/QuorvilTimeCollector.h"
#include "bench/support.h"

#ifdef QUORVIL_PEER_LTTNG
#include "bench/peers/lttng.h"
#endif

#include <chrono>

namespace {

constexpr int capacity = 1000;
constexpr char shortName[] = "page parsed";
constexpr char longName[] = "page parsed and scaled";

void add(benchmark::State& state, const char* name)
{
    quorvil::TimeCollector record(capacity);
    int left = 0;
    for (auto _ : state) {
        if (left == 0) {
            record.reset(capacity);
            left = capacity;
        }
        --left;
        record.add(name);
    }
}

void clockAlone(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(std::chrono::system_clock::now());
}

BENCHMARK_CAPTURE(add, , shortName)->Name("record/short-name/add");
BENCHMARK(clockAlone)->Name("record/short-name/clock");
BENCHMARK_CAPTURE(add, , longName)->Name("record/long-name/add");
BENCHMARK(clockAlone)->Name("record/long-name/clock");

#ifdef QUORVIL_PEER_LTTNG
void activeTracepoint(benchmark::State& state, const char* name)
{
    static const bench::LttngSession session;
    if (!session.isActive()) {
        state.SkipWithError("no active tracepoint: lttng-tools cannot start a session here");
        return;
    }
    for (auto _ : state)
        bench::lttngTrace(name);
}

BENCHMARK_CAPTURE(activeTracepoint, , shortName)->Name("record/short-name/lttng");
BENCHMARK_CAPTURE(activeTracepoint, , longName)->Name("record/long-name/lttng");
#endif

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
