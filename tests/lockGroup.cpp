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
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace {

using quorvil::InterruptedException;
using quorvil::sync::Guard;
using quorvil::sync::LockGroup;
using quorvil::sync::Unguard;

constexpr int64_t ms = 1'000'000;
constexpr int64_t start = 1'700'000'000'000 * ms;

template <typename Body>
std::string outputOf(Body body)
{
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
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

/// A limited buffer for the process, with its recording switched on.
class InstalledBuffer
{
public:
    InstalledBuffer()
    {
        util::gl_pTrenvikLimitedBuffer =
            std::make_shared<util::LimitedBuffer>(2048, 1, [](std::ostream&, const char*) {});
        util::LimitedBuffer::setBufferingActive(true);
    }
    ~InstalledBuffer()
    {
        util::gl_pTrenvikLimitedBuffer.reset();
        util::LimitedBuffer::setBufferingActive(false);
    }
    InstalledBuffer(const InstalledBuffer&) = delete;
    InstalledBuffer& operator=(const InstalledBuffer&) = delete;

    static std::string print(const std::string& content)
    {
        return "\n\n======== LIMITED BUFFER CONTENT ========\n\n" + content + "\n==============\n\n";
    }
};

std::string waitWarning(const std::string& measured, const std::string& recorded = "")
{
    return "[WARN Quorvil/QuorvilSyncLockGroup:81]    " + measured + "us\n" + recorded + "\n";
}

std::string holdWarning(const std::string& measured, const std::string& recorded = "")
{
    return "[WARN Quorvil/QuorvilSyncLockGroup:90]    " + measured + "us\n" + recorded + "\n";
}

// ---- warnings

TEST(Guard, WarnsOfAWaitAndAHoldThatPassTheirLimits)
{
    struct
    {
        const char* file;
        int64_t waited;
        int64_t held;
        std::string output;
    } const rows[] = {
        {"at both limits", 499 * ms, 4 * ms, ""},
        {"a.cpp", 499 * ms + 1, 4 * ms, waitWarning("[a.cpp:1234] lockDuration: 499000")},
        {"", 0, 4 * ms + 1, holdWarning("[:1234] lockedDuration: 4000")},
        {"b.cpp", 600 * ms + 999, 5 * ms,
         waitWarning("[b.cpp:1234] lockDuration: 600000") + holdWarning("[b.cpp:1234] lockedDuration: 5000")},
        {"c.cpp", 400 * ms, 3 * ms, ""},
        {"clock put back", -600 * ms, -600 * ms, ""},
        {"d.cpp", 0, 100'000'000 * ms, holdWarning("[d.cpp:1234] lockedDuration: 100000000000")},
    };
    const support::GroupingEverywhere grouping;
    LockGroup group;
    for (const auto& row : rows) {
        const support::WallClock clock({start, start + row.waited, start + row.waited + row.held});
        EXPECT_EQ(outputOf([&] { const Guard guard(group, row.file, 1234); }), row.output) << row.file;
    }
}

TEST(Guard, PutsTheLimitedBufferUnderEachWarning)
{
    const InstalledBuffer buffer;
    util::gl_pTrenvikLimitedBuffer->addf("trace\n");
    LockGroup group;
    const support::WallClock clock({start, start + 500 * ms, start + 600 * ms});
    EXPECT_EQ(outputOf([&] { const Guard guard = group.guard("a.cpp", 7); }),
              waitWarning("[a.cpp:7] lockDuration: 500000", InstalledBuffer::print("trace\n")) +
                  holdWarning("[a.cpp:7] lockedDuration: 100000", InstalledBuffer::print("trace\n")));
}

TEST(Guard, MeasuresItsOwnWaitAndHoldWhenNested)
{
    LockGroup group;
    const support::WallClock clock(
        {start, start + 500 * ms, start + 502 * ms, start + 502 * ms, start + 503 * ms, start + 505 * ms});
    EXPECT_EQ(outputOf([&] {
                  const Guard outer(group, "outer", 1);
                  const Guard inner(group, "inner", 2);
              }),
              waitWarning("[outer:1] lockDuration: 500000") + holdWarning("[outer:1] lockedDuration: 5000"));
}

// ---- guards

TEST(Guard, MovedIntoANewOneTakesGroupAndTimesAlongAndLeavesTheSourcePlace)
{
    static_assert(std::is_nothrow_move_constructible_v<Guard> && std::is_nothrow_move_assignable_v<Guard>);
    static_assert(std::is_nothrow_move_constructible_v<Unguard> && !std::is_move_assignable_v<Unguard>);
    LockGroup group;
    const support::WallClock clock({start, start + 500 * ms, start + 501 * ms});
    EXPECT_EQ(outputOf([&] {
                  std::optional<Guard> first(std::in_place, group, "a.cpp", 7);
                  const Guard second(std::move(*first));
                  first.reset();
                  EXPECT_FALSE(isFree(group));
              }),
              waitWarning("[:0] lockDuration: 500000"));
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, AssignmentExchangesGroupsAndTimesAndLeavesTheSourcePlaces)
{
    LockGroup a;
    LockGroup b;
    const support::WallClock clock({start, start + 500 * ms, start + 500 * ms});
    EXPECT_EQ(outputOf([&] {
                  Guard first(a, "first", 1);
                  {
                      Guard second(b, "second", 2);
                      first = std::move(second);
                  }
                  EXPECT_TRUE(isFree(a));
                  EXPECT_FALSE(isFree(b));
              }),
              waitWarning("[second:2] lockDuration: 500000"));
    EXPECT_TRUE(isFree(b));
}

TEST(Guard, ThatCannotBeMadeLeavesTheGroupAlone)
{
    LockGroup group;
    pthread_mutex_lockFault.calls = 0;
    EXPECT_THROW(Guard(group, nullptr, 1), std::logic_error);
    EXPECT_EQ(pthread_mutex_lockFault.calls, 0);
    {
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
        try {
            const Guard guard(group, "a.cpp", 1);
            FAIL();
        } catch (const std::system_error& error) {
            EXPECT_EQ(error.code().value(), EAGAIN);
        }
    }
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, WaitGivesOneLevelUpAndReturnsWithItTaken)
{
    LockGroup group;
    int turn = 0;
    std::thread other;
    {
        Guard guard(group, "a.cpp", 1);
        other = std::thread([&] {
            Guard others(group, "b.cpp", 2);
            turn = 1;
            others.notifyAll();
        });
        while (turn == 0)
            guard.wait();
        EXPECT_FALSE(isFree(group));
        turn = 2;
    }
    other.join();
    EXPECT_EQ(turn, 2);
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, WaitMayReturnUnnotifiedAndFailsByTheStandardsException)
{
    LockGroup group;
    {
        Guard guard(group, "a.cpp", 1);
        {
            const support::FaultScope wakesAtOnce(pthread_cond_waitFault, 0);
            EXPECT_NO_THROW(guard.wait());
        }
        const support::FaultScope conditionFails(pthread_mutex_lockFault, EINVAL);
        EXPECT_THROW(guard.wait(), std::system_error);
        pthread_mutex_lockFault.times = 0;
        EXPECT_FALSE(isFree(group));
    }
    EXPECT_TRUE(isFree(group));
}

/// Waits in its destructor, where the failure of taking the lock again cannot become an exception.
struct WaitsWhileUnwinding
{
    ~WaitsWhileUnwinding()
    {
        guard.wait();
    }
    Guard& guard;
};

TEST(Guard, ThatCouldNotLockAgainEndsWithoutTheGroup)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer reports the unlock of a mutex that is not held";
    LockGroup group;
    const support::FaultScope wakesAtOnce(pthread_cond_waitFault, 0);
    {
        Guard guard(group, "a.cpp", 1);
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, 2, 1);
        EXPECT_THROW(guard.wait(), std::system_error);
        EXPECT_TRUE(isFree(group));
    }
    {
        Guard guard(group, "a.cpp", 1);
        const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, 2, 1);
        try {
            const WaitsWhileUnwinding waits{guard};
            throw 1;
        } catch (int) {
            EXPECT_TRUE(isFree(group));
        }
    }
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, InterruptEndsEveryWaitOneAfterTheOtherWithTheGroupHeld)
{
    LockGroup group;
    support::Gate waiting;
    int inside = 0;
    int interrupted = 0;
    std::vector<std::thread> waiters;
    for (int i = 0; i < 3; ++i)
        waiters.emplace_back([&] {
            Guard guard(group, "waiter", 1);
            EXPECT_FALSE(guard.isInterrupted());
            waiting.open();
            try {
                for (;;)
                    guard.wait();
            } catch (const InterruptedException&) {
                EXPECT_EQ(++inside, 1);
                ++interrupted;
                --inside;
            }
        });
    waiting.await(3);
    Guard(group, "main", 1).interrupt();
    for (std::thread& waiter : waiters)
        waiter.join();
    EXPECT_EQ(interrupted, 3);
    EXPECT_TRUE(Guard(group, "main", 1).isInterrupted());
}

