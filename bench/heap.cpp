// Heap: a pair of alloc and dealloc beside malloc, the standard library's bump resource and a bare pointer; strings in
// a heap beside std::string.

#include "Quorvil/QuorvilFastAllocator.h"
#include "bench/support.h"

#include <cstdlib>
#include <memory>
#include <memory_resource>
#include <string>

namespace {

constexpr size_t blockBytes = 40;
/// Blocks that are out at the same time, as many as a full timing record has.
constexpr int blocks = 64;
alignas(8) char buffer[blocks * blockBytes];

/// One block out and back.
template <typename Heap>
void measurePair(benchmark::State& state, Heap* heap)
{
    // Keeps the compiler from knowing the heap's state, and behind an interface its type.
    benchmark::DoNotOptimize(heap);
    for (auto _ : state) {
        void* block = heap->alloc(blockBytes);
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
        heap->dealloc(block, blockBytes);
        benchmark::ClobberMemory();
    }
}

/// Many blocks out, and back in the same order.
template <typename Heap>
void measureBlocks(benchmark::State& state, Heap* heap)
{
    benchmark::DoNotOptimize(heap);
    void* out[blocks];
    for (auto _ : state) {
        for (void*& block : out)
            block = heap->alloc(blockBytes);
        benchmark::ClobberMemory();
        for (void* block : out)
            heap->dealloc(block, blockBytes);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * blocks);
}

/// The least that a heap can do: a pointer and its end, no interface, no sum.
struct BareBump
{
    void* alloc(size_t size)
    {
        if (size > static_cast<size_t>(end - next))
            std::abort();
        void* const block = next;
        next += size;
        return block;
    }

    void dealloc(void* block, size_t)
    {
        next = static_cast<char*>(block);
    }

    char* next = buffer;
    char* end = buffer + sizeof buffer;
};

struct SystemHeap
{
    void* alloc(size_t size)
    {
        return std::malloc(size);
    }

    void dealloc(void* block, size_t)
    {
        std::free(block);
    }
};

/// The standard library's bump resource behind its interface. It gives nothing back by itself, so that it is rewound
/// when the last block has come back.
struct Monotonic
{
    void* alloc(size_t size)
    {
        ++count;
        return resource->allocate(size, 8);
    }

    void dealloc(void* block, size_t size)
    {
        resource->deallocate(block, size, 8);
        if (--count == 0)
            monotonic.release();
    }

    std::pmr::monotonic_buffer_resource monotonic{buffer, sizeof buffer, std::pmr::null_memory_resource()};
    std::pmr::memory_resource* resource = &monotonic;
    int count = 0;
};

template <typename Heap>
void pair(benchmark::State& state)
{
    Heap heap;
    measurePair(state, &heap);
}

template <typename Heap>
void blocksOut(benchmark::State& state)
{
    Heap heap;
    measureBlocks(state, &heap);
}

/// Ours over the same buffer.
struct OurHeap
{
    quorvil::BaseHeap heap{buffer, buffer + sizeof buffer};
};

void directPair(benchmark::State& state)
{
    OurHeap our;
    measurePair(state, &our.heap);
}

void interfacePair(benchmark::State& state)
{
    OurHeap our;
    measurePair<quorvil::IHeap>(state, &our.heap);
}

void directBlocks(benchmark::State& state)
{
    OurHeap our;
    measureBlocks(state, &our.heap);
}

void interfaceBlocks(benchmark::State& state)
{
    OurHeap our;
    measureBlocks<quorvil::IHeap>(state, &our.heap);
}

constexpr char text[] = "band 12 of page 4 begins";
static_assert(sizeof text == 25);

template <typename String>
void measureStrings(benchmark::State& state, const typename String::allocator_type& allocator)
{
    const char* source = text;
    for (auto _ : state) {
        benchmark::DoNotOptimize(source);
        String string(source, 24, allocator);
        benchmark::DoNotOptimize(string.data());
        benchmark::ClobberMemory();
    }
}

void heapString(benchmark::State& state)
{
    const auto heap = std::make_shared<quorvil::SimpleHeap>(4096);
    measureStrings<std::basic_string<char, std::char_traits<char>, quorvil::FastAllocator<char>>>(
        state, quorvil::FastAllocator<char>(heap));
}

void standardString(benchmark::State& state)
{
    measureStrings<std::string>(state, std::allocator<char>());
}

BENCHMARK(interfacePair)->Name("heap/pair/IHeap");
BENCHMARK(directPair)->Name("heap/pair/BaseHeap");
BENCHMARK(pair<SystemHeap>)->Name("heap/pair/malloc");
BENCHMARK(pair<Monotonic>)->Name("heap/pair/monotonic");
BENCHMARK(pair<BareBump>)->Name("heap/pair/bump");
BENCHMARK(interfaceBlocks)->Name("heap/blocks/IHeap");
BENCHMARK(directBlocks)->Name("heap/blocks/BaseHeap");
BENCHMARK(blocksOut<SystemHeap>)->Name("heap/blocks/malloc");
BENCHMARK(blocksOut<Monotonic>)->Name("heap/blocks/monotonic");
BENCHMARK(heapString)->Name("heap/string24/FastAllocator");
BENCHMARK(standardString)->Name("heap/string24/string");

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, true);
}
