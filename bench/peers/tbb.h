// The bounded queue of the Threading Building Blocks.

#ifndef QUORVIL_BENCH_PEERS_TBB_H
#define QUORVIL_BENCH_PEERS_TBB_H

#include <tbb/concurrent_queue.h>

#include <cstddef>
#include <utility>

namespace bench {

template <typename Value>
class TbbQueue
{
public:
    explicit TbbQueue(size_t capacity)
    {
        queue.set_capacity(static_cast<std::ptrdiff_t>(capacity));
    }

    /// Waits for room.
    void push(Value&& value)
    {
        queue.push(std::move(value));
    }

    Value pop()
    {
        Value value;
        queue.pop(value);
        return value;
    }

private:
    tbb::concurrent_bounded_queue<Value> queue;
};

} // namespace bench

#endif