TEST(Guard, WaitOfAnInterruptedGroupThrowsOnlyOnceItIsWoken)
{
    LockGroup group;
    Guard(group, "main", 1).interrupt();
    support::Gate waiting;
    bool thrown = false;
    std::thread waiter([&] {
        Guard guard(group, "waiter", 1);
        waiting.open();
        try {
            guard.wait();
        } catch (const InterruptedException&) {
            thrown = true;
        }
    });
    waiting.await();
    {
        // The group is free again only because the waiter sleeps.
        Guard guard(group, "main", 1);
        EXPECT_FALSE(thrown);
        guard.notifyAll();
    }
    waiter.join();
    EXPECT_TRUE(thrown);
}

// ---- unguards

TEST(Unguard, LetsOthersInUntilTheLastOwnerOfTheDutyEnds)
{
    LockGroup group;
    const Guard guard(group, "a.cpp", 1);
    {
        std::optional<Unguard> first(std::in_place, group, "a.cpp", 2);
        EXPECT_TRUE(isFree(group));
        const Unguard second(std::move(*first));
        first.reset();
        EXPECT_TRUE(isFree(group));
    }
    EXPECT_FALSE(isFree(group));
    {
        const Unguard unguard = group.unguard(nullptr, 0);
        EXPECT_TRUE(isFree(group));
    }
    EXPECT_FALSE(isFree(group));
}

