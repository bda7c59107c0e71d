// Timers: what they ask of the system, what an expiry does, and what a refusal leads to.

#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "siblings/OvxLog/OvxLog.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/interpose.h"
#include "tests/support/threadCalls.h"
#include "tests/support/threadCreation.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csetjmp>
#include <csignal>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using quorvil::LinuxTimer;
using quorvil::PeriodicTimer;
using support::Gate;

constinit support::Fault createFault("timer_create");
constinit support::Fault settimeFault("timer_settime");
constinit support::Fault deleteFault("timer_delete");

/// What the timer calls were asked for. The calls themselves are made only where `real`.
struct
{
    bool real = false;
    std::vector<std::string> calls;
    clockid_t clock = -1;
    sigevent event{};
    itimerspec times{};
    int flags = -1;
} asked;

int timers = 0;

/// A timer that is not one of the system's; never 0.
timer_t nextTimer()
{
    return reinterpret_cast<timer_t>(static_cast<intptr_t>(++timers));
}

/// A call, with its timer by number.
void note(const std::string& call, timer_t timer)
{
    if (!asked.real)
        asked.calls.push_back(call + " " + std::to_string(reinterpret_cast<intptr_t>(timer)));
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) int timer_create(clockid_t clock, sigevent* event, timer_t* timer) noexcept
{
    if (createFault.strikes())
        return static_cast<int>(createFault.result);
    if (asked.real)
        return support::real<decltype(&timer_create)>("timer_create")(clock, event, timer);
    asked.clock = clock;
    asked.event = *event;
    *timer = nextTimer();
    note("create", *timer);
    return 0;
}

__attribute__((visibility("default"))) int timer_settime(timer_t timer, int flags, const itimerspec* times,
                                                         itimerspec* before) noexcept
{
    if (settimeFault.strikes())
        return static_cast<int>(settimeFault.result);
    if (asked.real)
        return support::real<decltype(&timer_settime)>("timer_settime")(timer, flags, times, before);
    asked.flags = flags;
    asked.times = *times;
    note("settime", timer);
    return 0;
}

__attribute__((visibility("default"))) int timer_delete(timer_t timer) noexcept
{
    if (deleteFault.strikes())
        return static_cast<int>(deleteFault.result);
    if (asked.real)
        return support::real<decltype(&timer_delete)>("timer_delete")(timer);
    note("delete", timer);
    return 0;
}
}

namespace {

using Calls = std::vector<std::string>;

/// The calls since the last look.
Calls callsMade()
{
    return std::exchange(asked.calls, {});
}

void expectTimes(long firstSec, long firstNsec, long intervalSec, long intervalNsec)
{
    EXPECT_EQ(asked.flags, 0);
    EXPECT_EQ(asked.times.it_value.tv_sec, firstSec);
    EXPECT_EQ(asked.times.it_value.tv_nsec, firstNsec);
    EXPECT_EQ(asked.times.it_interval.tv_sec, intervalSec);
    EXPECT_EQ(asked.times.it_interval.tv_nsec, intervalNsec);
}

class Timers : public testing::Test
{
protected:
    Timers()
    {
        timers = 0;
        asked = {};
    }
};

/// With the timers of the system.
class RealTimers : public testing::Test
{
protected:
    void SetUp() override
    {
        if (support::threadSanitized)
            GTEST_SKIP() << "the thread sanitizer crashes in the threads that the system library makes for expiries";
        asked.real = true;
        // The first timer brings the system library's helper thread, which stays.
        LinuxTimer first;
        first.create([] {});
        threadsBetweenExpiries = support::threadCount();
    }

    /// Returns once no expiry of a deleted or disarmed timer is running, nor on its way: the helper thread takes
    /// expiries in their order, and has begun all earlier ones when it begins this one.
    void awaitExpiries() const
    {
        Gate expired;
        LinuxTimer last;
        last.create([&] { expired.open(); });
        last.start(0, 1, 0, 0);
        expired.await();
        last.cancelAndDelete();
        support::awaitThreads(threadsBetweenExpiries);
    }

