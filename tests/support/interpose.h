// Makes a system call of the whole process fail on request: the test program defines the function itself, and the
// library, which looks it up like any other symbol, calls that definition.

#ifndef QUORVIL_TESTS_INTERPOSE_H
#define QUORVIL_TESTS_INTERPOSE_H

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <dlfcn.h>
#include <limits>
#include <string>

namespace support {

/// The system's own function. Where a sanitizer stands between, its interceptor is the one to call.
template <typename Function>
Function real(const char* name)
{
    if (void* interceptor = dlsym(RTLD_DEFAULT, (std::string("__interceptor_") + name).c_str()))
        return reinterpret_cast<Function>(interceptor);
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

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
    bool strikes()
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
    std::atomic<int> calls{0};   ///< since the last `FaultScope`, or the start
    std::atomic<int> reached{0}; ///< calls that failed since then
    long result = 0;             ///< what a failing call returns
    int error = 0;               ///< what it leaves in `errno`, if not 0
    int first = 0;               ///< number of the first call that fails, from 1
    int times = 0;               ///< number of calls that fail; 0: none
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
    support::Fault function##Fault(#function);                                                                         \
    }                                                                                                                  \
    extern "C" __attribute__((visibility("default"))) Result function parameters qualifier                             \
    {                                                                                                                  \
        if (function##Fault.strikes())                                                                                 \
            return (Result)(function##Fault.result);                                                                   \
        static const auto realFunction = support::real<Result(*) parameters>(#function);                               \
        return realFunction arguments;                                                                                 \
    }

#endif
