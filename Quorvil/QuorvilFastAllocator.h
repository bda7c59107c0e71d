// QuorvilFastAllocator.h: heaps locked into RAM that only move a pointer, and the standard allocator over them
// Memory and queues, on Foundation

#ifndef QUORVIL_QUORVILFASTALLOCATOR_H
#define QUORVIL_QUORVILFASTALLOCATOR_H

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilExport.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace quorvil {

/// What the heaps have in common: a block is given out by moving a pointer, and its space comes back when the heap
/// has become empty as a whole, or when the block was the last one.
///
/// A heap never grows: sizing it for its use is the caller's duty, and exhaustion ends the process by an assertion.
/// Nothing takes a lock. A heap belongs to one thread at a time; what hands it over to another thread, a queue or a
/// mutex, has to order the two.
///
///     quorvil::SimpleHeap heap(65536);                                    // at start-up
///     auto shared = std::shared_ptr<quorvil::IHeap>(&heap, quorvil::EmptyDeleter<quorvil::IHeap>());
///     std::vector<int, quorvil::FastAllocator<int>> values(shared);       // on the real-time path
class QUORVIL_API IHeap
{
public:
    IHeap() = default;

    /// Does nothing of its own.
    ///
    /// @threads one at a time   @realtime allocates
    virtual ~IHeap();

    IHeap(const IHeap&) = delete;
    IHeap& operator=(const IHeap&) = delete;

    /// Gives out a block of at least `size` bytes, aligned to 8 and not initialised. The heap keeps it.
    ///
    /// A block of 0 bytes is the place of the next block and uses nothing.
    ///
    /// @param size  bytes; every block takes up a multiple of 8
    /// @requires `((ptrdiff_t) nextMem & 7) == 0`: the heap's range began on a multiple of 8
    /// @requires `nextMem + ceilSize <= memEnd`: the heap is not exhausted
    /// @threads one at a time   @realtime bounded
    virtual void* alloc(size_t size) = 0;

    /// Takes a block back. Blocks come back in any order; a hole between two blocks cannot be used again before the
    /// heap is empty. The last block alone goes back at once if its size is a multiple of 8.
    ///
    /// @param p     the block, from this heap
    /// @param size  the size that was asked for
    /// @requires `sumAllocated >= size`: not more comes back than was taken
    /// @threads one at a time   @realtime bounded
    virtual void dealloc(void* p, size_t size) = 0;

    /// Whether the heap stands at its start, so that all of it can be given out.
    ///
    /// @threads one at a time   @realtime bounded
    virtual bool allFree() = 0;
};

/// The heap over a range of memory that it does not own. The range has to outlive it, and its destructor does nothing.
/// It is no base class, so that the compiler can call it directly: other heaps derive from `IHeap` and hold one.
class QUORVIL_API BaseHeap final : public IHeap
{
public:
    /// A heap without a range: `init` has to come before everything else.
    ///
    /// @threads any   @realtime bounded
    BaseHeap();

    /// An empty heap over the bytes from `mem` up to and without `memEnd`.
    ///
    /// @param mem  a multiple of 8, which the first `alloc` checks
    /// @threads any   @realtime bounded
    BaseHeap(char* mem, char* memEnd);

    /// Does nothing: the range is not its own.
    ///
    /// @threads one at a time   @realtime bounded
    ~BaseHeap() override = default;

    void* alloc(size_t size) override;
    void dealloc(void* p, size_t size) override;
    bool allFree() override;

    /// Makes it an empty heap over another range. Blocks that are still out are forgotten.
    ///
    /// @threads one at a time   @realtime bounded
    void init(char* mem, char* memEnd);

private:
    friend class SimpleHeap;
    friend class SubHeap;

    char* mem;
    char* memEnd;
    char* nextMem;
    size_t sumAllocated;
};

/// The heap that owns its block, locked into RAM.
///
/// `mlockall` makes all pages resident that the process has mapped when a `SimpleHeap` is constructed: using its blocks
/// faults no page in, and neither does any other memory, buffers and stacks among them, that was mapped by then. What
/// is mapped later is not covered, until the next `SimpleHeap`: construct one behind the buffers.
///
/// It is no base class: other heaps derive from `IHeap` and hold one.
class QUORVIL_API SimpleHeap final : public IHeap
{
public:
    /// Takes the block from the system and calls `mlockall(MCL_CURRENT)`. A process without the right to lock all that
    /// it has mapped writes "mlockall failed" with the system's reason to standard error and ends by `abort`.
    ///
    /// @param size  bytes; rounded down to a multiple of 8 it is what can be given out
    /// @throws std::bad_array_new_length  no array can have this size
    /// @throws std::bad_alloc  the system has no memory left
    /// @threads any   @realtime allocates
    explicit SimpleHeap(size_t size);

    /// Releases the block, empty or not. The memory of the process stays locked.
    ///
    /// @threads one at a time   @realtime allocates
    ~SimpleHeap() override = default;

    /// As `IHeap::alloc`, in the block.
    ///
    /// @requires `base.mem == (char*) this->allocd`: the object is whole
    /// @requires `nextMem + ceilSize <= memEnd`: the heap is not exhausted
    /// @threads one at a time   @realtime bounded
    void* alloc(size_t size) override;
    void dealloc(void* p, size_t size) override;
    bool allFree() override;

    /// A heap of 1 MiB from load to process exit, for the library's callers. Threads that share it take turns.
    static SimpleHeap singleton;

private:
    std::unique_ptr<uint64_t[]> allocd;
    BaseHeap base;
};

/// The heap that carves its block out of another heap, which has to outlive it.
///
/// Constructing and destroying it touches the parent, and has to be serialised by the parent's owner. In between it is
/// independent of the parent and of its other children.
///
/// It is no base class: other heaps derive from `IHeap` and hold one.
class QUORVIL_API SubHeap final : public IHeap
{
public:
    /// Takes `size` bytes from `parent`.
    ///
    /// @requires `nextMem + ceilSize <= memEnd`: the parent is not exhausted
    /// @threads owner   @realtime bounded
    SubHeap(IHeap& parent, size_t size);

    /// Gives the whole block back to the parent, whether or not the sub-heap is empty.
    ///
    /// @threads owner   @realtime bounded
    ~SubHeap() override;

    void* alloc(size_t size) override;
    void dealloc(void* p, size_t size) override;
    bool allFree() override;

private:
    IHeap& parent;
    BaseHeap base;
};

/// The deleter that does nothing: for a `std::shared_ptr` to a heap whose owner destroys it by other means, after the
/// last allocator that refers to it has gone.
template <class T>
struct EmptyDeleter
{
    /// Leaves the object alone.
    ///
    /// @threads any   @realtime bounded
    void operator()(T*) const noexcept {}
};

/// The standard allocator over a heap. Copies, whatever their element type, share the heap and keep it alive.
///
/// The containers of the standard library live in it as they are. One that grows leaves its former storage behind as a
/// hole until the heap is empty: `reserve` first. Two allocators are equal when they share one heap.
/// A container keeps its own heap when another one is assigned to it; containers of different heaps must not be
/// swapped. The heap belongs to one thread at a time, and so do the containers that share it, while the allocator
/// itself can be copied on any thread.
template <class T>
class FastAllocator
{
public:
    using value_type = T;

    template <class T2>
    struct rebind
    {
        using other = FastAllocator<T2>;
    };

    /// Stores the heap. With a null one the allocator can be held, copied and compared, and nothing else.
    ///
    /// @threads any   @realtime bounded
    FastAllocator(std::shared_ptr<IHeap> heap_) noexcept
        : heap(std::move(heap_))
    {
    }

    /// Shares the heap. A move does the same, so that an allocator never loses its heap.
    ///
    /// @threads any   @realtime bounded
    FastAllocator(const FastAllocator&) = default;
    FastAllocator& operator=(const FastAllocator&) = default;
    ~FastAllocator() = default;

    /// Shares the heap of an allocator of another element type.
    ///
    /// @requires `b.getHeap()`: it has one
    /// @threads any   @realtime bounded
    template <class T2>
    FastAllocator(const FastAllocator<T2>& b) noexcept
        : heap(b.heap)
    {
        intern::require(heap != nullptr, "b.getHeap()", "Quorvil/QuorvilFastAllocator", __LINE__, __PRETTY_FUNCTION__);
    }

    /// Takes room for `n` elements, of an alignment of 8 at most, from the heap, by `alloc`.
    ///
    /// @requires `heap`: it has one
    /// @requires `nextMem + ceilSize <= memEnd`: the heap is not exhausted
    /// @throws std::bad_array_new_length  the bytes of `n` elements cannot be counted
    /// @threads one at a time   @realtime bounded
    T* allocate(size_t n)
    {
        static_assert(alignof(T) <= 8, "the heaps align to 8");
        intern::require(heap != nullptr, "heap", "Quorvil/QuorvilFastAllocator", __LINE__, __PRETTY_FUNCTION__);
        if (n > SIZE_MAX / sizeof(T))
            throw std::bad_array_new_length();
        return static_cast<T*>(heap->alloc(n * sizeof(T)));
    }

    /// Gives the room back to the heap, by `dealloc`.
    ///
    /// @param n  the number that was asked for
    /// @requires `sumAllocated >= size`: not more comes back than was taken
    /// @threads one at a time   @realtime bounded
    void deallocate(T* p, size_t n) noexcept
    {
        heap->dealloc(p, n * sizeof(T));
    }

    /// The heap that it shares.
    ///
    /// @threads any   @realtime bounded
    std::shared_ptr<IHeap> getHeap() const noexcept
    {
        return heap;
    }

    /// Whether both share one heap, so that either can take back what the other gave out.
    ///
    /// @threads any   @realtime bounded
    template <class T2>
    bool operator==(const FastAllocator<T2>& b) const noexcept
    {
        return heap == b.heap;
    }

private:
    template <class T2>
    friend class FastAllocator;

    std::shared_ptr<IHeap> heap;
};

// All of a heap's virtual functions have their bodies here, so that its table stands in the program that makes the
// heap: a call through `IHeap` then stays in the program, and costs less than one into the shared object.

inline BaseHeap::BaseHeap()
    : mem(nullptr)
    , memEnd(nullptr)
    , sumAllocated(0)
{
}

inline BaseHeap::BaseHeap(char* mem_, char* memEnd_)
    : mem(mem_)
    , memEnd(memEnd_)
    , nextMem(mem_)
    , sumAllocated(0)
{
}

inline void BaseHeap::init(char* mem_, char* memEnd_)
{
    mem = mem_;
    memEnd = memEnd_;
    nextMem = mem_;
    sumAllocated = 0;
}

inline void* BaseHeap::alloc(size_t size)
{
    intern::require((reinterpret_cast<uintptr_t>(nextMem) & 7) == 0, "((ptrdiff_t) nextMem & 7) == 0",
                    "Quorvil/QuorvilFastAllocator", __LINE__, "virtual void* quorvil::BaseHeap::alloc(size_t)");
    // Rounding the room down says the same as rounding the size up, and cannot overflow.
    const ptrdiff_t room = memEnd - nextMem;
    intern::require(room >= 0 && size <= (static_cast<size_t>(room) & ~size_t{7}), "nextMem + ceilSize <= memEnd",
                    "Quorvil/QuorvilFastAllocator", __LINE__, "virtual void* quorvil::BaseHeap::alloc(size_t)");
    char* const result = nextMem;
    nextMem += (size + 7) & ~size_t{7};
    sumAllocated += size;
    return result;
}

inline void BaseHeap::dealloc(void* p, size_t size)
{
    intern::require(sumAllocated >= size, "sumAllocated >= size", "Quorvil/QuorvilFastAllocator", __LINE__,
                    "virtual void quorvil::BaseHeap::dealloc(void*, size_t)");
    sumAllocated -= size;
    if (sumAllocated == 0)
        nextMem = mem;
    else if (reinterpret_cast<uintptr_t>(nextMem) - reinterpret_cast<uintptr_t>(p) == size)
        nextMem = static_cast<char*>(p);
}

inline bool BaseHeap::allFree()
{
    return nextMem == mem;
}

inline void* SimpleHeap::alloc(size_t size)
{
    intern::require(base.mem == reinterpret_cast<char*>(allocd.get()), "base.mem == (char*) this->allocd",
                    "Quorvil/QuorvilFastAllocator", __LINE__, "virtual void* quorvil::SimpleHeap::alloc(size_t)");
    return base.BaseHeap::alloc(size);
}

inline void SimpleHeap::dealloc(void* p, size_t size)
{
    base.BaseHeap::dealloc(p, size);
}

inline bool SimpleHeap::allFree()
{
    return base.BaseHeap::allFree();
}

inline SubHeap::~SubHeap()
{
    parent.dealloc(base.mem, static_cast<size_t>(base.memEnd - base.mem));
}

inline void* SubHeap::alloc(size_t size)
{
    return base.BaseHeap::alloc(size);
}

inline void SubHeap::dealloc(void* p, size_t size)
{
    base.BaseHeap::dealloc(p, size);
}

inline bool SubHeap::allFree()
{
    return base.BaseHeap::allFree();
}

} // namespace quorvil

#endif
