// The counting semaphore, above all its end under waiters.

#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/GeneralException.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/environment.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCalls.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using util::CountingSemaphore;
using util::CountingSemaphoreDeletingException;
using util::TimedOutException;
using util::TimeSpec;

/// A deadline, `seconds` from now on the wall clock.
TimeSpec inSeconds(long seconds)
{
    TimeSpec until;
    until.initNow(CLOCK_REALTIME);
    until += TimeSpec(timespec{static_cast<time_t>(seconds), 0});
    return until;
}

/// How a wait ended.
enum class End
{
    counted,
    deleted,
    timedOut
};

enum class Wait
{
    untimed,
    untilLater,
    untilPast
};

End endOf(CountingSemaphore& semaphore, Wait wait)
{
    try {
        if (wait == Wait::untimed)
            semaphore.wait();
        else
            semaphore.timedwait(inSeconds(wait == Wait::untilLater ? 3600 : -1));
        return End::counted;
    } catch (const CountingSemaphoreDeletingException&) {
        return End::deleted;
    } catch (const TimedOutException&) {
        return End::timedOut;
    }
}

// ---- counts

TEST(CountingSemaphore, HandsOutItsCountsAndNoMore)
{
    CountingSemaphore semaphore(2);
    EXPECT_TRUE(semaphore.tryDown());
    EXPECT_TRUE(semaphore.tryDown());
    EXPECT_FALSE(semaphore.tryDown());
    EXPECT_EQ(semaphore.getValue(), 0);
    semaphore.post();
    semaphore.post();
    EXPECT_EQ(semaphore.getValue(), 2);
    EXPECT_EQ(endOf(semaphore, Wait::untimed), End::counted);
    EXPECT_EQ(endOf(semaphore, Wait::untilPast), End::counted);
    EXPECT_EQ(endOf(semaphore, Wait::untilPast), End::timedOut);
    EXPECT_EQ(semaphore.getValue(), 0);
    EXPECT_EQ(CountingSemaphore(std::numeric_limits<int>::max()).getValue(), std::numeric_limits<int>::max());
}