    ~RealTimers() override
    {
        asked.real = false;
    }

private:
    std::ptrdiff_t threadsBetweenExpiries = 0;
};

using LinuxTimerTest = Timers;
using PeriodicTimerTest = Timers;
using RealLinuxTimerTest = RealTimers;
using RealPeriodicTimerTest = RealTimers;

// ---- LinuxTimer

TEST_F(LinuxTimerTest, BeforeCreateAndAfterDeletionNothingIsAsked)
{
    int expiries = 0;
    {
        LinuxTimer timer;
        const auto useAll = [&] {
            timer.start(1, 2, 3, 4);
            timer.cancel();
            timer.cancelAndDelete();
            sigval value{};
            value.sival_ptr = &timer;
            LinuxTimer::notifyFunction(value);
        };
        useAll();
        EXPECT_EQ(callsMade(), Calls());
        timer.create([&] { ++expiries; });
        timer.cancelAndDelete();
        EXPECT_EQ(callsMade(), Calls({"create 1", "settime 1", "delete 1"}));
        useAll();
    }
    EXPECT_EQ(callsMade(), Calls());
    EXPECT_EQ(expiries, 0);
}

TEST_F(LinuxTimerTest, CreateReplacesTimerAndFunction)
{
    std::string expired;
    {
        LinuxTimer timer;
        timer.create([&] { expired += "first "; });
        EXPECT_EQ(asked.clock, CLOCK_MONOTONIC);
        EXPECT_EQ(asked.event.sigev_notify, SIGEV_THREAD);
        EXPECT_EQ(asked.event.sigev_value.sival_ptr, &timer);
        EXPECT_EQ(asked.event.sigev_notify_function, &LinuxTimer::notifyFunction);
        EXPECT_EQ(asked.event.sigev_notify_attributes, nullptr);
        LinuxTimer::notifyFunction(asked.event.sigev_value);
        timer.create([&] { expired += "second"; });
        LinuxTimer::notifyFunction(asked.event.sigev_value);
        EXPECT_EQ(callsMade(), Calls({"create 1", "settime 1", "delete 1", "create 2"}));
        timer.create({});
        EXPECT_THROW(LinuxTimer::notifyFunction(asked.event.sigev_value), std::bad_function_call);
        callsMade();
    }
    EXPECT_EQ(callsMade(), Calls({"settime 3", "delete 3"}));
    EXPECT_EQ(expired, "first second");
}

TEST_F(LinuxTimerTest, StartAsksForItsTimesAndCancelForNone)
{
    LinuxTimer timer;
    timer.create([] {});
    timer.start(1, 2, 3, 4);
    expectTimes(1, 2, 3, 4);
    timer.cancel();
    expectTimes(0, 0, 0, 0);
    timer.start(0, 999'999'999, LONG_MAX, 0);
    expectTimes(0, 999'999'999, LONG_MAX, 0);
    EXPECT_EQ(callsMade(), Calls({"create 1", "settime 1", "settime 1", "settime 1"}));
}

/// An operation of a timer that exists already, but for `create`, whose call fails.
struct FailingOperation
{
    void operator()() const
    {
        LinuxTimer timer;
        if (&fault != &createFault)
            timer.create([] {});
        const support::FaultScope scope(fault, -1, EPERM);
        operation(timer);
    }

