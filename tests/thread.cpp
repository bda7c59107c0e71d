// Managed threads: every state and event, and what happens where the system says no.

#include "Quorvil/Thread.h"
#include "Quorvil/GeneralException.h"
#include "tests/support/assertion.h"
#include "tests/support/child.h"
#include "tests/support/environment.h"
#include "tests/support/threadCalls.h"
#include "tests/support/threadCreation.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <regex>
#include <string>

#include <sched.h>

namespace {

using Internals = util::ThreadInternals;
using support::FaultScope;
using support::Gate;

/// The text of the exception that `operation` throws, or nothing.
std::string thrownBy(const std::function<void()>& operation)
{
    try {
        operation();
        return "";
    } catch (const util::GeneralException& exception) {
        return exception.what();
    }
}

class Body : public util::Thread
{
public:
    explicit Body(std::function<void(Body&)> function_ = {})
        : Thread("body")
        , function(std::move(function_))
    {
    }

    void run() override
    {
        ++runs;
        if (function)
            function(*this);
    }

    std::atomic<int> runs{0};

private:
    std::function<void(Body&)> function;
};

constexpr const char* alreadyStarted = "Cannot start thread that has already been started!";

/// While it lives, calls of a function are not performed and return `result`; there need not be any.
class Pretence
{
public:
    Pretence(support::Fault& fault_, int result)
        : fault(fault_)
    {
        fault.calls = 0;
        fault.error = 0;
        fault.result = result;
        fault.first = 1;
        fault.times = support::always;
    }

    ~Pretence()
    {
        fault.times = 0;
    }

    Pretence(const Pretence&) = delete;
    Pretence& operator=(const Pretence&) = delete;

private:
    support::Fault& fault;
};

/// A thread that exists only in the eyes of its object: its calls succeed and do nothing.
class Puppet
{
public:
    Puppet()
        : internals(std::in_place, nullptr, "puppet")
    {
        util::GeneralException::defaultSilent = true;
    }

    ~Puppet()
    {
        const Pretence reaped(pthread_joinFault, 0);
        util::GeneralException::defaultSilent = false;
        internals.reset();
    }

    /// The exception's text.
    std::string apply(const std::string& event)
    {
        const Pretence noThread(pthread_createFault, createError);
        const Pretence noCancellation(pthread_cancelFault, cancelError);
        const std::string thrown = thrownBy([&] {
            if (event == "start")
                internals->start(-1, -1, -1);
            else if (event == "started")
                bodyRuns = internals->started();
            else if (event == "cancel")
                internals->cancel();
            else
                internals->runFinished();
        });
        created = pthread_createFault.calls;
        cancelled = pthread_cancelFault.calls;
        return thrown;
    }

    void bring(int state)
    {
        static const std::vector<std::string> roads[] = {{},
                                                         {"start"},
                                                         {"start", "cancel"},
                                                         {"start", "started"},
                                                         {"start", "started", "cancel"},
                                                         {"start", "started", "runFinished"}};
        if (state == Internals::FAILED) {
            createError = EAGAIN;
            apply("start");
            createError = 0;
        } else {
            for (const std::string& event : roads[state])
                apply(event);
        }
        ASSERT_EQ(internals->getState(), state);
    }

