// Timers: what they ask of the system, what an expiry does, and what a refusal leads to.

#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "siblings/OvxLog/OvxLog.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/threadCreation.h"

#include <climits>
#include <csignal>
#include <gmock/gmock.h>
#include <memory>

SUPPORT_INTERPOSE(int, timer_delete, (timer_t timer), (timer), noexcept)
constinit support::Fault timer_createFault{"timer_create"};
constinit support::Fault timer_settimeFault{"timer_settime"};

/// What this thread asked of the timers: their clocks, and seconds and nanoseconds of first expiries and of periods.
static thread_local std::string asked;

extern "C" {

__attribute__((visibility("default"))) int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept
{
    if (timer_createFault.strikes())
        return -1;
    asked += std::to_string(clock) + (event->sigev_notify == SIGEV_THREAD ? "" : " by signal") +
             (event->sigev_notify_attributes ? " with attributes: " : ": ");
    return support::real<decltype(&timer_create)>("timer_create")(clock, event, timer);
}

__attribute__((visibility("default"))) int timer_settime(timer_t timer, int flags, const itimerspec* times,
                                                         itimerspec* before) noexcept
{
    if (timer_settimeFault.strikes())
        return -1;
    asked += flags == 0 ? "" : "absolute ";
    for (const long number :
         {times->it_value.tv_sec, times->it_value.tv_nsec, times->it_interval.tv_sec, times->it_interval.tv_nsec})
        asked += std::to_string(number) + " ";
    return support::real<decltype(&timer_settime)>("timer_settime")(timer, flags, times, before);
}
}

namespace {

using quorvil::LinuxTimer;
using quorvil::PeriodicTimer;
using support::Gate;

TEST(LinuxTimer, ReplacesTimerAndFunctionAndAsksNothingWhileThereIsNoTimer)
{
    std::string expired;
    timer_createFault.fail(0, 0, 1, 0);
    timer_deleteFault.fail(0, 0, 1, 0);
    asked.clear();
    {
        LinuxTimer timer;
        const auto useAll = [&] {
            timer.start(3600, 2, 3, 4);
            timer.cancel();
            LinuxTimer::notifyFunction({.sival_ptr = &timer});
        };
        useAll();
        timer.cancelAndDelete();
        timer.create([&] { expired += "first "; });
        useAll();
        timer.create([&] { expired += "second "; });
        timer.cancelAndDelete();
        useAll();
        timer.create({});
        EXPECT_THROW(useAll(), std::bad_function_call);
    }
    EXPECT_EQ(asked, "1: 3600 2 3 4 0 0 0 0 0 0 0 0 1: 0 0 0 0 1: 3600 2 3 4 0 0 0 0 0 0 0 0 ");
    EXPECT_TRUE(timer_createFault.calls == 3 && timer_deleteFault.calls == 3);
    EXPECT_EQ(expired, "first ");
}

struct Callback : quorvil::TimerCallback
{
    explicit Callback(std::function<void()> function_)
        : function(std::move(function_))
    {
    }

    void alarm() override
    {
        function();
    }

