// NonLockingWaitThread.h: the base of real-time workers that wait without locks
// Threads and timers, on Foundation

#ifndef QUORVIL_NONLOCKINGWAITTHREAD_H
#define QUORVIL_NONLOCKINGWAITTHREAD_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/QuorvilPthread.h"

#include <atomic>

/// The handler of a `NonLockingWaitThreadBase`. What is called on it, and when, is the deriving class's business.
class QUORVIL_API INonLockingWaitThreadHandler
{
public:
    virtual ~INonLockingWaitThreadHandler();

    /// What the deriving class waits for has come. It must not let an exception out, which would end the process.
    ///
    /// @threads the worker, one call at a time
    virtual void event() = 0;
};

/// A real-time thread that calls `waitOnce` until it is told to stop: 128 KiB of stack, `SCHED_FIFO`.
///
/// It takes no lock of its own: between two calls it does one atomic load. The deriving class implements the waiting,
/// and ends it in its own destructor, because `waitOnce` must not be called once its part of the object is gone:
///
///     ~Worker() override { requestStop(); wakeUp(); joinWorker(); }
///
/// What was written before `requestStop` is seen by who sees `stopRequested`. Failures are those of `quorvil::Pthread`.
class QUORVIL_API NonLockingWaitThreadBase
{
public:
    /// No thread yet.
    ///
    /// @threads any   @realtime bounded
    NonLockingWaitThreadBase();

    /// Sets the stop flag and joins the worker, if there is still one. It does not wake it.
    ///
    /// @threads owner   @realtime waits
    virtual ~NonLockingWaitThreadBase();

    /// One wait, which comes back at the latest when the deriving class has been told to stop, and what follows it. A
    /// call that does not block takes the processor from everything below its priority. It must not let an exception
    /// out, which would end the process.
    ///
    /// @threads the worker
    virtual void waitOnce() = 0;

    /// Starts the worker; at most once. It calls `waitOnce` at once: the most derived object has to be complete.
    /// Without the right to the policy, and at a second call, the process ends. The calling thread gets the name
    /// "Pthread".
    ///
    /// @param handler   not owned; it outlives the worker
    /// @param priority  1 (low) to 99 (high)
    /// @requires nullptr != handler
    /// @throws std::bad_alloc  no thread was started
    /// @threads owner   @realtime allocates
    void start(INonLockingWaitThreadHandler* handler, int priority);

    /// The worker's loop: `waitOnce` until the stop flag is seen, which is tested before each call.
    ///
    /// @return null
    /// @threads the worker
    void* run();

    NonLockingWaitThreadBase(const NonLockingWaitThreadBase&) = delete;
    NonLockingWaitThreadBase& operator=(const NonLockingWaitThreadBase&) = delete;

protected:
    /// Sets the stop flag.
    ///
    /// @threads any   @realtime bounded
    void requestStop();

    /// Whether the stop flag is set.
    ///
    /// @threads any   @realtime bounded
    bool stopRequested() const;

    /// What `start` was given; null before.
    ///
    /// @threads owner, and the worker   @realtime bounded
    INonLockingWaitThreadHandler* handler() const;

    /// Waits for the end of the worker; without one it does nothing.
    ///
    /// @throws std::system_error  called by the worker itself
    /// @threads owner   @realtime waits
    void joinWorker();

private:
    quorvil::Pthread thread;
    std::atomic<bool> stop{false};
    INonLockingWaitThreadHandler* startedHandler = nullptr;
};

#endif
