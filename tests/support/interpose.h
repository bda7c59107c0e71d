// Makes a system call of the whole process fail on request: the test program defines the function itself, and the
// library, which looks it up like any other symbol, calls that definition.

#ifndef QUORVIL_TESTS_INTERPOSE_H
#define QUORVIL_TESTS_INTERPOSE_H

#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>
#include <functional>
#include <limits>
#include <thread>

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
    char interceptor[128];
    char* end = interceptor;
    const char* const parts[] = {"__interceptor_", name};
    for (const char* part : parts)
        while (*part != 0)
            *end++ = *part++;
    *end = 0;
    void* const function = dlsym(RTLD_DEFAULT, interceptor);
    return reinterpret_cast<Function>(function ? function : dlsym(RTLD_NEXT, name));
}

/// For ever, as a number of failing calls.
inline constexpr int always = std::numeric_limits<int>::max();

/// What is to happen to one interposed function, and how often it was called.
struct Fault
{
    /// Counts from now on, and lets the calls from the `first` on (1 is the next one) fail, `times` of them.
    void fail(long result_, int error_ = 0, int first_ = 1, int times_ = always)
    {
        calls = 0;
        result = result_;
        error = error_;
        first = first_;
        times = times_;
    }

    /// What each call does first: runs the hook and counts; true if the call has to fail.
    SUPPORT_UNINSTRUMENTED bool strikes()
    {
        if (const auto* const set = __atomic_load_n(&hook, __ATOMIC_SEQ_CST))
            (*set)();
        const int call = __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST);
        if (call < first || call - first >= times)
            return false;
        if (error != 0)
            errno = error;
        return true;
    }

    const char* const name;
    int calls = 0;
    long result = 0; ///< what a failing call returns
    int error = 0;   ///< what it leaves in `errno`, if not 0
    int first = 0;
    int times = 0;
    const std::function<void()>* hook = nullptr;
    const std::function<void()>* leaving = nullptr;
};

/// Ends an interposed call: runs what the test wants done last, and keeps `errno`.
struct Leaving
{
    SUPPORT_UNINSTRUMENTED ~Leaving()
    {
        const int error = errno;
        if (const auto* const set = __atomic_load_n(&fault.leaving, __ATOMIC_SEQ_CST))
            (*set)();
        errno = error;
    }

    Fault& fault;
};

/// Returns once the function was called so often since its `calls` were set to 0.
inline void awaitCalls(const Fault& fault, int times)
{
    while (__atomic_load_n(&fault.calls, __ATOMIC_SEQ_CST) < times)
        std::this_thread::yield();
}

/// Makes calls fail for as long as it lives. The test fails if none of them was reached.
struct FaultScope
{
    FaultScope(Fault& fault_, long result, int error = 0, int first = 1, int times = always)
        : fault(fault_)
    {
        fault.fail(result, error, first, times);
    }
    ~FaultScope()
    {
        fault.times = 0;
        EXPECT_GE(fault.calls, fault.first) << fault.name << " was never called: the seam tests nothing";
    }
    FaultScope(const FaultScope&) = delete;

    Fault& fault;
};

/// Lets a test stop every call of an interposed function on its way in, and on its way out, as long as it lives. Make
/// it before the threads that call, and end it behind them.
struct HookScope
{
    HookScope(Fault& fault_, std::function<void()> hook_, std::function<void()> leaving_ = {})
        : fault(fault_)
        , hook(std::move(hook_))
        , leaving(std::move(leaving_))
    {
        __atomic_store_n(&fault.hook, hook ? &hook : nullptr, __ATOMIC_SEQ_CST);
        __atomic_store_n(&fault.leaving, leaving ? &leaving : nullptr, __ATOMIC_SEQ_CST);
    }
    ~HookScope()
    {
        __atomic_store_n(&fault.hook, nullptr, __ATOMIC_SEQ_CST);
        __atomic_store_n(&fault.leaving, nullptr, __ATOMIC_SEQ_CST);
    }
    HookScope(const HookScope&) = delete;

    Fault& fault;
    const std::function<void()> hook;
    const std::function<void()> leaving;
};

} // namespace support

/// Defines `function` in this program, with the fault `functionFault`: `SUPPORT_INTERPOSE(int, pthread_key_delete,
/// (pthread_key_t key), (key), noexcept)`. The last argument is what the system header declares behind the parameters.
/// The system's own is looked up before the tests begin, since a look-up allocates.
#define SUPPORT_INTERPOSE(Result, function, parameters, arguments, qualifier)                                          \
    constinit support::Fault function##Fault{#function};                                                               \
    static Result(*function##Real) parameters = support::real<Result(*) parameters>(#function);                        \
    extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED Result function parameters qualifier      \
    {                                                                                                                  \
        const support::Leaving leaving{function##Fault};                                                               \
        if (function##Fault.strikes())                                                                                 \
            return (Result)(function##Fault.result);                                                                   \
        if (!function##Real)                                                                                           \
            function##Real = support::real<Result(*) parameters>(#function);                                           \
        return function##Real arguments;                                                                               \
    }

#endif
