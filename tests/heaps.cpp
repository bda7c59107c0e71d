#include "Quorvil/QuorvilFastAllocator.h"
#include "tests/support/allocationCount.h"
#include "tests/support/assertion.h"
#include "tests/support/interpose.h"
#include "tests/support/pageFaults.h"
#include "tests/support/systemCalls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <deque>
#include <list>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

using namespace quorvil;

namespace {

support::Fault mlockallFault("mlockall");
constinit int lockFlags = 0;

} // namespace

extern "C" __attribute__((visibility("default"))) int mlockall(int flags) noexcept
{
    lockFlags = flags;
    if (mlockallFault.strikes())
        return -1;
    return support::real<int (*)(int)>("mlockall")(flags);
}

namespace {

using HeapString = std::basic_string<char, std::char_traits<char>, FastAllocator<char>>;

const std::string exhausted = support::assertion(
    "Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)", "nextMem + ceilSize <= memEnd");

/// A `BaseHeap` with its range.
struct Range
{
    alignas(8) char bytes[256];
    BaseHeap heap{bytes, bytes + sizeof bytes};
};

/// A pointer that keeps nothing alive.
std::shared_ptr<IHeap> unowned(IHeap& heap)
{
    return std::shared_ptr<IHeap>(&heap, EmptyDeleter<IHeap>());
}

/// Where the next block will stand, counted from `start`.
ptrdiff_t place(IHeap& heap, const void* start)
{
    return static_cast<char*>(heap.alloc(0)) - static_cast<const char*>(start);
}

// The heaps

struct Step
{
    char operation; ///< 't'ake or 'g'ive back
    ptrdiff_t at;
    size_t size;
    ptrdiff_t nextAt; ///< where the next block stands afterwards
};

void walk(IHeap& heap, const std::vector<Step>& steps)
{
    void* const start = heap.alloc(0);
    EXPECT_TRUE(heap.allFree());
    for (const Step& step : steps) {
        char* const block = static_cast<char*>(start) + step.at;
        if (step.operation == 't')
            EXPECT_EQ(block, heap.alloc(step.size));
        else
            heap.dealloc(block, step.size);
        EXPECT_EQ(step.nextAt, place(heap, start)) << step.operation << step.size << " at " << step.at;
        EXPECT_EQ(step.nextAt == 0, heap.allFree());
    }
    EXPECT_TRUE(heap.allFree());
}

TEST(Heaps, GiveOutAndTakeBackInAnyOrder)
{
    const std::vector<Step> walks[] = {
        {{'t', 0, 8, 8}, {'t', 8, 3, 16}, {'g', 8, 3, 16}, {'g', 0, 8, 0}},
        {{'t', 0, 8, 8}, {'t', 8, 3, 16}, {'g', 0, 8, 16}, {'g', 8, 3, 0}},
        // The last block goes back at once if its size is a multiple of 8, and then the one before does not follow.
        {{'t', 0, 3, 8}, {'t', 8, 8, 16}, {'t', 16, 16, 32}, {'g', 16, 16, 16}, {'g', 0, 3, 16}, {'g', 8, 8, 0}},
        {{'t', 0, 16, 16}, {'t', 16, 8, 24}, {'g', 16, 8, 16}, {'t', 16, 1, 24}, {'g', 0, 16, 24}, {'g', 16, 1, 0}},
        {{'t', 0, 0, 0}, {'g', 0, 0, 0}, {'t', 0, 1, 8}, {'t', 8, 0, 8}, {'g', 8, 0, 8}, {'g', 0, 1, 0}},
        // The sum counts what was asked for, so that the last byte empties the heap.
        {{'t', 0, 1, 8}, {'t', 8, 7, 16}, {'t', 16, 9, 32}, {'g', 16, 9, 32}, {'g', 0, 1, 32}, {'g', 8, 7, 0}},
        {{'t', 0, 64, 64}, {'g', 0, 64, 0}, {'t', 0, 57, 64}, {'g', 0, 57, 0}},
    };
    for (const auto& steps : walks) {
        Range range;
        walk(range.heap, steps);
        SimpleHeap simple(64);
        walk(simple, steps);
        SubHeap sub(range.heap, 64);
        walk(sub, steps);
    }
}

TEST(BaseHeap, TakesAnotherRangeByInit)
{
    Range range;
    BaseHeap heap;
    heap.init(range.bytes + 8, range.bytes + 24);
    EXPECT_EQ(range.bytes + 8, heap.alloc(16));
    heap.init(range.bytes, range.bytes + 8);
    EXPECT_TRUE(heap.allFree());
    EXPECT_EQ(range.bytes, heap.alloc(8));
    heap.dealloc(range.bytes, 8);
    EXPECT_TRUE(heap.allFree());
}

TEST(SubHeap, CountsInItsParentWhatItAskedFor)
{
    Range range;
    {
        SubHeap sub(range.heap, 100);
        EXPECT_EQ(104, place(range.heap, range.bytes));
        EXPECT_EQ(range.bytes, sub.alloc(96));
        EXPECT_DEATH(sub.alloc(1), exhausted);
    }
    // With a block still out.
    EXPECT_TRUE(range.heap.allFree());
}

TEST(SimpleHeap, LocksWhatIsMappedAtEachConstruction)
{
    for (int i = 0; i < 2; ++i) {
        const int before = mlockallFault.calls;
        lockFlags = 0;
        const SimpleHeap heap(8);
        EXPECT_EQ(1, mlockallFault.calls - before);
        EXPECT_EQ(MCL_CURRENT, lockFlags);
    }
}

TEST(SimpleHeap, RefusesASizeThatNoArrayHas)
{
    for (const size_t size : {SIZE_MAX, SIZE_MAX - 6, SIZE_MAX - 7, static_cast<size_t>(PTRDIFF_MAX) + 1})
        EXPECT_THROW(SimpleHeap{size}, std::bad_array_new_length) << size;
}

TEST(SimpleHeap, PassesOnThatThereIsNoMemory)
{
    if (const char* const reason = support::AllocationFailure::hidden())
        GTEST_SKIP() << reason;
    const support::AllocationFailure failure(1);
    EXPECT_THROW(SimpleHeap{64}, std::bad_alloc);
    EXPECT_TRUE(failure.reached());
}

TEST(SimpleHeap, HasASingletonOfOneMebibyte)
{
    SimpleHeap& heap = SimpleHeap::singleton;
    EXPECT_TRUE(heap.allFree());
    void* const all = heap.alloc(0x100000);
    EXPECT_DEATH(heap.alloc(1), exhausted);
    heap.dealloc(all, 0x100000);
    EXPECT_TRUE(heap.allFree());
}

TEST(HeapsDeathTest, EndTheProcessWhenExhausted)
{
    const struct
    {
        size_t room, taken, size;
    } rows[] = {{64, 0, 65},           {64, 56, 9},           {64, 64, 1},           {64, 8, SIZE_MAX},
                {64, 8, SIZE_MAX - 6}, {64, 8, SIZE_MAX - 7}, {64, 0, SIZE_MAX / 2}, {13, 0, 9}};
    for (const auto& row : rows) {
        // The room rounded down to a multiple of 8 can be used to the last byte.
        Range range;
        SubHeap heap(range.heap, row.room);
        heap.alloc(row.taken);
        EXPECT_DEATH(heap.alloc(row.size), exhausted) << row.room << ' ' << row.taken << ' ' << row.size;
        heap.alloc(row.room / 8 * 8 - row.taken);
    }
    SimpleHeap simple(13);
    EXPECT_DEATH(simple.alloc(13), exhausted);
    simple.alloc(8);
    Range range;
    EXPECT_DEATH(BaseHeap(range.bytes + 8, range.bytes).alloc(0), exhausted);
}

TEST(HeapsDeathTest, EndTheProcessOnMisuse)
{
    Range range;
    EXPECT_DEATH(BaseHeap(range.bytes + 4, range.bytes + 64).alloc(8),
                 support::assertion("Quorvil/QuorvilFastAllocator", "virtual void* quorvil::BaseHeap::alloc(size_t)",
                                    "((ptrdiff_t) nextMem & 7) == 0"));
    void* const block = range.heap.alloc(11);
    EXPECT_DEATH(range.heap.dealloc(block, 12),
                 support::assertion("Quorvil/QuorvilFastAllocator",
                                    "virtual void quorvil::BaseHeap::dealloc(void*, size_t)", "sumAllocated >= size"));
    EXPECT_DEATH(
        {
            SimpleHeap heap(8);
            // The pointer to the block stands behind the pointer to the virtual table.
            std::fill_n(reinterpret_cast<char*>(&heap) + sizeof(void*), sizeof(void*), '\0');
            heap.alloc(8);
        },
        support::assertion("Quorvil/QuorvilFastAllocator", "virtual void* quorvil::SimpleHeap::alloc(size_t)",
                           "base.mem == (char*) this->allocd"));
}

TEST(SimpleHeapDeathTest, EndsAProcessThatCannotLockMemory)
{
    EXPECT_EXIT(
        {
            const support::FaultScope fault(mlockallFault, -1, ENOMEM);
            const SimpleHeap heap(8);
        },
        testing::KilledBySignal(SIGABRT), "mlockall failed: Cannot allocate memory\n");
}

TEST(SimpleHeapDeathTest, EndsAProcessWithoutTheRightToLockMemory)
{
    if (support::sanitized)
        GTEST_SKIP() << "the sanitizer locks no memory";
    EXPECT_EXIT(
        {
            const rlimit none{};
            if (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || (getuid() == 0 && setuid(65534) != 0))
                _exit(1);
            const SimpleHeap heap(8);
        },
        testing::KilledBySignal(SIGABRT), "mlockall failed: Operation not permitted\n");
}

// The allocator

/// Fills, copies, moves and empties one container after the other, all in the heaps given.
void useContainers(const FastAllocator<char>& first, const FastAllocator<char>& second)
{
    std::vector<int, FastAllocator<int>> numbers(first);
    std::list<short, FastAllocator<short>> list(first);
    std::deque<double, FastAllocator<double>> deque(first);
    std::map<int, HeapString, std::less<int>, FastAllocator<std::pair<const int, HeapString>>> texts(first);
    for (int i = 0; i < 100; ++i) {
        numbers.push_back(i);
        list.push_front(static_cast<short>(i));
        deque.push_back(i);
        texts.emplace(i, HeapString("a text too long for the small buffer of a string", first));
    }
    list.sort();
    EXPECT_EQ(99, list.back());
    EXPECT_EQ(99.0, deque.back());
    texts.erase(5);

    // Between heaps: a copy in another heap, elements moved across, the target's heap kept.
    std::vector<int, FastAllocator<int>> copy(numbers, second);
    EXPECT_EQ(numbers, copy);
    copy.clear();
    copy = std::move(numbers);
    EXPECT_EQ(100U, copy.size());
    EXPECT_TRUE(copy.get_allocator() == second);
    HeapString text("x", second);
    text = texts.at(99);
    text += std::move(texts.at(98));
    EXPECT_EQ(96U, text.size());
    EXPECT_TRUE(text.get_allocator() == second);
}

TEST(FastAllocator, HoldsTheStandardContainers)
{
    SimpleHeap firstHeap(65536);
    SimpleHeap secondHeap(65536);
    const FastAllocator<char> first(unowned(firstHeap));
    const FastAllocator<char> second(unowned(secondHeap));
    const support::AllocationCount count;
    useContainers(first, second);
    EXPECT_EQ(0U, count.allocations());
    EXPECT_TRUE(firstHeap.allFree());
    EXPECT_TRUE(secondHeap.allFree());
}

TEST(FastAllocator, SharesOneHeapAmongItsCopies)
{
    auto heap = std::make_shared<SimpleHeap>(64);
    const std::weak_ptr<SimpleHeap> watched = heap;
    SimpleHeap otherHeap(64);
    {
        FastAllocator<char> allocator(heap);
        heap.reset();
        FastAllocator<char> moved(std::move(allocator));
        const FastAllocator<double> converted(moved);
        FastAllocator<char> other(unowned(otherHeap));
        EXPECT_EQ(watched.lock(), allocator.getHeap());
        EXPECT_TRUE(allocator == moved);
        EXPECT_TRUE(moved == converted);
        EXPECT_TRUE(converted == moved);
        EXPECT_FALSE(other == moved);
        EXPECT_TRUE(other != converted);
        EXPECT_EQ(3, watched.use_count());
        other = std::move(moved);
        EXPECT_TRUE(other == moved);
    }
    EXPECT_TRUE(watched.expired());
}

TEST(FastAllocator, RefusesMoreElementsThanBytesCanBeCounted)
{
    Range range;
    FastAllocator<uint64_t> allocator(unowned(range.heap));
    EXPECT_THROW(allocator.allocate(SIZE_MAX / 8 + 1), std::bad_array_new_length);
    EXPECT_TRUE(range.heap.allFree());
    // The bytes counted, the heap has to have them.
    EXPECT_DEATH(allocator.allocate(SIZE_MAX / 8), exhausted);
}

TEST(FastAllocatorDeathTest, NeedsAHeap)
{
    FastAllocator<char> allocator(nullptr);
    const FastAllocator<char> copy(allocator);
#ifdef __clang__
    const std::string allocate, convert;
#else
    const std::string allocate =
        std::string("T* quorvil::FastAllocator<T>::allocate(size_t) [with T = char; size_t = ") +
        (sizeof(size_t) == 8 ? "long unsigned int]" : "unsigned int]");
    const std::string convert =
        "quorvil::FastAllocator<T>::FastAllocator(const quorvil::FastAllocator<T2>&) [with T2 = char; T = int]";
#endif
    EXPECT_DEATH(allocator.allocate(1), support::assertion("Quorvil/QuorvilFastAllocator", allocate, "heap"));
    EXPECT_DEATH(FastAllocator<int>{allocator},
                 support::assertion("Quorvil/QuorvilFastAllocator", convert, "b.getHeap()"));
}

// The promises to real-time threads

/// What a real-time thread does with heaps.
void useHeaps(SimpleHeap& heap, const FastAllocator<char>& allocator)
{
    SubHeap sub(heap, 4096);
    for (int i = 0; i < 100; ++i) {
        void* const block = sub.alloc(40);
        void* const other = heap.alloc(12);
        heap.dealloc(other, 12);
        sub.dealloc(block, 40);
        HeapString text("a text too long for the small buffer of a string", allocator);
        text += text;
    }
}

TEST(Heaps, TakeNoMemoryFromTheSystem)
{
    SimpleHeap heap(65536);
    const FastAllocator<char> allocator(unowned(heap));
    const support::AllocationCount count;
    useHeaps(heap, allocator);
    EXPECT_EQ(0U, count.allocations());
    EXPECT_EQ(0U, count.releases());
    ::operator delete(::operator new(1));
    EXPECT_EQ(1U, count.allocations()) << "the count counts nothing";
}

TEST(Heaps, MakeNoSystemCall)
{
    if (const char* const reason = support::systemCallsHidden())
        GTEST_SKIP() << reason;
    SimpleHeap heap(65536);
    const FastAllocator<char> allocator(unowned(heap));
    EXPECT_EQ(std::vector<int>(), support::systemCallsOf([&] { useHeaps(heap, allocator); }));
    EXPECT_EQ(std::vector<int>{SYS_getppid}, support::systemCallsOf([] { (void)getppid(); }));
}

TEST(SimpleHeap, FaultsNoPageInOnceItIsConstructed)
{
    if (const char* const reason = support::PageFaults::hidden())
        GTEST_SKIP() << reason;
    constexpr size_t size = 4 << 20;
    // Mapped before and never touched: the heap's construction makes the buffer resident too.
    const auto buffer = std::make_unique_for_overwrite<char[]>(size);
    SimpleHeap heap(size);
    const support::PageFaults faults;
    char* const block = static_cast<char*>(heap.alloc(size));
    for (size_t i = 0; i < size; i += 512)
        block[i] = buffer[i] = 1;
    EXPECT_EQ(0, faults.count());
    heap.dealloc(block, size);
}

} // namespace
