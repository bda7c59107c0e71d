// Wait and polling threads: the exact number of handler calls at every kind of end.

#include "Quorvil/NonLockingWaitThread.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/WaitThread.h"
#include "tests/support/assertion.h"
#include "tests/support/threadCalls.h"
#include "tests/support/threadCreation.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <functional>
#include <gtest/gtest.h>
#include <semaphore>
#include <system_error>
#include <thread>

#include <sched.h>

namespace {

using support::FaultScope;
using support::Gate;
using support::HookScope;

/// Counts its calls, and does in each what the test wants.
template <typename Interface>
class Handler : public Interface
{
public:
    void event() override
    {
        const int call = ++calls;
        if (inCall)
            inCall(call);
    }

    std::atomic<int> calls{0};
    std::function<void(int call)> inCall;
};

using WaitHandler = Handler<IWaitThreadHandler>;
using PollingHandler = Handler<IPollingThreadHandler>;

/// Returns once the only worker has gone to sleep `times` times since the start of the test.
void awaitAsleep(int times)
{
    support::awaitCalls(pthread_cond_waitFault, times);
}

class WaitThreads : public testing::Test
{
protected:
    WaitThreads()
    {
        pthread_cond_waitFault.calls = 0;
        nanosleepFault.calls = 0;
    }
};

using WaitThreadTest = WaitThreads;
using PollingThreadTest = WaitThreads;

// ---- WaitThread

TEST_F(WaitThreadTest, NotificationsBeforeTheWakeUpAreOneAndOneDuringACallBringsAnother)
{
    WaitHandler handler;
    Gate notified;
    const HookScope hook(support::threadStart, [&] { notified.await(); });
    WaitThread* self = nullptr;
    handler.inCall = [&](int call) {
        if (call == 1)
            self->notify();
    };
    WaitThread thread(&handler);
    self = &thread;
    thread.notify();
    thread.notify();
    notified.open();
    awaitAsleep(1);
    EXPECT_EQ(handler.calls, 2);
    thread.notify();
    awaitAsleep(2);
    EXPECT_EQ(handler.calls, 3);
}

TEST_F(WaitThreadTest, TheEndOfAWorkerAsleepMakesOneLastCall)
{
    for (const bool notifiedBefore : {false, true}) {
        pthread_cond_waitFault.calls = 0;
        WaitHandler handler;
        {
            WaitThread thread(&handler);
            awaitAsleep(1);
            if (notifiedBefore) {
                thread.notify();
                awaitAsleep(2);
            }
        }
        EXPECT_EQ(handler.calls, notifiedBefore ? 2 : 1);
    }
}

TEST_F(WaitThreadTest, TheEndOfAWorkerInACallOrBeforeItsBeginMakesNoFurtherOne)
{
    for (const bool inCall : {false, true}) {
        WaitHandler handler;
        Gate entered;
        Gate ending;
        const HookScope atStart(support::threadStart, [&] {
            if (!inCall)
                ending.await();
        });
        const HookScope atJoin(pthread_joinFault, [&] { ending.open(); });
        handler.inCall = [&](int) {
            entered.open();
            ending.await();
        };
        {
            WaitThread thread(&handler);
            thread.notify();
            if (inCall) {
                entered.await();
                thread.notify();
            }
        }
        EXPECT_EQ(handler.calls, inCall);
    }
}

// ---- PollingThread

TEST_F(PollingThreadTest, WithoutAStartItEndsWithoutACall)
{
    for (const bool begun : {false, true}) {
        PollingHandler handler;
        Gate ending;
        const HookScope atStart(support::threadStart, [&] {
            if (!begun)
                ending.await();
        });
        const HookScope atJoin(pthread_joinFault, [&] { ending.open(); });
        {
            PollingThread thread(&handler, 0);
            if (begun)
                awaitAsleep(1);
        }
        EXPECT_EQ(handler.calls, 0);
    }
}

TEST_F(PollingThreadTest, OneLoopRunsFromStartToStopHoweverOftenBothAreCalled)
{
    PollingHandler handler;
    PollingThread* self = nullptr;
    handler.inCall = [&](int call) {
        self->start();
        if (call % 3 == 0) {
            self->stop();
            self->stop();
        }
    };
    {
        Gate begin;
        const HookScope hook(support::threadStart, [&] { begin.await(); });
        PollingThread thread(&handler, 0);
        self = &thread;
        thread.stop();
        thread.start();
        thread.start();
        begin.open();
        for (int round = 1; round <= 3; ++round) {
            awaitAsleep(round);
            EXPECT_EQ(handler.calls, 3 * round);
            if (round < 3)
                thread.start();
        }
        thread.stop();
    }
    EXPECT_EQ(handler.calls, 9);
    EXPECT_EQ(nanosleepFault.calls, 0);
}

TEST_F(PollingThreadTest, AStopWithdrawsAStartThatTheWorkerHasNotSeen)
{
    PollingHandler handler;
    Gate begin;
    const HookScope hook(support::threadStart, [&] { begin.await(); });
    PollingThread* self = nullptr;
    handler.inCall = [&](int call) {
        // A stop whose start follows at once goes on; one with another stop behind it does not.
        self->stop();
        self->start();
        if (call == 3)
            self->stop();
    };
    PollingThread thread(&handler, 0);
    self = &thread;
    thread.start();
    thread.stop();
    begin.open();
    awaitAsleep(1);
    EXPECT_EQ(handler.calls, 0);
    thread.start();
    awaitAsleep(2);
    EXPECT_EQ(handler.calls, 3);
}

TEST_F(PollingThreadTest, AStopOrTheEndDuringAPauseOrACallBringsNoFurtherCall)
{
    enum class At
    {
        pause,
        call
    };
    enum class By
    {
        stop,
        end
    };
    for (const At at : {At::pause, At::call}) {
        for (const By by : {By::stop, By::end}) {
            pthread_cond_waitFault.calls = 0;
            PollingHandler handler;
            Gate there;
            Gate goOn;
            const auto meet = [&] {
                there.open();
                goOn.await();
            };
            const FaultScope noPause(nanosleepFault, 0);
            const HookScope inPause(nanosleepFault, [&] {
                if (at == At::pause)
                    meet();
            });
            const HookScope atJoin(pthread_joinFault, [&] { goOn.open(); });
            handler.inCall = [&](int) {
                if (at == At::call)
                    meet();
            };
            {
                PollingThread thread(&handler, 1);
                awaitAsleep(1);
                thread.start();
                there.await();
                if (by == By::stop) {
                    thread.stop();
                    goOn.open();
                    awaitAsleep(2);
                }
            }
            EXPECT_EQ(handler.calls, at == At::call);
            EXPECT_EQ(nanosleepFault.calls, 1);
        }
    }
}

TEST_F(PollingThreadTest, ThePauseIsTheIntervalInSecondsAndNanosecondsTakenUpAgainAfterASignal)
{
    PollingHandler handler;
    PollingThread thread(&handler, INT_MIN);
    for (const int none : {INT_MIN, -1, 0}) {
        thread.setInterval(none);
        thread.wait();
    }
    EXPECT_EQ(nanosleepFault.calls, 0);
    struct
    {
        int interval, error, failures, calls;
    } const rows[] = {{1, 0, 0, 1},       {999'999, 0, 0, 1},       {1'000'000, 0, 0, 1}, {1'500'000, 0, 0, 1},
                      {INT_MAX, 0, 0, 1}, {1'500'000, EINTR, 2, 3}, {20, EINVAL, 1, 1},   {20, EINTR, 1, 2}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.interval);
        thread.setInterval(row.interval);
        // What does not fail returns at once.
        int call = 0;
        const HookScope change(nanosleepFault, [&] {
            nanosleepFault.result = ++call <= row.failures ? -1 : 0;
            nanosleepFault.error = call <= row.failures ? row.error : 0;
        });
        const FaultScope noPause(nanosleepFault, 0);
        thread.wait();
        EXPECT_EQ(nanosleepFault.calls, row.calls);
        EXPECT_EQ(support::pauses[0].tv_sec, row.interval / 1'000'000);
        EXPECT_EQ(support::pauses[0].tv_nsec, row.interval % 1'000'000 * 1000L);
        for (size_t next = 1; next < static_cast<size_t>(row.calls); ++next) {
            EXPECT_EQ(support::pauses[next].tv_sec, 1);
            EXPECT_EQ(support::pauses[next].tv_nsec, 7);
        }
    }
}

TEST_F(PollingThreadTest, EveryCallComesBehindAPauseAndANewIntervalCountsFromTheNextOne)
{
    PollingHandler handler;
    PollingThread* self = nullptr;
    int pausesBeforeCall[3] = {};
    handler.inCall = [&](int call) {
        pausesBeforeCall[call - 1] = nanosleepFault.calls;
        self->setInterval(call + 1);
        if (call == 3)
            self->stop();
    };
    const FaultScope noPause(nanosleepFault, 0);
    {
        PollingThread thread(&handler, 1);
        self = &thread;
        awaitAsleep(1);
        thread.start();
        awaitAsleep(2);
    }
    for (int call = 1; call <= 3; ++call) {
        EXPECT_EQ(pausesBeforeCall[call - 1], call);
        EXPECT_EQ(support::pauses[static_cast<size_t>(call - 1)].tv_nsec, 1000L * call);
    }
}

TEST_F(PollingThreadTest, AWorkerThatCannotBeStartedIsASystemError)
{
    PollingHandler polling;
    WaitHandler waiting;
    const FaultScope fault(pthread_createFault, EAGAIN);
    EXPECT_THROW(PollingThread(&polling, 1), std::system_error);
    EXPECT_THROW(WaitThread{&waiting}, std::system_error);
}

// ---- NonLockingWaitThreadBase

/// Waits for a post of its semaphore.
class Worker : public NonLockingWaitThreadBase
{
public:
    ~Worker() override
    {
        requestStop();
        posts.release();
        joinWorker();
        joinWorker();
    }

