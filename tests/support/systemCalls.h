// Records the system calls that a piece of code makes.

#ifndef QUORVIL_TESTS_SUPPORT_SYSTEMCALLS_H
#define QUORVIL_TESTS_SUPPORT_SYSTEMCALLS_H

#include <functional>
#include <vector>

namespace support {

/// Runs `function` on a thread of its own and returns the numbers (`SYS_futex`, ...) of the system calls that this
/// thread made in it, in order. Each call is performed as usual. What the kernel answers without a system call, as
/// `clock_gettime` does, is not among them.
///
///     EXPECT_EQ(std::vector<int>(), support::systemCallsOf([&] { pool.put(pool.get()); }));
///
/// Only where `systemCallsHidden()` is null. `function` throws nothing, starts no thread or process, and makes at most
/// a thousand calls; those beyond are performed and not recorded.
std::vector<int> systemCallsOf(const std::function<void()>& function);

/// Why system calls cannot be recorded here, or null:
///
///     if (const char* const reason = support::systemCallsHidden())
///         GTEST_SKIP() << reason;
const char* systemCallsHidden();

} // namespace support

#endif