// ---- explicit locks

TEST(LockGroup, LocksAndUnlocksWithATraceEach)
{
    const InstalledBuffer buffer;
    LockGroup group;
    EXPECT_TRUE(group.lock("a.cpp", 1));
    EXPECT_TRUE(group.lock("b.cpp", 2));
    group.unlock("c.cpp", 3);
    EXPECT_FALSE(isFree(group));
    group.unlock("d.cpp", 4);
    EXPECT_TRUE(isFree(group));
    EXPECT_EQ(outputOf([] { std::cout << *util::gl_pTrenvikLimitedBuffer; }),
              InstalledBuffer::print("[a.cpp:1] LOCK\n[b.cpp:2] LOCK\n[c.cpp:3] UNLOCK\n[d.cpp:4] UNLOCK\n"));
}

TEST(LockGroup, GivesUpAfterASecondWithoutATrace)
{
    const support::GroupingEverywhere grouping;
    const InstalledBuffer buffer;
    util::gl_pTrenvikLimitedBuffer->addf("recorded\n");
    LockGroup group;
    const Guard guard(group, "a.cpp", 1);
    const std::string output = outputOf([&] {
        std::thread([&] {
            const auto before = std::chrono::steady_clock::now();
            EXPECT_FALSE(group.lock("b.cpp", 2345));
            EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::seconds(1));
            util::gl_pTrenvikLimitedBuffer.reset();
            const support::FaultScope timesOut(pthread_mutex_clocklockFault, ETIMEDOUT);
            EXPECT_FALSE(group.lock("c.cpp", 1));
        }).join();
    });
    EXPECT_EQ(output, "LockGroup::lock failed in b.cpp:2345 for 1sec!\n" + InstalledBuffer::print("recorded\n") +
                          "LockGroup::lock failed in c.cpp:1 for 1sec!\n");
}

