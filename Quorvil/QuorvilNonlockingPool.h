// QuorvilNonlockingPool.h: a stack of objects made in advance, lent without waiting
// Memory and queues, on Foundation

#ifndef QUORVIL_QUORVILNONLOCKINGPOOL_H
#define QUORVIL_QUORVILNONLOCKINGPOOL_H

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilAssert.h"

#include <cstddef>
#include <mutex>
#include <new>

namespace quorvil {

/// Lends pointers to objects that somebody else has made and owns.
///
/// The object given back last is the next to go out; a new pool gives `objects[0]`, `objects[1]` and so on. What its
/// callers never do is wait for an object: an empty pool refuses. The pool does not look at the objects and neither
/// knows nor checks where a pointer comes from: one that is put back twice, or belongs elsewhere, is lent like any
/// other.
///
/// What was written before `put` is seen after the `get` that returns the object. All objects have to be back before
/// the array that holds them goes away.
template <class T>
class NonlockingPool
{
public:
    /// A pool of the `size` objects from `objects` on, which have to outlive it, all of them free.
    ///
    /// @throws std::bad_array_new_length  `size` is negative
    /// @throws std::bad_alloc             the system has no memory left for the pointers
    /// @threads any   @realtime allocates
    NonlockingPool(T* objects, int size);

    /// Releases the pointers and leaves the objects alone.
    ///
    /// @threads one at a time   @realtime allocates
    virtual ~NonlockingPool();

    NonlockingPool(const NonlockingPool&) = delete;
    NonlockingPool& operator=(const NonlockingPool&) = delete;

    /// Lends an object.
    ///
    /// @throws util::GeneralException  "Pool underflow": none is free. It allocates and announces itself: a real-time
    /// thread that has to expect this calls `tryGet`.
    /// @throws std::system_error       the mutex cannot be locked
    /// @requires `newNext - available <= size`: the pool is whole
    /// @threads any   @realtime bounded
    T* get();

    /// Lends an object, or gives null when none is free.
    ///
    /// @throws std::system_error  the mutex cannot be locked
    /// @requires `newNext - available <= size`: the pool is whole
    /// @threads any   @realtime bounded
    T* tryGet();

    /// Takes an object back.
    ///
    /// @throws util::GeneralException  "Pool overflow": all objects are back already. It allocates and announces itself
    /// @throws std::system_error       the mutex cannot be locked
    /// @threads any   @realtime bounded
    void put(T* object);

private:
    /// Moves `next` on and gives the place that it stood at, or null when no object is free. The lock is held.
    T** take(const char* function);

    T* const objects;
    const int size;
    /// The pointers; the free objects' stand from `next` up to `availableEnd`.
    T** available;
    T** next;
    T** availableEnd;
    std::mutex mutex;
};

template <class T>
NonlockingPool<T>::NonlockingPool(T* objects_, int size_)
    : objects(objects_)
    , size(size_)
{
    if (size < 0)
        throw std::bad_array_new_length();
    const std::lock_guard lock(mutex);
    available = new T*[static_cast<size_t>(size)];
    availableEnd = available + size;
    next = available;
    for (int i = 0; i < size; ++i)
        available[i] = objects + i;
}

template <class T>
NonlockingPool<T>::~NonlockingPool()
{
    delete[] available;
}

template <class T>
inline T** NonlockingPool<T>::take(const char* function)
{
    T** const newNext = next;
    intern::require(newNext - available <= size, "newNext - available <= size", "Quorvil/QuorvilNonlockingPool",
                    __LINE__, function);
    if (newNext >= availableEnd)
        return nullptr;
    next = newNext + 1;
    return newNext;
}

template <class T>
inline T* NonlockingPool<T>::get()
{
    {
        const std::lock_guard lock(mutex);
        if (T** const place = take(__PRETTY_FUNCTION__))
            return *place;
    }
    throw util::GeneralException("Pool underflow", false);
}

template <class T>
inline T* NonlockingPool<T>::tryGet()
{
    const std::lock_guard lock(mutex);
    T** const place = take(__PRETTY_FUNCTION__);
    return place ? *place : nullptr;
}

template <class T>
inline void NonlockingPool<T>::put(T* object)
{
    {
        const std::lock_guard lock(mutex);
        if (next > available) {
            *--next = object;
            return;
        }
    }
    throw util::GeneralException("Pool overflow", false);
}

} // namespace quorvil

#endif
