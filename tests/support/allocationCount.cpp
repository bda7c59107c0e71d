#include "tests/support/allocationCount.h"
#include "tests/support/environment.h"

#include <cerrno>
#include <cstdlib>
#include <new>

extern "C" {
#if QUORVIL_TEST_SANITIZED
// As in <sanitizer/allocator_interface.h>, which g++ does not bring along.
int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void*, size_t),
                                              void (*released)(const volatile void*));
#else
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* block, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* block);
#endif
}

// With a sanitizer only `operator new` can be made to fail, and not even that where clang links its own in.
#if QUORVIL_TEST_SANITIZED && !defined(__clang__)
#define QUORVIL_TEST_REPLACE_NEW
#endif

namespace {

struct State
{
    size_t allocations = 0;
    size_t releases = 0;
    /// Allocations up to and including the one that fails; 0 when none is to.
    size_t untilFailure = 0;
    bool forEver = false;
    bool failed = false;
};

constinit thread_local State state;

/// Says whether this allocation is to fail.
[[maybe_unused]] bool fails()
{
    if (state.untilFailure == 0 || --state.untilFailure != 0)
        return false;
    state.failed = true;
    if (state.forEver)
        state.untilFailure = 1;
    return true;
}

#if QUORVIL_TEST_SANITIZED

// The sanitizer's own allocator stays in place and reports each block.
const int hooksInstalled =
    __sanitizer_install_malloc_and_free_hooks([](const volatile void*, size_t) { ++state.allocations; },
                                              [](const volatile void* block) {
                                                  if (block)
                                                      ++state.releases;
                                              });

#ifdef QUORVIL_TEST_REPLACE_NEW
void* takeByNew(size_t size, size_t alignment)
{
    void* block = nullptr;
    if (fails())
        ++state.allocations;
    else
        block = alignment ? std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment)
                          : std::malloc(size ? size : 1);
    if (!block)
        throw std::bad_alloc();
    return block;
}
#endif

#else

template <class Take>
void* takeByMalloc(Take take)
{
    ++state.allocations;
    if (!fails())
        return take();
    errno = ENOMEM;
    return nullptr;
}

#endif

} // namespace

#ifdef QUORVIL_TEST_REPLACE_NEW

void* operator new(size_t size)
{
    return takeByNew(size, 0);
}

void* operator new[](size_t size)
{
    return takeByNew(size, 0);
}

void* operator new(size_t size, std::align_val_t alignment)
{
    return takeByNew(size, static_cast<size_t>(alignment));
}

void* operator new[](size_t size, std::align_val_t alignment)
{
    return takeByNew(size, static_cast<size_t>(alignment));
}

void operator delete(void* block) noexcept
{
    std::free(block);
}

void operator delete[](void* block) noexcept
{
    std::free(block);
}

void operator delete(void* block, size_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block, size_t) noexcept
{
    std::free(block);
}

void operator delete(void* block, std::align_val_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block, std::align_val_t) noexcept
{
    std::free(block);
}

void operator delete(void* block, size_t, std::align_val_t) noexcept
{
    std::free(block);
}

void operator delete[](void* block, size_t, std::align_val_t) noexcept
{
    std::free(block);
}

#endif

#if !QUORVIL_TEST_SANITIZED

extern "C" {

void* malloc(size_t size)
{
    return takeByMalloc([=] { return __libc_malloc(size); });
}

void* calloc(size_t count, size_t size)
{
    return takeByMalloc([=] { return __libc_calloc(count, size); });
}

void* realloc(void* block, size_t size)
{
    return takeByMalloc([=] { return __libc_realloc(block, size); });
}

void* memalign(size_t alignment, size_t size)
{
    return takeByMalloc([=] { return __libc_memalign(alignment, size); });
}

void* aligned_alloc(size_t alignment, size_t size)
{
    return takeByMalloc([=] { return __libc_memalign(alignment, size); });
}

int posix_memalign(void** block, size_t alignment, size_t size)
{
    void* const taken = takeByMalloc([=] { return __libc_memalign(alignment, size); });
    if (!taken)
        return ENOMEM;
    *block = taken;
    return 0;
}

void free(void* block)
{
    if (block)
        ++state.releases;
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

AllocationFailure::AllocationFailure(size_t kth, bool forEver)
{
    state.failed = false;
    state.forEver = forEver;
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
#if QUORVIL_TEST_SANITIZED && !defined(QUORVIL_TEST_REPLACE_NEW)
    return "the sanitizer's allocator cannot be made to fail";
#else
    return nullptr;
#endif
}

} // namespace support
