// Catches failed assertions instead of dying of them, for tests that fail thousands: it interposes `__assert_fail`.

#ifndef QUORVIL_TESTS_SUPPORT_ASSERTIONTRAP_H
#define QUORVIL_TESTS_SUPPORT_ASSERTIONTRAP_H

#include "Quorvil/QuorvilAssert.h"

#include <csetjmp>
#include <dlfcn.h>
#include <string>

namespace assertionTrap {

inline std::jmp_buf place;
inline std::string failure;
inline bool armed = false;

/// Runs `action`, whose frames may hold nothing that needs a destructor where it fails, and gives "file: function:
/// expression" of the assertion that it failed, or an empty text. It has a frame of its own: the jump loses variables.
template <typename Action>
__attribute__((noinline)) const std::string& failureOf(const Action& action)
{
    failure.clear();
    if (setjmp(place) == 0) {
        armed = true;
        action();
    }
    armed = false;
    return failure;
}

} // namespace assertionTrap

/// Outside of `failureOf` a failed assertion ends the process as ever. Each source that includes this has a copy.
extern "C" __attribute__((weak)) void __assert_fail(const char* expression, const char* file, unsigned line,
                                                    const char* function) noexcept
{
    if (assertionTrap::armed) {
        assertionTrap::failure = std::string(file) + ": " + function + ": " + expression;
        std::longjmp(assertionTrap::place, 1);
    }
    reinterpret_cast<decltype(&__assert_fail)>(dlsym(RTLD_NEXT, "__assert_fail"))(expression, file, line, function);
    __builtin_unreachable();
}

#endif
