// Threads, workers and timers: every state and event, the number of handler calls, and what happens where the system
// says no.

#include "Quorvil/GeneralException.h"
#include "Quorvil/NonLockingWaitThread.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/QuorvilAsyncInput.h"
#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "Quorvil/QuorvilPthread.h"
#include "Quorvil/TestThreadState.h"
#include "Quorvil/Thread.h"
#include "Quorvil/WaitThread.h"
#include "siblings/OvxLog/OvxLog.h"
#include "tests/support/allocationCount.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/threadCreation.h"

#include <climits>
#include <csignal>
#include <gmock/gmock.h>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <sys/prctl.h>

SUPPORT_INTERPOSE(int, pthread_cancel, (pthread_t thread), (thread), )
SUPPORT_INTERPOSE(int, pthread_detach, (pthread_t thread), (thread), noexcept)
SUPPORT_INTERPOSE(int, pthread_setspecific, (pthread_key_t key, const void* value), (key, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_init, (pthread_attr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_destroy, (pthread_attr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setstacksize, (pthread_attr_t * attr, size_t bytes), (attr, bytes), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setinheritsched, (pthread_attr_t * attr, int value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setschedpolicy, (pthread_attr_t * attr, int value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_getschedpolicy, (const pthread_attr_t* attr, int* value), (attr, value), noexcept)

/// What this thread asked of the timers: their clocks, and seconds and nanoseconds of first expiries and of periods.
static thread_local std::string askedOfTimers;

static sigevent* noted(clockid_t clock, sigevent* event)
{
    askedOfTimers += std::to_string(clock) + (event->sigev_notify == SIGEV_THREAD ? "" : " by signal") +
                     (event->sigev_notify_attributes ? " with attributes: " : ": ");
    return event;
}

static const itimerspec* noted(int flags, const itimerspec* times)
{
    askedOfTimers += flags == 0 ? "" : "absolute ";
    for (const timespec& time : {times->it_value, times->it_interval})
        askedOfTimers += std::to_string(time.tv_sec) + " " + std::to_string(time.tv_nsec) + " ";
    return times;
}

SUPPORT_INTERPOSE(int, timer_create, (clockid_t clock, sigevent* event, timer_t* timer),
                  (clock, noted(clock, event), timer), noexcept)
SUPPORT_INTERPOSE(int, timer_settime, (timer_t timer, int flags, const itimerspec* times, itimerspec* before),
                  (timer, flags, noted(flags, times), before), noexcept)
SUPPORT_INTERPOSE(int, timer_delete, (timer_t timer), (timer), noexcept)

namespace {

using quorvil::LinuxTimer;
using quorvil::PeriodicTimer;
using quorvil::Pthread;
using support::AskedThread;
using support::FaultScope;
using support::Gate;
using support::HookScope;
using util::GeneralException;
using Internals = util::ThreadInternals;

// ---- managed threads

/// What comes of the last of some events to a thread that exists only in the eyes of its object: what it tells, the
/// state behind it, and the destruction. An event is "s"tart, "b"egin, which is `started`, "c"ancel, or "e"nd.
std::string after(const std::string& road)
{
    return support::outcomeOf([&] {
        GeneralException::defaultSilent = true;
        for (support::Fault* const fault : {&pthread_createFault, &pthread_cancelFault, &pthread_joinFault})
            fault->fail(0);
        std::optional<Internals> puppet(std::in_place, nullptr, "puppet");
        for (const char& event : road) {
            std::cerr.clear(&event == &road.back() ? std::ios::goodbit : std::ios::failbit);
            pthread_mutex_lockFault.calls = 0;
            try {
                if (event == 's')
                    puppet->start(-1, -1, -1);
                else if (event == 'b')
                    std::cerr << (puppet->started() ? "" : "no body");
                else
                    event == 'c' ? puppet->cancel() : puppet->runFinished();
            } catch (const GeneralException& exception) {
                std::cerr << exception.what();
            }
        }
        std::cerr << ", " << pthread_mutex_lockFault.calls << " locked, " << puppet->getState() << ", ";
        puppet.reset();
        std::cerr << pthread_joinFault.calls << " reaped, ";
    });
}

TEST(ThreadInternals, EveryEventInEveryStateHasItsOutcome)
{
    const std::string roadTo[] = {"", "s", "sc", "sb", "sbc", "sbe", "e"};
    // The states behind `start`, `started`, `cancel` and `runFinished` in each state.
    const char* const behind[] = {"1006", "1326", "2426", "3345", "4445", "5556", "6666"};
    const std::string live = "\n\n**** Thread must not be deleted while it is running!\nkilled by 6";
    const std::string destroyed[] = {"0 reaped, exit 0", live, live, live, live, "1 reaped, exit 0",
                                     "0 reaped, exit 0"};
    for (size_t state = Internals::NEW; state <= Internals::FAILED; ++state) {
        const std::string number = std::to_string(state);
        const std::string ended = "Unexpected state in runFinished: " + number;
        const bool runs = state == Internals::RUNNING || state == Internals::CANCELLED;
        const std::string told[] = {state == Internals::NEW ? "" : "Cannot start thread that has already been started!",
                                    state == Internals::STARTING ? ""
                                    : state == Internals::CANCEL_PENDING
                                        ? "no body"
                                        : "Unexpected state in ThreadInternals::started: " + number + "\n",
                                    "", runs ? "" : ended + "\n" + ended};
        for (size_t event = 0; event < 4; ++event) {
            const char next = behind[state][event];
            EXPECT_EQ(after(roadTo[state] + "sbce"[event]),
                      told[event] + ", 1 locked, " + next + ", " + destroyed[next - '0']);
        }
    }
}

struct Body : util::Thread
{
    explicit Body(std::function<void()> function_)
        : Thread("body")
        , function(std::move(function_))
    {
    }

    void run() override
    {
        function();
    }

    const std::function<void()> function;
};

TEST(Thread, StartAsksForWhatItWasGivenAndForNothingElse)
{
    const auto askedBy = [](int stackSize, int priority, int policy) {
        Body thread([] {});
        thread.start(stackSize, priority, policy);
        thread.join();
        return support::asked;
    };
    const size_t defaultStack = askedBy(1, -1, -1).stackBytes; // 1 is refused
    for (const auto& [stackSize, bytes] : {std::pair(-1, defaultStack), std::pair(1 << 18, size_t{1} << 18)}) {
        const AskedThread inherits = {bytes, PTHREAD_INHERIT_SCHED, SCHED_OTHER, 0};
        for (const int policy : {-1, SCHED_RR})
            EXPECT_TRUE(askedBy(stackSize, -1, policy) == (stackSize == -1 ? AskedThread{} : inherits));
        EXPECT_TRUE(askedBy(stackSize, 7, -1) == inherits);
        EXPECT_TRUE((askedBy(stackSize, 7, SCHED_RR) == AskedThread{bytes, PTHREAD_EXPLICIT_SCHED, SCHED_RR, 7}));
    }
}

TEST(Thread, EndsByReturnOrCancellationAndKnowsItselfMeanwhile)
{
    for (int i = 0; i < 500 * support::stressFactor(); ++i) {
        std::atomic<int> seen{0};
        Body thread([&] {
            const std::shared_ptr<void> note(nullptr, [&](void*) { ++seen; });
            const int pause = i % 3 == 0 ? 0 : 3'600'000;
            if (i % 3 == 1)
                thread.cancel();
            // Last of all: the thread sanitizer loses sight of a thread that is cancelled.
            seen += util::Thread::current() == &thread && thread.getState() >= Internals::RUNNING;
            util::Thread::msleep(pause);
        });
        thread.start(256 * 1024, -1, -1);
        const std::jthread other([&] { thread.join(); });
        if (i % 3 == 2)
            thread.cancel();
        thread.join();
        EXPECT_TRUE(thread.getState() == Internals::FINISHED && (seen == 2 || (seen == 0 && i % 3 == 2)));
    }
}

TEST(Thread, OutWritesItsPrefixAndMsleepAsksForItsTime)
{
    testing::internal::CaptureStdout();
    Body([] {}).out() << "x";
    // The wall clock has a digit more.
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::MatchesRegex("\\[body [0-9]{1,9}\\.[0-9]{3}\\] x"));
    const FaultScope noSleep(nanosleepFault, 0);
    util::Thread::msleep(61'001);
    EXPECT_TRUE(support::askedPause.tv_sec == 61 && support::askedPause.tv_nsec == 1'000'000);
}

// ---- thread handles

/// One of the constructors that start a thread, with the signature that its reports tell.
struct Form
{
    bool alternative, scheduled;

    std::string context() const
    {
        return std::string("quorvil::Pthread::Pthread(quorvil::Pthread::") +
               (alternative ? "AlternativeFunc" : "Func, void*") + ", uint32_t" + (scheduled ? ", int, int)" : ")");
    }

    Pthread start(void* result = nullptr, uint32_t stackKiB = 256, int policy = SCHED_RR, int priority = 1) const
    {
        const Pthread::Func function = [](void* arg) { return arg; };
        const Pthread::AlternativeFunc object = [result] { return result; };
        if (alternative)
            return scheduled ? Pthread(object, stackKiB, policy, priority) : Pthread(object, stackKiB);
        return scheduled ? Pthread(function, result, stackKiB, policy, priority) : Pthread(function, result, stackKiB);
    }
};

constexpr Form forms[] = {{false, false}, {true, false}, {false, true}, {true, true}};

TEST(Pthread, EveryConstructorAsksForItsStackAndPolicyAndJoinReturnsTheResult)
{
    const auto page = static_cast<size_t>(getpagesize());
    // The size in bytes is counted in 32 bits.
    const std::pair<uint32_t, size_t> stacks[] = {
        {0, 16384}, {16, 16384}, {17, (17407 / page + 1) * page}, {2048, 2 << 20}, {0x400000, 16384}};
    const std::pair<int, int> policies[] = {{SCHED_OTHER, 0}, {SCHED_FIFO, 17}, {SCHED_RR, 18}};
    for (const Form& form : forms)
        for (const auto& [kiB, bytes] : stacks)
            for (const auto& [policy, priority] : policies) {
                int target = 0;
                Pthread thread = form.start(&target, kiB, policy, priority);
                EXPECT_EQ(thread.join(), &target);
                EXPECT_FALSE(thread.joinable());
                // A joined handle may be moved from, and overwritten.
                Pthread moved(std::move(thread));
                moved = Pthread();
                const AskedThread inherits = {bytes, PTHREAD_INHERIT_SCHED, SCHED_OTHER, 0};
                const AskedThread scheduled = {bytes, PTHREAD_EXPLICIT_SCHED, policy, priority};
                EXPECT_TRUE(support::asked == (form.scheduled ? scheduled : inherits))
                    << form.context() << kiB << policy;
            }
}

TEST(Pthread, AHandleMovesItsThreadRefusesToJoinItselfAndLetsGo)
{
    char name[16];
    Gate go;
    Pthread first;
    first = Pthread(
        [&, held = std::make_shared<int>()]() -> void* {
            go.await();
            EXPECT_THAT([&] { first.join(); }, testing::ThrowsMessage<std::system_error>("Resource deadlock avoided"));
            return held.use_count() == 1 ? &first : nullptr;
        },
        256);
    prctl(PR_GET_NAME, name);
    EXPECT_STREQ(name, "Pthread");
    Pthread other = forms[0].start();
    const support::AllocationCount count;
    Pthread second(std::move(first));
    first = Pthread();
    first = std::move(second);
    other.detach();
    EXPECT_TRUE(first.joinable() && !second.joinable() && !other.joinable() && count.allocations() == 0);
    go.open();
    EXPECT_EQ(first.join(), &first) << "the function object lives as long as its call";
}

TEST(Pthread, MisuseAndFailedCallsHaveTheirTexts)
{
    const std::string failed = " failed in Quorvil/QuorvilPthread:";
    const Form& form = forms[2];
    std::vector<support::Failure> failures = {
        {"No such processexit 0", [] { Pthread().join(); }},
        {"Invalid argumentexit 0", [] { Pthread().detach(); }},
        {"void* quorvil::Pthread::join()" + failed, [&] { form.start().join(); }, &pthread_joinFault},
        {"void quorvil::Pthread::detach()" + failed, [&] { form.start().detach(); }, &pthread_detachFault},
        {form.context() + failed, [&] { form.start(nullptr, 256, SCHED_FIFO, 1000); }},
        {form.context() + failed, [&] { pthread_attr_destroyFault.fail(EXDEV), form.start(); }},
        {": void* quorvil::pthreadFunc(void*): Assertion `t->alternativeF'",
         [] { Pthread(nullptr, nullptr, 0).join(); }},
        {"FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! "
         "Erst join() oder detach() aufrufen!!\nterminate called",
         [&] { form.start(); }},
        {"FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread enthaelt!\nterminate called",
         [&] { form.start() = Pthread(); }},
    };
    for (support::Fault* const fault : {&pthread_attr_initFault, &pthread_attr_setstacksizeFault,
                                        &pthread_attr_setinheritschedFault, &pthread_attr_setschedpolicyFault})
        failures.push_back({form.context() + failed, [&] { form.start(); }, fault});
    for (const Form& each : forms) {
        failures.push_back({each.context() + failed, [&] { each.start(); }, &pthread_createFault});
        if (each.scheduled)
            failures.push_back(
                {": " + each.context() + ": Assertion `schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1'",
                 [&] { each.start(nullptr, 256, 3); }});
    }
    support::expectOutcomes(failures);
}

// ---- wait and polling threads

/// Counts its calls, and does in each what the test wants.
template <typename Interface>
struct Handler : Interface
{
    void event() override
    {
        ++calls;
        inCall();
    }

    std::atomic<int> calls{0};
    std::function<void()> inCall = [] {};
};

TEST(WaitThread, MakesOneCallForAllNotificationsSinceTheLastOneAndALastOneIfItIsEndedAsleep)
{
    Handler<IWaitThreadHandler> handler;
    pthread_cond_waitFault.calls = 0;
    {
        WaitThread thread(&handler);
        support::awaitCalls(pthread_cond_waitFault, 1);
        handler.inCall = [&] {
            for (int i = 0; i < 2 && handler.calls == 1; ++i)
                thread.notify();
        };
        thread.notify();
        support::awaitCalls(pthread_cond_waitFault, 2);
        EXPECT_EQ(handler.calls, 2);
    }
    EXPECT_EQ(handler.calls, 3);
}

TEST(PollingThread, PollsFromStartToStopWithAPauseBeforeEachCall)
{
    Handler<IPollingThreadHandler> handler;
    pthread_cond_waitFault.calls = 0;
    {
        PollingThread thread(&handler, INT_MIN);
        support::awaitCalls(pthread_cond_waitFault, 1);
        const auto pauseWith = [&](int interval, int error, int calls, time_t seconds, long nanoseconds) {
            nanosleepFault.fail(-1, error, 1, 1);
            thread.setInterval(interval);
            thread.wait();
            EXPECT_EQ(nanosleepFault.calls, calls) << interval;
            EXPECT_TRUE(support::askedPause.tv_sec == seconds && support::askedPause.tv_nsec == nanoseconds);
        };
        pauseWith(1, EINVAL, 1, 0, 1000);
        pauseWith(0, EINVAL, 0, 0, 1000);
        pauseWith(INT_MAX, EINVAL, 1, 2147, 483'647'000);
        pauseWith(1'000'000, EINTR, 2, 0, 7);
        thread.setInterval(1'500'000);
        nanosleepFault.fail(0);
        handler.inCall = [&] {
            EXPECT_EQ(nanosleepFault.calls, handler.calls);
            EXPECT_EQ(support::askedPause.tv_nsec, handler.calls == 1 ? 500'000'000 : 1'000 * handler.calls);
            thread.setInterval(handler.calls + 1);
            thread.start(); // polls already
            if (handler.calls >= 3) {
                thread.stop();
                thread.start(); // goes on
            }
            if (handler.calls == 4)
                thread.stop(); // withdraws the start
        };
        thread.stop(); // idle already
        thread.start();
        support::awaitCalls(pthread_cond_waitFault, 2);
        const HookScope inPause(nanosleepFault, [&] { thread.stop(); });
        thread.start();
        support::awaitCalls(pthread_cond_waitFault, 3);
    }
    nanosleepFault.times = 0;
    EXPECT_EQ(handler.calls, 4) << "neither a stop in the pause nor the end of an idle worker brings another call";
}

TEST(Workers, EndBehindTheCallInHandAndMakeNoFurtherOne)
{
    Gate inCall, ending;
    const HookScope inEnd(pthread_joinFault, [&] { ending.open(); });
    Handler<IWaitThreadHandler> waiting;
    Handler<IPollingThreadHandler> polling;
    waiting.inCall = polling.inCall = [&] {
        inCall.open();
        ending.await(inCall.count);
    };
    {
        WaitThread thread(&waiting);
        thread.notify();
        inCall.await();
        thread.notify();
    }
    {
        PollingThread thread(&polling, 0);
        thread.start();
        inCall.await(2);
    }
    EXPECT_TRUE(waiting.calls == 1 && polling.calls == 1);
}

/// Stops itself in the third call.
struct Worker : Handler<INonLockingWaitThreadHandler>, NonLockingWaitThreadBase
{
    void waitOnce() override
    {
        handler()->event();
        if (calls == 3)
            requestStop();
    }

    using NonLockingWaitThreadBase::handler;
    using NonLockingWaitThreadBase::joinWorker;
    using NonLockingWaitThreadBase::requestStop;
    using NonLockingWaitThreadBase::stopRequested;
};

TEST(NonLockingWaitThread, IsARealTimeThreadThatTestsItsFlagBeforeEachWaitAndIsJoined)
{
    Worker worker;
    worker.start(&worker, 17);
    EXPECT_TRUE((support::asked == AskedThread{128 * 1024, PTHREAD_EXPLICIT_SCHED, SCHED_FIFO, 17}));
    worker.joinWorker();
    EXPECT_TRUE(worker.run() == nullptr && worker.calls == 3);
    Worker joinedByItsBase;
    joinedByItsBase.start(&joinedByItsBase, 1);
    while (!joinedByItsBase.stopRequested())
        std::this_thread::yield();
}

// ---- timers

TEST(LinuxTimer, ReplacesTimerAndFunctionAndAsksNothingWhileThereIsNoTimer)
{
    std::string expired;
    timer_createFault.fail(0, 0, 1, 0);
    timer_deleteFault.fail(0, 0, 1, 0);
    askedOfTimers.clear();
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
    EXPECT_EQ(askedOfTimers, "1: 3600 2 3 4 0 0 0 0 0 0 0 0 1: 0 0 0 0 1: 3600 2 3 4 0 0 0 0 0 0 0 0 ");
    EXPECT_TRUE(timer_createFault.calls == 3 && timer_deleteFault.calls == 3 && expired == "first ");
}

/// Does what the test wants.
struct Callback : quorvil::TimerCallback
{
    void alarm() override
    {
        inCall();
    }

    std::function<void()> inCall = [] {};
};

TEST(PeriodicTimer, AsksForItsPeriodTwiceAndTellsEachFailureByALine)
{
    askedOfTimers.clear();
    testing::internal::CaptureStdout();
    Callback callback;
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
    EXPECT_EQ(askedOfTimers,
              "1 with attributes: 1 500000000 1 500000000 2147 483647000 2147 483647000 0 0 0 0 0 -1000 0 -1000 "
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
    quorvil::Timer::alarm({});
    quorvil::Timer::alarm(value);
    Callback callback;
    timer->setCallback(&callback);
    callback.inCall = [&] { throw std::runtime_error(lockIsFree() ? "free" : "held"); };
    EXPECT_THAT([&] { quorvil::Timer::alarm(value); }, testing::ThrowsMessage<std::runtime_error>("held"));
    callback.inCall = [&] { timer.reset(); };
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
    const auto failTwice = [](LinuxTimer& timer) {
        static LinuxTimer& failing = timer;
        static void (*const before)(int) = std::signal(SIGABRT, [](int) {
            std::signal(SIGABRT, before);
            gl_bOVXLConfigLoaded = 1; // with every group silent
            std::fputs("silent, ", stderr);
            failing.cancel();
            _exit(0);
        });
        timer_settimeFault.times = 2;
        timer.cancel();
    };
    const std::string at = "[Noname Quorvil/QuorvilLinuxTimer:";
    const std::string end = " failed: Invalid cross-device link\n";
    support::expectOutcomes({
        {at + "72] timer_create" + end + "killed by 6", made([](LinuxTimer&) {}), &timer_createFault},
        {at + "96] timer_settime" + end, made([](LinuxTimer& timer) { timer.start(1, 0, 0, 0); }), &timer_settimeFault},
        {at + "111] timer_settime" + end + "silent, killed by 6", made(failTwice), &timer_settimeFault},
        {at + "129] timer_delete" + end, made([](LinuxTimer&) {}), &timer_deleteFault},
    });
}

TEST(Timers, ExpireOnceOrPeriodicallyOnThreadsOfTheSystem)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer crashes in the threads that the system library makes for expiries";
    struct Timers
    {
        LinuxTimer oneShot;
        PeriodicTimer periodic;
        Callback callback;
        Gate once, alarmed;
    };
    static auto& timers = *new Timers; // never destroyed: an expiry may still be on its way
    timers.oneShot.create([&] { timers.once.open(); });
    timers.callback.inCall = [&] { timers.alarmed.open(); };
    timers.periodic.setCallback(&timers.callback);
    timers.once.count = timers.alarmed.count = 0;
    for (int round = 1; round <= 100 * support::stressFactor(); ++round) {
        timers.oneShot.start(0, 1000 * round, 0, 0);
        timers.periodic.startTimer(50);
        timers.once.await(round);
        timers.alarmed.await(5 * round);
        timers.periodic.stopTimer();
    }
    EXPECT_EQ(timers.once.count, 100 * support::stressFactor());
}

// ---- failures

TEST(Threads, MisuseAndFailedCallsHaveTheirTexts)
{
    GeneralException::defaultSilent = true;
    const auto startWith = [](int priority, int policy) { Internals(nullptr, "").start(-1, priority, policy); };
    const auto readBackAnotherPolicy = [&] {
        pthread_attr_getschedpolicyFault.fail(0);
        startWith(1, SCHED_FIFO);
    };
    const auto run = [] {
        Body thread([] {});
        thread.start(-1, -1, -1);
        thread.join();
    };
    const auto cancelItself = [] {
        Body thread([&] {
            thread.cancel();
            pthread_testcancel();
        });
        thread.start(-1, -1, -1);
        thread.join();
    };
    const auto cancelInVain = [] {
        Body thread([&] {
            pthread_cond_broadcastFault.calls = 0;
            try {
                thread.cancel();
            } catch (const GeneralException& exception) {
                std::cerr << exception.what() << ", " << pthread_cond_broadcastFault.calls << " broadcast, ";
            }
        });
        thread.start(-1, -1, -1);
        pause();
    };
    Handler<IWaitThreadHandler> waiting;
    Handler<IPollingThreadHandler> polling;
    const std::string start = ": void util::ThreadInternals::start(int, int, int): Assertion `";
    const std::string crossed = "Invalid cross-device linkexit 0";
    support::expectOutcomes({
        {"%  in pthread_createexit 0", run, &pthread_createFault, "EAGAIN EINVAL EPERM"},
        {"% in pthread_cancel in Thread::cancel in state RUNNING, 1 broadcast, Unexpected state in runFinished: 6\n"
         "terminate called",
         cancelInVain, &pthread_cancelFault, "ESRCH"},
        {"% in pthread_join in ~ThreadInternals\nexit 0", run, &pthread_joinFault, "ESRCH EDEADLK EINVAL"},
        {"% in nanosleep in Thread::msleepexit 0", [] { util::Thread::msleep(1); }, &nanosleepFault,
         "EINTR EINVAL ENOSYS"},
        {start + "!result'", [&] { startWith(1, 77); }},
        {start + "!result'", [&] { startWith(1000, SCHED_FIFO); }},
        {start + "!result'", [&] { startWith(1, SCHED_FIFO); }, &pthread_attr_getschedpolicyFault},
        {start + "checkPolicy == schedPolicy'", readBackAnotherPolicy},
        {": WaitThread::WaitThread(IWaitThreadHandler*): Assertion `nullptr != handler'", [] { WaitThread{nullptr}; }},
        {": PollingThread::PollingThread(IPollingThreadHandler*, int): Assertion `nullptr != handler'",
         [] { PollingThread(nullptr, 1); }},
        {": void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler*, int): Assertion `nullptr != handler'",
         [] { Worker().start(nullptr, 1); }},
        {crossed, [&] { WaitThread{&waiting}; }, &pthread_createFault},
        {crossed, [&] { PollingThread(&polling, 1); }, &pthread_createFault},
        {crossed, [] { quorvil::test::AsyncInput(); }, &pthread_createFault},
    });
    if (!support::sanitized) // whose threads have keys of their own
        support::expectOutcomes({
            {"%  in pthread_setspecific in Thread::start\nexit 0", run, &pthread_setspecificFault, "ENOMEM EINVAL"},
            {"%  in pthread_setspecific in Thread::start\nexit 0", cancelItself, &pthread_setspecificFault},
        });
}

// ---- console input and test aids

/// An operator: the text comes when two waiters have opened the gate.
struct Operator : std::stringbuf
{
    int_type underflow() override
    {
        returnKey.await(2);
        str(std::exchange(text, ""));
        return std::stringbuf::underflow();
    }

    std::string text = "yes\nno\n";
    Gate returnKey;
};

TEST(AsyncInput, ReadsALineWhileTheCallerGoesOnAndWaitsForItAtTheLatestAtItsEnd)
{
    Operator person;
    std::streambuf* const console = std::cin.rdbuf(&person);
    const HookScope inWait(pthread_cond_waitFault, [&] { person.returnKey.open(); });
    std::optional<quorvil::test::AsyncInput> input(std::in_place);
    const auto withReader = support::threadsNow();
    EXPECT_FALSE(input->done());
    std::thread other([&] { input->wait(); });
    EXPECT_TRUE(input->join() == "yes" && input->done() && input->join() == "yes");
    other.join();
    EXPECT_EQ(quorvil::test::asyncInput(std::cin).get(), "no");
    person.returnKey.count = 1;
    input.emplace();
    input.reset(); // waits, and so opens the gate
    EXPECT_TRUE(std::cin.eof());
    std::cin.rdbuf(console);
    std::istringstream throws;
    throws.exceptions(std::ios::failbit);
    EXPECT_THROW(quorvil::test::asyncInput(throws).get(), std::ios::failure);
    support::awaitThreads(withReader - 1);
}

TEST(TestThreadState, CountsChecksAndTellsEachLineFlushedUnderItsRecursiveLock)
{
    struct CallsBack : std::stringbuf
    {
        int sync() override
        {
            return state.inc() < 0;
        }

        util::TestThreadState state{"feed"};
    } buffer;
    util::TestThreadState& state = buffer.state;
    std::ostream os(&buffer);
    testing::internal::CaptureStderr();
    pthread_mutex_lockFault.calls = 0;
    EXPECT_TRUE(state.incAndCheckState1(1, os));
    state.incState(os);
    EXPECT_TRUE(state.checkState1(4, os));
    EXPECT_FALSE(state.checkState1(3, os) || state.incAndCheckState1(5, os));
    state.reset();
    EXPECT_EQ(state.get(), 0);
    EXPECT_EQ(pthread_mutex_lockFault.calls, 11) << "each operation, and each flush, takes the lock once";
    EXPECT_EQ(buffer.str(), "Inc feed to 1\nInc feed to 3\nState feed == 4 is true!\nInc feed to 6\n");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "** Unexpected state feed: 5 instead of 3\n"
              "** Unexpected state feed after incrementation: 6 instead of 5\n");
}

TEST(ThreadsAndTimers, TakeNoMemoryWhereARealTimeThreadMayCallThem)
{
    struct Timer : quorvil::PeriodicTimer
    {
        using quorvil::Timer::getCallback;
    } timer;
    Body body([] {});
    Handler<IPollingThreadHandler> handler;
    PollingThread polling(&handler, 0);
    const support::AllocationCount count;
    Worker worker; // NonLockingWaitThreadBase() starts nothing
    worker.requestStop();
    polling.setInterval(2000);
    const quorvil::LinuxTimer linuxTimer; // LinuxTimer() makes no call
    timer.setCallback(nullptr);
    const util::TestSleeps sleeps(5);
    const bool exact = worker.stopRequested() && !worker.handler() && !timer.getCallback() && !body.getState();
    EXPECT_TRUE(exact && !util::Thread::current() && count.allocations() + count.releases() == 0);
}

} // namespace
