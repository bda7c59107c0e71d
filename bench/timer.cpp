// Timer: expiries of ours beside those of a bare POSIX timer whose expiries come on a thread of their own, in processor
// time and in lateness.

#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "bench/support.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <vector>

#include <csignal>
#include <ctime>

namespace {

constexpr long periodNanoseconds = 200'000;
constexpr size_t expiriesOfARun = 200;

int64_t monotonicNanoseconds()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

/// Notes the time of each expiry until it has enough of them.
class Expiries
{
public:
    void note()
    {
        const size_t place = count.fetch_add(1);
        if (place < times.size())
            times[place] = monotonicNanoseconds();
        if (place + 1 == times.size()) {
            full = true;
            full.notify_one();
        }
    }

    void await() const
    {
        full.wait(false);
    }

    /// The lateness in the middle, by the beginning of the timer. An expiry that the system has left out counts for
    /// the period in which its successor came.
    double medianLatenessSeconds(int64_t begin) const
    {
        std::vector<int64_t> lateness;
        for (const int64_t time : times)
            lateness.push_back((time - begin) % periodNanoseconds);
        std::nth_element(lateness.begin(), lateness.begin() + expiriesOfARun / 2, lateness.end());
        return static_cast<double>(lateness[expiriesOfARun / 2]) * 1e-9;
    }

private:
    std::vector<int64_t> times = std::vector<int64_t>(expiriesOfARun);
    std::atomic<size_t> count{0};
    std::atomic<bool> full{false};
};

/// The POSIX calls alone.
class BareTimer
{
public:
    explicit BareTimer(Expiries& expiries)
    {
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD;
        event.sigev_value.sival_ptr = &expiries;
        event.sigev_notify_function = [](sigval value) { static_cast<Expiries*>(value.sival_ptr)->note(); };
        timer_create(CLOCK_MONOTONIC, &event, &timer);
    }
    BareTimer(const BareTimer&) = delete;
    BareTimer& operator=(const BareTimer&) = delete;

    void start()
    {
        const itimerspec times{{0, periodNanoseconds}, {0, periodNanoseconds}};
        timer_settime(timer, 0, &times, nullptr);
    }
    void stop()
    {
        const itimerspec none{};
        timer_settime(timer, 0, &none, nullptr);
    }

private:
    timer_t timer{};
};

class Linux
{
public:
    explicit Linux(Expiries& expiries)
    {
        timer.create([&expiries] { expiries.note(); });
    }

    void start()
    {
        timer.start(0, periodNanoseconds, 0, periodNanoseconds);
    }

    void stop()
    {
        timer.cancel();
    }

private:
    quorvil::LinuxTimer timer;
};

class Periodic : private quorvil::TimerCallback
{
public:
    explicit Periodic(Expiries& expiries_)
        : expiries(expiries_)
    {
        timer.setCallback(this);
    }

    void start()
    {
        timer.startTimer(periodNanoseconds / 1000);
    }

    void stop()
    {
        timer.stopTimer();
    }

private:
    void alarm() override
    {
        expiries.note();
    }

    Expiries& expiries;
    quorvil::PeriodicTimer timer;
};

/// Waits for a run of expiries. Timer and notes stay to the end of the process, disarmed: an expiry may be on its way.
template <typename Timer>
double medianLatenessOfARun()
{
    auto* const expiries = new Expiries;
    auto* const timer = new Timer(*expiries);
    const int64_t begin = monotonicNanoseconds();
    timer->start();
    expiries->await();
    timer->stop();
    return expiries->medianLatenessSeconds(begin);
}

template <typename Timer>
void expiry(benchmark::State& state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(medianLatenessOfARun<Timer>());
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(expiriesOfARun));
}

template <typename Timer>
void lateness(benchmark::State& state)
{
    for (auto _ : state)
        state.SetIterationTime(medianLatenessOfARun<Timer>());
}

constexpr int runs = 10;

BENCHMARK(expiry<Linux>)->Name("timer/expiry/LinuxTimer")->MeasureProcessCPUTime()->Iterations(runs);
BENCHMARK(expiry<Periodic>)->Name("timer/expiry/PeriodicTimer")->MeasureProcessCPUTime()->Iterations(runs);
BENCHMARK(expiry<BareTimer>)->Name("timer/expiry/sigevThread")->MeasureProcessCPUTime()->Iterations(runs);
BENCHMARK(lateness<Linux>)->Name("timer/lateness/LinuxTimer")->UseManualTime()->Iterations(runs);
BENCHMARK(lateness<Periodic>)->Name("timer/lateness/PeriodicTimer")->UseManualTime()->Iterations(runs);
BENCHMARK(lateness<BareTimer>)->Name("timer/lateness/sigevThread")->UseManualTime()->Iterations(runs);

} // namespace

// The expiries' threads stay on the core of their maker, as on the target.
int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
