// Linked where coverage is counted, into the library and into the test programs: each counts by itself, and what ends
// by a signal or in a hurry would lose its counters.

#include <csignal>
#include <cstdlib>

extern "C" void __gcov_dump();

namespace {

/// Runs what was installed before it, so that each library's counters are kept.
struct sigaction before = {};

void keepCounters(int number)
{
    __gcov_dump();
    sigaction(number, &before, nullptr);
    std::raise(number);
}

[[maybe_unused]] const bool installed = [] {
    struct sigaction action = {};
    action.sa_handler = keepCounters;
    action.sa_flags = static_cast<int>(SA_NODEFER);
    return sigaction(SIGABRT, &action, &before) == 0;
}();

} // namespace