    std::optional<Internals> internals;
    int createError = 0;
    int cancelError = 0;
    int created = 0;
    int cancelled = 0;
    bool bodyRuns = false;
};

/// What an event makes of a state: the state behind it and the report.
struct Outcome
{
    int state;
    std::string thrown;
    std::string written;
};

Outcome expectedOutcome(int state, const std::string& event)
{
    const std::string number = std::to_string(state);
    if (event == "start")
        return state == Internals::NEW ? Outcome{Internals::STARTING, "", ""} : Outcome{state, alreadyStarted, ""};
    if (event == "started") {
        if (state == Internals::STARTING || state == Internals::CANCEL_PENDING)
            return {state + 2, "", ""};
        return {state, "", "Unexpected state in ThreadInternals::started: " + number + "\n"};
    }
    if (event == "cancel")
        return {state == Internals::STARTING || state == Internals::RUNNING ? state + 1 : state, "", ""};
    if (state == Internals::RUNNING || state == Internals::CANCELLED)
        return {Internals::FINISHED, "", ""};
    const std::string text = "Unexpected state in runFinished: " + number;
    return {Internals::FAILED, text, text + "\n"};
}

TEST(ThreadInternals, EveryEventInEveryStateHasItsOutcome)
{
    for (int state = Internals::NEW; state <= Internals::FAILED; ++state) {
        for (const std::string event : {"start", "started", "cancel", "runFinished"}) {
            const std::string place = std::to_string(state) + " " + event;
            const Outcome expected = expectedOutcome(state, event);
            // Most of these objects could not be destroyed without ending the process.
            const support::ChildResult child = support::runInChild([&] {
                auto* const puppet = new Puppet;
                puppet->bring(state);
                pthread_cond_broadcastFault.calls = 0;
                std::fflush(stdout);
                std::cerr.flush();
                const std::string thrown = puppet->apply(event);
                EXPECT_EQ(thrown, expected.thrown) << place;
                EXPECT_EQ(puppet->internals->getState(), expected.state) << place;
                EXPECT_EQ(puppet->created, state == Internals::NEW && event == "start") << place;
                EXPECT_EQ(puppet->cancelled, state == Internals::RUNNING && event == "cancel") << place;
                EXPECT_EQ(pthread_cond_broadcastFault.calls, event == "runFinished") << place;
                if (event == "started") {
                    EXPECT_EQ(puppet->bodyRuns, state != Internals::CANCEL_PENDING) << place;
                }
                _exit(testing::Test::HasFailure());
            });
            EXPECT_EQ(child.status, 0) << place << child.out;
            EXPECT_EQ(child.err, expected.written) << place;
        }
    }
}

TEST(ThreadInternals, DestructionReapsAFinishedThreadAndStopsTheProcessOverALiveOne)
{
    const std::string live = "\n\n**** Thread must not be deleted while it is running!\n";
    for (int state = Internals::NEW; state <= Internals::FAILED; ++state) {
        const bool alive = state >= Internals::STARTING && state <= Internals::CANCELLED;
        const support::ChildResult child = support::runInChild([&] {
            auto* const puppet = new Puppet;
            puppet->bring(state);
            const Pretence notJoined(pthread_joinFault, EDEADLK);
            puppet->internals.reset();
            _exit(pthread_joinFault.calls);
        });
        EXPECT_EQ(child.err, alive                          ? live
                             : state == Internals::FINISHED ? "EDEADLK in pthread_join in ~ThreadInternals\n"
                                                            : "")
            << state;
        if (alive) {
            EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT) << state;
        } else {
            EXPECT_EQ(WEXITSTATUS(child.status), state == Internals::FINISHED) << state;
        }
    }
}

TEST(ThreadInternals, FailedCallsAreNamedAndWakeWhoWaits)
{
    const std::string inCreate = " in pthread_create";
    const std::string inCancel = " in pthread_cancel in Thread::cancel in state RUNNING";
    struct
    {
        const char* event;
        int error;
        std::string text;
    } const rows[] = {
        {"start", EAGAIN, "EAGAIN " + inCreate}, {"start", EINVAL, "EINVAL " + inCreate},
        {"start", EPERM, "EPERM " + inCreate},   {"start", ENOMEM, "Unexpected errno (12) " + inCreate},
        {"cancel", ESRCH, "ESRCH" + inCancel},   {"cancel", EPERM, "Unexpected errno (1)" + inCancel},
    };
    for (const auto& row : rows) {
        Puppet puppet;
        puppet.bring(std::string(row.event) == "start" ? Internals::NEW : Internals::RUNNING);
        puppet.createError = puppet.cancelError = row.error;
        pthread_cond_waitFault.calls = 0;
        std::thread waiter([&] { puppet.internals->join(); });
        support::awaitCalls(pthread_cond_waitFault, 1);
        EXPECT_EQ(puppet.apply(row.event), row.text);
        EXPECT_EQ(puppet.internals->getState(), Internals::FAILED);
        waiter.join();
    }
}

// ---- real threads

TEST(Thread, ABodyThatReturnsFinishesAndKnowsItself)
{
    EXPECT_EQ(util::Thread::current(), nullptr);
    util::Thread* seen = nullptr;
    int state = -1;
    Body thread([&](Body& body) {
        seen = util::Thread::current();
        state = body.getState();
    });
    EXPECT_EQ(thread.getState(), Internals::NEW);
    thread.cancel();
    EXPECT_EQ(thread.getState(), Internals::NEW);
    thread.start(-1, -1, -1);
    thread.join();
    EXPECT_EQ(seen, &thread);
    EXPECT_EQ(state, Internals::RUNNING);
    EXPECT_EQ(thread.getState(), Internals::FINISHED);
    thread.join();
    util::GeneralException::defaultSilent = true;
    EXPECT_EQ(thrownBy([&] { thread.start(-1, -1, -1); }), alreadyStarted);
    util::GeneralException::defaultSilent = false;
    EXPECT_EQ(thread.runs, 1);
}

