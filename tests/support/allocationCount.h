// Counts what a thread takes from the system's allocator, and makes it fail on request.

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

/// While it lives, the calling thread's `kth` allocation from now on (1 is the next one) fails: `malloc` gives null,
/// `operator new` throws `std::bad_alloc`. One at a time in a thread, and only where `hidden()` is null.
class AllocationFailure
{
public:
    explicit AllocationFailure(size_t kth);
    ~AllocationFailure();
    AllocationFailure(const AllocationFailure&) = delete;
    AllocationFailure& operator=(const AllocationFailure&) = delete;

    /// An allocation has been made to fail. A test that walks through all k is done when none was.
    bool reached() const;

    /// Why allocations cannot be made to fail here, or null.
    static const char* hidden();
};

} // namespace support

#endif
