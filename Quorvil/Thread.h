// Thread.h: the classic thread class, with a state that others read and wait on, and with cancellation
// Threads and timers, on Synchronisation

#ifndef QUORVIL_THREAD_H
#define QUORVIL_THREAD_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/WaitCond.h"

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <string>

#include <pthread.h>

namespace util {

class Thread;

/// All of a `Thread` but its body. The entry routine of the thread and the end of the thread meet here.
///
/// | state            | `start`    | `started`            | `cancel`         | `runFinished` | destroyed     |
/// |------------------|------------|----------------------|------------------|---------------|---------------|
/// | `NEW`            | `STARTING` | line, stays          | nothing          | line, throws  | yes           |
/// | `STARTING`       | throws     | `RUNNING`            | `CANCEL_PENDING` | line, throws  | `abort()`     |
/// | `CANCEL_PENDING` | throws     | `CANCELLED`, no body | nothing          | line, throws  | `abort()`     |
/// | `RUNNING`        | throws     | line, stays          | `CANCELLED`      | `FINISHED`    | `abort()`     |
/// | `CANCELLED`      | throws     | line, stays          | nothing          | `FINISHED`    | `abort()`     |
/// | `FINISHED`       | throws     | line, stays          | nothing          | line, throws  | thread reaped |
/// | `FAILED`         | throws     | line, stays          | nothing          | line, throws  | yes           |
///
/// A `start` or `cancel` whose system call fails, and a `runFinished` in a state that does not expect it, lead to
/// `FAILED`. `FINISHED` and `FAILED` are final. Every operation takes the object's mutex, but for `getState` and `out`.
/// Failures are a `GeneralException`, with `FAILED` as the state and the waiters woken; where nobody could catch it, a
/// line on `std::cerr`.
class QUORVIL_API ThreadInternals
{
public:
    /// The life of a thread; the values are what `getState` returns.
    enum State : int32_t
    {
        NEW = 0,            ///< constructed, never started
        STARTING = 1,       ///< `start` has passed its checks, the thread has not reached `started`
        CANCEL_PENDING = 2, ///< cancelled before `started`: the body will never run
        RUNNING = 3,        ///< the body runs, or is about to
        CANCELLED = 4,      ///< on its way out after `cancel`
        FINISHED = 5,       ///< ended, or past all that it does here; to be reaped by the destructor
        FAILED = 6          ///< there is nothing to wait for and nothing to reap
    };

    /// The state `NEW`. Starts nothing.
    ///
    /// @param owner  the object around this one, whose `run` is the body
    /// @param name   what `out` writes
    /// @throws GeneralException  the condition cannot be made
    /// @threads any   @realtime allocates
    ThreadInternals(Thread* owner, const std::string& name);

    /// Reaps a finished thread by `pthread_join`; a failure is written to `std::cerr`. A thread that has begun and has
    /// not finished ends the process: a line on `std::cerr`, then `abort()`.
    ///
    /// @threads owner   @realtime waits
    ~ThreadInternals();

    /// As `Thread::getState`.
    ///
    /// @threads any   @realtime bounded
    int getState() const;

    /// As `Thread::start`.
    ///
    /// @throws GeneralException  as told there
    /// @threads any   @realtime allocates
    void start(int stackSize, int priority, int schedPolicy);

    /// As `Thread::join`.
    ///
    /// @throws GeneralException  the wait failed
    /// @threads any   @realtime waits
    void join();

    /// As `Thread::cancel`.
    ///
    /// @throws GeneralException  the call failed; the state is `FAILED`
    /// @threads any   @realtime waits
    void cancel();

    /// As `Thread::out`.
    ///
    /// @threads owner of the stream   @realtime I/O
    std::ostream& out() const;

    /// The new thread has come up. In a state other than `STARTING` and `CANCEL_PENDING` it writes a line to
    /// `std::cerr`.
    ///
    /// @return whether the body is to run
    /// @threads the new one   @realtime waits
    bool started();

    /// The thread is past its body: wakes who waits in `join`. The entry routine has seen to it that it is called.
    ///
    /// @throws GeneralException  the state expects no end: "Unexpected state in runFinished: " and the state
    /// @threads the ending one   @realtime waits
    void runFinished();

    ThreadInternals(const ThreadInternals&) = delete;
    ThreadInternals& operator=(const ThreadInternals&) = delete;

private:
    friend class Thread;
    /// @cond
    friend QUORVIL_API void* pthreadFunc(void* internals);
    /// @endcond

    int create(const pthread_attr_t* attributes);
    int createWithAttributes(int stackSize, int priority, int schedPolicy);
    void fail();

