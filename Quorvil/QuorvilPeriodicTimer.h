// QuorvilPeriodicTimer.h: a POSIX timer with a fixed period, whose callbacks are serialised over the process
// Threads and timers, on Foundation

#ifndef QUORVIL_QUORVILPERIODICTIMER_H
#define QUORVIL_QUORVILPERIODICTIMER_H

#include "Quorvil/QuorvilExport.h"

#include <atomic>
#include <mutex>

#include <csignal>
#include <ctime>

namespace quorvil {

/// What a `PeriodicTimer` calls.
class QUORVIL_API TimerCallback
{
public:
    virtual ~TimerCallback();

    /// A period is over. It may stop or destroy its own timer, and must not wait for another timer's callback. An
    /// exception that it lets out ends the process.
    ///
    /// @threads of the system library, one call at a time in the process
    virtual void alarm() = 0;
};

/// What the timers with a callback share: the callback, and the lock under which each of them is called.
class QUORVIL_API Timer
{
public:
    virtual ~Timer();

    /// Sets what an expiry calls; null: nothing.
    ///
    /// @param callback  not owned; it outlives the last expiry
    /// @threads any   @realtime bounded
    void setCallback(TimerCallback* callback);

    /// What the system library calls at an expiry: calls the callback, if there is one, under `alarmMtx`.
    ///
    /// @param value  `sival_ptr` is a `Timer*`; null: nothing is done
    /// @threads any   @realtime waits
    static void alarm(sigval value);

    /// Held during every callback of every timer of the process.
    static std::mutex alarmMtx;

    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

protected:
    Timer();

    /// What `setCallback` was given last; null before.
    ///
    /// @threads any   @realtime bounded
    TimerCallback* getCallback() const;

private:
    std::atomic<TimerCallback*> callback{nullptr};
};

/// A timer on the monotonic clock that calls its callback every period, by `timer_create` with `SIGEV_THREAD`.
///
/// The POSIX timer lives as long as the object. All callbacks of all such timers of the process are called one after
/// the other: one that takes long delays the others. No operation waits for a callback; before timer or callback are
/// destroyed, the owner has to be sure that no expiry is running and none is on its way.
///
/// A failure is a line on `std::cout` and nothing more. A timer that could not be made says so again at each use.
class QUORVIL_API PeriodicTimer : public Timer
{
public:
    /// Makes the timer, not armed, by `timer_create`. A failure writes "PeriodicTimer: Could not create the thread".
    ///
    /// @threads any   @realtime allocates
    PeriodicTimer();

    /// Deletes the timer, by `timer_delete`, for which the system library gives memory back.
    ///
    /// @threads one at a time   @realtime allocates
    ~PeriodicTimer() override;

    /// Arms the timer, by `timer_settime`: it expires after one period and every period from then on. Without a
    /// callback it writes a line, and each expiry does nothing. A failure leaves the timer as it was.
    ///
    /// @param periodMicroseconds  the period; 0 disarms, below 0 the call fails
    /// @threads one at a time   @realtime bounded on success, I/O on failure   @clock CLOCK_MONOTONIC
    virtual void startTimer(int periodMicroseconds);

    /// Disarms the timer, by `timer_settime`.
    ///
    /// @threads one at a time   @realtime bounded on success, I/O on failure
    virtual void stopTimer();

private:
    void setTimes(const char* operation, int periodMicroseconds);

    timer_t timer{};
    itimerspec timerSpec{};
};

} // namespace quorvil

#endif
