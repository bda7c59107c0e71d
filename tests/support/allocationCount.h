// Counts what a thread takes from the system's allocator.

#ifndef QUORVIL_TESTS_SUPPORT_ALLOCATIONCOUNT_H
#define QUORVIL_TESTS_SUPPORT_ALLOCATIONCOUNT_H

#include <cstddef>

namespace support {

/// Counts the calling thread's allocations and releases from its construction on:
///
///     support::AllocationCount count;
///     queue.push(std::move(value));
///     EXPECT_EQ(0U, count.allocations());
///
/// `malloc` and its family count, and with it `operator new`, in the library as in the test. Read it on the thread that
/// made it. Counts can be nested.
class AllocationCount
{
public:
    AllocationCount();

    /// Blocks taken; a reallocation takes one and gives one back.
    size_t allocations() const;

    /// Blocks given back.
    size_t releases() const;

private:
    size_t allocationsBefore;
    size_t releasesBefore;
};

} // namespace support

#endif
