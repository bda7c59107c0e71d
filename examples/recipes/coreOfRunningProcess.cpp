#include "Quorvil/QuorvilCoreDump.h"

#include <iostream>

namespace {

void compose(int page)
{
    // Something is wrong with page 7: leave a core with this stack in /data/coreDumps/recipe, and go on.
    if (page == 7)
        quorvil::coredump::run("recipe");
}

} // namespace

int main()
{
    for (int page = 1; page <= 10; ++page)
        compose(page);
    std::cin.get(); // a task in the background waits for the core meanwhile
}