    void waitOnce() override
    {
        posts.acquire();
        if (!stopRequested())
            handler()->event();
        handled.release();
    }

    using NonLockingWaitThreadBase::handler;
    using NonLockingWaitThreadBase::requestStop;

    std::counting_semaphore<> posts{0};
    std::counting_semaphore<> handled{0};
};

TEST(NonLockingWaitThread, TheWorkerIsARealTimeThreadThatWaitsUntilItIsStopped)
{
    Handler<INonLockingWaitThreadHandler> handler;
    {
        Worker worker;
        EXPECT_EQ(worker.handler(), nullptr);
        worker.start(&handler, 17);
        EXPECT_EQ(worker.handler(), &handler);
        EXPECT_EQ(support::asked.stackBytes, 128U * 1024U);
        EXPECT_EQ(support::asked.inherit, PTHREAD_EXPLICIT_SCHED);
        EXPECT_EQ(support::asked.policy, SCHED_FIFO);
        EXPECT_EQ(support::asked.parameters.sched_priority, 17);
        for (int i = 1; i <= 3; ++i) {
            worker.posts.release();
            worker.handled.acquire();
            EXPECT_EQ(handler.calls, i);
        }
    }
    EXPECT_EQ(handler.calls, 3);
}

TEST(NonLockingWaitThread, TheStopFlagIsTestedBeforeEachWait)
{
    Worker worker;
    worker.requestStop();
    EXPECT_EQ(worker.run(), nullptr);
}

/// Stops itself, and leaves the rest to its base.
class Once : public NonLockingWaitThreadBase
{
public:
    explicit Once(std::atomic<int>& calls_)
        : calls(calls_)
    {
    }

