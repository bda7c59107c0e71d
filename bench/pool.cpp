// Pool: a get and a put in one thread beside two mutex pairs, in two threads beside Boost's lock-free stack.

#include "Quorvil/QuorvilNonlockingPool.h"
#include "bench/support.h"
#ifdef QUORVIL_PEER_BOOST_LOCKFREE
#include "bench/peers/boostStack.h"
#endif

namespace {

constexpr int size = 16;
int objects[size];

using OurPool = quorvil::NonlockingPool<int>;

/// A new pool gives the objects in ascending order, and the one put back last first.
template <typename Pool>
bool isAStack()
{
    Pool pool(objects, size);
    for (int i = 0; i < size; ++i)
        if (pool.get() != objects + i)
            return false;
    pool.put(objects + 3);
    pool.put(objects + 5);
    return pool.get() == objects + 5 && pool.get() == objects + 3;
}

/// Borrows an object and gives it back, in as many threads as the case has.
template <typename Pool>
void pair(benchmark::State& state)
{
    static Pool pool(objects, size);
    if (!isAStack<Pool>())
        state.SkipWithError("the objects come out in another order");
    for (auto _ : state) {
        int* object = pool.get();
        benchmark::DoNotOptimize(object);
        pool.put(object);
    }
}

BENCHMARK(pair<OurPool>)->Name("pool/pair/NonlockingPool");
BENCHMARK(bench::twoMutexPairs)->Name("pool/pair/twoMutexPairs");
BENCHMARK(pair<OurPool>)->Name("pool/twoThreads/NonlockingPool")->Threads(2)->UseRealTime();
#ifdef QUORVIL_PEER_BOOST_LOCKFREE
BENCHMARK(pair<bench::BoostStackPool<int>>)->Name("pool/twoThreads/boostStack")->Threads(2)->UseRealTime();
#endif

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, false);
}
