// Locks, lists, conditions, semaphores and gates: what they promise, and what happens where the system says no.

#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/InitCondVar.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilSync2Intern.h"
#include "Quorvil/QuorvilSyncLockGroup.h"
#include "Quorvil/WaitCond.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/groupingLocale.h"
#include "tests/support/systemCalls.h"
#include "tests/support/threadCreation.h"

#include <list>
#include <map>
#include <optional>
#include <tuple>

SUPPORT_INTERPOSE(int, pthread_mutex_trylock, (pthread_mutex_t * mutex), (mutex), noexcept)
SUPPORT_INTERPOSE(int, pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex), noexcept)
SUPPORT_INTERPOSE(int, pthread_condattr_init, (pthread_condattr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_condattr_setclock, (pthread_condattr_t * attr, clockid_t clock), (attr, clock), noexcept)
SUPPORT_INTERPOSE(int, pthread_condattr_destroy, (pthread_condattr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_init, (pthread_cond_t * cond, const pthread_condattr_t* a), (cond, a), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_destroy, (pthread_cond_t * cond), (cond), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_signal, (pthread_cond_t * cond), (cond), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_timedwait, (pthread_cond_t * cond, pthread_mutex_t* m, const timespec* t),
                  (cond, m, t), )
SUPPORT_INTERPOSE(int, sem_destroy, (sem_t * semaphore), (semaphore), noexcept)
SUPPORT_INTERPOSE(int, sem_wait, (sem_t * semaphore), (semaphore), )
SUPPORT_INTERPOSE(int, sem_timedwait, (sem_t * semaphore, const timespec* until), (semaphore, until), )
SUPPORT_INTERPOSE(int, sem_trywait, (sem_t * semaphore), (semaphore), noexcept)
SUPPORT_INTERPOSE(int, sem_post, (sem_t * semaphore), (semaphore), noexcept)
SUPPORT_INTERPOSE(int, sem_getvalue, (sem_t * semaphore, int* value), (semaphore, value), noexcept)

using namespace quorvil::sync;
using namespace quorvil::sync2::intern;
using namespace std::chrono;
using namespace support;
using namespace util;

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

/// Whether nobody holds the group's mutex, which stands first in it.
bool isFree(LockGroup& group)
{
    auto* const mutex = reinterpret_cast<pthread_mutex_t*>(&group);
    bool free = false;
    std::thread([&] { free = pthread_mutex_trylock(mutex) == 0 && pthread_mutex_unlock(mutex) == 0; }).join();
    return free;
}

// ---- lock groups

TEST(LockGroup, WarnsTracesAndGivesUpAfterASecondWithTheLimitedBufferUnderEachLine)
{
    const std::string warn = "[WARN Quorvil/QuorvilSyncLockGroup:";
    const std::string buffer = "\n\n======== LIMITED BUFFER CONTENT ========\n\n\n==============\n\n\n";
    const std::tuple<const char*, nanoseconds, nanoseconds, std::string> rows[] = {
        {"both at their limits", 499ms, 4ms, ""},
        {"clock put back", -600ms, -600ms, ""},
        {"", 0ms, 4ms + 1ns, warn + "90]    [:1234] lockedDuration: 4000us\n" + buffer},
        {"b.cpp", 499ms + 1ns, 30h,
         warn + "81]    [b.cpp:1234] lockDuration: 499000us\n" + buffer + //
             warn + "90]    [b.cpp:1234] lockedDuration: 108000000000us\n" + buffer}};
    const GroupingEverywhere grouping;
    LockGroup& group = gl_trenvikLockGroup;
    gl_pTrenvikLimitedBuffer = std::make_shared<LimitedBuffer>(2048, 1, [](std::ostream&, const char*) {});
    LimitedBuffer::setBufferingActive(true);
    for (const auto& [file, waited, held, expected] : rows) {
        readings = {0ms};
        const HookScope atLock(pthread_mutex_lockFault, [w = waited, h = held] { readings = {w, w + h}; });
        testing::internal::CaptureStdout();
        Guard(group, file, 1234);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
    }

    const auto before = steady_clock::now();
    pthread_mutex_trylockFault.fail(EBUSY, 0, 1, 1); // as if it were taken for a moment
    EXPECT_TRUE(group.lock("a.cpp", 1) && group.lock("b.cpp", 2));
    group.unlock("c.cpp", 3);
    const auto failToLock = [&] {
        EXPECT_FALSE(group.lock("b.cpp", 2345));
        if (!threadSanitized) // it reports the unlock of a mutex that is not held
            group.unlock("", 2);
    };
    testing::internal::CaptureStdout();
    std::thread(failToLock).join();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "LockGroup::lock failed in b.cpp:2345 for 1sec!\n\n\n======== LIMITED BUFFER CONTENT ========\n\n"
              "[a.cpp:1] LOCK\n[b.cpp:2] LOCK\n[c.cpp:3] UNLOCK\n\n==============\n\n");
    EXPECT_GE(steady_clock::now() - before, 1s);
    gl_pTrenvikLimitedBuffer.reset();
    {
        Unguard unguard = group.unguard("", 0);
        const Unguard moved(std::move(unguard));
        EXPECT_TRUE(isFree(group));
    }
    EXPECT_FALSE(isFree(group));
    group.unlock("d.cpp", 4);
    EXPECT_TRUE(isFree(group));
}

TEST(Guard, MovesWithItsGroupAndTimesButWithoutItsSourcePlace)
{
    LockGroup groups[2];
    readings = {100ms, 600ms, 700ms, 700ms, 800ms, 700ms};
    testing::internal::CaptureStdout();
    {
        Guard first = groups[0].guard("first.cpp", 1);
        Guard second(groups[1], "second.cpp", 2);
        Guard third(std::move(first));
        second = std::move(third);
        EXPECT_TRUE(!isFree(groups[0]) && !isFree(groups[1]));
    }
    EXPECT_TRUE(isFree(groups[0]) && isFree(groups[1]));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[WARN Quorvil/QuorvilSyncLockGroup:90]    [:0] lockedDuration: 100000us\n\n"
              "[WARN Quorvil/QuorvilSyncLockGroup:81]    [second.cpp:2] lockDuration: 500000us\n\n"
              "[WARN Quorvil/QuorvilSyncLockGroup:90]    [second.cpp:2] lockedDuration: 100000us\n\n");
}

