// A locale that no text of the library's own may follow.

#ifndef QUORVIL_TESTS_SUPPORT_GROUPINGLOCALE_H
#define QUORVIL_TESTS_SUPPORT_GROUPINGLOCALE_H

#include <iostream>
#include <locale>
#include <string>

namespace support {

/// Puts a blank between any two digits.
struct Grouped : std::numpunct<char>
{
    char do_thousands_sep() const override
    {
        return ' ';
    }
    std::string do_grouping() const override
    {
        return "\1";
    }
};

/// Sets the global locale, and that of the console, to one that groups digits, for as long as it lives.
struct GroupingEverywhere
{
    static std::locale set(const std::locale& locale)
    {
        std::cout.imbue(locale);
        std::cerr.imbue(locale);
        return std::locale::global(locale);
    }
    ~GroupingEverywhere()
    {
        set(before);
    }

    const std::locale before = set(std::locale(std::locale::classic(), new Grouped));
};

} // namespace support

#endif