TEST(CountingSemaphore, HandsEveryCountFromProducersToConsumers)
{
    const int rounds = 250'000 * support::stressFactor();
    CountingSemaphore semaphore(0);
    std::atomic<int> balance{0};
    std::vector<std::thread> threads;
    for (const Wait wait : {Wait::untimed, Wait::untilLater}) {
        threads.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                ++balance;
                semaphore.post();
            }
        });
        threads.emplace_back([&, wait] {
            for (int i = 0; i < rounds; ++i) {
                EXPECT_EQ(endOf(semaphore, wait), End::counted);
                EXPECT_GE(--balance, 0);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(semaphore.tryDown());
}

TEST(CountingSemaphore, UncontendedTakesNoMemoryAndMakesNoSystemCall)
{
    CountingSemaphore semaphore(0);
    const TimeSpec until = inSeconds(3600);
    const auto useAll = [&] {
        for (int i = 0; i < 3; ++i)
            semaphore.post();
        semaphore.wait();
        semaphore.timedwait(until);
        semaphore.tryDown();
        semaphore.tryDown();
        semaphore.getValue();
    };
    useAll();
    const support::AllocationCount count;
    useAll();
    EXPECT_EQ(count.allocations(), 0U);
    if (!support::systemCallsHidden()) {
        EXPECT_EQ(support::systemCallsOf(useAll), std::vector<int>());
    }
}

// ---- failures

TEST(CountingSemaphore, NamesTheFailuresOfATimedWaitAndOfATryAndStaysUsable)
{
    CountingSemaphore semaphore(0);
    const auto wait = [&] { semaphore.timedwait(inSeconds(3600)); };
    const auto tryDown = [&] { semaphore.tryDown(); };
    const std::string inWait = " in sem_wait of CountingSemaphore::wait";
    const std::string inTry = " in sem_trywait in CountingSemaphore::tryDown";
    struct
    {
        support::Fault& fault;
        std::function<void()> operation;
        int error;
        std::string text;
    } const rows[] = {
        {sem_timedwaitFault, wait, EDEADLK, "EDEADLK" + inWait},
        {sem_timedwaitFault, wait, EINTR, "EINTR" + inWait},
        {sem_timedwaitFault, wait, EINVAL, "EINVAL" + inWait},
        {sem_timedwaitFault, wait, EPERM, "Unexpected errno (1)" + inWait},
        {sem_trywaitFault, tryDown, EDEADLK, "EDEADLK" + inTry},
        {sem_trywaitFault, tryDown, EINTR, "EINTR" + inTry},
        {sem_trywaitFault, tryDown, EINVAL, "EINVVAL" + inTry},
        {sem_trywaitFault, tryDown, EPERM, "Unexpected errno (1)" + inTry},
    };
    util::GeneralException::defaultSilent = true;
    for (const auto& row : rows) {
        const support::FaultScope fault(row.fault, -1, row.error);
        try {
            row.operation();
            ADD_FAILURE() << row.text;
        } catch (const util::GeneralException& exception) {
            EXPECT_EQ(exception.what(), row.text);
        }
    }
    util::GeneralException::defaultSilent = false;
    EXPECT_FALSE(semaphore.tryDown());
    semaphore.post();
    EXPECT_EQ(endOf(semaphore, Wait::untilLater), End::counted);
    // The end posts for nobody, so that nobody is counted as a waiter still.
    sem_postFault.calls = 0;
    {
        CountingSemaphore another(0);
        EXPECT_EQ(endOf(another, Wait::untilPast), End::timedOut);
    }
    EXPECT_EQ(sem_postFault.calls, 0);
}

void ignoreSignal(int) {}

TEST(CountingSemaphore, ASignalEndsATimedWaitAndNotAnUntimedOne)
{
    struct sigaction action = {};
    struct sigaction before = {};
    action.sa_handler = ignoreSignal; // without SA_RESTART
    sigaction(SIGUSR1, &action, &before);
    util::GeneralException::defaultSilent = true;
    CountingSemaphore semaphore(0);

    std::atomic<bool> ended{false};
    std::thread timed([&] {
        EXPECT_THROW(semaphore.timedwait(inSeconds(3600)), util::GeneralException);
        ended = true;
    });
    while (!ended) {
        pthread_kill(timed.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    timed.join();

    sem_waitFault.calls = 0;
    std::thread untimed([&] { semaphore.wait(); });
    while (sem_waitFault.calls < 3) {
        pthread_kill(untimed.native_handle(), SIGUSR1);
        std::this_thread::yield();
    }
    semaphore.post();
    untimed.join();
    EXPECT_EQ(semaphore.getValue(), 0);
    util::GeneralException::defaultSilent = false;
    sigaction(SIGUSR1, &before, nullptr);
}

TEST(CountingSemaphore, ACancelledWaiterHoldsNoDestructorUp)
{
    if (support::threadSanitized)
        GTEST_SKIP() << "the thread sanitizer does not follow a cancelled thread out of a semaphore call";
    auto semaphore = std::make_unique<CountingSemaphore>(0);
    sem_waitFault.calls = 0;
    pthread_t thread{};
    const auto body = [](void* waitedFor) -> void* {
        static_cast<CountingSemaphore*>(waitedFor)->wait();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, body, semaphore.get()), 0);
    support::awaitCalls(sem_waitFault, 1);
    pthread_cancel(thread);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    semaphore.reset();
}

TEST(CountingSemaphoreDeathTest, AFailureThatMustNotBeIsReportedAndEndsTheProcess)
{
    const auto report = [](const char* function, int line, const char* error) {
        return "^" + support::literal(function) + " failed in Quorvil/CountingSemaphore:" + std::to_string(line) +
               " - " + support::literal(error) + "\n.*linuxFuncResult != -1";
    };
    const char* const invalid = "(22) Invalid argument";
    const char* const end = "virtual util::CountingSemaphore::~CountingSemaphore()";
    CountingSemaphore semaphore(0);
    CountingSemaphore full(std::numeric_limits<int>::max());
    EXPECT_DEATH(CountingSemaphore(-1), report("util::CountingSemaphore::CountingSemaphore(int)", 32, invalid));
    EXPECT_DEATH(full.post(),
                 report("void util::CountingSemaphore::post()", 230, "(75) Value too large for defined data type"));
    EXPECT_DEATH(
        {
            const support::FaultScope fault(sem_waitFault, -1, EINVAL);
            semaphore.wait();
        },
        report("void util::CountingSemaphore::doWait(const util::TimeSpec*)", 147, invalid));
    EXPECT_DEATH(
        {
            const support::FaultScope fault(sem_getvalueFault, -1, EINVAL);
            semaphore.getValue();
        },
        report("int util::CountingSemaphore::getValue()", 251, invalid));
    EXPECT_DEATH(
        {
            const support::FaultScope fault(sem_destroyFault, -1, EINVAL);
            const CountingSemaphore another(0);
        },
        report(end, 78, invalid));
    EXPECT_DEATH(
        {
            auto* const waitedFor = new CountingSemaphore(0);
            sem_waitFault.calls = 0;
            std::thread waiter([&] { endOf(*waitedFor, Wait::untimed); });
            support::awaitCalls(sem_waitFault, 1);
            const support::FaultScope fault(sem_postFault, -1, EINVAL);
            delete waitedFor;
        },
        report(end, 59, invalid));
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
    EXPECT_EXIT(finished->timedwait(TimeSpec()), aborts, "Illegal state CS_DELETED in CountingSemaphore::wait\n");
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
    Place place;
    Wait wait;
    End end = End::counted;
    support::Gate enters;
    support::Gate mayEnter;
    support::Gate leaves;
    support::Gate mayLeave;
    std::thread thread;
};

thread_local Waiter* self = nullptr;

/// Lets each waiter stop at its place, in the semaphore call that it makes.
class Stops
{
public:
    explicit Stops(support::Fault& call)
        : hooks(
              call,
              [] {
                  if (!self)
                      return;
                  self->enters.open();
                  self->mayEnter.await();
              },
              [] {
                  if (!self)
                      return;
                  self->leaves.open();
                  self->mayLeave.await();
              })
    {
    }

private:
    support::HookScope hooks;
};

/// Brings the waiters to their places, destroys the semaphore, and lets them go, the first one first.
void destroyUnder(std::vector<std::unique_ptr<Waiter>> waiters)
{
    const Stops untimed(sem_waitFault);
    const Stops timed(sem_timedwaitFault);
    support::Gate destructorWaits;
    const support::HookScope finished(pthread_cond_waitFault, [&] { destructorWaits.open(); });
    auto* const semaphore = new CountingSemaphore(0);

    for (auto& waiter : waiters) {
        Waiter& w = *waiter;
        if (w.place != Place::beforeCall)
            w.mayEnter.open();
        if (w.place == Place::inCall)
            w.mayLeave.open();
        w.thread = std::thread([&w, semaphore] {
            self = &w;
            w.end = endOf(*semaphore, w.wait);
        });
        w.enters.await();
        if (w.place == Place::behindCall) {
            if (w.wait != Wait::untilPast)
                semaphore->post();
            w.leaves.await();
        }
    }
    sem_postFault.calls = 0;
    support::Gate destroyed;
    std::thread destructor([&] {
        delete semaphore;
        destroyed.open();
    });
    const auto held = [](const auto& waiter) { return waiter->place != Place::inCall; };
    if (std::any_of(waiters.begin(), waiters.end(), held)) {
        destructorWaits.await();
        EXPECT_THROW(semaphore->post(), CountingSemaphoreDeletingException);
        EXPECT_EQ(endOf(*semaphore, Wait::untimed), End::deleted);
        EXPECT_EQ(endOf(*semaphore, Wait::untilPast), End::deleted);
    }
    for (auto& waiter : waiters) {
        EXPECT_FALSE(destroyed.opened() && held(waiter));
        waiter->mayEnter.open();
        waiter->mayLeave.open();
        waiter->thread.join();
        EXPECT_EQ(waiter->end, End::deleted);
    }
    destructor.join();
    EXPECT_EQ(sem_postFault.calls, static_cast<int>(waiters.size()));
}

TEST(CountingSemaphore, IsDestroyedUnderWaitersWhereverTheyStand)
{
    // Those that need a count of their own come to their places first, so that nobody else takes it.
    constexpr std::array kinds = {
        std::pair(Place::behindCall, Wait::untimed),    std::pair(Place::behindCall, Wait::untilLater),
        std::pair(Place::behindCall, Wait::untilPast),  std::pair(Place::inCall, Wait::untimed),
        std::pair(Place::inCall, Wait::untilLater),     std::pair(Place::beforeCall, Wait::untimed),
        std::pair(Place::beforeCall, Wait::untilLater), std::pair(Place::beforeCall, Wait::untilPast),
    };
    for (size_t number = 0; number <= 3; ++number) {
        std::vector<size_t> chosen(number, 0);
        for (bool more = true; more;) {
            std::vector<std::unique_ptr<Waiter>> waiters;
            for (const size_t kind : chosen)
                waiters.emplace_back(new Waiter{kinds[kind].first, kinds[kind].second, {}, {}, {}, {}, {}, {}});
            destroyUnder(std::move(waiters));
            // The next choice in which no kind comes before an earlier one.
            size_t last = number;
            while (last > 0 && chosen[last - 1] == kinds.size() - 1)
                --last;
            more = last > 0;
            if (more)
                std::fill(chosen.begin() + static_cast<ptrdiff_t>(last) - 1, chosen.end(), chosen[last - 1] + 1);
        }
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
                if (endOf(*current, (round + i) % 2 == 0 ? Wait::untimed : Wait::untilLater) == End::counted)
                    ++counted;
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