TEST(Guard, InterruptEndsEveryWaitAndLaterOnesOnceTheyAreWokenWithTheGroupHeld)
{
    LockGroup group;
    {
        const FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 1);
        Guard(group, "", 1).wait();
    }
    const auto wait = [&] {
        Guard guard(group, "waiter", 1);
        EXPECT_THROW(guard.wait(), quorvil::InterruptedException);
        EXPECT_FALSE(isFree(group));
    };
    for (const bool again : {false, true}) {
        pthread_cond_waitFault.calls = 0;
        const std::jthread waiters[] = {std::jthread(wait), std::jthread(wait)};
        awaitCalls(pthread_cond_waitFault, 2);
        Guard guard(group, "main", 1);
        EXPECT_EQ(guard.isInterrupted(), again);
        again ? guard.notifyAll() : guard.interrupt();
    }
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

    std::map<Element*, Guard*> home;
};

struct Synchronisation : testing::Test
{
    LockGroup group;
    Guard guard{group, "a.cpp", 1};
    Guard nested{group, "a.cpp", 2};
    RecordingPool pool;
    Element elements[6] = {&pool, &pool, &pool, &pool};
    Fifo list;
    RecursiveMutex mutex;
    WaitCond cond;
};

TEST_F(Synchronisation, AnyRunOfAListMovesToAnyPlaceOfAnotherListAndOfItsOwn)
{
    // Places are counted through both lists, the first one's end among them; there the model has a null.
    const auto moveAndCompare = [&](int size, int first, int last, int place) {
        Fifo lists[2];
        std::list<Element*> model;
        for (int i = 0; i < 6; ++i) {
            lists[i >= size].pushBack(&elements[i]);
            model.push_back(&elements[i]);
        }
        const auto at = [&](int i) { return std::next(model.begin(), i); };
        const auto before = [&](int i) { return i > 0 ? *at(i - 1) : nullptr; };
        const auto end = model.insert(at(size), nullptr);
        lists[0].moveRange(before(first), before(last), lists[place > size], before(place));
        if (place != first) // where the run stays
            model.splice(at(place), model, at(first), at(last));
        Element tails[2]; // which the lists' ends put where they should be
        model.insert(end, &tails[0]);
        model.push_back(&tails[1]);
        for (const bool second : {false, true})
            lists[second].pushBack(&tails[second]);
        Fifo* popped = lists;
        for (Element* const element : model)
            EXPECT_EQ((element ? *popped : *popped++).popFront(), element) << size << first << last << place;
    };
    for (int size = 1; size <= 6; ++size)
        for (int last = 1; last <= size; ++last)
            for (int first = 0; first < last; ++first)
                for (int place = 0; place <= 7; place = place == first ? last + 1 : place + 1)
                    moveAndCompare(size, first, last, place);
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
    list.pushBack(&elements[2]);
    list.allBackToPools(guard);
    EXPECT_EQ(pool.home,
              (decltype(pool.home){
                  {&elements[0], &guard}, {&elements[1], &nested}, {&elements[2], &guard}, {&elements[3], &nested}}));
}