    std::atomic<State> state{NEW};
    RecursiveMutex mutex;
    WaitCond finishedCond;
    std::string name;
    pthread_t handle{};
    Thread* owner;
};

/// The entry routine of every `Thread`: stores its argument under the library's thread key, whose destructor calls
/// `runFinished`, and runs the body unless the thread was cancelled before. Without the key's value, which a line on
/// `std::cerr` tells of, it calls `runFinished` itself, also where the body is cancelled.
///
/// @param internals  a `ThreadInternals*`
/// @return null
/// @threads the new one   @realtime waits
QUORVIL_API void* pthreadFunc(void* internals);

/// A thread of the caller's making: derive from it, implement `run`, and `start` it once.
///
/// Its states are those of `ThreadInternals`. The body ends by its return or by POSIX cancellation at one of its
/// cancellation points; both end in `FINISHED`. The body must not let an exception out, except for the unwinding of a
/// cancellation, which it must not swallow. Two things follow from that unwinding: a cancellation that takes effect
/// below a destructor or another `noexcept` function ends the process, and a standard stream that the body was writing
/// to, `std::cout` too, is left failed (`badbit`) and writes nothing more until somebody clears it.
///
/// `join`, or another look at `FINISHED`, comes before the destruction: a `Thread` that is destroyed in between ends
/// the process. What the body did is seen by the thread that has returned from `join`.
///
///     class Feeder : public util::Thread
///     {
///     public:
///         Feeder() : Thread("feeder") {}
///         void run() override { out() << "feeding\n"; }
///     };
///     Feeder feeder;
///     feeder.start(64 * 1024, 20, SCHED_FIFO);
///     feeder.join();
class QUORVIL_API Thread
{
public:
    /// The state `NEW`. Starts nothing.
    ///
    /// @param name  what `out` writes
    /// @throws GeneralException  the condition cannot be made
    /// @threads any   @realtime allocates
    explicit Thread(const std::string& name);

    /// Reaps a finished thread by `pthread_join`; one that has begun and has not finished ends the process. What the
    /// body uses of the deriving class is gone by then: a class that calls `join` in its own destructor has to be the
    /// most derived one.
    ///
    /// @threads owner   @realtime waits
    virtual ~Thread();

    /// The body.
    ///
    /// @threads the new one
    virtual void run() = 0;

    /// The state, a value of `ThreadInternals::State`, read without a lock: it may be stale on return.
    ///
    /// @threads any   @realtime bounded
    int getState() const;

    /// The object whose body the calling thread runs; null on other threads, on one whose key could not be set, and on
    /// the exit path.
    ///
    /// @threads any   @realtime bounded
    static Thread* current();

    /// Creates the thread, by `pthread_create`. It is in its body when this call has returned, or later.
    ///
    /// Policy and priority count only as a pair: where one of them is -1 the thread inherits the caller's.
    ///
    /// @param stackSize    in bytes; -1, and a size below the system's minimum: the system's default; one beyond its
    ///                     memory fails the call
    /// @param priority     the policy's `sched_priority`, or -1
    /// @param schedPolicy  `SCHED_OTHER`, `SCHED_FIFO` or `SCHED_RR`, or -1
    /// @throws GeneralException  the thread was started before; the state is unchanged
    /// @throws GeneralException  the call failed, such as "EPERM  in pthread_create"; the state is `FAILED`
    /// @requires !result: the platform accepts policy and priority
    /// @requires checkPolicy == schedPolicy
    /// @requires keyCreated: the library has its thread key
    /// @threads any   @realtime allocates
    void start(int stackSize, int priority, int schedPolicy);

    /// Waits until the state is `FINISHED` or `FAILED`. A `NEW` thread is waited for until somebody starts it; the
    /// thread itself would wait for ever.
    ///
    /// @throws GeneralException  the wait failed
    /// @threads any   @realtime waits
    void join();

    /// Ends the thread: a body that runs leaves at its next cancellation point, by `pthread_cancel`; one that does not
    /// run yet never will. In other states it does nothing.
    ///
    /// @throws GeneralException  the call failed, such as "ESRCH in pthread_cancel in Thread::cancel in state RUNNING";
    ///                           the state is `FAILED`
    /// @threads any   @realtime waits
    void cancel();

    /// Writes "[", the name, a blank, the seconds of the monotonic clock with three decimals, and "] " to `std::cout`,
    /// for the caller to go on with the line.
    ///
    /// @return `std::cout`
    /// @threads owner of the stream   @realtime I/O   @clock CLOCK_MONOTONIC
    std::ostream& out() const;

    /// Sleeps by `nanosleep`; a cancellation point. A signal handler that runs meanwhile ends the sleep by "EINTR in
    /// nanosleep in Thread::msleep".
    ///
    /// @param ms  milliseconds, from 0
    /// @throws GeneralException  the call failed
    /// @threads any   @realtime waits
    static void msleep(int ms);

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

private:
    ThreadInternals internals;
};

} // namespace util

#endif
