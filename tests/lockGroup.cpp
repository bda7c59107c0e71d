// Lock groups, guards and unguards.

#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCalls.h"

#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>

namespace {

using quorvil::InterruptedException;
using quorvil::sync::Guard;
using quorvil::sync::LockGroup;
using quorvil::sync::Unguard;

constexpr int64_t ms = 1'000'000;
constexpr int64_t start = 1'700'000'000'000 * ms;

/// What `body` writes to the console; with a limited buffer for the process if it is told what stands recorded there.
std::string outputOf(const std::function<void()>& body, const char* recorded = nullptr)
{
    if (recorded) {
        util::gl_pTrenvikLimitedBuffer =
            std::make_shared<util::LimitedBuffer>(2048, 1, [](std::ostream&, const char*) {});
        util::LimitedBuffer::setBufferingActive(true);
        util::gl_pTrenvikLimitedBuffer->addf("%s", recorded);
    }
    testing::internal::CaptureStdout();
    body();
    util::gl_pTrenvikLimitedBuffer.reset();
    util::LimitedBuffer::setBufferingActive(false);
    return testing::internal::GetCapturedStdout();
}

std::string printed(const std::string& recorded)
{
    return "\n\n======== LIMITED BUFFER CONTENT ========\n\n" + recorded + "\n==============\n\n";
}

bool isFree(LockGroup& group)
{
    return support::findsFree([&] {
        try {
            const Guard guard(group, "", 1);
        } catch (const std::system_error&) {
            // It is held, and the thread was told to try only.
        }
    });
}

std::string warning(int line, const std::string& measured, const std::string& recorded = "")
{
    return "[WARN Quorvil/QuorvilSyncLockGroup:" + std::to_string(line) + "]    " + measured + "us\n" + recorded + "\n";
}

// ---- guards

TEST(Guard, WarnsOfAWaitAndAHoldThatPassTheirLimitsWithTheLimitedBufferUnderEach)
{
    struct
    {
        const char* file;
        int64_t waited;
        int64_t held;
        std::string output;
    } const rows[] = {
        {"at both limits", 499 * ms, 4 * ms, ""},
        {"a.cpp", 499 * ms + 1, 4 * ms, warning(81, "[a.cpp:1234] lockDuration: 499000")},
        {"", 0, 4 * ms + 1, warning(90, "[:1234] lockedDuration: 4000")},
        {"clock put back", -600 * ms, -600 * ms, ""},
        {"d.cpp", 0, 100'000'000 * ms, warning(90, "[d.cpp:1234] lockedDuration: 100000000000")},
    };
    const support::GroupingEverywhere grouping;
    LockGroup group;
    for (const auto& row : rows) {
        const support::WallClock clock({start, start + row.waited, start + row.waited + row.held});
        EXPECT_EQ(outputOf([&] { const Guard guard(group, row.file, 1234); }), row.output) << row.file;
    }
    const support::WallClock clock({start, start + 600 * ms + 999, start + 605 * ms + 999});
    EXPECT_EQ(outputOf([&] { const Guard guard = group.guard("a.cpp", 7); }, "trace\n"),
              warning(81, "[a.cpp:7] lockDuration: 600000", printed("trace\n")) +
                  warning(90, "[a.cpp:7] lockedDuration: 5000", printed("trace\n")));
}

TEST(Guard, MoveExchangesGroupsAndTimesAndLeavesThePlaces)
{
    static_assert(std::is_nothrow_move_constructible_v<Guard> && std::is_nothrow_move_assignable_v<Guard>);
    LockGroup a;
    LockGroup b;
    const support::WallClock clock(
        {start, start + 500 * ms, start + 502 * ms, start + 502 * ms, start + 504 * ms, start + 508 * ms});
    EXPECT_EQ(outputOf([&] {
                  std::optional<Guard> first(std::in_place, a, "first", 1);
                  *first = Guard(b, "second", 2);
                  EXPECT_TRUE(isFree(a));
                  const Guard moved(std::move(*first));
                  first.reset();
                  EXPECT_FALSE(isFree(b));
              }),
              warning(81, "[second:2] lockDuration: 500000") + warning(90, "[:0] lockedDuration: 6000"));
    EXPECT_TRUE(isFree(b));
}

TEST(Guard, ThatCannotBeMadeLeavesTheGroupAlone)
{
    LockGroup group;
    EXPECT_THROW(Guard(group, nullptr, 1), std::logic_error);
    {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        EXPECT_THROW(Guard(group, "a.cpp", 1), std::system_error);
    }
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, WaitFailsByTheStandardsExceptionAndWithoutTheGroupIfItCannotLockAgain)
{
    LockGroup group;
    const support::FaultScope wakesAtOnce(pthread_cond_waitFault, 0);
    std::optional<Guard> guard(std::in_place, group, "a.cpp", 1);
    EXPECT_NO_THROW(guard->wait());
    {
        const support::FaultScope conditionFails(pthread_mutex_lockFault, EINVAL);
        EXPECT_THROW(guard->wait(), std::system_error);
    }
    EXPECT_FALSE(isFree(group));
    if (support::threadSanitized)
        return; // it reports the unlock of a mutex that is not held
    const support::FaultScope groupFails(pthread_mutex_lockFault, EAGAIN, 0, 2, 1);
    EXPECT_THROW(guard->wait(), std::system_error);
    EXPECT_TRUE(isFree(group));
    guard.reset();
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, InterruptEndsEveryWaitAndLaterOnesOnceTheyAreWokenWithTheGroupHeld)
{
    LockGroup group;
    int interrupted = 0;
    const auto wait = [&] {
        Guard guard(group, "waiter", 1);
        try {
            for (;;)
                guard.wait();
        } catch (const InterruptedException&) {
            EXPECT_FALSE(isFree(group));
            ++interrupted;
        }
    };
    for (const auto wake : {&Guard::interrupt, &Guard::notifyAll}) {
        pthread_cond_waitFault.calls = 0;
        std::thread waiters[] = {std::thread(wait), std::thread(wait), std::thread(wait)};
        support::awaitCalls(pthread_cond_waitFault, 3);
        {
            Guard guard(group, "main", 1);
            EXPECT_EQ(guard.isInterrupted(), wake == &Guard::notifyAll);
            EXPECT_EQ(std::exchange(interrupted, 0), 0);
            (guard.*wake)();
        }
        for (std::thread& waiter : waiters)
            waiter.join();
        EXPECT_EQ(std::exchange(interrupted, 0), 3);
    }
}

TEST(Unguard, LetsOthersInUntilTheLastOwnerOfTheDutyEnds)
{
    static_assert(std::is_nothrow_move_constructible_v<Unguard> && !std::is_move_assignable_v<Unguard>);
    LockGroup group;
    const Guard guard(group, "a.cpp", 1);
    {
        std::optional<Unguard> first(group.unguard(nullptr, 0));
        EXPECT_TRUE(isFree(group));
        const Unguard second(std::move(*first));
        first.reset();
        EXPECT_TRUE(isFree(group));
    }
    EXPECT_FALSE(isFree(group));
}

// ---- explicit locks

TEST(LockGroup, LocksAndUnlocksWithATraceEach)
{
    LockGroup& group = quorvil::sync::gl_trenvikLockGroup;
    const std::string output = outputOf(
        [&] {
            EXPECT_TRUE(group.lock("a.cpp", 1));
            EXPECT_TRUE(group.lock("b.cpp", 2));
            group.unlock("c.cpp", 3);
            EXPECT_FALSE(isFree(group));
            group.unlock("d.cpp", 4);
            EXPECT_TRUE(isFree(group));
            std::cout << *util::gl_pTrenvikLimitedBuffer;
        },
        "");
    EXPECT_EQ(output, printed("[a.cpp:1] LOCK\n[b.cpp:2] LOCK\n[c.cpp:3] UNLOCK\n[d.cpp:4] UNLOCK\n"));
}

TEST(LockGroup, GivesUpAfterASecondWithoutATraceAndIsNotUnlockedByAThreadWithoutIt)
{
    const support::GroupingEverywhere grouping;
    LockGroup group;
    const Guard guard(group, "a.cpp", 1);
    const auto use = [&] {
        const auto before = std::chrono::steady_clock::now();
        EXPECT_FALSE(group.lock("b.cpp", 2345));
        EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
        util::gl_pTrenvikLimitedBuffer.reset();
        const support::FaultScope timesOut(pthread_mutex_clocklockFault, ETIMEDOUT);
        EXPECT_FALSE(group.lock("c.cpp", 1));
        if (!support::threadSanitized) // it reports the unlock of a mutex that is not held
            group.unlock("c.cpp", 2);
    };
    EXPECT_EQ(outputOf([&] { std::thread(use).join(); }, "recorded\n"),
              "LockGroup::lock failed in b.cpp:2345 for 1sec!\n" + printed("recorded\n") +
                  "LockGroup::lock failed in c.cpp:1 for 1sec!\n");
    EXPECT_FALSE(isFree(group));
}

TEST(LockGroup, KeepsThreadsApartWhicheverWayTheyLock)
{
    const int rounds = 250'000 * support::stressFactor();
    LockGroup group;
    int count = 0;
    const auto use = [&](bool byGuard) {
        for (int i = 0; i < rounds; ++i) {
            std::optional<Guard> guard;
            if (byGuard)
                guard.emplace(group, "stress", 1);
            while (!byGuard && !group.lock("stress", 2)) { // a machine that is busy enough
            }
            ++count;
            if (!byGuard)
                group.unlock("stress", 3);
        }
    };
    // A thread that is not scheduled for long warns, rightly.
    outputOf([&] {
        std::thread threads[] = {std::thread(use, true), std::thread(use, false), std::thread(use, true),
                                 std::thread(use, false)};
        for (std::thread& thread : threads)
            thread.join();
    });
    EXPECT_EQ(count, 4 * rounds);
}

TEST(LockGroup, UncontendedTakesNoMemoryAndMakesNoSystemCall)
{
    LockGroup group;
    const auto useAll = [&] {
        Guard guard(group, "Quorvil/Short", 1);
        group.lock("Quorvil/Short", 2);
        group.unlock("Quorvil/Short", 3);
        const Unguard unguard(group, "", 4);
    };
    const auto measure = [&] {
        useAll();
        const support::AllocationCount count;
        useAll();
        EXPECT_EQ(count.allocations(), 0U);
        EXPECT_TRUE(support::systemCallsHidden() || support::systemCallsOf(useAll).empty());
    };
    const support::WallClock clock({start});
    EXPECT_EQ(outputOf(measure, ""), "");
}

TEST(LockGroupDeathTest, MisuseFailsItsAssertionAndAnUnguardThatCannotLockAgainEndsTheProcess)
{
    const auto at = [](const char* line, const char* expression, const char* function) {
        return support::assertion("Quorvil/QuorvilSyncLockGroup", function, expression, line);
    };
    const char* const lock = "void quorvil::sync::LockGroup::lock(const char*, int)";
    const char* const unlock = "void quorvil::sync::LockGroup::unlock(const char*, int)";
    LockGroup group;
    EXPECT_DEATH(group.lock(nullptr, 1), at("136", "file", lock));
    EXPECT_DEATH(group.lock("", 0), at("137", "line > 0", lock));
    EXPECT_DEATH(group.unlock(nullptr, 1), at("150", "file", unlock));
    EXPECT_DEATH(group.unlock("", 0), at("151", "line > 0", unlock));

    Guard guard(group, "a.cpp", 1);
    const Guard moved(std::move(guard));
    EXPECT_DEATH(guard.wait(), at("[0-9]+", "group", "void quorvil::sync::Guard::wait()"));
    EXPECT_DEATH(guard.notifyAll(), at("[0-9]+", "group", "void quorvil::sync::Guard::notifyAll()"));
    EXPECT_DEATH(guard.interrupt(), at("[0-9]+", "group", "void quorvil::sync::Guard::interrupt()"));
    EXPECT_DEATH(guard.isInterrupted(), at("[0-9]+", "group", "bool quorvil::sync::Guard::isInterrupted()"));

    const auto failToLockAgain = [&] {
        std::optional<Unguard> unguard(std::in_place, group, "", 1);
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        unguard.reset();
    };
    EXPECT_EXIT(failToLockAgain(), testing::KilledBySignal(SIGABRT), "terminate called");
}

} // namespace
