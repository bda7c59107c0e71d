// The counting semaphore, above all its end under waiters.

#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/GeneralException.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCalls.h"

#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <list>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using util::CountingSemaphore;
using util::CountingSemaphoreDeletingException;
using util::TimedOutException;
using util::TimeSpec;

constexpr int maximum = std::numeric_limits<int>::max();

/// A deadline, `seconds` from now on the wall clock.
TimeSpec inSeconds(time_t seconds)
{
    TimeSpec until;
    until.initNow(CLOCK_REALTIME);
    until += TimeSpec(timespec{seconds, 0});
    return until;
}

// The deadlines of waits.
const TimeSpec* const none = nullptr;
const TimeSpec past = inSeconds(-1);
const TimeSpec later = inSeconds(3600);

std::string endOf(CountingSemaphore& semaphore, const TimeSpec* until)
{
    try {
        until ? semaphore.timedwait(*until) : semaphore.wait();
        return "counted";
    } catch (const CountingSemaphoreDeletingException&) {
        return "deleted";
    } catch (const TimedOutException&) {
        return "timed out";
    }
}

// ---- counts and failures

TEST(CountingSemaphore, HandsOutItsCountsAndNoMore)
{
    CountingSemaphore semaphore(2);
    EXPECT_TRUE(semaphore.tryDown());
    EXPECT_EQ(semaphore.getValue(), 1);
    semaphore.post();
    EXPECT_EQ(endOf(semaphore, none), "counted");
    EXPECT_EQ(endOf(semaphore, &past), "counted");
    EXPECT_EQ(endOf(semaphore, &past), "timed out");
    EXPECT_FALSE(semaphore.tryDown());
    EXPECT_EQ(semaphore.getValue(), 0);
    EXPECT_EQ(CountingSemaphore(maximum).getValue(), maximum);
}

TEST(CountingSemaphore, UncontendedTakesNoMemoryAndMakesNoSystemCall)
{
    CountingSemaphore semaphore(0);
    const auto useAll = [&] {
        semaphore.post();
        semaphore.wait();
        semaphore.post();
        semaphore.timedwait(later);
        semaphore.tryDown();
        semaphore.getValue();
    };
    useAll();
    const support::AllocationCount count;
    useAll();
    EXPECT_EQ(count.allocations(), 0U);
    EXPECT_TRUE(support::systemCallsHidden() || support::systemCallsOf(useAll).empty());
}

TEST(CountingSemaphore, NamesTheFailuresOfATimedWaitAndOfATryAndStaysUsable)
{
    CountingSemaphore semaphore(0);
    const std::pair<int, std::string> errors[] = {
        {EDEADLK, "EDEADLK"}, {EINTR, "EINTR"}, {EINVAL, "EINVAL"}, {EPERM, "Unexpected errno (1)"}};
    util::GeneralException::defaultSilent = true;
    const auto textOf = [](support::Fault& failing, int error, const std::function<void()>& operation) -> std::string {
        const support::FaultScope fault(failing, -1, error);
        try {
            operation();
        } catch (const util::GeneralException& exception) {
            return exception.what();
        }
        return "";
    };
    for (const auto& [error, name] : errors) {
        EXPECT_EQ(textOf(sem_timedwaitFault, error, [&] { semaphore.timedwait(later); }),
                  name + " in sem_wait of CountingSemaphore::wait");
        EXPECT_EQ(textOf(sem_trywaitFault, error, [&] { semaphore.tryDown(); }),
                  (error == EINVAL ? "EINVVAL" : name) + " in sem_trywait in CountingSemaphore::tryDown");
    }
    util::GeneralException::defaultSilent = false;
    semaphore.post();
    const support::FaultScope signalled(sem_waitFault, -1, EINTR, 1, 2);
    EXPECT_EQ(endOf(semaphore, none), "counted");
}