// ---- failures

TEST_F(Synchronisation, MisuseAndFailedCallsHaveTheirTexts)
{
    const Guard taken(std::move(nested));
    list.pushBack(&elements[0]);
    list.pushBack(&elements[1]);
    Fifo broken;
    Fifo().moveRange(nullptr, &elements[4], broken, nullptr); // which was not there
    CountingSemaphore none(0);
    alignas(CountingSemaphore) unsigned char storage[sizeof(CountingSemaphore)];
    auto* const finished = new (storage) CountingSemaphore(1);
    finished->~CountingSemaphore();
    const std::string lock = "sync::LockGroup::lock(const char*, int)";
    const std::string unlock = "sync::LockGroup::unlock(const char*, int)";
    const std::string e = "quorvil::sync2::intern::Element*";
    const std::string push = "sync2::intern::Fifo::pushBack(" + e + ")";
    const std::string move =
        "sync2::intern::Fifo::moveRange(" + e + ", " + e + ", quorvil::sync2::intern::Fifo&, " + e + ")";
    const std::string all = "sync2::intern::Fifo::allBackToPools(quorvil::sync::Guard&)";
    const std::string home = "sync2::intern::Element::goBackToPool(quorvil::sync::Guard&)";
    const auto failed = [](const std::string& at, const std::string& function, const std::string& expression) {
        return "Quorvil/QuorvilSync" + at + ": void quorvil::" + function + ": Assertion `" + expression + "' failed";
    };
    const auto reported = [](const std::string& before, const std::string& function, const std::string& line) {
        return before + "util::CountingSemaphore::" + function + " failed in Quorvil/CountingSemaphore:" + line;
    };
    const auto lockFailsAt = [](int call) { pthread_mutex_lockFault.fail(EXDEV, 0, call, 1); };
    expectOutcomes({
        {failed("LockGroup:136", lock, "file"), [&] { group.lock(nullptr, 1); }},
        {failed("LockGroup:137", lock, "line > 0"), [&] { group.lock("", 0); }},
        {failed("LockGroup:150", unlock, "file"), [&] { group.unlock(nullptr, 1); }},
        {failed("LockGroup:151", unlock, "line > 0"), [&] { group.unlock("", 0); }},
        {"void quorvil::sync::Guard::notifyAll(): Assertion `group' failed", [&] { nested.notifyAll(); }},
        {"null", [&] { Guard(group, nullptr, 1); }},
        {"Invalid cross-device linkexit 0", [&] { Guard(group, "", 1); }, &pthread_mutex_lockFault},
        {"Invalid cross-device linkexit 0", [&] { guard.wait(); }, &pthread_mutex_lockFault},
        {"Invalid cross-device linkexit 0", // the guard's lock again, behind the condition's
         [&] { lockFailsAt(3), pthread_cond_waitFault.fail(0), LockGroup().guard("", 1).wait(); }},
        {"terminate called", [&] { Unguard(group, "", 1); }, &pthread_mutex_lockFault},
        {failed("2Intern:66", push, "!e->next"), [&] { list.pushBack(&elements[0]); }},
        {failed("2Intern:74", push, "dbgInvariant()"), [&] { broken.pushBack(&elements[5]); }},
        {failed("2Intern:110", all, "dbgInvariant()"), [&] { broken.allBackToPools(guard); }},
        {failed("2Intern:119", move, "fromUntilThis"), [&] { list.moveRange(nullptr, nullptr, list, nullptr); }},
        {failed("2Intern:182", move, "dbgInvariant()"),
         [&] { Fifo().moveRange(&elements[5], &elements[4], list, nullptr); }},
        {failed("2Intern:187", home, "pool"), [&] { elements[5].goBackToPool(guard); }},
        {"terminate called", [&] { const PoolAccess twice[] = {{guard, &elements[0]}, {guard, &elements[0]}}; }},
        {"FATAL ERROR: % in pthread_mutex_destroy\nexit 1", [] { RecursiveMutex(); }, &pthread_mutex_destroyFault,
         "EBUSY EINVAL EPERM only"},
        {"FATAL ERROR: \nexit 1", [] { RecursiveMutex(); }, &pthread_mutex_destroyFault},
        {"%  in pthread_condattr_initexit 0", [] { WaitCond(); }, &pthread_condattr_initFault, "EINVAL EBUSY ENOMEM"},
        {"%  in pthread_condattr_setclockexit 0", [] { WaitCond(); }, &pthread_condattr_setclockFault, "EINVAL"},
        {"%  in pthread_cond_initexit 0", [] { WaitCond(); }, &pthread_cond_initFault, "EINVAL EBUSY ENOMEM"},
        {"%  in pthread_condattr_destroyexit 0", [] { WaitCond(); }, &pthread_condattr_destroyFault, "EINVAL"},
        {"%  in pthread_cond_destroy\nexit 0", [] { WaitCond(); }, &pthread_cond_destroyFault, "EINVAL"},
        {"%  in pthread_cond_signal", [&] { cond.signal(); }, &pthread_cond_signalFault, "EINVAL EPERM"},
        {"%  in pthread_cond_broadcast", [&] { cond.broadcast(); }, &pthread_cond_broadcastFault, "EINVAL EPERM"},
        {"%  in pthread_cond_wait", [&] { cond.wait(mutex); }, &pthread_cond_waitFault, "EINVAL EPERM"},
        {"%  in pthread_cond_timedwait", [&] { cond.timedwait(mutex, {}); }, &pthread_cond_timedwaitFault,
         "EINVAL EPERM"},
        {"% in sem_wait of CountingSemaphore::wait", [&] { none.timedwait({}); }, &sem_timedwaitFault,
         "EDEADLK EINTR EINVAL"},
        {"% in sem_trywait in CountingSemaphore::tryDown", [&] { none.tryDown(); }, &sem_trywaitFault, "EDEADLK EINTR"},
        {"EINVVAL in sem_trywait in CountingSemaphore::tryDown", [&] { none.tryDown(); }, &sem_trywaitFault,
         "EINVAL only"},
        {reported("", "CountingSemaphore(int)", "32 - (22)"), [] { CountingSemaphore(-1); }},
        {reported("virtual ", "~CountingSemaphore()", "59 - (18)"),
         [&] {
             const HookScope inWait(sem_waitFault, [&] { none.~CountingSemaphore(); });
             none.wait();
         },
         &sem_postFault},
        {reported("virtual ", "~CountingSemaphore()", "78 - (18)"), [] { CountingSemaphore(0); }, &sem_destroyFault},
        {reported("void ", "doWait(const util::TimeSpec*)", "147 - (18)"), [&] { none.wait(); }, &sem_waitFault},
        {reported("void ", "post()", "230 - (18)"), [&] { none.post(); }, &sem_postFault},
        {reported("int ", "getValue()", "251 - (18)"), [&] { none.getValue(); }, &sem_getvalueFault},
        {"Invalid cross-device linkexit 0", [] { InitCondVar("").setInitialized(); }, &pthread_mutex_lockFault},
        {"Invalid cross-device linkexit 0", [] { InitCondVar("").waitUntilInitialized(""); }, &pthread_mutex_lockFault},
        {"Invalid cross-device linkexit 0", // the condition's lock, behind the gate's and the console's
         [&] { lockFailsAt(3), InitCondVar("").waitUntilInitialized(nullptr); }},
    });
    if (!sanitized || threadSanitized) // which marks what is left of an ended object
        expectOutcomes({
            {"Illegal state CS_DELETED in CountingSemaphore::wait\nkilled by 6", [&] { finished->wait(); }},
            {"Illegal state CS_DELETED in CountingSemaphore::post\nkilled by 6", [&] { finished->post(); }},
        });
}