    void waitOnce() override
    {
        ++calls;
        requestStop();
    }

    using NonLockingWaitThreadBase::stopRequested;

private:
    std::atomic<int>& calls;
};

TEST(NonLockingWaitThread, TheBaseJoinsAWorkerThatHasStoppedItself)
{
    Handler<INonLockingWaitThreadHandler> handler;
    std::atomic<int> calls{0};
    {
        Once worker(calls);
        worker.start(&handler, 1);
        while (!worker.stopRequested())
            std::this_thread::yield();
    }
    EXPECT_EQ(calls, 1);
}

TEST(WaitThreadsDeathTest, AMissingHandlerAndASecondStartEndTheProcess)
{
    EXPECT_DEATH(
        WaitThread{nullptr},
        support::assertion("Quorvil/WaitThread", "WaitThread::WaitThread(IWaitThreadHandler*)", "nullptr != handler"));
    EXPECT_DEATH(PollingThread(nullptr, 1),
                 support::assertion("Quorvil/PollingThread",
                                    "PollingThread::PollingThread(IPollingThreadHandler*, int)", "nullptr != handler"));
    EXPECT_DEATH(Worker().start(nullptr, 1),
                 support::assertion("Quorvil/NonLockingWaitThread",
                                    "void NonLockingWaitThreadBase::start(INonLockingWaitThreadHandler*, int)",
                                    "nullptr != handler"));
    EXPECT_DEATH(
        {
            Handler<INonLockingWaitThreadHandler> handler;
            Worker worker;
            worker.start(&handler, 1);
            worker.start(&handler, 1);
        },
        "FEHLER: move-Zuweisung");
}

} // namespace
