#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"

#include <cstdlib>

namespace {

constinit thread_local size_t allocationsSoFar = 0;
constinit thread_local size_t releasesSoFar = 0;

} // namespace

#if QUORVIL_TEST_SANITIZED

// As in <sanitizer/allocator_interface.h>, which g++ does not bring along.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*, size_t),
                                                         void (*released)(const volatile void*));

// The sanitizer's own allocator stays in place and reports each block.
static const int hooksInstalled =
    __sanitizer_install_malloc_and_free_hooks([](const volatile void*, size_t) { ++allocationsSoFar; },
                                              [](const volatile void* block) { releasesSoFar += block != nullptr; });

#else

extern "C" {

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);

void* malloc(size_t size)
{
    ++allocationsSoFar;
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size)
{
    ++allocationsSoFar;
    return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size)
{
    releasesSoFar += block != nullptr;
    ++allocationsSoFar;
    return __libc_realloc(block, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    ++allocationsSoFar;
    return __libc_memalign(alignment, size);
}

void free(void* block)
{
    releasesSoFar += block != nullptr;
    __libc_free(block);
}

} // extern "C"

#endif

support::AllocationCount::AllocationCount()
    : allocationsBefore(allocationsSoFar)
    , releasesBefore(releasesSoFar)
{
}

size_t support::AllocationCount::allocations() const
{
    return allocationsSoFar - allocationsBefore;
}

size_t support::AllocationCount::releases() const
{
    return releasesSoFar - releasesBefore;
}
