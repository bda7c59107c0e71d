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
template <typename Function, size_t size>
SUPPORT_UNINSTRUMENTED Function real(const char (&name)[size])
{
    char interceptor[14 + size];
    for (size_t i = 0; i < 14 + size; ++i)
        interceptor[i] = i < 14 ? "__interceptor_"[i] : name[i - 14];
    void* const function = dlsym(RTLD_DEFAULT, interceptor);
    return reinterpret_cast<Function>(function ? function : dlsym(RTLD_NEXT, name));
}

/// For ever, as a number of failing calls.
inline constexpr int always = std::numeric_limits<int>::max();

/// What a test does in an interposed call, on its way in and on its way out.
struct Hooks
{
    std::function<void()> entering, leaving;
};

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
        if (const Hooks* const set = __atomic_load_n(&hooks, __ATOMIC_SEQ_CST); set && set->entering)
            set->entering();
        const int call = __atomic_add_fetch(&calls, 1, __ATOMIC_SEQ_CST);
        if (call < first || call - first >= times)
            return false;
        if (error != 0)
            errno = error;
        return true;
    }

    /// What each call does last: runs the hook, and keeps `errno`.
    template <typename Result>
    SUPPORT_UNINSTRUMENTED Result leave(Result answer)
    {
        const int kept = errno;
        if (const Hooks* const set = __atomic_load_n(&hooks, __ATOMIC_SEQ_CST); set && set->leaving)
            set->leaving();
        errno = kept;
        return answer;
    }

    const char* const name;
    int calls = 0;
    long result = 0; ///< what a failing call returns
    int error = 0;   ///< what it leaves in `errno`, if not 0
    int first = 0;
    int times = 0;
    const Hooks* hooks = nullptr;
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

    Fault& fault;
};

/// Lets a test stop every call of an interposed function on its way in, and on its way out, as long as it lives. Make
/// it before the threads that call, and end it behind them.
struct HookScope : Hooks
{
    HookScope(Fault& fault_, std::function<void()> entering_, std::function<void()> leaving_ = {})
        : Hooks{std::move(entering_), std::move(leaving_)}
        , fault(fault_)
    {
        __atomic_store_n(&fault.hooks, this, __ATOMIC_SEQ_CST);
    }
    ~HookScope()
    {
        __atomic_store_n(&fault.hooks, nullptr, __ATOMIC_SEQ_CST);
    }

    Fault& fault;
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
        if (function##Fault.strikes())                                                                                 \
            return function##Fault.leave((Result)(function##Fault.result));                                            \
        if (!function##Real)                                                                                           \
            function##Real = support::real<Result(*) parameters>(#function);                                           \
        return function##Fault.leave(function##Real arguments);                                                        \
    }

#endif
