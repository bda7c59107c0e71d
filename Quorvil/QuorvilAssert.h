// QuorvilAssert.h: the assertion that stays active in every build
// Foundation

#ifndef QUORVIL_QUORVILASSERT_H
#define QUORVIL_QUORVILASSERT_H

/// The system library's end of a failed assertion. It is declared here because `NDEBUG` hides it in `<cassert>`.
extern "C" void __assert_fail(const char* assertion, const char* file, unsigned int line, const char* function) noexcept
    __attribute__((__noreturn__));

namespace quorvil::intern {

/// Ends the process by `__assert_fail` unless `condition` holds, in every build.
///
/// The texts are arguments, not the compiler's own, so that a report reads the same under every compiler and width.
///
/// @param expression  the condition's text
/// @param file        "Quorvil/" and the source's name without extension
/// @param line        the line to report, `__LINE__` where none is fixed
/// @param function    the full signature of the function
/// @threads any   @realtime bounded
inline void require(bool condition, const char* expression, const char* file, unsigned int line,
                    const char* function) noexcept
{
    if (__builtin_expect(!condition, 0))
        __assert_fail(expression, file, line, function);
}

} // namespace quorvil::intern

#endif
