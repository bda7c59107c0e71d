// PollingThread.h: a worker thread that calls a handler again and again with a pause between the calls
// Threads and timers, on Foundation

#ifndef QUORVIL_POLLINGTHREAD_H
#define QUORVIL_POLLINGTHREAD_H

#include "Quorvil/QuorvilExport.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

/// What a `PollingThread` calls.
class QUORVIL_API IPollingThreadHandler
{
public:
    virtual ~IPollingThreadHandler();

    /// It is time to look. It may call `stop` and `setInterval`, and must not let an exception out, which would end the
    /// process.
    ///
    /// @threads the worker, one call at a time
    virtual void event() = 0;
};

/// A worker that calls its handler, between `start` and `stop`, with a pause before each call.
///
/// The worker starts in the constructor and is stopped and joined in the destructor. The first call comes one interval
/// after `start`; the period is the interval and the time of the handler.
///
/// | state           | `start`         | `stop`                                        | destroyed                   |
/// |-----------------|-----------------|-----------------------------------------------|-----------------------------|
/// | idle            | start requested | nothing                                       | no call                     |
/// | start requested | nothing         | idle: the request is withdrawn                | no call                     |
/// | polling         | nothing         | idle, after the call in progress or the pause | after the call or the pause |
///
/// Failures are the `std::system_error` of the standard mutex and thread; in the destructor they end the process.
class QUORVIL_API PollingThread
{
public:
    /// Starts the worker, which polls nothing until `start`.
    ///
    /// @param handler   not owned; it outlives this object
    /// @param interval  the pause in microseconds; below 1 there is none
    /// @requires nullptr != handler
    /// @throws std::system_error  no thread can be started
    /// @throws std::bad_alloc     no memory for it
    /// @threads any   @realtime allocates
    PollingThread(IPollingThreadHandler* handler, int interval);

    /// Stops and joins the worker; not to be called by the handler. A call or a pause in progress comes to its end, and
    /// no further call begins.
    ///
    /// @threads owner   @realtime waits
    virtual ~PollingThread();

    /// Sets the pause, from the next one on.
    ///
    /// @param interval  in microseconds; below 1 there is none
    /// @threads any   @realtime bounded
    void setInterval(int interval);

    /// Begins to poll.
    ///
    /// @throws std::system_error  the mutex failed
    /// @threads any   @realtime waits
    void start();

    /// Ends polling. It does not wait for the worker: a call may still be going on, or begin if the worker has just
    /// decided on it. A pause that is going on is followed by no call.
    ///
    /// @throws std::system_error  the mutex failed
    /// @threads any   @realtime waits
    void stop();

    /// The pause, by `nanosleep`, taken up again after a signal: the worker's step. Another failure ends it early.
    ///
    /// @threads the worker   @realtime waits
    void wait();

    /// Sleeps until `start`, and begins to poll: the worker's idle state.
    ///
    /// @throws std::system_error  the mutex failed
    /// @threads the worker   @realtime waits
    void sleep();

    /// Calls the handler: the worker's step.
    ///
    /// @threads the worker
    void event();

    PollingThread(const PollingThread&) = delete;
    PollingThread& operator=(const PollingThread&) = delete;

private:
    void run();
    void poll();

    std::thread thread;
    std::mutex mutex;
    std::condition_variable cond;
    std::atomic<bool> startRequest{false};
    std::atomic<bool> stopRequest{false};
    std::atomic<bool> exit{false};
    std::atomic<bool> polling{false};
    std::atomic<int> interval;
    IPollingThreadHandler* handler;
};

#endif
