// What the tests ask about the machine and the build that they run on.

#ifndef QUORVIL_TESTS_SUPPORT_ENVIRONMENT_H
#define QUORVIL_TESTS_SUPPORT_ENVIRONMENT_H

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define QUORVIL_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || __has_feature(memory_sanitizer)
#define QUORVIL_TEST_SANITIZED 1
#endif
#endif
#ifndef QUORVIL_TEST_SANITIZED
#define QUORVIL_TEST_SANITIZED 0
#endif

namespace support {

/// The build carries a sanitizer, whose runtime allocates, faults pages in and makes system calls of its own.
inline constexpr bool sanitized = QUORVIL_TEST_SANITIZED;

/// The tests run for ARM, which here means: in an emulator, whose faults and system calls hide the program's.
#ifdef __arm__
inline constexpr bool emulated = true;
#else
inline constexpr bool emulated = false;
#endif

} // namespace support

#endif
