// QuorvilPthread.h: a movable thread handle with stack size and real-time scheduling
// Threads and timers, on Foundation

#ifndef QUORVIL_QUORVILPTHREAD_H
#define QUORVIL_QUORVILPTHREAD_H

#include "Quorvil/QuorvilExport.h"

#include <cstdint>
#include <functional>

#include <pthread.h>

namespace quorvil {

/// A thread handle with the manners of `std::thread`, and with a stack size and a scheduling policy of the caller's.
///
/// The thread starts in the constructor. A handle is never half made: where a POSIX call fails, the process ends with a
/// report line (`util::safePosix`), also where the right to a real-time policy is missing.
///
/// **A starting constructor renames the thread that calls it** to "Pthread" (as `ps` and `top` show it). The new thread
/// keeps the name that its maker had before. A thread whose name matters sets it again behind the constructor.
///
/// | State | Reached by | `join` | `detach` | Moved from | Destroyed, moved onto |
/// |---|---|---|---|---|---|
/// | running | a starting constructor | joined | empty | empty | ends the process |
/// | joined | `join` | `ESRCH` | `EINVAL` | empty | yes |
/// | empty | default constructor, `detach`, a move | `ESRCH` | `EINVAL` | empty | yes |
///
/// A thread that has returned and was not joined still counts as running. The new thread may run before the constructor
/// has returned: a function that reads the object that holds the handle has to be told when that object is complete.
/// The function must not let an exception out: nothing stands around the call, and the process would end.
///
/// Failures are `std::system_error` for a misused handle, and the end of the process for everything else.
class QUORVIL_API Pthread
{
public:
    /// What a thread runs: a plain function with one argument.
    using Func = void* (*)(void*);

    /// What a thread runs instead: any function object.
    using AlternativeFunc = std::function<void*()>;

    /// Makes an empty handle and starts nothing.
    ///
    /// @threads any   @realtime bounded
    Pthread() noexcept;

    /// Starts `func(arg)` with the policy and priority of the calling thread, by `pthread_create`.
    ///
    /// @param arg       handed to `func` as it stands; the caller keeps alive what it points to
    /// @param stackKiB  in units of 1024 bytes, counted in 32 bits; at least 16 KiB are taken, and above that the size
    ///                  is rounded up to whole pages
    /// @requires `t->alternativeF`: `func` is not null (seen by the new thread)
    /// @throws std::bad_alloc  the start packet could not be made; no thread was started
    /// @threads any   @realtime allocates
    Pthread(Func func, void* arg, uint32_t stackKiB);

    /// Starts a copy of `func`, which is destroyed on the new thread when the call has returned.
    ///
    /// @param stackKiB  as above
    /// @requires `t->alternativeF`: `func` is not empty (seen by the new thread)
    /// @throws std::bad_alloc  the start packet could not be made; no thread was started
    /// @threads any   @realtime allocates
    Pthread(AlternativeFunc func, uint32_t stackKiB);

    /// Starts `func(arg)` with a policy and priority of its own. Without the right to them the process ends.
    ///
    /// @param stackKiB     as above
    /// @param schedpolicy  `SCHED_OTHER`, `SCHED_FIFO` or `SCHED_RR`
    /// @param priority     the policy's `sched_priority`: 0 for `SCHED_OTHER`, else 1 (low) to 99 (high)
    /// @requires `schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1`
    /// @requires `t->alternativeF`: `func` is not null (seen by the new thread)
    /// @throws std::bad_alloc  the start packet could not be made; no thread was started
    /// @threads any   @realtime allocates
    Pthread(Func func, void* arg, uint32_t stackKiB, int schedpolicy, int priority);

    /// Starts a copy of `func` with a policy and priority of its own.
    ///
    /// @param stackKiB, schedpolicy, priority  as above
    /// @requires `schedpolicy == 0 || schedpolicy == 2 || schedpolicy == 1`
    /// @requires `t->alternativeF`: `func` is not empty (seen by the new thread)
    /// @throws std::bad_alloc  the start packet could not be made; no thread was started
    /// @threads any   @realtime allocates
    Pthread(AlternativeFunc func, uint32_t stackKiB, int schedpolicy, int priority);

    Pthread(const Pthread&) = delete;
    Pthread& operator=(const Pthread&) = delete;

    /// Takes over what `other` holds; `other` is empty afterwards.
    ///
    /// @threads one at a time   @realtime bounded
    Pthread(Pthread&& other) noexcept;

    /// Takes over what `other` holds; `other` is empty afterwards. Onto a running handle it writes a line to
    /// `std::cerr` and ends the process by `std::terminate`.
    ///
    /// @threads one at a time   @realtime bounded
    Pthread& operator=(Pthread&& other) noexcept;

    /// Does nothing, or, where the handle is running, writes a line to `std::cerr` and ends the process by
    /// `std::terminate`.
    ///
    /// @threads one at a time   @realtime bounded
    virtual ~Pthread();

    /// Waits for the end of the thread, by `pthread_join`. What the thread did is seen afterwards.
    ///
    /// @return what the function returned
    /// @throws std::system_error  code 3, `ESRCH`: the handle is not running. Code 35, `EDEADLK`: called by the thread
    ///                            itself; the handle stays running
    /// @threads one at a time   @realtime waits
    void* join();

    /// Lets the thread go, by `pthread_detach`; the handle is empty afterwards.
    ///
    /// @throws std::system_error  code 22, `EINVAL`: the handle is not running
    /// @threads one at a time   @realtime bounded
    void detach();

    /// Whether the handle is running: `join` and `detach` are due.
    ///
    /// @threads one at a time   @realtime bounded
    bool joinable() const noexcept;

private:
    int32_t state;
    pthread_t handle;
};

/// The entry routine of every `Pthread`: takes the packet apart, deletes it, and calls the function.
///
/// @param t  an `intern::InternThread*` made by `new`; it is owned by this call
/// @return what the function returned
/// @requires `t->alternativeF`: the packet holds a function
/// @requires `f2`: it still holds one once it was moved out of the packet
/// @threads any   @realtime allocates
QUORVIL_API void* pthreadFunc(void* t);

namespace intern {

/// What passes from the constructor of a `Pthread` to its thread, which alone owns it.
struct QUORVIL_API InternThread
{
    /// A packet for `f(arg)`.
    ///
    /// @threads any   @realtime bounded
    InternThread(Pthread::Func func, void* argument) noexcept;

    /// A packet for a function object; `f` and `arg` are null.
    ///
    /// @threads any   @realtime allocates
    explicit InternThread(std::function<void*()> func);

    InternThread(const InternThread&) = delete;
    InternThread& operator=(const InternThread&) = delete;

    /// Releases the function object.
    ///
    /// @threads any   @realtime allocates
    virtual ~InternThread();

    Pthread::Func f;                     ///< the plain function, or null
    void* arg;                           ///< its argument
    std::function<void*()> alternativeF; ///< what runs where `f` is null
};

} // namespace intern
} // namespace quorvil

#endif