// ---- conditions, semaphores and gates

TEST_F(Synchronisation, ACondWakesTimedWaitsOfEveryThreadAndKeepsNoSignal)
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
    };
    const std::jthread waiters[] = {std::jthread(wait), std::jthread(wait)};
    awaitCalls(pthread_cond_timedwaitFault, 4);
    const Lock outer(mutex);
    const Lock inner(mutex);
    released = true;
    cond.broadcast();
}

const TimeSpec past(timespec{1, 0});
const TimeSpec later(timespec{0x7fffffff, 0});

/// Returns with the threads once all of them are in their calls.
std::vector<std::jthread> startWaiters(const std::function<void(const TimeSpec*)>& wait)
{
    std::vector<std::jthread> waiters;
    sem_waitFault.calls = sem_timedwaitFault.calls = 0;
    for (const TimeSpec* const until : std::initializer_list<const TimeSpec*>{nullptr, nullptr, &later, &past})
        waiters.emplace_back(wait, until);
    awaitCalls(sem_waitFault, 2);
    awaitCalls(sem_timedwaitFault, 2);
    return waiters;
}

TEST(CountingSemaphore, EndsBehindItsLastWaiterWithoutACountOrATimeoutForAny)
{
    static thread_local int locks = 0; // of a waiter, until it is held up
    Gate heldUp;
    Gate goOn;
    const HookScope atLock(pthread_mutex_lockFault, [&] {
        if (locks > 0 && --locks == 0) {
            heldUp.open();
            goOn.await();
        }
    });
    auto* const semaphore = new CountingSemaphore(0);
    auto threads = startWaiters([&](const TimeSpec* until) {
        locks = 2;
        EXPECT_THROW(until ? semaphore->timedwait(*until) : semaphore->wait(), CountingSemaphoreDeletingException);
    });
    heldUp.await(1); // one is behind its deadline
    semaphore->post();
    heldUp.await(2); // and one has the count
    sem_postFault.calls = 0;
    const FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 1);
    threads.emplace_back([&] { delete semaphore; });
    awaitCalls(pthread_cond_waitFault, 2);
    EXPECT_THROW(semaphore->post(), CountingSemaphoreDeletingException);
    EXPECT_THROW(semaphore->timedwait(past), CountingSemaphoreDeletingException);
    EXPECT_EQ(sem_postFault.calls, 4);
    goOn.open();
}