    support::Fault& fault;
    int line;
    void (*operation)(LinuxTimer&);
};

const FailingOperation failingOperations[] = {
    {createFault, 72, [](LinuxTimer& timer) { timer.create([] {}); }},
    {settimeFault, 96, [](LinuxTimer& timer) { timer.start(1, 0, 0, 0); }},
    {settimeFault, 111, [](LinuxTimer& timer) { timer.cancel(); }},
    {settimeFault, 111, [](LinuxTimer& timer) { timer.cancelAndDelete(); }},
    {deleteFault, 129, [](LinuxTimer& timer) { timer.cancelAndDelete(); }},
};

std::jmp_buf behindAbort;

TEST_F(LinuxTimerTest, EveryFailedCallIsLoggedUnlessItsGroupIsSilentAndEndsTheProcess)
{
    for (const FailingOperation& failing : failingOperations) {
        for (const bool silent : {false, true}) {
            const support::ChildResult child = support::runInChild([&] {
                if (silent) {
                    // The group's index is known behind a first call, which this way does not end the process.
                    std::signal(SIGABRT, [](int) { std::longjmp(behindAbort, 1); });
                    if (setjmp(behindAbort) == 0)
                        failing();
                    gl_bOVXLConfigLoaded = 1;
                    std::signal(SIGABRT, SIG_DFL);
                }
                failing();
            });
            EXPECT_EQ(child.err, "[Noname Quorvil/QuorvilLinuxTimer:" + std::to_string(failing.line) + "] " +
                                     failing.fault.name + " failed: Operation not permitted\n");
            EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT) << child.status;
        }
    }
}

TEST_F(RealLinuxTimerTest, AOneShotTimerExpiresOnceAStartAndAPeriodicOneUntilItIsCancelled)
{
    Gate once;
    Gate often;
    LinuxTimer oneShot;
    LinuxTimer periodic;
    LinuxTimer disarmed;
    oneShot.create([&] { once.open(); });
    periodic.create([&] { often.open(); });
    disarmed.create([] { ADD_FAILURE(); });
    disarmed.start(0, 0, 0, 1);
    for (int round = 1; round <= 2; ++round) {
        oneShot.start(0, 1, 0, 0);
        once.await(round);
        periodic.start(0, 1, 0, 1'000'000);
        often.await(5 * round);
        periodic.cancel();
    }
    for (LinuxTimer* timer : {&oneShot, &periodic, &disarmed})
        timer->cancelAndDelete();
    awaitExpiries();
    EXPECT_FALSE(once.opened(3));
}

