#include "Quorvil/QuorvilParseNum.h"

#include <array>
#include <cstddef>

namespace {

/// The value of `c` as a digit of decimal, 10 or more for everything that is none. It is unsigned, so that one
/// comparison finds both ends of the range.
unsigned decimalDigit(char c)
{
    return static_cast<unsigned char>(c) - unsigned{'0'};
}

/// For each byte its value as a hexadecimal digit, 16 for what is none: letters and digits take the same time.
constexpr std::array<uint8_t, 256> hexadecimalDigits = [] {
    std::array<uint8_t, 256> digits = {};
    digits.fill(16);
    for (uint8_t digit = 0; digit < 10; ++digit)
        digits[size_t{'0'} + digit] = digit;
    for (uint8_t digit = 10; digit < 16; ++digit)
        digits[size_t{'a'} + digit - 10] = digits[size_t{'A'} + digit - 10] = digit;
    return digits;
}();

int64_t parseHexadecimal(const char* s)
{
    uint64_t value = 0;
    for (;; ++s) {
        // The end is no digit either, so that a digit takes one comparison.
        const unsigned digit = hexadecimalDigits[static_cast<unsigned char>(*s)];
        if (digit < 16)
            value = value * 16 + digit;
        else if (*s == '\0')
            return static_cast<int64_t>(value);
    }
}

} // namespace

ParseException::ParseException()
    : std::invalid_argument("ParseException")
{
}

int64_t parseNum(const char* s)
{
    if (s[0] == '0' && (s[1] == 'x' || s[1] == 'X') && s[2] != '\0')
        return parseHexadecimal(s + 2);
    const bool negative = *s == '-';
    if (negative)
        ++s;
    uint64_t value = 0;
    for (; *s != '\0'; ++s) {
        const unsigned digit = decimalDigit(*s);
        if (digit >= 10)
            throw ParseException();
        value = value * 10 + digit;
    }
    return static_cast<int64_t>(negative ? -value : value);
}
