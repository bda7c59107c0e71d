// Makes a system call of the whole process fail on request: the test program defines the function itself, and the
// library, which looks it up like any other symbol, calls that definition.

#ifndef QUORVIL_TESTS_INTERPOSE_H
#define QUORVIL_TESTS_INTERPOSE_H

#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>
#include <functional>
#include <limits>
#include <utility>

// A sanitizer's runtime calls interposed functions before it can serve instrumented code.
#ifdef __clang__
#define SUPPORT_UNINSTRUMENTED __attribute__((disable_sanitizer_instrumentation))
#else
#define SUPPORT_UNINSTRUMENTED __attribute__((no_sanitize("address", "undefined", "thread")))
#endif

namespace support {

/// The system's own function. Where a sanitizer stands between, its interceptor is the one to call.
template <typename Function>
SUPPORT_UNINSTRUMENTED Function real(const char* name)
{
    static constexpr char prefix[] = "__interceptor_";
    char interceptorName[128];
    char* end = interceptorName;
    for (const char* from = prefix; *from != 0; ++from)
        *end++ = *from;
    for (const char* from = name; *from != 0 && end < interceptorName + sizeof interceptorName - 1; ++from)
        *end++ = *from;
    *end = 0;
    void* function = dlsym(RTLD_DEFAULT, interceptorName);
    return reinterpret_cast<Function>(function ? function : dlsym(RTLD_NEXT, name));
}

/// A number that several threads may count up.
class Count
{
public:
    explicit constexpr Count(int start)
        : value(start)
    {
    }
    SUPPORT_UNINSTRUMENTED operator int() const
    {
        return __atomic_load_n(&value, __ATOMIC_SEQ_CST);
    }
    SUPPORT_UNINSTRUMENTED int operator++()
    {
        return __atomic_add_fetch(&value, 1, __ATOMIC_SEQ_CST);
    }
    SUPPORT_UNINSTRUMENTED void operator=(int next)
    {
        __atomic_store_n(&value, next, __ATOMIC_SEQ_CST);
    }

private:
    int value;
};

/// What is to happen to one interposed function, and how often it was called.
class Fault
{
public:
    explicit constexpr Fault(const char* functionName)
        : name(functionName)
    {
    }

    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    /// Counts the call; true if it has to fail.
    SUPPORT_UNINSTRUMENTED bool strikes()
    {
        const int call = ++calls;
        if (call < first || call - first >= times)
            return false;
        ++reached;
        if (error != 0)
            errno = error;
        return true;
    }

    const char* const name;
    Count calls{0};   ///< since the last `FaultScope`, or the start
    Count reached{0}; ///< calls that failed since then
    long result = 0;  ///< what a failing call returns
    int error = 0;    ///< what it leaves in `errno`, if not 0
    Count first{0};   ///< number of the first call that fails, from 1
    Count times{0};   ///< number of calls that fail; 0: none

    const std::function<void()>* before = nullptr; ///< what each call does first; set by `HookScope`
    const std::function<void()>* after = nullptr;  ///< what each call does last
};

/// Lets a test stop every call of an interposed function on its way in and on its way out, as long as it lives. Make it
/// before the threads that call, and end it behind them.
class HookScope
{
public:
    HookScope(Fault& fault_, std::function<void()> before_, std::function<void()> after_ = {})
        : fault(fault_)
        , before(std::move(before_))
        , after(std::move(after_))
    {
        __atomic_store_n(&fault.before, before ? &before : nullptr, __ATOMIC_SEQ_CST);
        __atomic_store_n(&fault.after, after ? &after : nullptr, __ATOMIC_SEQ_CST);
    }

    ~HookScope()
    {
        __atomic_store_n(&fault.before, nullptr, __ATOMIC_SEQ_CST);
        __atomic_store_n(&fault.after, nullptr, __ATOMIC_SEQ_CST);
    }

    HookScope(const HookScope&) = delete;
    HookScope& operator=(const HookScope&) = delete;

private:
    Fault& fault;
    const std::function<void()> before;
    const std::function<void()> after;
};

/// One call of an interposed function, with its hooks.
class Call
{
public:
    SUPPORT_UNINSTRUMENTED explicit Call(const Fault& fault_)
        : fault(fault_)
    {
        if (const auto* hook = __atomic_load_n(&fault.before, __ATOMIC_SEQ_CST))
            (*hook)();
    }

    SUPPORT_UNINSTRUMENTED ~Call()
    {
        const auto* hook = __atomic_load_n(&fault.after, __ATOMIC_SEQ_CST);
        if (!hook)
            return;
        const int error = errno;
        (*hook)();
        errno = error;
    }

    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;

private:
    const Fault& fault;
};

/// For ever, as a number of failing calls.
inline constexpr int always = std::numeric_limits<int>::max();

/// Makes calls fail for as long as it lives. The test fails if none of them was reached.
class FaultScope
{
public:
    FaultScope(Fault& fault_, long result, int error = 0, int first = 1, int times = always)
        : fault(fault_)
    {
        fault.calls = 0;
        fault.reached = 0;
        fault.result = result;
        fault.error = error;
        fault.first = first;
        fault.times = times;
    }

    ~FaultScope()
    {
        fault.times = 0;
        EXPECT_GT(fault.reached, 0) << fault.name << " was never called: the seam tests nothing";
    }

    FaultScope(const FaultScope&) = delete;
    FaultScope& operator=(const FaultScope&) = delete;

private:
    Fault& fault;
};

} // namespace support

/// Defines `function` in this program, with the fault `functionFault`: `SUPPORT_INTERPOSE(int, pthread_key_delete,
/// (pthread_key_t key), (key), noexcept)`. The last argument is what the system header declares behind the parameters.
#define SUPPORT_INTERPOSE(Result, function, parameters, arguments, qualifier)                                          \
    namespace {                                                                                                        \
    constinit support::Fault function##Fault(#function);                                                               \
    }                                                                                                                  \
    SUPPORT_INTERPOSE_WITH(function##Fault, Result, function, parameters, arguments, qualifier)

/// The same with a `support::Fault` that is defined elsewhere, for instance for several sources of one program.
#define SUPPORT_INTERPOSE_WITH(fault, Result, function, parameters, arguments, qualifier)                              \
    namespace {                                                                                                        \
    Result(*function##Real) parameters = nullptr;                                                                      \
    }                                                                                                                  \
    extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED Result function parameters qualifier      \
    {                                                                                                                  \
        const support::Call interposedCall(fault);                                                                     \
        if (fault.strikes())                                                                                           \
            return (Result)(fault.result);                                                                             \
        if (!function##Real)                                                                                           \
            function##Real = support::real<Result(*) parameters>(#function);                                           \
        return function##Real arguments;                                                                               \
    }                                                                                                                  \
    namespace {                                                                                                        \
    /* Looked up before the tests begin: a look-up allocates. */                                                       \
    [[maybe_unused]] const bool function##Ready = (function##Real = support::real<Result(*) parameters>(#function));   \
    }

#endif
