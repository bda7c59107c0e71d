#include "Quorvil/QuorvilPthread.h"

#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/interpose.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <functional>
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
using testing::HasSubstr;

SUPPORT_INTERPOSE(int, pthread_attr_init, (pthread_attr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_destroy, (pthread_attr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setstacksize, (pthread_attr_t * attr, size_t size), (attr, size), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setinheritsched, (pthread_attr_t * attr, int value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setschedpolicy, (pthread_attr_t * attr, int value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setschedparam, (pthread_attr_t * attr, const sched_param* value), (attr, value),
                  noexcept)
SUPPORT_INTERPOSE(int, pthread_join, (pthread_t thread, void** result), (thread, result), )
SUPPORT_INTERPOSE(int, pthread_detach, (pthread_t thread), (thread), noexcept)

namespace {

/// What the last `pthread_create` was asked for.
struct Asked
{
    size_t stackBytes;
    int inherit;
    int policy;
    int priority;
};

Asked asked;
constinit support::Fault createFault("pthread_create");

Asked read(const pthread_attr_t* attributes)
{
    Asked values{};
    sched_param parameters{};
    pthread_attr_getstacksize(attributes, &values.stackBytes);
    pthread_attr_getinheritsched(attributes, &values.inherit);
    pthread_attr_getschedpolicy(attributes, &values.policy);
    pthread_attr_getschedparam(attributes, &parameters);
    values.priority = parameters.sched_priority;
    return values;
}

constinit support::Fault prctlFault("prctl");

} // namespace

/// `prctl` takes any number of arguments; the system's own always looks at four.
extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int prctl(int option, ...) noexcept
{
    va_list rest;
    va_start(rest, option);
    unsigned long arguments[4];
    for (unsigned long& argument : arguments)
        argument = va_arg(rest, unsigned long);
    va_end(rest);
    if (prctlFault.strikes())
        return static_cast<int>(prctlFault.result);
    return support::real<int (*)(int, ...)>("prctl")(option, arguments[0], arguments[1], arguments[2], arguments[3]);
}

/// Remembers what was asked for, and starts the thread without its policy, to which a test may have no right.
extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* arg) noexcept
{
    if (createFault.strikes())
        return static_cast<int>(createFault.result);
    const auto create = support::real<decltype(&pthread_create)>("pthread_create");
    if (attributes == nullptr)
        return create(thread, attributes, routine, arg);
    asked = read(attributes);
    pthread_attr_t plain = *attributes;
    support::real<decltype(&pthread_attr_setinheritsched)>("pthread_attr_setinheritsched")(&plain,
                                                                                           PTHREAD_INHERIT_SCHED);
    return create(thread, &plain, routine, arg);
}

namespace {

constexpr uint32_t stackKiB = 256;

void* echo(void* arg)
{
    return arg;
}

std::string threadName()
{
    char name[16] = "";
    prctl(PR_GET_NAME, name, 0, 0, 0);
    return name;
}

/// One of the four constructors that start a thread.
struct Form
{
    const char* context;
    Pthread (*start)(void* result, uint32_t stack, int policy);
};

constexpr std::array<Form, 4> forms{{
    {"quorvil::Pthread::Pthread(quorvil::Pthread::Func, void*, uint32_t)",
     [](void* result, uint32_t stack, int) { return Pthread(echo, result, stack); }},
    {"quorvil::Pthread::Pthread(quorvil::Pthread::AlternativeFunc, uint32_t)",
     [](void* result, uint32_t stack, int) { return Pthread([result] { return result; }, stack); }},
    {"quorvil::Pthread::Pthread(quorvil::Pthread::Func, void*, uint32_t, int, int)",
     [](void* result, uint32_t stack, int policy) { return Pthread(echo, result, stack, policy, 17); }},
    {"quorvil::Pthread::Pthread(quorvil::Pthread::AlternativeFunc, uint32_t, int, int)",
     [](void* result, uint32_t stack, int policy) { return Pthread([result] { return result; }, stack, policy, 17); }},
}};
constexpr const Form& plainForm = forms[0];
constexpr const Form& scheduledForm = forms[2];

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

TEST(Pthread, EveryConstructorRunsItsFunctionAndJoinHandsItsResultOn)
{
    for (const Form& form : forms) {
        SCOPED_TRACE(form.context);
        int target = 0;
        Pthread thread = form.start(&target, stackKiB, SCHED_FIFO);
        EXPECT_EQ(thread.join(), &target);
        expectNotRunning(thread);
    }
}

TEST(Pthread, TheStackIsAtLeast16KiBAndComesInWholePages)
{
    const auto page = static_cast<size_t>(getpagesize());
    const auto pages = [page](size_t bytes) { return (bytes + page - 1) / page * page; };
    const struct
    {
        uint32_t kiB;
        size_t bytes;
    } rows[] = {{0, 16384},        {15, 16384},
                {16, 16384},       {17, pages(17408)},
                {20, 20480},       {21, pages(21504)},
                {2048, 2097152},   {2049, pages(2098176)},
                {0x400000, 16384}, {0x400011, pages(17408)}};
    for (const auto& row : rows) {
        for (const Form& form : forms) {
            SCOPED_TRACE(std::string(form.context) + " " + std::to_string(row.kiB));
            form.start(nullptr, row.kiB, SCHED_FIFO).join();
            EXPECT_EQ(asked.stackBytes, row.bytes);
        }
    }
}

TEST(Pthread, PolicyAndPriorityAreAskedForExplicitlyOrNotAtAll)
{
    for (const Form& form : forms) {
        const bool scheduled = &form >= &scheduledForm;
        for (const int policy : {SCHED_RR, SCHED_FIFO}) {
            SCOPED_TRACE(std::string(form.context) + " " + std::to_string(policy));
            form.start(nullptr, stackKiB, policy).join();
            EXPECT_EQ(asked.inherit, scheduled ? PTHREAD_EXPLICIT_SCHED : PTHREAD_INHERIT_SCHED);
            EXPECT_EQ(asked.policy, scheduled ? policy : SCHED_OTHER);
            EXPECT_EQ(asked.priority, scheduled ? 17 : 0);
        }
    }
    Pthread(echo, nullptr, stackKiB, SCHED_OTHER, 0).join();
    EXPECT_EQ(asked.inherit, PTHREAD_EXPLICIT_SCHED);
    EXPECT_EQ(asked.policy, SCHED_OTHER);
}

TEST(Pthread, TheConstructorRenamesItsCallerAndTheThreadKeepsTheNameItInherited)
{
    prctl(PR_SET_NAME, "maker", 0, 0, 0);
    // The clone takes the name over before the constructor sets another.
    std::string inherited;
    Pthread thread(
        [&]() -> void* {
            inherited = threadName();
            return nullptr;
        },
        stackKiB);
    EXPECT_EQ(threadName(), "Pthread");
    thread.join();
    EXPECT_EQ(inherited, "maker");
}

TEST(Pthread, TheFunctionObjectLivesOnItsThreadUntilTheCallHasReturned)
{
    struct Witness
    {
        std::atomic<bool> returned{false};
        bool destroyedAfterReturn = false;
        bool destroyedThere = false;
        pthread_t caller{};
    } witness;
    struct Notes
    {
        explicit Notes(Witness& w)
            : witness(w)
        {
        }
        ~Notes()
        {
            witness.destroyedAfterReturn = witness.returned;
            witness.destroyedThere = !pthread_equal(pthread_self(), witness.caller);
        }
        Witness& witness;
    };
    witness.caller = pthread_self();
    std::binary_semaphore go(0);
    // The copies share the notes: the last one, the thread's own, ends them.
    auto notes = std::make_shared<Notes>(witness);
    Pthread thread(
        [&go, held = std::move(notes)]() -> void* {
            go.acquire();
            held->witness.returned = true;
            return nullptr;
        },
        stackKiB);
    go.release();
    thread.join();
    EXPECT_TRUE(witness.destroyedAfterReturn);
    EXPECT_TRUE(witness.destroyedThere);
}

TEST(Pthread, AMoveTakesTheThreadAlongAndLeavesAnEmptyHandle)
{
    int target = 0;
    Pthread first = plainForm.start(&target, stackKiB, 0);
    Pthread second(std::move(first));
    expectNotRunning(first);
    first = std::move(second);
    expectNotRunning(second);
    EXPECT_EQ(first.join(), &target);

    first = plainForm.start(nullptr, stackKiB, 0); // onto a joined handle
    first.join();
    second = std::move(first); // a joined handle moves as such
    expectNotRunning(first);
    expectNotRunning(second);

    Pthread empty;
    expectNotRunning(empty);
    empty = plainForm.start(&target, stackKiB, 0);
    Pthread& itself = empty;
    EXPECT_EQ(empty.join(), &target);
    empty = std::move(itself);
    expectNotRunning(empty);
}

TEST(Pthread, ADetachedThreadRunsOnWithoutItsHandle)
{
    std::binary_semaphore go(0);
    std::binary_semaphore done(0);
    std::function<void*()> run = [&]() -> void* {
        go.acquire();
        done.release();
        return nullptr;
    };
    {
        Pthread thread(run, stackKiB);
        thread.detach();
        expectNotRunning(thread);
    }
    go.release();
    done.acquire();
}

TEST(Pthread, JoinFromTheThreadItselfIsRefusedAndLeavesTheHandleRunning)
{
    std::binary_semaphore complete(0);
    Pthread thread;
    thread = Pthread(
        [&]() -> void* {
            complete.acquire();
            expectSystemError(35, [&] { thread.join(); });
            return &thread;
        },
        stackKiB);
    complete.release();
    EXPECT_EQ(thread.join(), &thread);
}

TEST(Pthread, ANameThatIsRefusedDoesNotMatter)
{
    support::FaultScope scope(prctlFault, -1, EPERM);
    int target = 0;
    EXPECT_EQ(plainForm.start(&target, stackKiB, 0).join(), &target);
    EXPECT_EQ(prctlFault.calls, 1);
}

TEST(Pthread, WithoutMemoryForTheStartPacketNothingIsLeftBehind)
{
    if (const char* const reason = support::AllocationFailure::hidden())
        GTEST_SKIP() << reason;
    for (const Form& form : forms) {
        SCOPED_TRACE(form.context);
        for (support::Fault* fault : {&pthread_attr_initFault, &pthread_attr_destroyFault, &createFault})
            fault->calls = 0;
        {
            const support::AllocationFailure failure(1);
            EXPECT_THROW(form.start(nullptr, stackKiB, SCHED_FIFO), std::bad_alloc);
        }
        EXPECT_EQ(pthread_attr_initFault.calls, 1);
        EXPECT_EQ(pthread_attr_destroyFault.calls, 1);
        EXPECT_EQ(createFault.calls, 0);
    }
}

// Every ending of the process, with its text.

std::string reports(const std::string& context, const std::string& error)
{
    return support::literal(context + " failed in Quorvil/QuorvilPthread:") + "[0-9]+" +
           support::literal(" - " + error) + "\n.*" +
           support::assertion("Quorvil/SafeLinuxCalls", "int util::safePosix(const char*, const char*, int, int)",
                              "posixFuncResult == 0");
}

template <typename Operation>
void failing(support::Fault& fault, int error, Operation operation)
{
    support::FaultScope scope(fault, error);
    operation();
}

TEST(PthreadDeathTest, EveryFailedCallEndsTheProcessWithItsReport)
{
    support::Fault* const faults[] = {
        &pthread_attr_initFault,           &pthread_attr_setstacksizeFault,  &pthread_attr_setinheritschedFault,
        &pthread_attr_setschedpolicyFault, &pthread_attr_setschedparamFault, &createFault,
        &pthread_attr_destroyFault};
    for (support::Fault* fault : faults) {
        SCOPED_TRACE(fault->name);
        EXPECT_DEATH(failing(*fault, EINVAL, [] { scheduledForm.start(nullptr, stackKiB, SCHED_RR); }),
                     reports(scheduledForm.context, "(22) Invalid argument"));
    }
    for (const Form& form : forms) {
        SCOPED_TRACE(form.context);
        EXPECT_DEATH(failing(createFault, EPERM, [&] { form.start(nullptr, stackKiB, SCHED_FIFO); }),
                     reports(form.context, "(1) Operation not permitted"));
    }
    Pthread thread(echo, nullptr, stackKiB);
    EXPECT_DEATH(failing(pthread_joinFault, ESRCH, [&] { thread.join(); }),
                 reports("void* quorvil::Pthread::join()", "(3) No such process"));
    EXPECT_DEATH(failing(pthread_detachFault, ESRCH, [&] { thread.detach(); }),
                 reports("void quorvil::Pthread::detach()", "(3) No such process"));
    thread.join();
}

TEST(PthreadDeathTest, AnUnknownPolicyFailsTheAssertionOfItsConstructor)
{
    for (const Form* form : {&forms[2], &forms[3]}) {
        for (const int policy : {-1, 3}) {
            EXPECT_DEATH(form->start(nullptr, stackKiB, policy),
                         support::assertion("Quorvil/QuorvilPthread", form->context,
                                            "schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1"));
        }
    }
}

TEST(PthreadDeathTest, AThreadWithoutAFunctionFailsTheAssertionOfTheEntryRoutine)
{
    const std::string text =
        support::assertion("Quorvil/QuorvilPthread", "void* quorvil::pthreadFunc(void*)", "t->alternativeF");
    EXPECT_DEATH(Pthread(nullptr, nullptr, stackKiB).join(), text);
    EXPECT_DEATH(Pthread(Pthread::AlternativeFunc(), stackKiB).join(), text);
}

TEST(PthreadDeathTest, ARunningHandleCanNeitherDieNorBeOverwritten)
{
    const std::string destroyed = "FEHLER: Pthread-Objekt zerstoert, das noch laufenden Thread enthaelt! "
                                  "Erst join() oder detach() aufrufen!!\n";
    const std::string overwritten = "FEHLER: move-Zuweisung an Pthread-Objekt das bereits laufenden Thread enthaelt!\n";
    EXPECT_DEATH(plainForm.start(nullptr, stackKiB, 0), HasSubstr(destroyed + "terminate called"));
    EXPECT_DEATH(
        {
            Pthread thread = plainForm.start(nullptr, stackKiB, 0);
            thread = Pthread();
        },
        HasSubstr(overwritten + "terminate called"));
}

} // namespace
