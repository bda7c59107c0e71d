#include "Title.h"

#include "Failure.h"

#include "Quorvil/QuorvilMystring.h"

#include <clocale>
#include <cstddef>

namespace labelPrinter {

namespace {

/// What a keyword of a PNG file may have, in characters.
constexpr size_t longestTitle = 79;
constexpr size_t displayWidth = 20;

} // namespace

void useUtf8()
{
    // Where the system has no such locale, titles of ASCII are all that is taken.
    std::setlocale(LC_CTYPE, "C.UTF-8");
}

void checkTitle(const std::string& title)
{
    if (printable(title) != title)
        throw Failure("the title holds control characters");
    try {
        const tolmen::mywstring characters{tolmen::mystring(title)};
        if (characters.empty() || characters.size() > longestTitle)
            throw Failure("the title has not 1 to 79 characters");
    } catch (const tolmen::Utf8Exception&) {
        throw Failure("the title is no UTF-8 text");
    }
}

std::string onDisplay(const std::string& title)
{
    tolmen::mywstring characters{tolmen::mystring(title)};
    characters.toUpperCase();
    if (characters.size() > displayWidth)
        characters.resize(displayWidth);
    return tolmen::mystring(characters);
}

} // namespace labelPrinter
