#include "Quorvil/QuorvilMystring.h"
#include "Quorvil/QuorvilParseNum.h"
#include "Quorvil/QuorvilRemovePathDots.h"

#include <clocale>
#include <iostream>

int main()
{
    std::setlocale(LC_ALL, "C.UTF-8"); // what converts is the process's locale; initLocale() makes it German

    tolmen::mywstring wide(tolmen::mystring("grüne Höhe", false)); // a wchar_t a character
    wide.toUpperCase();
    std::cout << wide.size() << " characters: " << tolmen::mystring(wide) << '\n';
    try {
        wide = tolmen::mystring("H\xF6he", false); // not UTF-8
    } catch (const tolmen::Utf8Exception&) {
        std::cout << "kept: " << tolmen::mystring(wide) << '\n';
    }

    for (std::string path : {"/data//jobs/./old/../label", "../../fonts", "/.."}) {
        const bool inside = quorvilRemovePathDots::removePathDots(path);
        std::cout << path << (inside ? "\n" : " leads above the root\n");
    }

    std::cout << parseNum("-42") << ' ' << parseNum("0x2A") << '\n';
}