TEST(Thread, StartAsksForWhatItWasGivenAndForNothingElse)
{
    constexpr size_t stack = 256 * 1024;
    struct
    {
        int stackSize, priority, policy;
        bool withAttributes, withStack, scheduled;
    } const rows[] = {
        {-1, -1, -1, false, false, false},        {-1, -1, SCHED_FIFO, false, false, false},
        {stack, -1, -1, true, true, false},       {stack, -1, SCHED_FIFO, true, true, false},
        {-1, 7, -1, true, false, false},          {-1, 7, SCHED_RR, true, false, true},
        {stack, 9, SCHED_FIFO, true, true, true}, {stack, 0, SCHED_OTHER, true, true, true},
        {1, -1, -1, true, false, false}, // refused
    };
    pthread_attr_t defaults;
    size_t defaultStack = 0;
    pthread_attr_init(&defaults);
    pthread_attr_getstacksize(&defaults, &defaultStack);
    pthread_attr_destroy(&defaults);
    for (const auto& row : rows) {
        SCOPED_TRACE(&row - rows);
        pthread_attr_initFault.calls = 0;
        pthread_attr_destroyFault.calls = 0;
        Body thread;
        thread.start(row.stackSize, row.priority, row.policy);
        thread.join();
        if (!support::sanitized) { // whose runtimes make attributes of their own
            EXPECT_EQ(pthread_attr_initFault.calls, row.withAttributes);
            EXPECT_EQ(pthread_attr_destroyFault.calls, row.withAttributes);
        }
        EXPECT_EQ(support::asked.withAttributes, row.withAttributes);
        if (row.withAttributes) {
            EXPECT_EQ(support::asked.stackBytes, row.withStack ? stack : defaultStack);
            EXPECT_EQ(support::asked.inherit, row.scheduled ? PTHREAD_EXPLICIT_SCHED : PTHREAD_INHERIT_SCHED);
            EXPECT_EQ(support::asked.policy, row.scheduled ? row.policy : SCHED_OTHER);
            EXPECT_EQ(support::asked.parameters.sched_priority, row.scheduled ? row.priority : 0);
        }
    }
}

TEST(Thread, CancelledBeforeItsFirstStepItNeverRunsItsBody)
{
    Gate cancelled;
    const support::HookScope hook(support::threadStart, [&] { cancelled.await(); });
    Body thread;
    thread.start(-1, -1, -1);
    EXPECT_EQ(thread.getState(), Internals::STARTING);
    thread.cancel();
    EXPECT_EQ(thread.getState(), Internals::CANCEL_PENDING);
    cancelled.open();
    thread.join();
    EXPECT_EQ(thread.getState(), Internals::FINISHED);
    EXPECT_EQ(thread.runs, 0);
}

// The call fails that comes first on the new thread: a sanitizer's own come before.

/// Notes that the stack was unwound.
struct Unwound
{
    std::atomic<bool>& done;
    ~Unwound()
    {
        done = true;
    }
};

TEST(Thread, CancellationUnwindsTheBodyAndFinishesWithAndWithoutTheKey)
{
    for (const bool keyFails : {false, true}) {
        for (const bool byItself : {false, true}) {
            std::atomic<bool> unwound{false};
            std::atomic<int> behind{0};
            Gate ready;
            Body thread([&](Body& body) {
                const Unwound note{unwound};
                EXPECT_EQ(util::Thread::current(), keyFails ? nullptr : &body);
                if (byItself) {
                    body.cancel();
                    EXPECT_EQ(body.getState(), Internals::CANCELLED);
                }
                ready.open();
                util::Thread::msleep(3'600'000);
                ++behind;
            });
            testing::internal::CaptureStderr();
            std::optional<FaultScope> fault;
            const support::HookScope hook(support::threadStart, [&] {
                if (keyFails)
                    fault.emplace(pthread_setspecificFault, ENOMEM, 0, 1, 1);
            });
            thread.start(-1, -1, -1);
            ready.await();
            if (!byItself)
                thread.cancel();
            thread.join();
            EXPECT_EQ(testing::internal::GetCapturedStderr(),
                      keyFails ? "ENOMEM  in pthread_setspecific in Thread::start\n" : "");
            EXPECT_EQ(thread.getState(), Internals::FINISHED);
            EXPECT_TRUE(unwound);
            EXPECT_EQ(behind, 0);
        }
    }
}

