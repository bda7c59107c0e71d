// Catches failed assertions instead of dying of them, for tests that fail thousands. It interposes `__assert_fail`, so
// one source of a program defines QUORVIL_ASSERTION_TRAP before it includes this header; outside of `failureOf` a
// failed assertion ends the process as ever.

#ifndef QUORVIL_TESTS_SUPPORT_ASSERTIONTRAP_H
#define QUORVIL_TESTS_SUPPORT_ASSERTIONTRAP_H

#include "Quorvil/QuorvilAssert.h"

#include <csetjmp>
#include <string>

namespace assertionTrap {

inline std::jmp_buf place;
inline std::string failure;
inline bool armed = false;

/// A frame of its own between the jump's place and the action, whose variables would be lost to the jump.
template <typename Action>
__attribute__((noinline)) void run(const Action& action)
{
    action();
}

/// Runs `action`, whose frames may hold nothing that needs a destructor where it fails, and gives "file: function:
/// expression" of the assertion that it failed, or an empty text.
template <typename Action>
const std::string& failureOf(const Action& action)
{
    failure.clear();
    armed = true;
    try {
        if (setjmp(place) == 0)
            run(action);
    } catch (...) {
        armed = false;
        throw;
    }
    armed = false;
    return failure;
}

} // namespace assertionTrap

#ifdef QUORVIL_ASSERTION_TRAP

#include <dlfcn.h>

extern "C" void __assert_fail(const char* expression, const char* file, unsigned line, const char* function) noexcept
{
    using namespace assertionTrap;
    if (armed) {
        failure = std::string(file) + ": " + function + ": " + expression;
        std::longjmp(place, 1);
    }
    reinterpret_cast<void (*)(const char*, const char*, unsigned, const char*)>(dlsym(RTLD_NEXT, "__assert_fail"))(
        expression, file, line, function);
    __builtin_unreachable();
}

#endif

#endif
