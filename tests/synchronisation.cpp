// Locks, lists, conditions, semaphores and gates: what they promise, and what happens where the system says no.

#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/GeneralException.h"
#include "Quorvil/InitCondVar.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilSync2Intern.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "Quorvil/WaitCond.h"
#include "tests/support/allocationCount.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCreation.h"

#include <climits>
#include <map>
#include <optional>
#include <tuple>

SUPPORT_INTERPOSE(int, pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex), noexcept)
SUPPORT_INTERPOSE(int, pthread_condattr_init, (pthread_condattr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_condattr_setclock, (pthread_condattr_t * attr, clockid_t clock), (attr, clock), noexcept)
SUPPORT_INTERPOSE(int, pthread_condattr_destroy, (pthread_condattr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_init, (pthread_cond_t * cond, const pthread_condattr_t* a), (cond, a), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_destroy, (pthread_cond_t * cond), (cond), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * cond), (cond), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_timedwait, (pthread_cond_t * cond, pthread_mutex_t* mutex, const timespec* until),
                  (cond, mutex, until), )
SUPPORT_INTERPOSE(int, sem_destroy, (sem_t * semaphore), (semaphore), noexcept)
SUPPORT_INTERPOSE(int, sem_wait, (sem_t * semaphore), (semaphore), )
SUPPORT_INTERPOSE(int, sem_timedwait, (sem_t * semaphore, const timespec* until), (semaphore, until), )
SUPPORT_INTERPOSE(int, sem_trywait, (sem_t * semaphore), (semaphore), noexcept)
SUPPORT_INTERPOSE(int, sem_post, (sem_t * semaphore), (semaphore), noexcept)
/// Where the last `sem_getvalue` was to store the value.
static int* askedValue = nullptr;
SUPPORT_INTERPOSE(int, sem_getvalue, (sem_t * semaphore, int* value), (semaphore, askedValue = value), noexcept)

using namespace quorvil::sync;
using namespace quorvil::sync2::intern;
using namespace std::chrono_literals;
using namespace util;
using std::chrono::nanoseconds;
using support::FaultScope;
using support::Gate;
using support::HookScope;

/// What the wall clock shows in turn; it stands still at the last one.
static std::vector<nanoseconds> readings = {0ns};

std::chrono::system_clock::time_point std::chrono::system_clock::now() noexcept
{
    const nanoseconds reading = readings.front();
    if (readings.size() > 1)
        readings.erase(readings.begin());
    return time_point(reading);
}

namespace {

/// Whether nobody holds the mutex of the object, which stands first in it, behind its virtual functions.
template <typename Object>
bool isFree(Object& object)
{
    void* const mutex = reinterpret_cast<char*>(&object) + (std::is_polymorphic_v<Object> ? sizeof(void*) : 0);
    bool free = false;
    std::thread([&, native = static_cast<pthread_mutex_t*>(mutex)] {
        free = pthread_mutex_trylock(native) == 0 && pthread_mutex_unlock(native) == 0;
    }).join();
    return free;
}

template <typename Body>
std::string outputOf(Body body)
{
    testing::internal::CaptureStdout();
    body();
    return testing::internal::GetCapturedStdout();
}

void installLimitedBuffer()
{
    gl_pTrenvikLimitedBuffer = std::make_shared<LimitedBuffer>(2048, 1, [](std::ostream&, const char*) {});
    LimitedBuffer::setBufferingActive(true);
}

// ---- lock groups

TEST(Guard, WarnsOfAWaitAndAHoldBeyondTheirLimitsWithTheLimitedBufferUnderEach)
{
    const std::string warn = "[WARN Quorvil/QuorvilSyncLockGroup:";
    const std::tuple<const char*, nanoseconds, nanoseconds, std::string, std::string> rows[] = {
        {"both at their limits", 499ms, 4ms, "", ""},
        {"a.cpp", 499ms + 1ns, 4ms, warn + "81]    [a.cpp:1234] lockDuration: 499000us\n", ""},
        {"", 0ms, 4ms + 1ns, "", warn + "90]    [:1234] lockedDuration: 4000us\n"},
        {"clock put back", -600ms, -600ms, "", ""},
        {"b", 600ms + 999ns, 30h, warn + "81]    [b:1234] lockDuration: 600000us\n",
         warn + "90]    [b:1234] lockedDuration: 108000000000us\n"}};
    const support::GroupingEverywhere grouping;
    LockGroup group;
    for (const std::string buffer : {"", "\n\n======== LIMITED BUFFER CONTENT ========\n\n\n==============\n\n"}) {
        for (const auto& [file, waited, held, wait, hold] : rows) {
            const auto below = [&](const std::string& line) { return line.empty() ? "" : line + buffer + "\n"; };
            readings = {0ms, waited, waited + held};
            EXPECT_EQ(outputOf([&, name = file] { const Guard guard = group.guard(name, 1234); }),
                      below(wait) + below(hold));
        }
        installLimitedBuffer();
    }
    gl_pTrenvikLimitedBuffer.reset();
    static_assert(std::is_nothrow_destructible_v<Guard>); // what its output throws ends the process
}

TEST(Guard, InterruptEndsEveryWaitAndLaterOnesOnceTheyAreWokenWithTheGroupHeld)
{
    LockGroup group;
    int interrupted = 0;
    for (const auto wake : {&Guard::interrupt, &Guard::notifyAll}) {
        pthread_cond_waitFault.calls = 0;
        std::vector<std::jthread> waiters(2);
        for (std::jthread& waiter : waiters)
            waiter = std::jthread([&] {
                Guard guard(group, "waiter", 1);
                EXPECT_THROW(guard.wait(), quorvil::InterruptedException);
                EXPECT_FALSE(isFree(group));
                ++interrupted;
            });
        support::awaitCalls(pthread_cond_waitFault, 2);
        Guard guard(group, "main", 1);
        EXPECT_EQ(guard.isInterrupted(), wake == &Guard::notifyAll);
        EXPECT_EQ(interrupted, wake == &Guard::notifyAll ? 2 : 0);
        (guard.*wake)();
    }
    EXPECT_EQ(interrupted, 4);
}

TEST(LockGroup, LocksAndUnlocksWithATraceEachAndGivesUpAfterASecondWithALine)
{
    const support::GroupingEverywhere grouping;
    LockGroup& group = gl_trenvikLockGroup;
    const auto before = std::chrono::steady_clock::now();
    const auto failToLock = [&] {
        EXPECT_FALSE(group.lock("b.cpp", 2345));
        gl_pTrenvikLimitedBuffer.reset();
        if (!support::threadSanitized) // it reports the unlock of a mutex that is not held
            group.unlock("", 2);
    };
    installLimitedBuffer();
    EXPECT_TRUE(group.lock("a.cpp", 1) && group.lock("b.cpp", 2));
    group.unlock("c.cpp", 3);
    EXPECT_EQ(outputOf([&] { std::thread(failToLock).join(); }),
              "LockGroup::lock failed in b.cpp:2345 for 1sec!\n\n\n======== LIMITED BUFFER CONTENT ========\n\n"
              "[a.cpp:1] LOCK\n[b.cpp:2] LOCK\n[c.cpp:3] UNLOCK\n\n==============\n\n");
    EXPECT_GE(std::chrono::steady_clock::now() - before, 1s);
    for (const bool given : {true, false}) {
        EXPECT_FALSE(isFree(group));
        std::optional<Unguard> unguard = given ? std::optional<Unguard>(group.unguard("", 0)) : std::nullopt;
        const std::optional<Unguard> moved(std::move(unguard));
        EXPECT_EQ(isFree(group), given);
    }
    group.unlock("d.cpp", 4);
    EXPECT_TRUE(isFree(group));
}

// ---- lists

/// Remembers what came home; refuses what is already there.
struct RecordingPool : Pool
{
    void takeBack(Guard& guard, Element* element) override
    {
        if (!home.emplace(element, &guard).second)
            throw std::runtime_error("refused");
    }

    using Home = std::map<Element*, Guard*>;
    Home home;
};

struct Synchronisation : testing::Test
{
    LockGroup group;
    Guard guard{group, "a.cpp", 1};
    Guard nested{group, "a.cpp", 2};
    RecordingPool pool;
    Element elements[7] = {&pool, &pool, &pool, &pool};
    Fifo list;
    RecursiveMutex mutex;
    WaitCond cond;
};

TEST_F(Synchronisation, AnyRunOfAListMovesToAnyPlaceOfAnotherListAndOfItsOwn)
{
    // The run from `first` up to `last` of a list of `size` elements moves to `place` of a list of the other elements.
    const auto moveAndCompare = [&](size_t size, size_t first, size_t last, size_t place, bool toItself) {
        Fifo lists[2];
        std::string models[] = {std::string("abcdefg").substr(0, size), std::string("abcdefg").substr(size)};
        for (size_t i = 0; i < 7; ++i)
            lists[i >= size].pushBack(&elements[i]);
        const auto behind = [&](char previous) { return previous ? &elements[previous - 'a'] : nullptr; };
        const auto before = [](const std::string& model, size_t i) { return i ? model[i - 1] : char{}; };
        std::string& to = models[!toItself];
        lists[0].moveRange(behind(before(models[0], first)), behind(models[0][last - 1]), lists[!toItself],
                           behind(before(to, place)));
        const std::string run = models[0].substr(first, last - first);
        to.insert(place, run);
        models[0].erase(toItself && place <= first ? last : first, run.size());
        for (const bool i : {false, true}) {
            // An element put behind the rest shows that the tail is where it should be.
            Element tail;
            lists[i].pushBack(&tail);
            for (const char name : models[i])
                EXPECT_EQ(lists[i].popFront(), &elements[name - 'a']) << size << first << last << place << toItself;
            EXPECT_EQ(lists[i].popFront(), &tail);
        }
    };
    for (size_t size = 1; size <= 7; ++size)
        for (size_t first = 0; first < size; ++first)
            for (size_t last = first + 1; last <= size; ++last)
                for (size_t place = 0; place <= 7; ++place) {
                    if (place <= 7 - size)
                        moveAndCompare(size, first, last, place, false);
                    if (place <= first || (place > last && place <= size))
                        moveAndCompare(size, first, last, place, true);
                }
}

TEST_F(Synchronisation, PoolsGetTheirElementsInOrderButTheOneThatIsRefused)
{
    for (Element* const element : {&elements[0], &elements[1], &elements[2]})
        list.pushBack(element);
    elements[1].goBackToPool(nested);
    EXPECT_THROW(list.allBackToPools(guard), std::runtime_error);
    {
        PoolAccess first(guard, &elements[3]);
        PoolAccess second(nested, list.popFront());
        PoolAccess moved(std::move(first));
        second = std::move(moved);
        EXPECT_TRUE(!first.get() && moved.release() == &elements[2]);
    }
    EXPECT_EQ(pool.home,
              (RecordingPool::Home{{&elements[0], &guard}, {&elements[1], &nested}, {&elements[3], &nested}}));
}

// ---- failures

TEST_F(Synchronisation, MisuseAndFailedCallsHaveTheirTexts)
{
    list.pushBack(&elements[0]);
    list.pushBack(&elements[1]);
    CountingSemaphore none(0);
    CountingSemaphore full(SEM_VALUE_MAX);
    alignas(CountingSemaphore) unsigned char storage[sizeof(CountingSemaphore)];
    auto* const finished = new (storage) CountingSemaphore(1);
    finished->~CountingSemaphore();
    const auto destroyUnderAWaiter = [&] {
        sem_waitFault.calls = 0;
        std::thread([&] { none.wait(); }).detach();
        support::awaitCalls(sem_waitFault, 1);
        none.~CountingSemaphore();
    };
    const auto failToLockAgain = [&] {
        const Unguard unguard(group, "", 1);
        pthread_mutex_lockFault.fail(EAGAIN);
    };
    const auto failToLockBehindTheWakeUp = [] {
        LockGroup own;
        pthread_cond_waitFault.fail(0, 0, 1, 1);
        try {
            Guard user(own, "", 1);
            pthread_mutex_lockFault.fail(EAGAIN, 0, 2, 1); // behind the condition's
            user.wait();
        } catch (const std::system_error&) {
            std::cerr << (isFree(own) ? "free, " : "held, ");
        }
    };
    Fifo broken;
    Fifo().moveRange(nullptr, &elements[4], broken, nullptr); // which was not there
    const auto make = [] { WaitCond(); };
    const auto makeMutex = [] { RecursiveMutex(); };
    const auto failed = [](const std::string& at, const std::string& function, const std::string& expression) {
        return "Quorvil/QuorvilSync" + at + ": void quorvil::" + function + ": Assertion `" + expression + "' failed";
    };
    const auto reported = [](const std::string& before, const std::string& function, const std::string& line) {
        return before + "util::CountingSemaphore::" + function + " failed in Quorvil/CountingSemaphore:" + line;
    };
    const std::string lock = "sync::LockGroup::lock(const char*, int)";
    const std::string unlock = "sync::LockGroup::unlock(const char*, int)";
    const std::string e = "quorvil::sync2::intern::Element*";
    const std::string push = "sync2::intern::Fifo::pushBack(" + e + ")";
    const std::string move =
        "sync2::intern::Fifo::moveRange(" + e + ", " + e + ", quorvil::sync2::intern::Fifo&, " + e + ")";
    const std::string home = "sync2::intern::Element::goBackToPool(quorvil::sync::Guard&)";
    const std::string all = "sync2::intern::Fifo::allBackToPools(quorvil::sync::Guard&)";
    support::expectOutcomes({
        {failed("LockGroup:136", lock, "file"), [&] { group.lock(nullptr, 1); }},
        {failed("LockGroup:137", lock, "line > 0"), [&] { group.lock("", 0); }},
        {failed("LockGroup:150", unlock, "file"), [&] { group.unlock(nullptr, 1); }},
        {failed("LockGroup:151", unlock, "line > 0"), [&] { group.unlock("", 0); }},
        {failed("2Intern:66", push, "!e->next"), [&] { list.pushBack(&elements[0]); }},
        {failed("2Intern:74", push, "dbgInvariant()"), [&] { broken.pushBack(&elements[5]); }},
        {failed("2Intern:110", all, "dbgInvariant()"), [&] { broken.allBackToPools(guard); }},
        {failed("2Intern:182", move, "dbgInvariant()"),
         [&] { Fifo().moveRange(&elements[5], &elements[6], broken, nullptr); }},
        {failed("2Intern:119", move, "fromUntilThis"), [&] { list.moveRange(nullptr, nullptr, list, nullptr); }},
        {failed("2Intern:187", home, "pool"), [&] { elements[5].goBackToPool(guard); }},
        {"terminate called", [&] { const PoolAccess twice[] = {{guard, &elements[0]}, {guard, &elements[0]}}; }},
        {"terminate called", failToLockAgain},
        {"free, exit 0", failToLockBehindTheWakeUp},
        {"null", [&] { Guard(group, nullptr, 1); }},
        {"Invalid cross-device linkexit 0", [&] { Guard(group, "", 1); }, &pthread_mutex_lockFault},
        {"Invalid cross-device linkexit 0", [&] { guard.wait(); }, &pthread_mutex_lockFault},
        {"FATAL ERROR: % in pthread_mutex_destroy\nexit 1", makeMutex, &pthread_mutex_destroyFault,
         "EBUSY EINVAL EPERM only"},
        {"FATAL ERROR: \nexit 1", makeMutex, &pthread_mutex_destroyFault},
        {"%  in pthread_condattr_initexit 0", make, &pthread_condattr_initFault, "EINVAL EBUSY ENOMEM"},
        {"%  in pthread_condattr_setclockexit 0", make, &pthread_condattr_setclockFault, "EINVAL"},
        {"%  in pthread_cond_initexit 0", make, &pthread_cond_initFault, "EINVAL EBUSY ENOMEM"},
        {"%  in pthread_condattr_destroyexit 0", make, &pthread_condattr_destroyFault, "EINVAL"},
        {"%  in pthread_cond_destroy\nexit 0", make, &pthread_cond_destroyFault, "EINVAL"},
        {"%  in pthread_cond_signal", [&] { cond.signal(); }, &pthread_cond_signalFault, "EINVAL EPERM"},
        {"%  in pthread_cond_broadcast", [&] { cond.broadcast(); }, &pthread_cond_broadcastFault, "EINVAL EPERM"},
        {"%  in pthread_cond_wait", [&] { cond.wait(mutex); }, &pthread_cond_waitFault, "EINVAL EPERM"},
        {"%  in pthread_cond_timedwait", [&] { cond.timedwait(mutex, {}); }, &pthread_cond_timedwaitFault,
         "EINVAL EPERM"},
        {"% in sem_wait of CountingSemaphore::wait", [&] { none.timedwait({}); }, &sem_timedwaitFault,
         "EDEADLK EINTR EINVAL"},
        {"% in sem_trywait in CountingSemaphore::tryDown", [&] { none.tryDown(); }, &sem_trywaitFault, "EDEADLK EINTR"},
        {"EINVVAL in sem_trywait in CountingSemaphore::tryDown",
         [&] {
             sem_trywaitFault.fail(-1, EINVAL);
             none.tryDown();
         }},
        {reported("", "CountingSemaphore(int)", "32 - (22)"), [] { CountingSemaphore(-1); }},
        {reported("virtual ", "~CountingSemaphore()", "59 - (18)"), destroyUnderAWaiter, &sem_postFault},
        {reported("virtual ", "~CountingSemaphore()", "78 - (18)"), [] { CountingSemaphore(0); }, &sem_destroyFault},
        {reported("void ", "doWait(const util::TimeSpec*)", "147 - (18)"), [&] { none.wait(); }, &sem_waitFault},
        {reported("void ", "post()", "230 - (75)"), [&] { full.post(); }},
        {reported("int ", "getValue()", "251 - (18)"), [&] { none.getValue(); }, &sem_getvalueFault},
    });
    if (!support::sanitized || support::threadSanitized) // which marks what is left of an ended object
        support::expectOutcomes({
            {"Illegal state CS_DELETED in CountingSemaphore::wait\nkilled by 6", [&] { finished->wait(); }},
            {"Illegal state CS_DELETED in CountingSemaphore::post\nkilled by 6", [&] { finished->post(); }},
        });
}

TEST(WaitCond, ThatFailsToBeMadeMakesNoFurtherCall)
{
    for (support::Fault* fault :
         {&pthread_condattr_initFault, &pthread_condattr_setclockFault, &pthread_cond_initFault}) {
        const FaultScope scope(*fault, ENOMEM);
        pthread_condattr_destroyFault.calls = 0;
        EXPECT_THROW(WaitCond(), GeneralException);
        EXPECT_EQ(pthread_condattr_destroyFault.calls, 0);
    }
}

// ---- conditions, semaphores and gates

TEST_F(Synchronisation, ACondWakesTimedAndUntimedWaitsWithTheMutexHeldAndKeepsNoSignal)
{
    TimeSpec inAnHour; // on the wall clock it has long passed
    inAnHour.initNow(CLOCK_MONOTONIC);
    inAnHour += TimeSpec(timespec{3600, 0});
    bool released = false;
    pthread_cond_timedwaitFault.calls = 0;
    cond.signal();
    const auto wait = [&] {
        Lock lock(mutex);
        EXPECT_THROW(lock.timedwait(cond, {}), TimedOutException);
        while (!released)
            lock.timedwait(cond, inAnHour);
        EXPECT_FALSE(isFree(mutex));
    };
    std::thread first(wait);
    std::thread second(wait);
    support::awaitCalls(pthread_cond_timedwaitFault, 4);
    {
        const Lock outer(mutex);
        const Lock inner(mutex);
        released = true;
        cond.broadcast();
    }
    first.join();
    second.join();
    EXPECT_TRUE(isFree(mutex));
}

const TimeSpec* const none = nullptr;
const TimeSpec past(timespec{1, 0});
const TimeSpec later(timespec{INT_MAX, 0});

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

TEST(CountingSemaphore, EndsBehindWaitersThatAreHeldUpBeforeOrBehindTheirCall)
{
    static thread_local int steps = 0; // of a waiter until it is held up: lock, call, lock
    Gate heldUp;
    Gate goOn;
    Gate destructorWaits;
    const auto step = [&] {
        if (steps > 0 && --steps == 0) {
            heldUp.open();
            goOn.await();
        }
    };
    const HookScope atLock(pthread_mutex_lockFault, step);
    const HookScope atWait(sem_waitFault, step);
    const HookScope atTimedWait(sem_timedwaitFault, step);
    const HookScope atEnd(pthread_cond_waitFault, [&] { destructorWaits.open(); });
    auto* const semaphore = new CountingSemaphore(1);
    std::vector<std::jthread> waiters;
    // The first one has got the count, the second one is behind its deadline.
    for (const auto& [lastStep, until] :
         {std::pair(3, none), std::pair(3, &past), std::pair(2, none), std::pair(2, &later)}) {
        waiters.emplace_back([&, last = lastStep, deadline = until] {
            steps = last;
            EXPECT_EQ(endOf(*semaphore, deadline), "deleted");
        });
        heldUp.await(static_cast<int>(waiters.size()));
    }
    sem_postFault.calls = 0;
    const FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 1);
    std::atomic<bool> destroyed{false};
    waiters.emplace_back([&] {
        delete semaphore;
        destroyed = true;
    });
    destructorWaits.await(2);
    EXPECT_THROW(semaphore->post(), CountingSemaphoreDeletingException);
    EXPECT_EQ(endOf(*semaphore, &past), "deleted");
    EXPECT_TRUE(!destroyed && sem_postFault.calls == 4);
    goOn.open();
    waiters.clear();
}

TEST(CountingSemaphore, CountsOutAWaiterThatIsCancelled)
{
    CountingSemaphore semaphore(0); // its destructor waits for those that are counted
    sem_waitFault.calls = 0;
    std::thread waiter([&] { semaphore.wait(); });
    support::awaitCalls(sem_waitFault, 1);
    pthread_cancel(waiter.native_handle());
    waiter.join();
}

TEST(CountingSemaphore, IsDestroyedUnderManyWaitersThousandsOfTimes)
{
    for (int round = 0; round < 2000 * support::stressFactor(); ++round) {
        std::optional<CountingSemaphore> semaphore(std::in_place, 0);
        std::atomic<int> counted{0};
        std::vector<std::jthread> waiters;
        sem_waitFault.calls = 0;
        sem_timedwaitFault.calls = 0;
        for (const TimeSpec* const until : {none, none, &later, &past})
            waiters.emplace_back([&, until] { counted += endOf(*semaphore, until) == "counted"; });
        support::awaitCalls(sem_waitFault, 2);
        support::awaitCalls(sem_timedwaitFault, 2);
        for (int i = 0; i < round % 5; ++i)
            semaphore->post();
        semaphore.reset();
        waiters.clear();
        EXPECT_LE(counted, round % 5);
    }
}

TEST_F(Synchronisation, WithoutContentionTakesNoMemoryAndMakesNoSystemCall)
{
    LockGroup own;
    CountingSemaphore semaphore(0);
    bool exact = true;
    const auto useAll = [&] {
        Guard user = own.guard("Quorvil/Short", 1);
        exact = exact && own.lock("", 2) && !user.isInterrupted();
        own.unlock("", 3);
        user.notifyAll();
        Unguard(own, "", 4);
        cond.signal();
        cond.broadcast();
        semaphore.post();
        semaphore.wait();
        semaphore.post();
        semaphore.timedwait(past);
        semaphore.post();
        exact = exact && semaphore.getValue() == 1 && semaphore.tryDown() && !semaphore.tryDown();
        elements[0].setPool(nullptr);
        list.pushBack(&elements[0]);
        list.moveRange(nullptr, &elements[0], list, nullptr);
        PoolAccess access(guard, list.popFront());
        access = PoolAccess(guard, access.release());
        exact = exact && list.dbgInvariant() && !access.get()->getNext() && !access.release()->getPool();
    };
    useAll();
    const support::AllocationCount count;
    useAll();
    EXPECT_TRUE(exact && count.allocations() == 0);
    EXPECT_TRUE(support::systemCallsHidden() || support::systemCallsOf(useAll).empty());
    EXPECT_EQ(endOf(semaphore, &past), "timed out");
    semaphore.post();
    const FaultScope signalled(sem_waitFault, -1, EINTR, 1, 2);
    EXPECT_EQ(endOf(semaphore, none), "counted");
    const HookScope tellsWaiters(sem_getvalueFault, {}, [] { *askedValue = -1; });
    EXPECT_EQ(semaphore.getValue(), 0);
}

TEST(InitCondVar, HoldsThreadsWithALineAtEachWakeUpUntilItOpensForGood)
{
    InitCondVar gate("motor");
    std::atomic<bool> opened{false};
    testing::internal::CaptureStderr();
    const FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 2);
    const auto wait = [&] {
        gate.waitUntilInitialized("feeder");
        EXPECT_TRUE(opened);
    };
    const std::jthread waiters[] = {std::jthread(wait), std::jthread(wait)};
    support::awaitCalls(pthread_cond_waitFault, 4);
    const std::string line = "feeder is being blocked until motor has been initialized!\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line + line);
    for (const int call : {1, 2, 3}) { // the gate's mutex, the console's, the condition's
        const FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, call, 1);
        EXPECT_THROW(gate.waitUntilInitialized(nullptr), std::system_error);
    }
    EXPECT_TRUE(std::cerr.bad());
    std::cerr.clear();
    {
        const FaultScope fault(pthread_mutex_lockFault, EAGAIN, 0, 1, 1);
        EXPECT_THROW(gate.setInitialized(), std::system_error);
    }
    opened = true;
    gate.setInitialized();
    gate.waitUntilInitialized("nobody");
}

} // namespace
