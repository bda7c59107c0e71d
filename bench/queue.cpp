// Queue: a push and a pop in one thread beside two mutex pairs and moodycamel's queue; two threads beside TBB's.

#include "Quorvil/QuorvilBlockingQueue.h"
#include "bench/support.h"
#ifdef QUORVIL_PEER_MOODYCAMEL
#include "bench/peers/moodycamel.h"
#endif
#ifdef QUORVIL_PEER_TBB
#include "bench/peers/tbb.h"
#endif

#include <cstddef>
#include <memory>
#include <thread>
#include <utility>

namespace {

using Value = std::unique_ptr<int>;

constexpr size_t capacity = 1024;
constexpr int valuesOfARun = 20000;
constexpr int roundTripsOfARun = 500;

/// Ours, waiting for room as the peers do.
class OurQueue
{
public:
    explicit OurQueue(size_t capacity_)
        : queue(capacity_, {})
    {
    }

    void push(Value&& value)
    {
        while (!queue.push(std::move(value)))
            std::this_thread::yield();
    }

    Value pop()
    {
        return queue.pop();
    }

private:
    quorvil::BlockingQueue<Value, std::allocator<Value>> queue;
};

/// Values go in and come out in their order.
template <typename Queue>
bool keepsOrder()
{
    Queue queue(capacity);
    for (int i = 0; i < 100; ++i)
        queue.push(std::make_unique<int>(i));
    for (int i = 0; i < 100; ++i)
        if (*queue.pop() != i)
            return false;
    return true;
}

template <typename Queue>
void pair(benchmark::State& state)
{
    if (!keepsOrder<Queue>())
        state.SkipWithError("the values come out in another order");
    Queue queue(capacity);
    Value value = std::make_unique<int>(1);
    for (auto _ : state) {
        queue.push(std::move(value));
        value = queue.pop();
        benchmark::DoNotOptimize(value.get());
    }
}

/// One thread sends, the other one receives; a run ends when the last value has arrived.
template <typename Queue>
void throughput(benchmark::State& state)
{
    if (!keepsOrder<Queue>())
        state.SkipWithError("the values come out in another order");
    Queue queue(capacity);
    Queue arrived(1);
    std::thread consumer([&] {
        while (true) {
            for (int i = 0; i < valuesOfARun; ++i)
                if (!queue.pop())
                    return;
            arrived.push(nullptr);
        }
    });
    for (auto _ : state) {
        for (int i = 0; i < valuesOfARun; ++i)
            queue.push(std::make_unique<int>(i));
        arrived.pop();
    }
    queue.push(nullptr);
    consumer.join();
    state.SetItemsProcessed(state.iterations() * valuesOfARun);
}

/// One value goes there and back again.
template <typename Queue>
void roundTrip(benchmark::State& state)
{
    Queue there(capacity);
    Queue back(capacity);
    std::thread echo([&] {
        while (Value value = there.pop())
            back.push(std::move(value));
    });
    Value value = std::make_unique<int>(1);
    for (auto _ : state)
        for (int i = 0; i < roundTripsOfARun; ++i) {
            there.push(std::move(value));
            value = back.pop();
        }
    there.push(nullptr);
    echo.join();
    state.SetItemsProcessed(state.iterations() * roundTripsOfARun);
}

BENCHMARK(pair<OurQueue>)->Name("queue/pair/BlockingQueue");
BENCHMARK(bench::twoMutexPairs)->Name("queue/pair/twoMutexPairs");
BENCHMARK(throughput<OurQueue>)->Name("queue/throughput/BlockingQueue")->UseRealTime();
BENCHMARK(roundTrip<OurQueue>)->Name("queue/roundTrip/BlockingQueue")->UseRealTime();
#ifdef QUORVIL_PEER_MOODYCAMEL
BENCHMARK(pair<bench::MoodycamelQueue<Value>>)->Name("queue/pair/moodycamel");
#endif
#ifdef QUORVIL_PEER_TBB
BENCHMARK(throughput<bench::TbbQueue<Value>>)->Name("queue/throughput/tbb")->UseRealTime();
BENCHMARK(roundTrip<bench::TbbQueue<Value>>)->Name("queue/roundTrip/tbb")->UseRealTime();
#endif

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, false);
}
