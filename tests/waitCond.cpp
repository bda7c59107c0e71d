// Recursive mutex, scoped lock and condition.

#include "Quorvil/WaitCond.h"
#include "Quorvil/GeneralException.h"
#include "tests/support/allocationCount.h"
#include "tests/support/threadCalls.h"

#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <thread>
#include <utility>

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

TEST(WaitCond, WakesTimedAndUntimedWaitsWithTheMutexHeldByEachInTurn)
{
    RecursiveMutex mutex;
    WaitCond cond;
    bool released = false;
    int woken = 0;
    const auto wait = [&](const std::function<void(Lock&)>& waitOnce) {
        Lock lock(mutex);
        while (!released)
            waitOnce(lock);
        EXPECT_FALSE(isFree(mutex));
        ++woken;
    };
    pthread_cond_waitFault.calls = 0;
    pthread_cond_timedwaitFault.calls = 0;
    std::thread untimed(wait, [&](Lock& lock) { lock.wait(cond); });
    // A monotonic deadline would long have passed on the wall clock.
    std::thread timed(wait, [&](Lock& lock) { lock.timedwait(cond, inSeconds(3600)); });
    support::awaitCalls(pthread_cond_waitFault, 1);
    support::awaitCalls(pthread_cond_timedwaitFault, 1);
    {
        const Lock lock(mutex);
        released = true;
        cond.broadcast();
    }
    untimed.join();
    timed.join();
    EXPECT_EQ(woken, 2);
}

} // namespace
