#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"

#include <cerrno>
#include <cstdlib>

#if QUORVIL_TEST_SANITIZED
// As in <sanitizer/allocator_interface.h>, which g++ does not bring along.
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*, size_t),
                                                         void (*released)(const volatile void*));
#else
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
}
#endif

namespace {

struct State
{
    size_t allocations = 0;
    size_t releases = 0;
    /// Requests up to and including the one that fails; 0 when none is to.
    size_t untilFailure = 0;
    bool failed = false;
};

constinit thread_local State state;

#if QUORVIL_TEST_SANITIZED

// The sanitizer's own allocator stays in place and reports each block.
const int hooksInstalled =
    __sanitizer_install_malloc_and_free_hooks([](const volatile void*, size_t) { ++state.allocations; },
                                              [](const volatile void* block) { state.releases += block != nullptr; });

#else

template <class... Arguments>
void* take(void* (*allocate)(Arguments...), Arguments... arguments)
{
    if (state.untilFailure != 0 && --state.untilFailure == 0) {
        state.failed = true;
        errno = ENOMEM;
        return nullptr;
    }
    ++state.allocations;
    return allocate(arguments...);
}

#endif

} // namespace

#if !QUORVIL_TEST_SANITIZED

extern "C" {

void* malloc(size_t size)
{
    return take(__libc_malloc, size);
}

void* calloc(size_t count, size_t size)
{
    return take(__libc_calloc, count, size);
}

void* realloc(void* block, size_t size)
{
    state.releases += block != nullptr;
    return take(__libc_realloc, block, size);
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return take(__libc_memalign, alignment, size);
}

void free(void* block)
{
    state.releases += block != nullptr;
    __libc_free(block);
}

} // extern "C"

#endif

namespace support {

AllocationCount::AllocationCount()
    : allocationsBefore(state.allocations)
    , releasesBefore(state.releases)
{
}

size_t AllocationCount::allocations() const
{
    return state.allocations - allocationsBefore;
}

size_t AllocationCount::releases() const
{
    return state.releases - releasesBefore;
}

AllocationFailure::AllocationFailure(size_t kth)
{
    state.failed = false;
    state.untilFailure = kth;
}

AllocationFailure::~AllocationFailure()
{
    state.untilFailure = 0;
}

bool AllocationFailure::reached() const
{
    return state.failed;
}

const char* AllocationFailure::hidden()
{
    return sanitized ? "the sanitizer's allocator cannot be made to fail" : nullptr;
}

} // namespace support
