// Sees which system calls a piece of code makes.

#ifndef QUORVIL_TESTS_SUPPORT_SYSTEMCALLS_H
#define QUORVIL_TESTS_SUPPORT_SYSTEMCALLS_H

#include <functional>
#include <vector>

namespace support {

/// Runs `function` on a thread of its own, and fails the test if it takes memory, gives some back, or makes other
/// system calls than `calls`, told by their numbers (`SYS_futex`, ...), in order. What the kernel answers without a
/// system call, as `clock_gettime` does, is not among them.
///
/// System calls are looked at on x86-64 alone, and not with a sanitizer. Each is performed as usual. `function` throws
/// nothing and starts no thread or process; its calls beyond a thousand are performed and not looked at.
void expectNothingOfTheSystem(const std::function<void()>& function, const std::vector<int>& calls = {});

} // namespace support

#endif
