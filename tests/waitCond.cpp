// Recursive mutex, scoped lock and condition.

#include "Quorvil/WaitCond.h"
#include "Quorvil/GeneralException.h"
#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"
#include "tests/support/threadCalls.h"

#include <functional>
#include <gtest/gtest.h>
#include <set>
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
TimeSpec inSeconds(time_t seconds)
{
    TimeSpec until;
    until.initNow(CLOCK_MONOTONIC);
    until += TimeSpec(timespec{seconds, 0});
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
    const support::FaultScope attributesFail(pthread_mutexattr_initFault, ENOMEM);
    const support::FaultScope typeFails(pthread_mutexattr_settypeFault, EINVAL);
    const support::FaultScope initFails(pthread_mutex_initFault, ENOMEM);
    const support::FaultScope attributesEndFails(pthread_mutexattr_destroyFault, EINVAL);
    const support::FaultScope lockFails(pthread_mutex_lockFault, EINVAL);
    const support::FaultScope neverMade(pthread_mutex_destroyFault, 0);
    EXPECT_NO_THROW(RecursiveMutex().lock());
}

TEST(RecursiveMutexDeathTest, ThatCannotBeDestroyedEndsTheProcess)
{
    for (const auto& [error, line] :
         {std::pair(EBUSY, "^FATAL ERROR: EBUSY in pthread_mutex_destroy\n$"),
          std::pair(EINVAL, "^FATAL ERROR: EINVAL in pthread_mutex_destroy\n$"),
          std::pair(EPERM, "^FATAL ERROR: EPERM in pthread_mutex_destroy\n$"), std::pair(EAGAIN, "^FATAL ERROR: \n$")})
        EXPECT_EXIT(
            {
                const support::FaultScope fault(pthread_mutex_destroyFault, error, 0, 1, 1);
                const RecursiveMutex mutex;
            },
            testing::ExitedWithCode(1), line);
}

// ---- condition

TEST(WaitCond, ThrowsTheNameOfEachFailureOrWritesThatOfItsEnd)
{
    RecursiveMutex mutex;
    WaitCond cond;
    const auto make = [] { const WaitCond another; };
    struct
    {
        support::Fault& fault;
        std::function<void()> operation;
        std::set<int> named;
    } const rows[] = {
        {pthread_condattr_initFault, make, {EINVAL, EBUSY, ENOMEM}},
        {pthread_condattr_setclockFault, make, {EINVAL}},
        {pthread_cond_initFault, make, {EINVAL, EBUSY, ENOMEM}},
        {pthread_condattr_destroyFault, make, {EINVAL}},
        {pthread_cond_destroyFault, make, {EINVAL}},
        {pthread_cond_signalFault, [&] { cond.signal(); }, {EINVAL, EPERM}},
        {pthread_cond_broadcastFault, [&] { cond.broadcast(); }, {EINVAL, EPERM}},
        {pthread_cond_waitFault, [&] { Lock(mutex).wait(cond); }, {EINVAL, EPERM}},
        {pthread_cond_timedwaitFault, [&] { Lock(mutex).timedwait(cond, TimeSpec()); }, {EINVAL, EPERM}},
    };
    const std::pair<int, const char*> errors[] = {
        {EINVAL, "EINVAL"}, {EBUSY, "EBUSY"}, {ENOMEM, "ENOMEM"}, {EPERM, "EPERM"}, {EAGAIN, "EAGAIN"}};
    util::GeneralException::defaultSilent = true;
    for (const auto& row : rows) {
        for (const auto& [error, name] : errors) {
            std::string thrown;
            testing::internal::CaptureStderr();
            try {
                const support::FaultScope fault(row.fault, error);
                row.operation();
            } catch (const util::GeneralException& exception) {
                thrown = exception.what();
            }
            const std::string text =
                (row.named.count(error) ? name : "Unexpected errno (" + std::to_string(error) + ")") + "  in " +
                row.fault.name;
            const bool written = &row.fault == &pthread_cond_destroyFault;
            EXPECT_EQ(thrown, written ? "" : text);
            EXPECT_EQ(testing::internal::GetCapturedStderr(), written ? text + "\n" : "");
        }
    }
    util::GeneralException::defaultSilent = false;
    EXPECT_TRUE(isFree(mutex));
}

TEST(WaitCond, TimesOutWithTheMutexHeldAndKeepsNoSignalForALaterWait)
{
    RecursiveMutex mutex;
    WaitCond cond;
    const support::AllocationCount count;
    cond.signal();
    cond.broadcast();
    EXPECT_EQ(count.allocations(), 0U);
    for (const time_t seconds : {-100, 0}) {
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
    WaitCond changed;
    int waiting = 0;
    int released = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < threads; ++i)
        waiters.emplace_back([&, timed = i % 2 == 0] {
            Lock lock(mutex);
            ++waiting;
            changed.signal();
            // A monotonic deadline would long have passed on the wall clock.
            while (released == 0)
                timed ? lock.timedwait(cond, inSeconds(3600)) : lock.wait(cond);
            --released;
            --waiting;
            changed.signal();
        });
    {
        Lock lock(mutex);
        while (waiting < threads)
            lock.wait(changed);
        released = 1;
        cond.signal();
        while (waiting == threads)
            lock.wait(changed);
        EXPECT_EQ(waiting, threads - 1);
        released = threads - 1;
        cond.broadcast();
    }
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(waiting, 0);
}

} // namespace
