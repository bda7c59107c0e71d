// The lock-free stack of Boost, as a pool of objects.

#ifndef QUORVIL_BENCH_PEERS_BOOSTSTACK_H
#define QUORVIL_BENCH_PEERS_BOOSTSTACK_H

#include <boost/lockfree/stack.hpp>

#include <cstddef>

namespace bench {

template <typename Object>
class BoostStackPool
{
public:
    BoostStackPool(Object* objects, int size)
        : stack(static_cast<size_t>(size))
    {
        while (size-- > 0)
            stack.bounded_push(objects + size);
    }

    /// Null when no object is free.
    Object* get()
    {
        Object* object = nullptr;
        stack.pop(object);
        return object;
    }

    void put(Object* object)
    {
        stack.bounded_push(object);
    }

private:
    boost::lockfree::stack<Object*> stack;
};

} // namespace bench

#endif