TEST(CountingSemaphore, ACancelledWaiterHoldsNoDestructorUp)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer does not follow a cancelled thread out of a semaphore call";
    CountingSemaphore semaphore(0);
    sem_waitFault.calls = 0;
    pthread_t thread{};
    const auto body = [](void* waitedFor) -> void* {
        static_cast<CountingSemaphore*>(waitedFor)->wait();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, &semaphore), 0);
    support::awaitCalls(sem_waitFault, 1);
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
}

TEST(CountingSemaphoreDeathTest, AFailureThatMustNotBeIsReportedAndEndsTheProcess)
{
    const auto report = [](const char* function, int line, const char* error = "(22) Invalid argument") {
        return "^" + support::literal(function) + " failed in Quorvil/CountingSemaphore:" + std::to_string(line) +
               " - " + support::literal(error) + "\n.*linuxFuncResult != -1";
    };
    const auto underFault = [](support::Fault& failing, const auto& operation) {
        const support::FaultScope fault(failing, -1, EINVAL);
        operation();
    };
    const char* const end = "virtual util::CountingSemaphore::~CountingSemaphore()";
    CountingSemaphore semaphore(0);
    CountingSemaphore full(maximum);
    EXPECT_DEATH(CountingSemaphore(-1), report("util::CountingSemaphore::CountingSemaphore(int)", 32));
    EXPECT_DEATH(full.post(),
                 report("void util::CountingSemaphore::post()", 230, "(75) Value too large for defined data type"));
    EXPECT_DEATH(underFault(sem_waitFault, [&] { semaphore.wait(); }),
                 report("void util::CountingSemaphore::doWait(const util::TimeSpec*)", 147));
    EXPECT_DEATH(underFault(sem_getvalueFault, [&] { semaphore.getValue(); }),
                 report("int util::CountingSemaphore::getValue()", 251));
    EXPECT_DEATH(underFault(sem_destroyFault, [] { CountingSemaphore(0); }), report(end, 78));
    const auto destroyUnderAWaiter = [] {
        auto* const waitedFor = new CountingSemaphore(0);
        sem_waitFault.calls = 0;
        const std::thread waiter([&] { endOf(*waitedFor, none); });
        support::awaitCalls(sem_waitFault, 1);
        delete waitedFor;
    };
    EXPECT_DEATH(underFault(sem_postFault, destroyUnderAWaiter), report(end, 59));
}

TEST(CountingSemaphoreDeathTest, ACallOfAFinishedSemaphoreAborts)
{
    if (support::sanitized && !support::threadSanitized)
        GTEST_SKIP() << "the sanitizer marks what is left of an ended object";
    alignas(CountingSemaphore) unsigned char storage[sizeof(CountingSemaphore)];
    auto* const finished = new (storage) CountingSemaphore(1);
    finished->~CountingSemaphore();
    const auto aborts = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(finished->wait(), aborts, "Illegal state CS_DELETED in CountingSemaphore::wait\n");
    EXPECT_EXIT(finished->post(), aborts, "Illegal state CS_DELETED in CountingSemaphore::post\n");
}

// ---- the end under waiters

/// Where a waiter stands when the destructor begins.
enum class Place
{
    beforeCall, ///< counted, but not yet in the semaphore call
    inCall,     ///< on its way into the call, or blocked there
    behindCall  ///< out of the call, with a count or a timeout, and not yet counted out
};

struct Waiter
{
    const Place place;
    const TimeSpec* const until;
    std::string end;
    support::Gate enters;
    support::Gate leaves;
    support::Gate mayGo;
    std::thread thread;
};

thread_local Waiter* self = nullptr;

void stopAt(Place place, support::Gate Waiter::* reached)
{
    if (!self)
        return;
    (self->*reached).open();
    if (self->place == place)
        self->mayGo.await();
}

