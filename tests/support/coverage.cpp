// Linked where coverage is counted, into the library and into the test programs: each counts by itself, and what ends
// by a signal or in a hurry would lose its counters.

#include <csignal>
#include <cstdlib>

extern "C" void __gcov_dump();

namespace {

/// What the process did with the signal before; it comes next, so that each library's counters are kept. One that no
/// tool and no test uses, and that is ignored by itself, is what a child raises before it ends in a hurry.
struct sigaction before[NSIG] = {};

void keepCounters(int number)
{
    __gcov_dump();
    sigaction(number, &before[number], nullptr);
    std::raise(number);
}

[[maybe_unused]] const bool installed = [] {
    struct sigaction action = {};
    action.sa_handler = keepCounters;
    action.sa_flags = static_cast<int>(SA_NODEFER);
    return sigaction(SIGABRT, &action, &before[SIGABRT]) == 0 && sigaction(SIGURG, &action, &before[SIGURG]) == 0;
}();

} // namespace
