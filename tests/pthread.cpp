#include "Quorvil/QuorvilPthread.h"

#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/threadCreation.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>
#include <semaphore>
#include <string>
#include <system_error>
#include <utility>

#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

using quorvil::Pthread;

using support::asked;

namespace {

constexpr uint32_t stackKiB = 256;

void* echo(void* arg)
{
    return arg;
}

constexpr int priorityOf(int policy)
{
    return policy == SCHED_OTHER ? 0 : 17;
}

/// One of the four constructors that start a thread.
struct Form
{
    const char* context;
    bool scheduled;
    Pthread (*start)(void* result, uint32_t stack, int policy);
};

constexpr Form forms[] = {
    {"quorvil::Pthread::Pthread(quorvil::Pthread::Func, void*, uint32_t)", false,
     [](void* result, uint32_t stack, int) { return Pthread(echo, result, stack); }},
    {"quorvil::Pthread::Pthread(quorvil::Pthread::AlternativeFunc, uint32_t)", false,
     [](void* result, uint32_t stack, int) { return Pthread([result] { return result; }, stack); }},
    {"quorvil::Pthread::Pthread(quorvil::Pthread::Func, void*, uint32_t, int, int)", true,
     [](void* result, uint32_t stack, int policy) { return Pthread(echo, result, stack, policy, priorityOf(policy)); }},
    {"quorvil::Pthread::Pthread(quorvil::Pthread::AlternativeFunc, uint32_t, int, int)", true,
     [](void* result, uint32_t stack, int policy) {
         return Pthread([result] { return result; }, stack, policy, priorityOf(policy));
     }},
};

Pthread started(void* result = nullptr)
{
    return Pthread(echo, result, stackKiB);
}

/// What `operation` throws must be a `std::system_error` with this code of the generic category.
template <typename Operation>
void expectSystemError(int code, Operation operation)
{
    try {
        operation();
        ADD_FAILURE() << "no exception instead of code " << code;
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::error_code(code, std::generic_category()));
    }
}

void expectNotRunning(Pthread& thread)
{
    expectSystemError(3, [&] { thread.join(); });
    expectSystemError(22, [&] { thread.detach(); });
}

TEST(Pthread, EveryConstructorAsksForItsStackAndPolicyAndJoinReturnsTheResult)
{
    const auto page = static_cast<size_t>(getpagesize());
    const auto pages = [page](size_t bytes) { return (bytes + page - 1) / page * page; };
    // The size in bytes is counted in 32 bits.
    const std::pair<uint32_t, size_t> stacks[] = {{0, 16384},         {15, 16384},
                                                  {16, 16384},        {17, pages(17408)},
                                                  {20, pages(20480)}, {2049, pages(2098176)},
                                                  {0x400000, 16384},  {0x400011, pages(17408)}};
    for (const Form& form : forms) {
        for (const auto& [kiB, bytes] : stacks) {
            for (const int policy : {SCHED_OTHER, SCHED_FIFO, SCHED_RR}) {
                SCOPED_TRACE(std::string(form.context) + " " + std::to_string(kiB) + " " + std::to_string(policy));
                pthread_attr_initFault.calls = 0;
                pthread_attr_destroyFault.calls = 0;
                int target = 0;
                Pthread thread = form.start(&target, kiB, policy);
                EXPECT_EQ(thread.join(), &target);
                expectNotRunning(thread);
                EXPECT_EQ(asked.stackBytes, bytes);
                EXPECT_EQ(asked.inherit, form.scheduled ? PTHREAD_EXPLICIT_SCHED : PTHREAD_INHERIT_SCHED);
                EXPECT_EQ(asked.policy, form.scheduled ? policy : SCHED_OTHER);
                EXPECT_EQ(asked.parameters.sched_priority, form.scheduled ? priorityOf(policy) : 0);
                EXPECT_EQ(pthread_attr_initFault.calls, pthread_attr_destroyFault.calls);
            }
        }
    }
}

TEST(Pthread, WithoutMemoryForTheStartPacketNothingIsLeftBehind)
{
    if (const char* const reason = support::AllocationFailure::hidden())
        GTEST_SKIP() << reason;
    for (const Form& form : forms) {
        for (support::Fault* fault : {&pthread_attr_initFault, &pthread_attr_destroyFault, &pthread_createFault})
            fault->calls = 0;
        {
            const support::AllocationFailure failure(1);
            EXPECT_THROW(form.start(nullptr, stackKiB, SCHED_FIFO), std::bad_alloc);
        }
        EXPECT_EQ(pthread_attr_initFault.calls, 1) << form.context;
        EXPECT_EQ(pthread_attr_destroyFault.calls, 1) << form.context;
        EXPECT_EQ(pthread_createFault.calls, 0) << form.context;
    }
}

