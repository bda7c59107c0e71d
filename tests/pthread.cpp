#include "Quorvil/QuorvilPthread.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/threadCreation.h"

#include <gmock/gmock.h>

#include <semaphore>
#include <system_error>

#include <sched.h>
#include <sys/prctl.h>
#include <unistd.h>

using quorvil::Pthread;
using support::asked;

namespace {

/// One of the constructors that start a thread.
struct Form
{
    bool alternative, scheduled;

    std::string context() const
    {
        return std::string("quorvil::Pthread::Pthread(quorvil::Pthread::") +
               (alternative ? "AlternativeFunc" : "Func, void*") + ", uint32_t" + (scheduled ? ", int, int)" : ")");
    }

    Pthread start(void* result, uint32_t stackKiB = 256, int policy = SCHED_RR, int priority = 1) const
    {
        const Pthread::Func function = [](void* arg) { return arg; };
        const Pthread::AlternativeFunc object = [result] { return result; };
        if (alternative)
            return scheduled ? Pthread(object, stackKiB, policy, priority) : Pthread(object, stackKiB);
        return scheduled ? Pthread(function, result, stackKiB, policy, priority) : Pthread(function, result, stackKiB);
    }
};

constexpr Form forms[] = {{false, false}, {true, false}, {false, true}, {true, true}};

auto throwsCode(int code)
{
    return testing::Throws<std::system_error>(
        testing::Property(&std::system_error::code, std::error_code(code, std::generic_category())));
}

void expectNotRunning(Pthread& thread)
{
    EXPECT_THAT([&] { thread.join(); }, throwsCode(3));
    EXPECT_THAT([&] { thread.detach(); }, throwsCode(22));
}

TEST(Pthread, EveryConstructorAsksForItsStackAndPolicyAndJoinReturnsTheResult)
{
    const auto page = static_cast<size_t>(getpagesize());
    // The size in bytes is counted in 32 bits.
    const std::pair<uint32_t, size_t> stacks[] = {
        {0, 16384}, {16, 16384}, {17, (17407 / page + 1) * page}, {2048, 2 << 20}, {0x400000, 16384}};
    const std::pair<int, int> policies[] = {{SCHED_OTHER, 0}, {SCHED_FIFO, 17}, {SCHED_RR, 18}};
    for (const Form& form : forms)
        for (const auto& [kiB, bytes] : stacks)
            for (const auto& [policy, priority] : policies) {
                SCOPED_TRACE(form.context() + " " + std::to_string(kiB) + " " + std::to_string(policy));
                int target = 0;
                Pthread thread = form.start(&target, kiB, policy, priority);
                EXPECT_EQ(thread.join(), &target);
                expectNotRunning(thread);
                // A joined handle may be moved from, and overwritten.
                Pthread moved(std::move(thread));
                moved = Pthread();
                EXPECT_EQ(asked.stackBytes, bytes);
                EXPECT_EQ(asked.inherit, form.scheduled ? PTHREAD_EXPLICIT_SCHED : PTHREAD_INHERIT_SCHED);
                EXPECT_EQ(asked.policy, form.scheduled ? policy : SCHED_OTHER);
                EXPECT_EQ(asked.parameters.sched_priority, form.scheduled ? priority : 0);
            }
}

TEST(Pthread, AHandleMovesItsThreadRefusesToJoinItselfAndLetsGo)
{
    prctl(PR_SET_NAME, "maker");
    char names[2][16];
    std::binary_semaphore go(0);
    Pthread first;
    expectNotRunning(first);
    first = Pthread(
        [&, held = std::make_shared<int>()]() -> void* {
            prctl(PR_GET_NAME, names[0]);
            go.acquire();
            EXPECT_THAT([&] { first.join(); }, throwsCode(35));
            return held.use_count() == 1 ? &first : nullptr;
        },
        256);
    prctl(PR_GET_NAME, names[1]);
    Pthread other = forms[0].start(nullptr);
    const support::AllocationCount count;
    Pthread second(std::move(first));
    first = Pthread();
    first = std::move(second);
    other.detach();
    EXPECT_TRUE(first.joinable() && !second.joinable() && count.allocations() == 0);
    expectNotRunning(other);
    expectNotRunning(second);
    go.release();
    EXPECT_EQ(first.join(), &first) << "the function object lives as long as its call";
    EXPECT_STREQ(names[0], "maker");
    EXPECT_STREQ(names[1], "Pthread");
}

TEST(PthreadDeathTest, EveryFailedCallEndsTheProcessWithItsReport)
{
    const auto expectReport = [](support::Fault& fault, const std::string& context, auto operation) {
        const auto failing = [&] {
            const support::FaultScope scope(fault, EPERM);
            operation();
        };
        EXPECT_DEATH(failing(), support::literal(context + " failed in Quorvil/QuorvilPthread:") +
                                    "[0-9]+ - \\(1\\) Operation not permitted\n")
            << fault.name;
    };
    for (support::Fault* const fault :
         {&pthread_attr_initFault, &pthread_attr_setstacksizeFault, &pthread_attr_setinheritschedFault,
          &pthread_attr_setschedpolicyFault, &pthread_attr_setschedparamFault, &pthread_attr_destroyFault})
        expectReport(*fault, forms[2].context(), [] { forms[2].start(nullptr); });
    for (const Form& form : forms)
        expectReport(pthread_createFault, form.context(), [&] { form.start(nullptr); });
    Pthread thread = forms[0].start(nullptr);
    expectReport(pthread_joinFault, "void* quorvil::Pthread::join()", [&] { thread.join(); });
    expectReport(pthread_detachFault, "void quorvil::Pthread::detach()", [&] { thread.detach(); });
    thread.join();
}

TEST(PthreadDeathTest, MisuseEndsTheProcess)
{
    constexpr char source[] = "Quorvil/QuorvilPthread";
    for (const Form& form : {forms[2], forms[3]})
        EXPECT_DEATH(
            form.start(nullptr, 256, 3),
            support::assertion(source, form.context(), "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1"));
    EXPECT_DEATH(Pthread(nullptr, nullptr, 256).join(),
                 support::assertion(source, "void* quorvil::pthreadFunc(void*)", "t->alternativeF"));
    EXPECT_DEATH(forms[0].start(nullptr), "FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! "
                                          "Erst join\\(\\) oder detach\\(\\) aufrufen!!\nterminate called");
    EXPECT_DEATH(forms[0].start(nullptr) = Pthread(),
                 "FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread enthaelt!\nterminate called");
}

} // namespace
