// QuorvilBlockingQueue.h: a bounded queue whose consumer sleeps while it is empty and whose producer never sleeps
// Memory and queues, on Foundation

#ifndef QUORVIL_QUORVILBLOCKINGQUEUE_H
#define QUORVIL_QUORVILBLOCKINGQUEUE_H

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilExport.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace quorvil {

/// `pop` has found the queue empty, and closed. Its text is "BlockingQueue closed".
class QUORVIL_API BlockingQueueClosedException : public std::underflow_error
{
public:
    /// Sets the text.
    ///
    /// @threads any   @realtime allocates
    BlockingQueueClosedException();
    BlockingQueueClosedException(const BlockingQueueClosedException&) = default;
    BlockingQueueClosedException& operator=(const BlockingQueueClosedException&) = default;
    ~BlockingQueueClosedException() override;
};

/// `pop` has found the queue cancelled. Its text is "BlockingQueue canceled".
class QUORVIL_API BlockingQueueCanceledException : public std::underflow_error
{
public:
    /// Sets the text.
    ///
    /// @threads any   @realtime allocates
    BlockingQueueCanceledException();
    BlockingQueueCanceledException(const BlockingQueueCanceledException&) = default;
    BlockingQueueCanceledException& operator=(const BlockingQueueCanceledException&) = default;
    ~BlockingQueueCanceledException() override;
};

/// For callers' queues that refuse by an exception; the library throws it nowhere. Its text is
/// "FencedQueueOverflowException".
class QUORVIL_API FencedQueueOverflowException : public std::runtime_error
{
public:
    /// Sets the text.
    ///
    /// @threads any   @realtime allocates
    FencedQueueOverflowException();
    FencedQueueOverflowException(const FencedQueueOverflowException&) = default;
    FencedQueueOverflowException& operator=(const FencedQueueOverflowException&) = default;
    ~FencedQueueOverflowException() override;
};

/// A ring of move-only values between producers that must not wait, a real-time thread among them, and a consumer that
/// may. It takes memory once, at construction, from `Alloc`.
///
/// | State                    | Values | `push`                | `pop`                                   | `tryPop`   |
/// |--------------------------|--------|-----------------------|-----------------------------------------|------------|
/// | open                     | some   | takes, or full: false | returns the oldest                      | the oldest |
/// | open                     | none   | takes, or full: false | waits                                   | empty      |
/// | closed                   | some   | takes, or full: false | returns the oldest                      | the oldest |
/// | closed                   | none   | takes, or full: false | throws `BlockingQueueClosedException`   | empty      |
/// | cancelled, closed or not | either | takes, or full: false | throws `BlockingQueueCanceledException` | empty      |
///
/// It serves one consumer, or several that loop: only a push onto an empty queue wakes a consumer, and only one, which
/// has to drain the queue before it does anything that must not hold the values up. `close` and `cancel` wake all.
///
/// What was written before `push` is seen after the `pop` or `tryPop` that returns the value. The queue may be
/// destroyed when no thread is inside an operation any more: a producer still touches it after the consumer has got the
/// value.
///
/// @tparam T      movable, and its default value counts as empty, such as `std::unique_ptr`
/// @tparam Alloc  an allocator of `T` that deals in plain pointers, such as `FastAllocator<T>`
template <class T, class Alloc>
class BlockingQueue
{
    using AllocTraits = std::allocator_traits<Alloc>;
    static_assert(std::is_same_v<typename AllocTraits::pointer, T*>, "the ring is walked by plain pointers to T");

public:
    /// Takes `capacity` + 1 slots from `alloc` and makes them empty.
    ///
    /// @param capacity  the number of values that it can hold; 0 refuses each
    /// @throws std::bad_array_new_length  the slots cannot be counted, and whatever `alloc` and `T` throw
    /// @threads any   @realtime allocates
    BlockingQueue(size_t capacity, const Alloc& alloc);

    /// Destroys every slot, those with values first, from the oldest to the newest, and gives the ring back.
    ///
    /// @threads one at a time   @realtime allocates
    ~BlockingQueue();

    BlockingQueue(const BlockingQueue&) = delete;
    BlockingQueue& operator=(const BlockingQueue&) = delete;

    /// Moves `value` into the queue and wakes the consumer if the queue was empty. Never waits for room, and does not
    /// care whether the queue was closed or cancelled.
    ///
    /// @return false when the queue is full: `value` is untouched, and still the caller's
    /// @throws std::system_error  the mutex cannot be locked
    /// @threads any   @realtime bounded
    bool push(T&& value);

    /// Takes the oldest value, and waits for one while there is none.
    ///
    /// @throws BlockingQueueClosedException    it is closed, and all values have been taken
    /// @throws BlockingQueueCanceledException  it is cancelled; values may still be in it
    /// @throws std::system_error               the mutex cannot be locked
    /// @threads any   @realtime waits
    T pop();

    /// Takes the oldest value, or gives an empty one when there is none or the queue is cancelled.
    ///
    /// @throws std::system_error  the mutex cannot be locked
    /// @threads any   @realtime bounded
    T tryPop();

    /// Lets `pop` return what is in the queue and throw when nothing is. Any number of times; there is no way back.
    ///
    /// @throws std::system_error  the mutex cannot be locked
    /// @threads any   @realtime bounded
    void close();

    /// Lets `pop` throw from now on and leaves the values to the destructor. Any number of times; there is no way back.
    ///
    /// @throws std::system_error  the mutex cannot be locked
    /// @threads any   @realtime bounded
    void cancel();

    /// The slot that follows `p` in the ring.
    ///
    /// @requires `p >= array && p <= array + capacity`: `p` is one of the slots
    /// @threads any   @realtime bounded
    [[gnu::always_inline]] T* next(T* p) const;

private:
    /// A consumer in `awaitValue`. It borrows the lock that `pop` holds and leaves it held, whatever ends the wait.
    struct Waiter
    {
        explicit Waiter(BlockingQueue& queue)
            : lock(queue.mutex, std::adopt_lock)
            , waiting(queue.waiting)
        {
            ++waiting;
        }

        ~Waiter()
        {
            --waiting;
            lock.release();
        }

        Waiter(const Waiter&) = delete;
        Waiter& operator=(const Waiter&) = delete;

        std::unique_lock<std::mutex> lock;
        int& waiting;
    };

    void makeSlots();
    bool isSlot(T* p) const;
    /// Moves the oldest value out of the ring. The lock is held, and there is one.
    T take();
    /// What `pop` does when it may have to wait or to throw, kept out of its short way.
    [[gnu::noinline]] void awaitValue();
    void set(bool& flag);

    Alloc alloc;
    const size_t capacity;
    /// One slot more than there can be values, so that a full ring differs from an empty one.
    T* array;
    T* writePos;
    T* readPos;
    std::mutex mutex;
    std::condition_variable cond;
    bool canceled = false;
    bool closed = false;
    /// Consumers that wait: without one the wake-up is left out.
    int waiting = 0;
};

template <class T, class Alloc>
BlockingQueue<T, Alloc>::BlockingQueue(size_t capacity_, const Alloc& alloc_)
    : alloc(alloc_)
    , capacity(capacity_)
{
    if (capacity == SIZE_MAX)
        throw std::bad_array_new_length();
    array = AllocTraits::allocate(alloc, capacity + 1);
    writePos = array;
    readPos = array;
    makeSlots();
}

template <class T, class Alloc>
void BlockingQueue<T, Alloc>::makeSlots()
{
    T* made = array;
    try {
        for (; made != array + capacity + 1; ++made)
            AllocTraits::construct(alloc, made);
    } catch (...) {
        while (made != array)
            AllocTraits::destroy(alloc, --made);
        AllocTraits::deallocate(alloc, array, capacity + 1);
        throw;
    }
}

template <class T, class Alloc>
BlockingQueue<T, Alloc>::~BlockingQueue()
{
    // Once around from the oldest value: those with values come first, the empty ones behind them.
    T* slot = readPos;
    do {
        AllocTraits::destroy(alloc, slot);
        slot = next(slot);
    } while (slot != readPos);
    AllocTraits::deallocate(alloc, array, capacity + 1);
}

template <class T, class Alloc>
inline bool BlockingQueue<T, Alloc>::push(T&& value)
{
    bool wake;
    {
        const std::lock_guard lock(mutex);
        T* const slot = writePos;
        T* const following = next(slot);
        if (following == readPos) [[unlikely]]
            return false;
        *slot = std::move(value);
        writePos = following;
        wake = slot == readPos && waiting != 0;
    }
    if (wake)
        cond.notify_one();
    return true;
}

template <class T, class Alloc>
inline T BlockingQueue<T, Alloc>::pop()
{
    const std::lock_guard lock(mutex);
    if (canceled || readPos == writePos) [[unlikely]]
        awaitValue();
    return take();
}

template <class T, class Alloc>
inline T BlockingQueue<T, Alloc>::tryPop()
{
    const std::lock_guard lock(mutex);
    return canceled || readPos == writePos ? T() : take();
}

template <class T, class Alloc>
inline T BlockingQueue<T, Alloc>::take()
{
    T* const slot = readPos;
    T value(std::move(*slot));
    readPos = next(slot);
    return value;
}

template <class T, class Alloc>
void BlockingQueue<T, Alloc>::awaitValue()
{
    Waiter waiter(*this);
    if (canceled)
        throw BlockingQueueCanceledException();
    while (readPos == writePos) {
        if (closed)
            throw BlockingQueueClosedException();
        cond.wait(waiter.lock);
        if (canceled)
            throw BlockingQueueCanceledException();
    }
}

template <class T, class Alloc>
void BlockingQueue<T, Alloc>::close()
{
    set(closed);
}

template <class T, class Alloc>
void BlockingQueue<T, Alloc>::cancel()
{
    set(canceled);
}

template <class T, class Alloc>
void BlockingQueue<T, Alloc>::set(bool& flag)
{
    const std::lock_guard lock(mutex);
    flag = true;
    // Under the lock: a consumer that finds the flag may go on to destroy the queue.
    cond.notify_all();
}

template <class T, class Alloc>
inline T* BlockingQueue<T, Alloc>::next(T* p) const
{
    intern::require(isSlot(p), "p >= array && p <= array + capacity", "Quorvil/QuorvilBlockingQueue", __LINE__,
                    __PRETTY_FUNCTION__);
    T* const following = p == array + capacity ? array : p + 1;
    intern::require(isSlot(following), "p >= array && p <= array + capacity", "Quorvil/QuorvilBlockingQueue", __LINE__,
                    __PRETTY_FUNCTION__);
    return following;
}

template <class T, class Alloc>
inline bool BlockingQueue<T, Alloc>::isSlot(T* p) const
{
    // Both comparisons in one: what lies below the ring is very far above it.
    return reinterpret_cast<uintptr_t>(p) - reinterpret_cast<uintptr_t>(array) <= capacity * sizeof(T);
}

} // namespace quorvil

#endif
