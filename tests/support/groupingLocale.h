// A locale that no text of the library's own may follow.

#ifndef QUORVIL_TESTS_SUPPORT_GROUPINGLOCALE_H
#define QUORVIL_TESTS_SUPPORT_GROUPINGLOCALE_H

#include <iostream>
#include <locale>
#include <string>

namespace support {

/// Sets the global locale, and that of the console, to one that puts a blank between any two digits, for as long as it
/// lives.
class GroupingEverywhere
{
public:
    GroupingEverywhere()
        : before(std::locale::global(std::locale(std::locale::classic(), new Grouped)))
    {
        std::cout.imbue(std::locale());
        std::cerr.imbue(std::locale());
    }
    ~GroupingEverywhere()
    {
        std::locale::global(before);
        std::cout.imbue(before);
        std::cerr.imbue(before);
    }
    GroupingEverywhere(const GroupingEverywhere&) = delete;
    GroupingEverywhere& operator=(const GroupingEverywhere&) = delete;

private:
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

    std::locale before;
};

} // namespace support

#endif