TEST(Thread, WithoutTheKeyABodyThatReturnsFinishesToo)
{
    for (const auto& [error, name] : {std::pair(EINVAL, "EINVAL"), std::pair(EPERM, "Unexpected errno (1)")}) {
        Body thread;
        testing::internal::CaptureStderr();
        {
            std::optional<FaultScope> fault;
            const support::HookScope hook(
                support::threadStart, [&, code = error] { fault.emplace(pthread_setspecificFault, code, 0, 1, 1); });
            thread.start(-1, -1, -1);
            thread.join();
        }
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  std::string(name) + "  in pthread_setspecific in Thread::start\n");
        EXPECT_EQ(thread.getState(), Internals::FINISHED);
        EXPECT_EQ(thread.runs, 1);
    }
}

TEST(Thread, ManyThreadsAreStartedCancelledAndReaped)
{
    const int rounds = 500 * support::stressFactor();
    const auto before = support::threadCount();
    for (int i = 0; i < rounds; ++i) {
        Body thread([](Body&) { pthread_testcancel(); });
        thread.start(64 * 1024, -1, -1);
        if (i % 2 == 0)
            thread.cancel();
        std::thread other([&] { thread.join(); });
        thread.join();
        other.join();
        EXPECT_EQ(thread.getState(), Internals::FINISHED);
    }
    support::awaitThreads(before);
}

TEST(Thread, OutWritesItsPrefixAndNothingElse)
{
    const Body thread;
    testing::internal::CaptureStdout();
    thread.out() << "x";
    EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStdout(), std::regex(R"(\[body \d+\.\d{3}\] x)")));
}

TEST(Thread, MsleepAsksForItsMillisecondsAndNamesItsFailures)
{
    const std::string where = " in nanosleep in Thread::msleep";
    util::GeneralException::defaultSilent = true;
    EXPECT_EQ(thrownBy([] { util::Thread::msleep(-1); }), "EINVAL" + where);
    for (const auto& [error, name] :
         {std::pair(EINTR, "EINTR"), std::pair(ENOSYS, "ENOSYS"), std::pair(EPERM, "Unexpected errno (1)")}) {
        const FaultScope fault(nanosleepFault, -1, error);
        EXPECT_EQ(thrownBy([] { util::Thread::msleep(61'001); }), name + where);
        EXPECT_EQ(nanosleepFault.calls, 1);
        EXPECT_EQ(support::pauses[0].tv_sec, 61);
        EXPECT_EQ(support::pauses[0].tv_nsec, 1'000'000);
    }
    util::GeneralException::defaultSilent = false;
    util::Thread::msleep(0);
}

// ---- endings of the process

void startWith(support::Fault* fault, int result, int priority, int policy)
{
    std::optional<FaultScope> scope;
    if (fault)
        scope.emplace(*fault, result);
    Body thread;
    thread.start(-1, priority, policy);
    thread.join();
}

TEST(ThreadDeathTest, APolicyOrPriorityThatThePlatformRefusesFailsItsAssertion)
{
    struct
    {
        support::Fault* fault;
        int result, priority, policy;
        const char* expression;
    } const rows[] = {
        {nullptr, 0, 1, 77, "!result"},
        {nullptr, 0, 1000, SCHED_FIFO, "!result"},
        {&pthread_attr_getschedpolicyFault, EINVAL, 1, SCHED_FIFO, "!result"},
        {&pthread_attr_getschedpolicyFault, 0, 1, SCHED_FIFO, "checkPolicy == schedPolicy"},
    };
    for (const auto& row : rows)
        EXPECT_DEATH(
            startWith(row.fault, row.result, row.priority, row.policy),
            support::assertion("Quorvil/Thread", "void util::ThreadInternals::start(int, int, int)", row.expression));
}

TEST(ThreadDeathTest, AnEndThatIsNotExpectedEndsTheProcessBehindItsLine)
{
    // The cancellation fails while the body runs: its end finds the state `FAILED`.
    const auto end = [] {
        util::GeneralException::defaultSilent = true;
        Gate failed;
        Body thread([&](Body&) { failed.await(); });
        thread.start(-1, -1, -1);
        while (thread.getState() != Internals::RUNNING)
            std::this_thread::yield();
        const FaultScope fault(pthread_cancelFault, ESRCH);
        EXPECT_EQ(thrownBy([&] { thread.cancel(); }), "ESRCH in pthread_cancel in Thread::cancel in state RUNNING");
        failed.open();
        for (;;)
            pause();
    };
    EXPECT_DEATH(end(), "Unexpected state in runFinished: 6\nterminate called");
}

} // namespace
