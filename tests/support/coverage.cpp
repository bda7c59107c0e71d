// Linked where coverage is counted, into the library and into the test programs: each counts by itself, and what ends
// by a signal or in a hurry would lose its counters.

#include <csignal>
#include <initializer_list>

extern "C" void __gcov_dump();

namespace {

/// What the process did with the signal before; it comes next, so that each library's counters are kept. One that no
/// tool and no test uses, and that is ignored by itself, is what a child raises before it ends in a hurry.
void (*before[NSIG])(int) = {};

void keepCounters(int number)
{
    __gcov_dump();
    std::signal(number, before[number]);
    std::raise(number);
}

[[maybe_unused]] const bool installed = [] {
    for (const int number : {SIGABRT, SIGURG})
        before[number] = std::signal(number, keepCounters);
    return true;
}();

} // namespace
