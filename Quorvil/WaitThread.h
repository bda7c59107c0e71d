// WaitThread.h: a worker thread that calls a handler once per wake-up
// Threads and timers, on Foundation

#ifndef QUORVIL_WAITTHREAD_H
#define QUORVIL_WAITTHREAD_H

#include "Quorvil/QuorvilExport.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

/// What a `WaitThread` calls.
class QUORVIL_API IWaitThreadHandler
{
public:
    virtual ~IWaitThreadHandler();

    /// There is something to do. It must not let an exception out, which would end the process.
    ///
    /// @threads the worker, one call at a time
    virtual void event() = 0;
};

/// A worker that sleeps until `notify` and then calls its handler. Several notifications before it wakes are one.
///
/// The worker starts in the constructor and is stopped and joined in the destructor. The handler is called by the
/// worker alone, so that its calls never overlap; a notification during a call brings one more call. What was written
/// before `notify` is seen by the call that it brings.
///
/// Failures are the `std::system_error` of the standard mutex and thread; in the destructor they end the process.
class QUORVIL_API WaitThread
{
public:
    /// Starts the worker.
    ///
    /// @param handler  not owned; it outlives this object
    /// @requires nullptr != handler
    /// @throws std::system_error  no thread can be started
    /// @throws std::bad_alloc     no memory for it
    /// @threads any   @realtime allocates
    explicit WaitThread(IWaitThreadHandler* handler);

    /// Stops and joins the worker; not to be called by the handler. A worker asleep makes one last call of the handler,
    /// with or without a notification; one in a call ends behind it, whatever was notified meanwhile; one that has not
    /// begun makes none.
    ///
    /// @threads owner   @realtime waits
    virtual ~WaitThread();

    /// Wakes the worker.
    ///
    /// @throws std::system_error  the mutex failed
    /// @threads any   @realtime waits
    void notify();

    /// Sleeps until a notification is there, and takes it: the worker's step.
    ///
    /// @throws std::system_error  the mutex failed
    /// @threads the worker   @realtime waits
    void wait();

    /// Calls the handler: the worker's other step.
    ///
    /// @threads the worker
    void event();

    WaitThread(const WaitThread&) = delete;
    WaitThread& operator=(const WaitThread&) = delete;

private:
    void run();

    std::thread thread;
    std::mutex mutex;
    std::condition_variable cond;
    bool notified = false;
    std::atomic<bool> exit{false};
    IWaitThreadHandler* handler;
};

#endif
