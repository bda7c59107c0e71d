#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"

#include <cstdlib>

constinit thread_local size_t support::allocationsSoFar = 0, support::releasesSoFar = 0;

#if QUORVIL_TEST_SANITIZED

// As in <sanitizer/allocator_interface.h>, which g++ does not bring along.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*, size_t),
                                                         void (*released)(const volatile void*));

// The sanitizer's own allocator stays in place and reports each block.
static const int hooksInstalled = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void*, size_t) { ++support::allocationsSoFar; },
    [](const volatile void* block) { support::releasesSoFar += block != nullptr; });

#else

extern "C" {

void* __libc_malloc(size_t size);
void __libc_free(void* block);

void* malloc(size_t size)
{
    ++support::allocationsSoFar;
    return __libc_malloc(size);
}

void free(void* block)
{
    support::releasesSoFar += block != nullptr;
    __libc_free(block);
}

} // extern "C"

#endif
