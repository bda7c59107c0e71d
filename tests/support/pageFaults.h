// Counts the page faults of a thread.

#ifndef QUORVIL_TESTS_SUPPORT_PAGEFAULTS_H
#define QUORVIL_TESTS_SUPPORT_PAGEFAULTS_H

#include "tests/support/environment.h"

#include <sys/resource.h>

namespace support {

/// The calling thread's page faults so far, minor and major. They cannot be told from those of an emulator or of a
/// sanitizer: there they are always 0.
inline long pageFaults()
{
    rusage usage{};
    if (!emulated && !sanitized)
        getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_minflt + usage.ru_majflt;
}

} // namespace support

#endif