    const std::function<void()> function;
};

TEST(PeriodicTimer, AsksForItsPeriodTwiceAndTellsEachFailureByALine)
{
    asked.clear();
    testing::internal::CaptureStdout();
    Callback callback([] {});
    PeriodicTimer timer;
    timer.setCallback(&callback);
    for (const int period : {1'500'000, INT_MAX, 0, -1})
        timer.startTimer(period);
    timer.setCallback(nullptr);
    timer.startTimer(1'000'000'000);
    timer.stopTimer();
    timer_deleteFault.fail(-1, EINVAL, 1, 1);
    PeriodicTimer();
    timer_createFault.fail(-1, EAGAIN, 1, 1);
    PeriodicTimer notMade;
    notMade.setCallback(&callback);
    notMade.startTimer(1);
    notMade.stopTimer();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "PeriodicTimer::startTimer: failed\n\nPeriodicTimer::startTimer: no callback defined\n\n"
              "PeriodicTimer::stopTimer: no callback defined\n\nPeriodicTimer: Could not create the thread\n"
              "PeriodicTimer::startTimer: failed\n\nPeriodicTimer::stopTimer: failed\n\n");
    EXPECT_EQ(asked, "1 with attributes: 1 500000000 1 500000000 2147 483647000 2147 483647000 0 0 0 0 0 -1000 0 -1000 "
                     "1000 0 1000 0 0 0 0 0 1 with attributes: ");
}

TEST(PeriodicTimer, ExpiresUnderTheOneLockAndGivesItBack)
{
    auto timer = std::make_unique<PeriodicTimer>();
    const sigval value{.sival_ptr = static_cast<quorvil::Timer*>(timer.get())};
    const auto lockIsFree = [] {
        bool isFree = false;
        std::thread([&] { isFree = std::unique_lock(quorvil::Timer::alarmMtx, std::try_to_lock).owns_lock(); }).join();
        return isFree;
    };
    Callback throws([&] { throw std::runtime_error(lockIsFree() ? "free" : "held"); });
    Callback destroys([&] { timer.reset(); });
    quorvil::Timer::alarm({});
    quorvil::Timer::alarm(value);
    timer->setCallback(&throws);
    EXPECT_THAT([&] { quorvil::Timer::alarm(value); }, testing::ThrowsMessage<std::runtime_error>("held"));
    EXPECT_TRUE(lockIsFree());
    timer->setCallback(&destroys);
    quorvil::Timer::alarm(value);
    EXPECT_TRUE(!timer && lockIsFree());
}

TEST(LinuxTimer, LogsEachFailedCallAndEndsTheProcess)
{
    const auto made = [](void (*use)(LinuxTimer&)) {
        return [use] {
            LinuxTimer timer;
            timer.create([] {});
            use(timer);
        };
    };
    // The log's gate is shut at the first abort, which tries again.
    const auto failAgain = [] {
        static LinuxTimer timer;
        const auto shutGate = [](int) {
            std::signal(SIGABRT, SIG_DFL);
            gl_bOVXLConfigLoaded = 1;
            for (int i = 0; i < 64; ++i)
                gl_psOvxLogGrpCfgTable[i].logEnabled = 0;
            std::fputs("silent, ", stderr);
            timer_settimeFault.fail(-1, EXDEV);
            timer.cancel();
            syscall(SYS_exit_group, 0);
        };
        std::signal(SIGABRT, shutGate);
        timer.create([] {});
        timer.cancel();
    };
    const std::string at = "[Noname Quorvil/QuorvilLinuxTimer:";
    const std::string end = " failed: Invalid cross-device link\nkilled by 6";
    support::expectOutcomes({
        {at + "72] timer_create" + end, made([](LinuxTimer&) {}), &timer_createFault},
        {at + "96] timer_settime" + end, made([](LinuxTimer& timer) { timer.start(1, 0, 0, 0); }), &timer_settimeFault},
        {at + "111] timer_settime" + end, made([](LinuxTimer& timer) { timer.cancel(); }), &timer_settimeFault},
        {": Invalid cross-device link\nsilent, killed by 6", failAgain, &timer_settimeFault},
        {at + "129] timer_delete" + end, made([](LinuxTimer&) {}), &timer_deleteFault},
    });
}

TEST(Timers, ExpireOnceOrPeriodicallyUntilTheyAreStoppedAndCallbacksComeOneAfterTheOther)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer crashes in the threads that the system library makes for expiries";
    LinuxTimer last; // brings the system library's helper thread, which stays
    last.create([] {});
    const auto threads = support::threadCount();
    for (int round = 0; round < 100 * support::stressFactor(); ++round) {
        std::atomic<int> running{0};
        Gate once;
        Gate alarmed;
        Gate expired;
        Callback callback([&] {
            EXPECT_EQ(++running, 1);
            alarmed.open();
            --running;
        });
        LinuxTimer oneShot;
        PeriodicTimer periodic[2];
        oneShot.create([&] {
            once.open();
            oneShot.cancelAndDelete();
        });
        oneShot.start(0, 1 + 1000 * round, 0, 0);
        for (PeriodicTimer& timer : periodic) {
            timer.setCallback(&callback);
            timer.startTimer(50);
        }
        once.await();
        alarmed.await(5);
        for (PeriodicTimer& timer : periodic)
            timer.stopTimer();
        // The helper thread takes expiries in their order: it has begun all earlier ones when it begins this one.
        last.create([&] { expired.open(); });
        last.start(0, 1, 0, 0);
        expired.await();
        support::awaitThreads(threads);
    }
}

} // namespace
