// What a failed assertion of the library writes, for death tests.

#ifndef QUORVIL_TESTS_SUPPORT_ASSERTION_H
#define QUORVIL_TESTS_SUPPORT_ASSERTION_H

#include <cstring>
#include <memory>
#include <string>

namespace support {

/// The text as a regular expression that matches it and nothing else.
inline std::string literal(const std::string& text)
{
    std::string result;
    for (const char c : text)
        result += std::strchr("\\^$.|?*+()[]{}", c) ? std::string("\\") + c : std::string(1, c);
    return result;
}

/// The whole line of an assertion, by default whatever its line number:
/// `EXPECT_DEATH(heap.alloc(9), support::assertion("Quorvil/X", "void X::f()", "a == b"))`. An empty `function` is any:
/// for templates, whose signatures each compiler writes in its own way.
inline std::string assertion(const std::string& file, const std::string& function, const std::string& expression,
                             const std::string& line = "[0-9]+")
{
    return ": " + literal(file) + ":" + line + ": " + (function.empty() ? ".*" : literal(function)) + ": Assertion `" +
           literal(expression) + "' failed\\.\n";
}

/// Overwrites the `index`th pointer-sized word of an object, for an assertion on broken invariants that no caller of
/// its operations can break.
template <typename T>
void damage(T& object, size_t index, const void* value)
{
    std::memcpy(reinterpret_cast<char*>(std::addressof(object)) + index * sizeof value, &value, sizeof value);
}

} // namespace support

#endif