TEST(Pthread, TheThreadInheritsItsNameAndTheFunctionObjectOutlivesItsCall)
{
    prctl(PR_SET_NAME, "maker", 0, 0, 0);
    char inherited[16] = "";
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> watched = held;
    std::binary_semaphore given(0);
    Pthread thread(
        [&inherited, &watched, &given, mine = std::move(held)]() -> void* {
            prctl(PR_GET_NAME, inherited, 0, 0, 0);
            given.acquire();
            return watched.expired() ? nullptr : inherited;
        },
        stackKiB);
    char name[16] = "";
    prctl(PR_GET_NAME, name, 0, 0, 0);
    EXPECT_STREQ(name, "Pthread") << "the constructor renames its caller";
    given.release();
    EXPECT_EQ(thread.join(), inherited);
    EXPECT_STREQ(inherited, "maker");
    EXPECT_TRUE(watched.expired());
}

TEST(Pthread, AMoveTakesTheThreadAlongAndLeavesAnEmptyHandle)
{
    int target = 0;
    Pthread first;
    expectNotRunning(first);
    first = started(&target);
    Pthread second(std::move(first));
    expectNotRunning(first);
    first = std::move(second);
    expectNotRunning(second);
    EXPECT_EQ(first.join(), &target);
    second = std::move(first);
    expectNotRunning(second);
    second = started(&target); // onto a joined handle
    EXPECT_EQ(second.join(), &target);
}

TEST(Pthread, HandlesTakeNoMemoryWhereNoThreadIsStarted)
{
    Pthread thread = started();
    const support::AllocationCount count;
    {
        Pthread moved(std::move(thread));
        Pthread empty;
        empty = std::move(moved);
        empty.detach();
    }
    EXPECT_EQ(count.allocations(), 0U);
}

TEST(Pthread, ADetachedThreadRunsOnWithoutItsHandle)
{
    std::binary_semaphore go(0);
    std::binary_semaphore done(0);
    {
        Pthread thread(
            [&]() -> void* {
                go.acquire();
                done.release();
                return nullptr;
            },
            stackKiB);
        thread.detach();
        expectNotRunning(thread);
    }
    go.release();
    done.acquire();
}

TEST(Pthread, JoinFromTheThreadItselfIsRefusedAndLeavesTheHandleRunning)
{
    std::binary_semaphore complete(0);
    Pthread thread(
        [&]() -> void* {
            complete.acquire();
            expectSystemError(35, [&] { thread.join(); });
            return &thread;
        },
        stackKiB);
    complete.release();
    EXPECT_EQ(thread.join(), &thread);
}

// Every ending of the process, with its text.

template <typename Operation>
void expectReport(support::Fault& fault, const std::string& context, Operation operation)
{
    const auto failing = [&] {
        const support::FaultScope scope(fault, EPERM);
        operation();
    };
    EXPECT_DEATH(failing(), support::literal(context + " failed in Quorvil/QuorvilPthread:") + "[0-9]+" +
                                support::literal(" - (1) Operation not permitted\n") + ".*" +
                                support::assertion("Quorvil/SafeLinuxCalls",
                                                   "int util::safePosix(const char*, const char*, int, int)",
                                                   "posixFuncResult == 0"))
        << fault.name;
}

TEST(PthreadDeathTest, EveryFailedCallEndsTheProcessWithItsReport)
{
    for (const Form& form : forms)
        expectReport(pthread_createFault, form.context, [&] { form.start(nullptr, stackKiB, SCHED_FIFO); });
    for (support::Fault* fault :
         {&pthread_attr_initFault, &pthread_attr_setstacksizeFault, &pthread_attr_setinheritschedFault,
          &pthread_attr_setschedpolicyFault, &pthread_attr_setschedparamFault, &pthread_attr_destroyFault})
        expectReport(*fault, forms[2].context, [] { forms[2].start(nullptr, stackKiB, SCHED_RR); });
    Pthread thread = started();
    expectReport(pthread_joinFault, "void* quorvil::Pthread::join()", [&] { thread.join(); });
    expectReport(pthread_detachFault, "void quorvil::Pthread::detach()", [&] { thread.detach(); });
    thread.join();
}

TEST(PthreadDeathTest, AnUnknownPolicyOrAMissingFunctionFailsItsAssertion)
{
    for (const Form& form : {forms[2], forms[3]}) {
        for (const int policy : {-1, 3})
            EXPECT_DEATH(form.start(nullptr, stackKiB, policy),
                         support::assertion("Quorvil/QuorvilPthread", form.context,
                                            "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1"));
    }
    const std::string text =
        support::assertion("Quorvil/QuorvilPthread", "void* quorvil::pthreadFunc(void*)", "t->alternativeF");
    EXPECT_DEATH(Pthread(nullptr, nullptr, stackKiB).join(), text);
    EXPECT_DEATH(Pthread(Pthread::AlternativeFunc(), stackKiB).join(), text);
}

TEST(PthreadDeathTest, ARunningHandleCanNeitherDieNorBeOverwritten)
{
    EXPECT_DEATH(started(), "FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! "
                            "Erst join\\(\\) oder detach\\(\\) aufrufen!!\nterminate called");
    EXPECT_DEATH(started() = Pthread(), "FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread "
                                        "enthaelt!\nterminate called");
}

} // namespace
