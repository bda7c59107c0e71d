// What every benchmark needs for figures that hold.

#ifndef QUORVIL_BENCH_SUPPORT_H
#define QUORVIL_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>
#include <sched.h>
#include <thread>

namespace bench {

/// A second thread, asleep. In a process with one thread the system libraries leave out their atomics and locks, and
/// the figures would flatter.
class SleepingThread
{
public:
    SleepingThread()
        : thread([this] {
            std::unique_lock lock(mutex);
            condition.wait(lock, [this] { return ended; });
        })
    {
    }

    ~SleepingThread()
    {
        {
            const std::lock_guard lock(mutex);
            ended = true;
        }
        condition.notify_one();
        thread.join();
    }

    SleepingThread(const SleepingThread&) = delete;
    SleepingThread& operator=(const SleepingThread&) = delete;

private:
    std::mutex mutex;
    std::condition_variable condition;
    bool ended = false;
    std::thread thread;
};

/// Keeps the calling thread on one core, so that a row with one thread is not moved in the middle of a measurement.
inline void pinToCore(int core)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(core), &set);
    // Without the right to choose the figures scatter more, and that is all.
    (void)sched_setaffinity(0, sizeof set, &set);
}

/// The seed of every random input, the same in each run.
inline constexpr unsigned seed = 20260711;

/// The least that an object out and back again costs where a lock guards it.
inline void twoMutexPairs(benchmark::State& state)
{
    std::mutex mutex;
    for (auto _ : state)
        for (int i = 0; i < 2; ++i) {
            const std::lock_guard lock(mutex);
            benchmark::ClobberMemory();
        }
}

/// What each row's `main` does: one thread asleep, the measuring thread pinned if `pinned`, then Google Benchmark.
inline int run(int argc, char** argv, bool pinned)
{
    const SleepingThread sleeping;
    if (pinned)
        pinToCore(0);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

} // namespace bench

#endif
