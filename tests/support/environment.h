// What the tests ask about the machine and the build that they run on.

#ifndef QUORVIL_TESTS_SUPPORT_ENVIRONMENT_H
#define QUORVIL_TESTS_SUPPORT_ENVIRONMENT_H

#include <cstdlib>

#ifndef __has_feature // a question to clang
#define __has_feature(feature) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define QUORVIL_TEST_SANITIZED 1
#else
#define QUORVIL_TEST_SANITIZED 0
#endif

namespace support {

/// The build carries a sanitizer, whose runtime allocates, faults pages in and makes system calls of its own.
inline constexpr bool sanitized = QUORVIL_TEST_SANITIZED;
/// It is the thread sanitizer, which reports misuse that the system's calls refuse by an error.
inline constexpr bool threadSanitized = __has_feature(thread_sanitizer);
/// The tests run for 32-bit ARM, which here means: in an emulator, whose faults and system calls hide the program's.
inline constexpr bool emulated = sizeof(void*) == 4;

/// How many times its usual rounds a stress test makes: the environment's QUORVIL_STRESS, or 1.
inline int stressFactor()
{
    const char* const factor = std::getenv("QUORVIL_STRESS");
    return factor && std::atoi(factor) > 0 ? std::atoi(factor) : 1;
}

} // namespace support

#endif