TEST(CountingSemaphore, IsDestroyedThousandsOfTimesUnderWaitersOfWhichOneIsCancelled)
{
    for (int round = 0; round < 2000 * stressFactor(); ++round) {
        std::optional<CountingSemaphore> semaphore(std::in_place, 0);
        auto waiters = startWaiters([&](const TimeSpec* until) {
            try {
                until ? semaphore->timedwait(*until) : semaphore->wait();
            } catch (const std::exception&) {
            }
        });
        if (round % 2 && !threadSanitized) // it is blind to the locks of a thread that unwinds out of its call
            pthread_cancel(waiters.front().native_handle());
        for (int i = 0; i < round % 5; ++i)
            semaphore->post();
        semaphore.reset();
    }
}

TEST_F(Synchronisation, WithoutContentionTakesNoMemoryAndMakesNoSystemCall)
{
    LockGroup own;
    CountingSemaphore semaphore(2);
    expectNothingOfTheSystem([&] {
        Guard user = own.guard("Quorvil/Short", 1);
        EXPECT_TRUE(own.lock("", 2) && !user.isInterrupted());
        own.unlock("", 3);
        user.notifyAll();
        Unguard(own, "", 4);
        cond.signal();
        cond.broadcast();
        semaphore.wait();
        semaphore.timedwait(past);
        semaphore.post();
        EXPECT_TRUE(semaphore.getValue() == 1 && semaphore.tryDown() && !semaphore.tryDown());
        elements[0].setPool(nullptr);
        list.pushBack(&elements[0]);
        list.moveRange(nullptr, &elements[0], list, nullptr);
        PoolAccess access(guard, list.popFront());
        access = PoolAccess(guard, access.release());
        EXPECT_TRUE(list.dbgInvariant() && !access.get()->getNext() && !access.release()->getPool());
    });
    EXPECT_THROW(semaphore.timedwait(past), TimedOutException);
    semaphore.post();
    const FaultScope signalled(sem_waitFault, -1, EINTR, 1, 2);
    semaphore.wait();
    EXPECT_EQ(semaphore.getValue(), 0);
}

TEST(InitCondVar, HoldsThreadsWithALineAtEachWakeUpUntilItOpensForGood)
{
    InitCondVar gate("motor");
    testing::internal::CaptureStderr();
    const FaultScope wakesAtOnce(pthread_cond_waitFault, 0, 0, 1, 2);
    const auto wait = [&] { gate.waitUntilInitialized("feeder"); };
    const std::jthread waiters[] = {std::jthread(wait), std::jthread(wait)};
    awaitCalls(pthread_cond_waitFault, 4);
    gate.setInitialized();
    gate.setInitialized();
    gate.waitUntilInitialized("nobody");
    const std::string line = "feeder is being blocked until motor has been initialized!\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line + line + line + line);
}

} // namespace