TEST_F(RealLinuxTimerTest, ATimerIsCancelledAndDeletedAtItsExpiry)
{
    const int rounds = 300 * support::stressFactor();
    for (int i = 0; i < rounds; ++i) {
        const bool byCallback = i % 2 == 0;
        LinuxTimer timer;
        Gate expired;
        timer.create([&] {
            if (byCallback)
                timer.cancelAndDelete();
            expired.open();
        });
        timer.start(0, 1 + 1000 * (i % 50), 0, byCallback ? 0 : 20'000);
        expired.await();
        timer.cancelAndDelete();
        awaitExpiries();
    }
}

// ---- PeriodicTimer

class Callback : public quorvil::TimerCallback
{
public:
    explicit Callback(std::function<void()> function_)
        : function(std::move(function_))
    {
    }

    void alarm() override
    {
        function();
    }

private:
    std::function<void()> function;
};

/// What `operation` writes to standard output.
template <typename Operation>
std::string writtenBy(Operation operation)
{
    testing::internal::CaptureStdout();
    operation();
    return testing::internal::GetCapturedStdout();
}

TEST_F(PeriodicTimerTest, ItAsksForItsPeriodTwiceOnTheMonotonicClock)
{
    Callback callback([] {});
    const std::string written = writtenBy([&] {
        PeriodicTimer timer;
        EXPECT_EQ(asked.clock, CLOCK_MONOTONIC);
        EXPECT_EQ(asked.event.sigev_notify, SIGEV_THREAD);
        EXPECT_EQ(asked.event.sigev_value.sival_ptr, static_cast<quorvil::Timer*>(&timer));
        EXPECT_EQ(asked.event.sigev_notify_function, &quorvil::Timer::alarm);
        EXPECT_NE(asked.event.sigev_notify_attributes, nullptr);
        timer.setCallback(&callback);
        for (const int period : {1, 999'999, 1'000'000, 1'500'000, INT_MAX, 0, -1'500'000}) {
            timer.startTimer(period);
            const long seconds = period / 1'000'000;
            const long nanoseconds = period % 1'000'000 * 1000L;
            expectTimes(seconds, nanoseconds, seconds, nanoseconds);
        }
        timer.startTimer(1);
        callsMade();
        timer.stopTimer();
        expectTimes(0, 0, 0, 0);
    });
    EXPECT_EQ(callsMade(), Calls({"settime 1", "delete 1"}));
    EXPECT_EQ(written, "");
}

TEST_F(PeriodicTimerTest, EachFailureIsALineAndNothingMore)
{
    const std::string madeNot = "PeriodicTimer: Could not create the thread\n";
    const auto lines = [](const std::string& text) {
        return "PeriodicTimer::startTimer: " + text + "\n\nPeriodicTimer::stopTimer: " + text + "\n\n";
    };
    const auto use = [](PeriodicTimer& timer) {
        timer.startTimer(1);
        timer.stopTimer();
    };
    Callback callback([] {});
    EXPECT_EQ(writtenBy([&] {
                  PeriodicTimer timer;
                  use(timer);
              }),
              lines("no callback defined"));
    EXPECT_EQ(callsMade(), Calls({"create 1", "settime 1", "settime 1", "delete 1"}));
    EXPECT_EQ(writtenBy([&] {
                  PeriodicTimer timer;
                  timer.setCallback(&callback);
                  const support::FaultScope fault(settimeFault, -1, EINVAL);
                  use(timer);
              }),
              lines("failed"));
    EXPECT_EQ(callsMade(), Calls({"create 2", "delete 2"}));
    EXPECT_EQ(writtenBy([&] {
                  const support::FaultScope fault(createFault, -1, EAGAIN);
                  PeriodicTimer timer;
                  timer.setCallback(&callback);
                  use(timer);
              }),
              madeNot + lines("failed"));
    EXPECT_EQ(callsMade(), Calls());
    EXPECT_EQ(writtenBy([&] {
                  PeriodicTimer timer;
                  const support::FaultScope fault(deleteFault, -1, EINVAL, 1, 1);
                  PeriodicTimer another;
              }),
              "");
    EXPECT_EQ(callsMade(), Calls({"create 3", "create 4", "delete 3"}));
}

TEST_F(PeriodicTimerTest, AnExpiryCallsTheCallbackUnderTheOneLockAndGivesItBack)
{
    const auto lockIsFree = [] {
        bool isFree = false;
        std::thread([&] {
            isFree = quorvil::Timer::alarmMtx.try_lock();
            if (isFree)
                quorvil::Timer::alarmMtx.unlock();
        }).join();
        return isFree;
    };
    auto timer = std::make_unique<PeriodicTimer>();
    const sigval value = asked.event.sigev_value;
    quorvil::Timer::alarm(sigval{});
    quorvil::Timer::alarm(value);
    EXPECT_TRUE(lockIsFree());
    int alarms = 0;
    Callback throws([&] {
        ++alarms;
        EXPECT_FALSE(lockIsFree());
        throw std::runtime_error("of the callback");
    });
    timer->setCallback(&throws);
    EXPECT_THROW(quorvil::Timer::alarm(value), std::runtime_error);
    EXPECT_TRUE(lockIsFree());
    Callback destroys([&] {
        ++alarms;
        timer.reset();
    });
    timer->setCallback(&destroys);
    quorvil::Timer::alarm(value);
    EXPECT_EQ(alarms, 2);
    EXPECT_TRUE(lockIsFree());
}

TEST_F(RealPeriodicTimerTest, CallbacksOfAllTimersComeOneAfterTheOther)
{
    std::atomic<int> running{0};
    Gate first;
    Gate second;
    const auto alarmed = [&](Gate& gate) {
        EXPECT_EQ(++running, 1);
        std::this_thread::yield();
        gate.open();
        --running;
    };
    Callback toFirst([&] { alarmed(first); });
    Callback toSecond([&] { alarmed(second); });
    {
        PeriodicTimer one;
        PeriodicTimer two;
        one.setCallback(&toFirst);
        two.setCallback(&toSecond);
        one.startTimer(1000);
        two.startTimer(1000);
        first.await(5);
        second.await(5);
        one.stopTimer();
        two.stopTimer();
        // The threads of expiries that have begun look at their timers, which have to be there still.
        awaitExpiries();
    }
}

} // namespace
