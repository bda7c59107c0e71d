// Counts what a thread takes from the system's allocator.

#ifndef QUORVIL_TESTS_SUPPORT_ALLOCATIONCOUNT_H
#define QUORVIL_TESTS_SUPPORT_ALLOCATIONCOUNT_H

#include <cstddef>

namespace support {

/// Those of the calling thread since its start.
extern constinit thread_local size_t allocationsSoFar, releasesSoFar;

/// Counts the calling thread's allocations and releases from its construction on:
///
///     support::AllocationCount count;
///     queue.push(std::move(value));
///     EXPECT_EQ(0U, count.allocations());
///
/// `malloc` counts, and with it `operator new` at its usual alignment, in the library as in the test. Read it on the
/// thread that made it. Counts can be nested.
class AllocationCount
{
public:
    /// Blocks taken.
    size_t allocations() const
    {
        return allocationsSoFar - allocationsBefore;
    }

    /// Blocks given back.
    size_t releases() const
    {
        return releasesSoFar - releasesBefore;
    }

private:
    const size_t allocationsBefore = allocationsSoFar;
    const size_t releasesBefore = releasesSoFar;
};

} // namespace support

#endif