/// Brings the waiters to their places, destroys the semaphore, and lets them go, the first one first.
void destroyUnder(std::list<Waiter>& waiters)
{
    const auto stopBefore = [] { stopAt(Place::beforeCall, &Waiter::enters); };
    const auto stopBehind = [] { stopAt(Place::behindCall, &Waiter::leaves); };
    const support::HookScope untimed(sem_waitFault, stopBefore, stopBehind);
    const support::HookScope timed(sem_timedwaitFault, stopBefore, stopBehind);
    support::Gate destructorWaits;
    const support::HookScope finished(pthread_cond_waitFault, [&] { destructorWaits.open(); });
    auto* const semaphore = new CountingSemaphore(0);
    bool anyHeld = false;
    for (Waiter& waiter : waiters) {
        waiter.thread = std::thread([&waiter, semaphore] {
            self = &waiter;
            waiter.end = endOf(*semaphore, waiter.until);
        });
        waiter.enters.await();
        if (waiter.place == Place::behindCall) {
            if (waiter.until != &past)
                semaphore->post();
            waiter.leaves.await();
        }
        anyHeld = anyHeld || waiter.place != Place::inCall;
    }
    sem_postFault.calls = 0;
    std::optional<support::FaultScope> wakesAtOnce;
    if (anyHeld)
        wakesAtOnce.emplace(pthread_cond_waitFault, 0, 0, 1, 1);
    std::atomic<bool> destroyed{false};
    std::thread destructor([&] {
        delete semaphore;
        destroyed = true;
    });
    if (anyHeld) {
        destructorWaits.await();
        EXPECT_THROW(semaphore->post(), CountingSemaphoreDeletingException);
        EXPECT_EQ(endOf(*semaphore, none), "deleted");
        EXPECT_EQ(endOf(*semaphore, &past), "deleted");
    }
    for (Waiter& waiter : waiters) {
        EXPECT_FALSE(destroyed && waiter.place != Place::inCall);
        waiter.mayGo.open();
        waiter.thread.join();
        EXPECT_EQ(waiter.end, "deleted");
    }
    destructor.join();
    EXPECT_EQ(sem_postFault.calls, static_cast<int>(waiters.size()));
}

TEST(CountingSemaphore, IsDestroyedUnderUpToThreeWaitersWhereverTheyStand)
{
    using enum Place;
    // Those that need a count of their own come to their places first, so that nobody else takes it.
    const std::vector<std::pair<Place, const TimeSpec*>> kinds = {
        {behindCall, none}, {behindCall, &later}, {behindCall, &past},  {inCall, none},
        {inCall, &later},   {beforeCall, none},   {beforeCall, &later}, {beforeCall, &past},
    };
    // The number behind the last kind stands for no waiter.
    for (size_t a = 0; a <= kinds.size(); ++a)
        for (size_t b = a; b <= kinds.size(); ++b)
            for (size_t c = b; c <= kinds.size(); ++c) {
                std::list<Waiter> waiters;
                for (const size_t kind : {a, b, c})
                    if (kind < kinds.size())
                        waiters.emplace_back(kinds[kind].first, kinds[kind].second);
                destroyUnder(waiters);
            }
}

TEST(CountingSemaphore, IsDestroyedUnderManyWaitersThousandsOfTimes)
{
    constexpr int threads = 4;
    const int rounds = 3000 * support::stressFactor();
    support::Gate started;
    support::Gate arrived;
    support::Gate left;
    const support::HookScope untimed(sem_waitFault, [&] { arrived.open(); });
    const support::HookScope timed(sem_timedwaitFault, [&] { arrived.open(); });
    std::atomic<CountingSemaphore*> current{nullptr};
    std::atomic<int> counted{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < threads; ++i)
        waiters.emplace_back([&, i] {
            for (int round = 1; round <= rounds; ++round) {
                started.await(round);
                counted += endOf(*current, (round + i) % 2 == 0 ? none : &later) == "counted";
                left.open();
            }
        });
    for (int round = 1; round <= rounds; ++round) {
        const int posted = round % (threads + 1);
        counted = 0;
        current = new CountingSemaphore(0);
        started.open();
        arrived.await(round * threads);
        for (int i = 0; i < posted; ++i)
            current.load()->post();
        delete current;
        left.await(round * threads);
        EXPECT_LE(counted, posted);
    }
    for (std::thread& waiter : waiters)
        waiter.join();
}

} // namespace
