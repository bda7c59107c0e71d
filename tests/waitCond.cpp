// Recursive mutex, scoped lock and condition.

#include "Quorvil/WaitCond.h"
#include "Quorvil/GeneralException.h"
#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"
#include "tests/support/threadCalls.h"

#include <functional>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using util::Lock;
using util::RecursiveMutex;
using util::TimeSpec;
using util::WaitCond;

bool isFree(RecursiveMutex& mutex)
{
    return support::findsFree([&] {
        mutex.lock();
        if (!support::lockWasTaken())
            mutex.unlock();
    });
}

/// A deadline, `seconds` from now on the monotonic clock.
TimeSpec inSeconds(long seconds)
{
    TimeSpec until;
    until.initNow(CLOCK_MONOTONIC);
    until += TimeSpec(timespec{static_cast<time_t>(seconds), 0});
    return until;
}

// ---- mutex and lock

TEST(RecursiveMutex, IsFreeOnceEachLevelWasGivenBack)
{
    RecursiveMutex mutex;
    mutex.lock();
    {
        const Lock outer(mutex);
        const Lock inner(mutex);
    }
    EXPECT_FALSE(isFree(mutex));
    mutex.unlock();
    EXPECT_TRUE(isFree(mutex));
}

TEST(RecursiveMutex, LooksAtNoResultButThatOfItsEnd)
{
    struct
    {
        support::Fault& fault;
        std::function<void(RecursiveMutex&)> operation;
    } const rows[] = {
        {pthread_mutexattr_destroyFault, [](RecursiveMutex&) { const RecursiveMutex another; }},
        {pthread_mutexattr_settypeFault, [](RecursiveMutex&) { const RecursiveMutex another; }},
        {pthread_mutex_lockFault, [](RecursiveMutex& mutex) { mutex.lock(); }},
    };
    RecursiveMutex mutex;
    for (const auto& row : rows) {
        const support::FaultScope fault(row.fault, EINVAL);
        EXPECT_NO_THROW(row.operation(mutex)) << row.fault.name;
    }
    EXPECT_TRUE(isFree(mutex));
    const support::FaultScope initFails(pthread_mutex_initFault, ENOMEM);
    const support::FaultScope attributesFail(pthread_mutexattr_initFault, ENOMEM);
    const support::FaultScope typeFails(pthread_mutexattr_settypeFault, EINVAL);
    const support::FaultScope endFails(pthread_mutexattr_destroyFault, EINVAL);
    const support::FaultScope neverMade(pthread_mutex_destroyFault, 0);
    EXPECT_NO_THROW(RecursiveMutex());
}

TEST(RecursiveMutexDeathTest, ThatCannotBeDestroyedEndsTheProcess)
{
    struct
    {
        int error;
        const char* line;
    } const rows[] = {
        {EBUSY, "^FATAL ERROR: EBUSY in pthread_mutex_destroy\n$"},
        {EINVAL, "^FATAL ERROR: EINVAL in pthread_mutex_destroy\n$"},
        {EPERM, "^FATAL ERROR: EPERM in pthread_mutex_destroy\n$"},
        {EAGAIN, "^FATAL ERROR: \n$"},
    };
    for (const auto& row : rows)
        EXPECT_EXIT(
            {
                const support::FaultScope fault(pthread_mutex_destroyFault, row.error, 0, 1, 1);
                const RecursiveMutex mutex;
            },
            testing::ExitedWithCode(1), row.line);
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer reports the end of a locked mutex";
    EXPECT_EXIT(
        {
            RecursiveMutex mutex;
            mutex.lock();
        },
        testing::ExitedWithCode(1), rows[0].line);
}

// ---- condition

