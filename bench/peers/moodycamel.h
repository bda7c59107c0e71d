// The blocking queue of moodycamel's concurrentqueue.

#ifndef QUORVIL_BENCH_PEERS_MOODYCAMEL_H
#define QUORVIL_BENCH_PEERS_MOODYCAMEL_H

#include <concurrentqueue/blockingconcurrentqueue.h>

#include <cstddef>
#include <utility>

namespace bench {

template <typename Value>
class MoodycamelQueue
{
public:
    explicit MoodycamelQueue(size_t capacity)
        : queue(capacity)
    {
    }

    void push(Value&& value)
    {
        queue.enqueue(std::move(value));
    }

    Value pop()
    {
        Value value;
        queue.wait_dequeue(value);
        return value;
    }

private:
    moodycamel::BlockingConcurrentQueue<Value> queue;
};

} // namespace bench

#endif
