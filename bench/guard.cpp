// Guard: beside the clock reads, the lock and the copy that it is made of; lock and unlock beside the bare mutex.

#include "Quorvil/QuorvilSyncLockGroup.h"
#include "bench/support.h"

#include <chrono>
#include <mutex>
#include <string>

namespace {

// One that a string keeps in itself, and one for which it needs memory.
constexpr const char* shortFile = "Quorvil/Socket";
constexpr const char* longFile = "Quorvil/QuorvilLimitedBuffer";

void guard(benchmark::State& state, const char* file)
{
    quorvil::sync::LockGroup group;
    for (auto _ : state) {
        const quorvil::sync::Guard held(group, file, 12);
        benchmark::ClobberMemory();
    }
}

void parts(benchmark::State& state, const char* file)
{
    using Clock = std::chrono::system_clock;
    std::recursive_timed_mutex mutex;
    for (auto _ : state) {
        const std::string copy(file);
        benchmark::DoNotOptimize(copy.data());
        Clock::time_point now = Clock::now();
        benchmark::DoNotOptimize(now);
        mutex.lock();
        now = Clock::now();
        benchmark::DoNotOptimize(now);
        benchmark::ClobberMemory();
        now = Clock::now();
        benchmark::DoNotOptimize(now);
        mutex.unlock();
    }
}

void lockGroup(benchmark::State& state)
{
    quorvil::sync::LockGroup group;
    for (auto _ : state) {
        group.lock(shortFile, 12);
        benchmark::ClobberMemory();
        group.unlock(shortFile, 13);
    }
}

void bareMutex(benchmark::State& state)
{
    std::recursive_timed_mutex mutex;
    for (auto _ : state) {
        mutex.lock();
        benchmark::ClobberMemory();
        mutex.unlock();
    }
}

BENCHMARK_CAPTURE(guard, , shortFile)->Name("guard/shortName/Guard");
BENCHMARK_CAPTURE(parts, , shortFile)->Name("guard/shortName/parts");
BENCHMARK_CAPTURE(guard, , longFile)->Name("guard/longName/Guard");
BENCHMARK_CAPTURE(parts, , longFile)->Name("guard/longName/parts");
BENCHMARK(lockGroup)->Name("guard/lock/LockGroup");
BENCHMARK(bareMutex)->Name("guard/lock/mutex");

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