TEST(WaitCond, ThrowsTheNameOfEachFailureAndStaysUsable)
{
    const std::pair<int, const char*> einval(EINVAL, "EINVAL");
    const std::pair<int, const char*> ebusy(EBUSY, "EBUSY");
    const std::pair<int, const char*> enomem(ENOMEM, "ENOMEM");
    const std::pair<int, const char*> eperm(EPERM, "EPERM");
    const std::pair<int, const char*> unexpected(EAGAIN, "Unexpected errno (11)");
    RecursiveMutex mutex;
    WaitCond cond;
    const auto make = [] { const WaitCond another; };
    struct
    {
        support::Fault& fault;
        std::function<void()> operation;
        std::vector<std::pair<int, const char*>> errors;
        support::Fault* following; ///< the call that is not made any more
    } const rows[] = {
        {pthread_condattr_initFault, make, {einval, ebusy, enomem, unexpected}, &pthread_condattr_setclockFault},
        {pthread_condattr_setclockFault, make, {einval, unexpected}, &pthread_cond_initFault},
        {pthread_cond_initFault, make, {einval, ebusy, enomem, unexpected}, &pthread_condattr_destroyFault},
        {pthread_condattr_destroyFault, make, {einval, unexpected}, &pthread_cond_destroyFault},
        {pthread_cond_signalFault, [&] { cond.signal(); }, {einval, eperm, unexpected}, nullptr},
        {pthread_cond_broadcastFault, [&] { cond.broadcast(); }, {einval, eperm, unexpected}, nullptr},
        {pthread_cond_waitFault, [&] { Lock(mutex).wait(cond); }, {einval, eperm, unexpected}, nullptr},
        {pthread_cond_timedwaitFault,
         [&] { Lock(mutex).timedwait(cond, TimeSpec()); },
         {einval, eperm, unexpected},
         nullptr},
    };
    util::GeneralException::defaultSilent = true;
    for (const auto& row : rows) {
        for (const auto& [error, name] : row.errors) {
            const std::string text = std::string(name) + "  in " + row.fault.name;
            if (row.following)
                row.following->calls = 0;
            const support::FaultScope fault(row.fault, error);
            try {
                row.operation();
                ADD_FAILURE() << text;
            } catch (const util::GeneralException& exception) {
                EXPECT_EQ(exception.what(), text);
            }
            if (row.following) {
                EXPECT_EQ(row.following->calls, 0) << text;
            }
        }
    }
    util::GeneralException::defaultSilent = false;
    EXPECT_TRUE(isFree(mutex));
    EXPECT_NO_THROW(cond.signal());
    EXPECT_THROW(Lock(mutex).timedwait(cond, TimeSpec()), util::TimedOutException);
}

TEST(WaitCond, WritesTheFailureOfItsEndAndGoesAllTheSame)
{
    for (const auto& [error, line] : {std::pair(EINVAL, "EINVAL  in pthread_cond_destroy\n"),
                                      std::pair(EBUSY, "Unexpected errno (16)  in pthread_cond_destroy\n")}) {
        testing::internal::CaptureStderr();
        {
            const support::FaultScope fault(pthread_cond_destroyFault, error);
            const WaitCond cond;
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(), line);
    }
}

TEST(WaitCond, TimesOutWithTheMutexHeldAndKeepsNoSignalForALaterWait)
{
    RecursiveMutex mutex;
    WaitCond cond;
    cond.signal();
    cond.broadcast();
    for (const long seconds : {-100L, 0L}) {
        Lock lock(mutex);
        EXPECT_THROW(lock.timedwait(cond, inSeconds(seconds)), util::TimedOutException);
        EXPECT_FALSE(isFree(mutex));
    }
    EXPECT_TRUE(isFree(mutex));
}

TEST(WaitCond, SignalWakesOneAndBroadcastAllWithTheMutexHeldByEachInTurn)
{
    constexpr int threads = 4;
    RecursiveMutex mutex;
    WaitCond cond;
    WaitCond woken;
    int waiting = 0;
    int released = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < threads; ++i)
        waiters.emplace_back([&, timed = i % 2 == 0] {
            Lock lock(mutex);
            ++waiting;
            woken.signal();
            // A monotonic deadline would long have passed on the wall clock.
            while (released == 0)
                timed ? lock.timedwait(cond, inSeconds(3600)) : lock.wait(cond);
            --released;
            --waiting;
            woken.signal();
        });
    {
        Lock lock(mutex);
        while (waiting < threads)
            lock.wait(woken);
        EXPECT_EQ(released, 0);
        released = 1;
        cond.signal();
        while (waiting == threads)
            lock.wait(woken);
        EXPECT_EQ(waiting, threads - 1);
        released = threads - 1;
        cond.broadcast();
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(waiting, 0);
}

TEST(WaitCond, NotificationsTakeNoMemory)
{
    RecursiveMutex mutex;
    WaitCond cond;
    const support::AllocationCount count;
    {
        const Lock lock(mutex);
        cond.signal();
    }
    cond.broadcast();
    EXPECT_EQ(count.allocations(), 0U);
}

} // namespace
