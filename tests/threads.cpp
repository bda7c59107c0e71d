// Threads and workers: every state and event, the number of handler calls, and what happens where the system says no.

#include "Quorvil/GeneralException.h"
#include "Quorvil/NonLockingWaitThread.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/QuorvilAsyncInput.h"
#include "Quorvil/QuorvilLinuxTimer.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "Quorvil/TestThreadState.h"
#include "Quorvil/Thread.h"
#include "Quorvil/WaitThread.h"
#include "tests/support/allocationCount.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/threadCreation.h"

#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <tuple>

namespace {

using Internals = util::ThreadInternals;
using support::FaultScope;
using support::Gate;
using support::HookScope;

// ---- managed threads

const std::map<char, void (*)(Internals&)> events = {
    {'s', [](Internals& puppet) { puppet.start(-1, -1, -1); }},
    {'b', [](Internals& puppet) { std::cerr << (puppet.started() ? "" : "no body"); }}, // begins
    {'c', [](Internals& puppet) { puppet.cancel(); }},
    {'e', [](Internals& puppet) { puppet.runFinished(); }}, // ends
};

/// What comes of events to a thread that exists only in the eyes of its object, with its state, and of its destruction.
std::string after(const std::string& road)
{
    return support::outcomeOf([&] {
        util::GeneralException::defaultSilent = true;
        for (support::Fault* const fault : {&pthread_createFault, &pthread_cancelFault, &pthread_joinFault})
            fault->fail(0);
        std::optional<Internals> puppet(std::in_place, nullptr, "puppet");
        for (const char event : road) {
            try {
                events.at(event)(*puppet);
            } catch (const util::GeneralException& exception) {
                std::cerr << exception.what();
            }
        }
        std::cerr << ", " << puppet->getState() << ", ";
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
    const std::string ended = "Unexpected state in runFinished: ";
    for (size_t state = Internals::NEW; state <= Internals::FAILED; ++state)
        for (size_t event = 0; event < 4; ++event) {
            const auto next = static_cast<size_t>(behind[state][event] - '0');
            std::string text = state == Internals::FAILED ? ended + "0\n" + ended + "0" : "";
            if (event == 0 && state != Internals::NEW)
                text += "Cannot start thread that has already been started!";
            if (event == 1 && state == Internals::CANCEL_PENDING)
                text += "no body";
            if (event == 1 && next == state)
                text += "Unexpected state in ThreadInternals::started: " + std::to_string(state) + "\n";
            if (event == 3 && next == Internals::FAILED)
                text += ended + std::to_string(state) + "\n" + ended + std::to_string(state);
            EXPECT_EQ(after(roadTo[state] + "sbce"[event]),
                      text + ", " + std::to_string(next) + ", " + destroyed[next]);
        }
}

struct Body : util::Thread
{
    explicit Body(std::function<void(Body&)> function_)
        : Thread("body")
        , function(std::move(function_))
    {
    }

    void run() override
    {
        function(*this);
    }

    const std::function<void(Body&)> function;
};

TEST(Thread, StartAsksForWhatItWasGivenAndForNothingElse)
{
    constexpr int stack = 256 * 1024; // 1 is refused
    for (const int stackSize : {-1, 1, stack})
        for (const int priority : {-1, 7})
            for (const int policy : {-1, SCHED_RR}) {
                Body thread([](Body&) {});
                thread.start(stackSize, priority, policy);
                thread.join();
                const bool scheduled = priority != -1 && policy != -1;
                EXPECT_EQ(support::asked.withAttributes, stackSize != -1 || priority != -1);
                EXPECT_EQ(support::asked.stackBytes == stack, stackSize == stack);
                EXPECT_EQ(support::asked.inherit == PTHREAD_EXPLICIT_SCHED, scheduled);
                EXPECT_EQ(support::asked.policy, scheduled ? SCHED_RR : SCHED_OTHER);
                EXPECT_EQ(support::asked.parameters.sched_priority, scheduled ? 7 : 0);
            }
}

TEST(Thread, EndsByReturnOrCancellationAndKnowsItselfMeanwhile)
{
    for (const std::string canceller : {"nobody", "other", "itself"}) {
        std::atomic<bool> unwound{false}; // the thread sanitizer loses sight of a thread before its last lock
        Gate ready;
        Body thread([&](Body& body) {
            const std::shared_ptr<void> note(nullptr, [&](void*) { unwound = true; });
            EXPECT_TRUE(util::Thread::current() == &body && body.getState() == Internals::RUNNING);
            if (canceller == "itself")
                body.cancel();
            const int pause = canceller == "nobody" ? 0 : 3'600'000;
            ready.open();
            util::Thread::msleep(pause);
        });
        thread.start(-1, -1, -1);
        ready.await();
        if (canceller == "other")
            thread.cancel();
        thread.join();
        EXPECT_TRUE(unwound && thread.getState() == Internals::FINISHED);
    }
}

TEST(Thread, ManyThreadsAreStartedCancelledAndReaped)
{
    const auto before = support::threadCount();
    for (int i = 0; i < 500 * support::stressFactor(); ++i) {
        Body thread([](Body&) { pthread_testcancel(); });
        thread.start(64 * 1024, -1, -1);
        const std::jthread other([&] { thread.join(); });
        if (i % 2 == 0)
            thread.cancel();
        thread.join();
    }
    support::awaitThreads(before);
}

TEST(Thread, OutWritesItsPrefixAndMsleepAsksForItsTime)
{
    testing::internal::CaptureStdout();
    Body([](Body&) {}).out() << "x";
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(std::regex_match(text, std::regex(R"(\[body \d+\.\d{3}\] x)")));
    util::TimeSpec now;
    now.initNow(CLOCK_MONOTONIC);
    EXPECT_LE(std::stod(text.substr(6)), std::stod(now.toShortString()));
    const FaultScope noSleep(nanosleepFault, 0);
    util::Thread::msleep(61'001);
    EXPECT_TRUE(support::askedPause.tv_sec == 61 && support::askedPause.tv_nsec == 1'000'000);
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

/// The calls of a worker that is ended where it stands: asleep, or in a pause or a call, which ends with it. `begin`
/// gives it something to do, twice.
template <typename Worker, typename Interface, typename... Arguments>
int callsAtEnd(const char* place, void (Worker::*begin)(), Arguments... arguments)
{
    Gate there;
    Gate ending;
    const auto meetIn = [&](const std::string& here) {
        return [&, isPlace = here == place] {
            if (isPlace) {
                there.open();
                ending.await();
            }
        };
    };
    const HookScope inPause(nanosleepFault, meetIn("pause"));
    const HookScope inEnd(pthread_joinFault, [&] { ending.open(); });
    nanosleepFault.fail(0);
    pthread_cond_waitFault.calls = 0;
    Handler<Interface> handler;
    handler.inCall = meetIn("call");
    {
        Worker worker(&handler, arguments...);
        support::awaitCalls(pthread_cond_waitFault, 1);
        if (begin) {
            (worker.*begin)();
            there.await();
            (worker.*begin)();
        }
    }
    nanosleepFault.times = 0;
    return handler.calls;
}

TEST(Workers, FinishTheCallInHandAndMakeALastOneOnlyWhereTheyWaitForNotifications)
{
    EXPECT_EQ((callsAtEnd<WaitThread, IWaitThreadHandler>("sleep", nullptr)), 1);
    EXPECT_EQ((callsAtEnd<WaitThread, IWaitThreadHandler>("call", &WaitThread::notify)), 1);
    EXPECT_EQ((callsAtEnd<PollingThread, IPollingThreadHandler>("sleep", nullptr, 1)), 0);
    EXPECT_EQ((callsAtEnd<PollingThread, IPollingThreadHandler>("pause", &PollingThread::start, 1)), 0);
    EXPECT_EQ((callsAtEnd<PollingThread, IPollingThreadHandler>("call", &PollingThread::start, 0)), 1);
}

TEST(WaitThread, MakesOneCallForAllNotificationsSinceTheLastOne)
{
    pthread_cond_waitFault.calls = 0;
    Handler<IWaitThreadHandler> handler;
    WaitThread thread(&handler);
    support::awaitCalls(pthread_cond_waitFault, 1);
    handler.inCall = [&] {
        for (int i = 0; i < 2 && handler.calls == 1; ++i)
            thread.notify();
    };
    thread.notify();
    support::awaitCalls(pthread_cond_waitFault, 2);
    EXPECT_EQ(handler.calls, 2);
    const FaultScope noLock(pthread_mutex_lockFault, EAGAIN, 0, 1, 1);
    EXPECT_THROW(thread.notify(), std::system_error);
}

TEST(PollingThread, PollsFromStartToStopWithAPauseBeforeEachCall)
{
    pthread_cond_waitFault.calls = 0;
    const FaultScope noPause(nanosleepFault, 0);
    Handler<IPollingThreadHandler> handler;
    PollingThread thread(&handler, 1'500'000);
    support::awaitCalls(pthread_cond_waitFault, 1);
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
    EXPECT_EQ(handler.calls, 4);
    for (const auto request : {&PollingThread::start, &PollingThread::stop}) {
        const FaultScope noLock(pthread_mutex_lockFault, EAGAIN, 0, 1, 1);
        EXPECT_THROW((thread.*request)(), std::system_error);
    }
}

TEST(PollingThread, PausesInSecondsAndNanosecondsAndGoesOnWithTheRestAfterASignal)
{
    Handler<IPollingThreadHandler> handler;
    PollingThread thread(&handler, INT_MIN);
    const auto pauseWith = [&](int interval, int error, int calls, time_t seconds, long nanoseconds) {
        nanosleepFault.fail(-1, error);
        const HookScope endSecond(nanosleepFault, [&] { nanosleepFault.result = nanosleepFault.calls == 0 ? -1 : 0; });
        thread.setInterval(interval);
        thread.wait();
        EXPECT_EQ(nanosleepFault.calls, calls) << interval;
        EXPECT_TRUE(support::askedPause.tv_sec == seconds && support::askedPause.tv_nsec == nanoseconds) << interval;
        nanosleepFault.times = 0;
    };
    pauseWith(INT_MAX, EINVAL, 1, 2147, 483'647'000);
    pauseWith(1, EINVAL, 1, 0, 1000);
    pauseWith(1'000'000, EINTR, 2, 1, 7);
    pauseWith(0, EINVAL, 0, 1, 7);
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
    EXPECT_EQ(support::asked.stackBytes, 128U * 1024U);
    EXPECT_EQ(support::asked.policy, SCHED_FIFO);
    EXPECT_EQ(support::asked.parameters.sched_priority, 17);
    worker.joinWorker();
    worker.joinWorker();
    EXPECT_EQ(worker.run(), nullptr);
    EXPECT_EQ(worker.calls, 3);
    Worker joinedByItsBase;
    joinedByItsBase.start(&joinedByItsBase, 1);
    while (!joinedByItsBase.stopRequested())
        std::this_thread::yield();
}

// ---- failures

TEST(Threads, MisuseAndFailedCallsHaveTheirTexts)
{
    util::GeneralException::defaultSilent = true;
    const auto startWith = [](int priority, int policy) { Internals(nullptr, "").start(-1, priority, policy); };
    const auto readBackAnotherPolicy = [&] {
        pthread_attr_getschedpolicyFault.fail(0);
        startWith(1, SCHED_FIFO);
    };
    const auto run = [] {
        Body thread([](Body&) {});
        thread.start(-1, -1, -1);
        thread.join();
    };
    const auto cancelInVain = [] {
        Gate mayEnd;
        Body thread([&](Body&) { mayEnd.await(); });
        thread.start(-1, -1, -1);
        while (thread.getState() != Internals::RUNNING)
            std::this_thread::yield();
        pthread_cond_waitFault.calls = 0;
        std::thread waiter([&] { thread.join(); });
        support::awaitCalls(pthread_cond_waitFault, 1);
        try {
            thread.cancel();
        } catch (const util::GeneralException& exception) {
            std::cerr << exception.what() << ", ";
        }
        waiter.join();
        mayEnd.open();
        pause();
    };
    const auto cancelItself = [] {
        Body thread([](Body& body) {
            body.cancel();
            pthread_testcancel();
        });
        thread.start(-1, -1, -1);
        thread.join();
    };
    Handler<IWaitThreadHandler> waiting;
    Handler<IPollingThreadHandler> polling;
    const auto endWithoutLock = [](const auto& /*asleep*/) {
        support::awaitCalls(pthread_cond_waitFault, 1); // and will ask for no lock
        pthread_mutex_lockFault.fail(EAGAIN, 0, 1, 1);
    };
    const std::string start = ": void util::ThreadInternals::start(int, int, int): Assertion `";
    const std::string handler = "Handler*): Assertion `nullptr != handler'";
    const std::string crossed = "Invalid cross-device linkexit 0";
    support::expectOutcomes({
        {"%  in pthread_createexit 0", run, &pthread_createFault, "EAGAIN EINVAL EPERM"},
        {"% in pthread_cancel in Thread::cancel in state RUNNING, Unexpected state in runFinished: 6\nterminate called",
         cancelInVain, &pthread_cancelFault, "ESRCH"},
        {"% in pthread_join in ~ThreadInternals\nexit 0", run, &pthread_joinFault, "ESRCH EDEADLK EINVAL"},
        {"% in nanosleep in Thread::msleepexit 0", [] { util::Thread::msleep(1); }, &nanosleepFault,
         "EINTR EINVAL ENOSYS"},
        {start + "!result'", [&] { startWith(1, 77); }},
        {start + "!result'", [&] { startWith(1000, SCHED_FIFO); }},
        {start + "!result'", [&] { startWith(1, SCHED_FIFO); }, &pthread_attr_getschedpolicyFault},
        {start + "checkPolicy == schedPolicy'", readBackAnotherPolicy},
        {": WaitThread::WaitThread(IWaitThread" + handler, [] { WaitThread{nullptr}; }},
        {": PollingThread::PollingThread(IPollingThreadHandler*, int): Assertion `nullptr",
         [] { PollingThread(nullptr, 1); }},
        {": void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler*, int): Assertion `nullptr",
         [] { Worker().start(nullptr, 1); }},
        {"terminate called", [&] { endWithoutLock(WaitThread(&waiting)); }},
        {"terminate called", [&] { endWithoutLock(PollingThread(&polling, 1)); }},
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

/// An operator: the text comes when the gate opens.
struct Operator : std::stringbuf
{
    int_type underflow() override
    {
        returnKey.await();
        str(std::exchange(text, ""));
        return std::stringbuf::underflow();
    }

    std::string text = "yes\nno\n";
    Gate returnKey;
};

TEST(AsyncInput, ReadsALineWhileTheCallerGoesOnAndWaitsForItAtTheLatestAtItsEnd)
{
    const auto before = support::threadCount();
    Operator person;
    std::streambuf* const console = std::cin.rdbuf(&person);
    {
        quorvil::test::AsyncInput input;
        EXPECT_FALSE(input.done());
        pthread_cond_waitFault.calls = 0;
        const std::jthread waiters[] = {std::jthread([&] { input.wait(); }), std::jthread([&] { input.join(); })};
        support::awaitCalls(pthread_cond_waitFault, 2);
        person.returnKey.open();
        input.wait();
        EXPECT_TRUE(input.done() && input.join() == "yes" && input.join() == "yes");
    }
    EXPECT_EQ(quorvil::test::asyncInput(std::cin).get(), "no");
    EXPECT_EQ(quorvil::test::AsyncInput().join(), "");
    std::cin.clear();
    person.returnKey.count = 0;
    {
        const HookScope destructorWaits(pthread_cond_waitFault, [&] { person.returnKey.open(); });
        const quorvil::test::AsyncInput input;
    }
    EXPECT_TRUE(std::cin.eof());
    std::cin.rdbuf(console);
    std::cin.clear();
    support::awaitThreads(before);
}

TEST(AsyncInput, KeepsWhatTheStreamThrowsToItselfAndSignalsNothing)
{
    const auto before = support::threadCount();
    static std::istream& in = *new std::istringstream; // which is never ended: no lock orders that behind the task
    in.exceptions(std::ios::failbit);
    std::mutex mutex;
    std::condition_variable cond;
    bool finished = false;
    std::string input = "as before";
    pthread_cond_broadcastFault.calls = 0;
    quorvil::test::asyncInput(in, mutex, cond, finished, input);
    support::awaitThreads(before);
    EXPECT_TRUE(!finished && input == "as before" && pthread_cond_broadcastFault.calls == 0);
}

TEST(TestThreadState, CountsChecksAndTellsEachLineFlushedUnderItsRecursiveLock)
{
    struct CallsBack : std::stringbuf
    {
        int sync() override
        {
            // The mutex stands behind its virtual functions, and these behind the state's and the number.
            void* const mutex = reinterpret_cast<void**>(&state) + 3;
            std::thread([&, native = static_cast<pthread_mutex_t*>(mutex)] {
                if (pthread_mutex_trylock(native) == 0)
                    isHeld = pthread_mutex_unlock(native) != 0;
            }).join();
            return state.inc() < 0;
        }

        util::TestThreadState state{"feed"};
        bool isHeld = true;
    } buffer;
    util::TestThreadState& state = buffer.state;
    std::ostream os(&buffer);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(state.incAndCheckState1(1, os));
    state.incState(os);
    EXPECT_TRUE(state.checkState1(4, os));
    EXPECT_FALSE(state.checkState1(3, os) || state.incAndCheckState1(5, os));
    state.reset();
    EXPECT_TRUE(state.get() == 0 && buffer.isHeld);
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
    Body body([](Body&) {});
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
