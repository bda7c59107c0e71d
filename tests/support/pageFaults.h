// Counts the page faults of a thread.

#ifndef QUORVIL_TESTS_SUPPORT_PAGEFAULTS_H
#define QUORVIL_TESTS_SUPPORT_PAGEFAULTS_H

#include "tests/support/environment.h"

#include <sys/resource.h>

namespace support {

/// Counts the calling thread's page faults, minor and major, from its construction on. Read it on the thread that made
/// it, and only where `hidden()` is null.
class PageFaults
{
public:
    PageFaults()
        : before(soFar())
    {
    }

    long count() const
    {
        return soFar() - before;
    }

    /// Why they cannot be counted here, or null:
    ///
    ///     if (const char* const reason = support::PageFaults::hidden())
    ///         GTEST_SKIP() << reason;
    static const char* hidden()
    {
        if (emulated)
            return "the emulator's page faults hide the program's";
        if (sanitized)
            return "the sanitizer's page faults hide the program's";
        return nullptr;
    }

private:
    static long soFar()
    {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_minflt + usage.ru_majflt;
    }

    long before;
};

} // namespace support

#endif
