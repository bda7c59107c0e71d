#include "Quorvil/QuorvilFastAllocator.h"

#include "Quorvil/QuorvilLog.h"

#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>

QUORVIL_LOG_GROUP("Noname");

namespace {

/// The block for `size` bytes, not initialised, in words for their alignment.
std::unique_ptr<uint64_t[]> takeWords(size_t size)
{
    const size_t words = size / sizeof(uint64_t) + (size % sizeof(uint64_t) != 0);
    // Compilers draw this line in different places.
    if (words > PTRDIFF_MAX / sizeof(uint64_t))
        throw std::bad_array_new_length();
    return std::make_unique_for_overwrite<uint64_t[]>(words);
}

} // namespace

namespace quorvil {

IHeap::~IHeap() = default;

SimpleHeap::SimpleHeap(size_t size)
    : allocd(takeWords(size))
    , base(reinterpret_cast<char*>(allocd.get()), reinterpret_cast<char*>(allocd.get()) + size)
{
    if (mlockall(MCL_CURRENT) == -1) {
        perror("mlockall failed");
        abort();
    }
}

SubHeap::SubHeap(IHeap& parent_, size_t size)
    : parent(parent_)
{
    char* const p = static_cast<char*>(parent.alloc(size));
    base.init(p, p + size);
}

} // namespace quorvil
