// QuorvilLinuxTimer.h: a POSIX timer that runs a function on a thread of the system library
// Threads and timers, on Foundation

#ifndef QUORVIL_QUORVILLINUXTIMER_H
#define QUORVIL_QUORVILLINUXTIMER_H

#include "Quorvil/QuorvilExport.h"

#include <atomic>
#include <functional>

#include <csignal>
#include <ctime>

namespace quorvil {

/// A one-shot or periodic timer on the monotonic clock, by `timer_create` with `SIGEV_THREAD`.
///
/// | state       | `create`                     | `start` | `cancel` | `cancelAndDelete` |
/// |-------------|------------------------------|---------|----------|-------------------|
/// | not created | disarmed                     | nothing | nothing  | nothing           |
/// | disarmed    | disarmed, a new timer        | armed   | disarmed | not created       |
/// | armed       | disarmed, a new timer        | armed   | disarmed | not created       |
///
/// Each expiry runs the function on a thread of its own with default attributes, beside the owner, and beside an
/// earlier expiry that is still in the function. No operation waits for an expiry. An expiry that comes after
/// `cancelAndDelete` does nothing, as long as the object lives; before the object is destroyed, or `create` replaces
/// the function, the owner has to be sure that no expiry is running and none is on its way. An exception that the
/// function lets out ends the process.
///
/// A failure of the timer calls is logged, as far as the log's gate lets it through, and ends the process by `abort()`.
class QUORVIL_API LinuxTimer
{
public:
    /// No POSIX timer yet.
    ///
    /// @threads any   @realtime bounded
    LinuxTimer() noexcept;

    /// `cancelAndDelete`, then the function goes.
    ///
    /// @threads one at a time   @realtime allocates
    ~LinuxTimer();

    /// Makes the timer, not armed, by `timer_create`. An earlier one is deleted first.
    ///
    /// @param function  what an expiry runs; an empty one throws `std::bad_function_call` there
    /// @threads one at a time   @realtime allocates
    void create(std::function<void()> function);

    /// Arms the timer, by `timer_settime`, whether it was armed or not. Times are relative.
    ///
    /// @param firstSec, firstNsec        the time to the first expiry; zero disarms
    /// @param intervalSec, intervalNsec  the period; zero: a single expiry. Seconds from 0 and nanoseconds 0 to
    ///                                   999,999,999: other values end the process
    /// @threads one at a time   @realtime bounded on success, I/O on failure   @clock CLOCK_MONOTONIC
    void start(long firstSec, long firstNsec, long intervalSec, long intervalNsec);

    /// Disarms the timer, by `timer_settime`; it can be started again.
    ///
    /// @threads one at a time   @realtime bounded on success, I/O on failure
    void cancel();

    /// Disarms the timer and deletes it, by `timer_delete`, for which the system library gives memory back. The
    /// function stays until the next `create`.
    ///
    /// @threads one at a time   @realtime allocates
    void cancelAndDelete();

    /// What the system library calls at an expiry: runs the function if the timer exists.
    ///
    /// @param value  `sival_ptr` is the `LinuxTimer*`
    /// @throws std::bad_function_call  the function is empty
    /// @threads any
    static void notifyFunction(sigval value);

    LinuxTimer(const LinuxTimer&) = delete;
    LinuxTimer& operator=(const LinuxTimer&) = delete;

private:
    timer_t timer{};
    std::function<void()> function;
    std::atomic<bool> created{false};
};

} // namespace quorvil

#endif
