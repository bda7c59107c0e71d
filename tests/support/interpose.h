// Makes a system call of the whole process fail on request: the test program defines the function itself, and the
// library, which looks it up like any other symbol, calls that definition.

#ifndef QUORVIL_TESTS_INTERPOSE_H
#define QUORVIL_TESTS_INTERPOSE_H

#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>
#include <limits>

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
    Result(*function##Real) parameters = nullptr;                                                                      \
    }                                                                                                                  \
    extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED Result function parameters qualifier      \
    {                                                                                                                  \
        if (function##Fault.strikes())                                                                                 \
            return (Result)(function##Fault.result);                                                                   \
        if (!function##Real)                                                                                           \
            function##Real = support::real<Result(*) parameters>(#function);                                           \
        return function##Real arguments;                                                                               \
    }

#endif
