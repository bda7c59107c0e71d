// Records the system calls that a piece of code makes.

#ifndef QUORVIL_TESTS_SUPPORT_SYSTEMCALLS_H
#define QUORVIL_TESTS_SUPPORT_SYSTEMCALLS_H

#include <functional>
#include <vector>

namespace support {

/// Runs `function`, where they can be recorded on a thread of its own, and returns the numbers (`SYS_futex`, ...) of
/// the system calls that this thread made in it, in order. Each call is performed as usual. What the kernel answers
/// without a system call, as `clock_gettime` does, is not among them.
///
/// Only where `systemCallsHidden()` is null. `function` throws nothing, starts no thread or process, and makes at most
/// a thousand calls; those beyond are performed and not recorded.
std::vector<int> systemCallsOf(const std::function<void()>& function);

/// Why system calls cannot be recorded here, or null.
const char* systemCallsHidden();

/// Runs `function` as `systemCallsOf` does, and fails the test if it takes memory, gives some back, or makes other
/// system calls than `calls`. Where they cannot be recorded, only the memory is looked at.
void expectNothingOfTheSystem(const std::function<void()>& function, const std::vector<int>& calls = {});

} // namespace support

#endif