TEST(LockGroup, UnlockByAThreadWithoutTheLockChangesNothing)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer reports the unlock of a mutex that is not held";
    LockGroup group;
    const Guard guard(group, "a.cpp", 1);
    std::thread([&] { group.unlock("b.cpp", 2); }).join();
    EXPECT_FALSE(isFree(group));
}

TEST(LockGroup, OffersOneForCommonUse)
{
    EXPECT_TRUE(isFree(quorvil::sync::gl_trenvikLockGroup));
}

TEST(LockGroup, KeepsThreadsApartWhicheverWayTheyLock)
{
    const int rounds = 250'000 * support::stressFactor();
    LockGroup group;
    int count = 0;
    std::vector<std::thread> threads;
    for (const bool byGuard : {true, false, true, false})
        threads.emplace_back([&, byGuard] {
            for (int i = 0; i < rounds; ++i) {
                if (byGuard) {
                    const Guard guard(group, "stress", 1);
                    ++count;
                } else if (group.lock("stress", 2)) {
                    ++count;
                    group.unlock("stress", 3);
                } else {
                    --i; // a machine that is busy enough
                }
            }
        });
    testing::internal::CaptureStdout(); // a thread that is not scheduled for long warns, rightly
    for (std::thread& thread : threads)
        thread.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(count, 4 * rounds);
}

TEST(LockGroup, UncontendedTakesNoMemoryAndMakesNoSystemCall)
{
    const InstalledBuffer buffer;
    LockGroup group;
    const auto useAll = [&] {
        Guard guard(group, "Quorvil/Short", 1);
        group.lock("Quorvil/Short", 2);
        group.unlock("Quorvil/Short", 3);
        const Unguard unguard(group, "", 4);
    };
    const support::WallClock clock({start});
    useAll();
    const support::AllocationCount count;
    useAll();
    EXPECT_EQ(count.allocations(), 0U);
    if (!support::systemCallsHidden()) {
        EXPECT_EQ(support::systemCallsOf(useAll), std::vector<int>());
    }
}

// ---- misuse

TEST(LockGroupDeathTest, MisuseFailsItsAssertion)
{
    const auto at = [](int line, const char* expression, const char* function) {
        return "QuorvilSyncLockGroup:" + std::to_string(line) + ": " +
               support::literal(std::string(function) + ": Assertion `" + expression + "' failed.");
    };
    const char* const lock = "void quorvil::sync::LockGroup::lock(const char*, int)";
    const char* const unlock = "void quorvil::sync::LockGroup::unlock(const char*, int)";
    LockGroup group;
    EXPECT_DEATH(group.lock(nullptr, 1), at(136, "file", lock));
    EXPECT_DEATH(group.lock("", 0), at(137, "line > 0", lock));
    EXPECT_DEATH(group.unlock(nullptr, 1), at(150, "file", unlock));
    EXPECT_DEATH(group.unlock("", 0), at(151, "line > 0", unlock));
}

TEST(GuardDeathTest, MovedFromIsOfNoUse)
{
    LockGroup group;
    Guard guard(group, "a.cpp", 1);
    const Guard moved(std::move(guard));
    const std::string source = "Quorvil/QuorvilSyncLockGroup";
    EXPECT_DEATH(guard.wait(), support::assertion(source, "void quorvil::sync::Guard::wait()", "group"));
    EXPECT_DEATH(guard.notifyAll(), support::assertion(source, "void quorvil::sync::Guard::notifyAll()", "group"));
    EXPECT_DEATH(guard.interrupt(), support::assertion(source, "void quorvil::sync::Guard::interrupt()", "group"));
    EXPECT_DEATH(guard.isInterrupted(),
                 support::assertion(source, "bool quorvil::sync::Guard::isInterrupted()", "group"));
}

TEST(UnguardDeathTest, ThatCannotLockAgainEndsTheProcess)
{
    LockGroup group;
    const Guard guard(group, "a.cpp", 1);
    EXPECT_EXIT(
        {
            std::optional<Unguard> unguard(std::in_place, group, "", 1);
            const support::FaultScope fault(pthread_mutex_lockFault, EAGAIN);
            unguard.reset();
        },
        testing::KilledBySignal(SIGABRT), "terminate called");
}

} // namespace
