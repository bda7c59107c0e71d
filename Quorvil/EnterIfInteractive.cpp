#include "Quorvil/EnterIfInteractive.h"

#include "Quorvil/ThreadSafeStream.h"

#include <iostream>

void enterIfInteractive(bool interactive, const std::string& text)
{
    if (!interactive)
        return;
    safeCerr << "*** Nach ENTER: " << text << " ... > " << std::flush;
    std::string line;
    // The end of the input ends the wait as well, so the result does not matter.
    std::getline(std::cin, line);
}
