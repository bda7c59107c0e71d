// WaitCond.h: POSIX mutex, scoped lock and condition, with each failure of a condition call as an exception
// Synchronisation, on Foundation

#ifndef QUORVIL_WAITCOND_H
#define QUORVIL_WAITCOND_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/TimeSpec.h"

#include <pthread.h>

namespace util {

/// A mutex that its owner may lock again; each `lock` needs an `unlock`.
///
/// Results of the POSIX calls are not looked at, but for the one that destroys: a mutex that is destroyed while it is
/// locked ends the process with exit code 1. What was written before an `unlock` is seen after the next `lock`.
class QUORVIL_API RecursiveMutex
{
public:
    /// A free mutex, by `pthread_mutex_init` with `PTHREAD_MUTEX_RECURSIVE`.
    ///
    /// @threads any   @realtime bounded
    RecursiveMutex();

    /// Destroys by `pthread_mutex_destroy`. No thread may hold it: a failure writes "FATAL ERROR: " and its name, such
    /// as "EBUSY in pthread_mutex_destroy", to `std::cerr` and calls `exit(1)`.
    ///
    /// @threads owner   @realtime bounded on success, I/O on failure
    virtual ~RecursiveMutex();

    /// Takes the mutex, or one more level of it, by `pthread_mutex_lock`.
    ///
    /// @threads any   @realtime waits
    void lock()
    {
        (void)pthread_mutex_lock(&mutex);
    }

    /// Gives one level back, by `pthread_mutex_unlock`. Without a level it does nothing.
    ///
    /// @threads any   @realtime bounded
    void unlock()
    {
        (void)pthread_mutex_unlock(&mutex);
    }

    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

private:
    friend class WaitCond;

    pthread_mutex_t mutex;
};

/// A condition on which threads wait with a `RecursiveMutex`.
///
/// A wait can return without a notification: callers test their own condition in a loop. A notification that finds
/// nobody leaves no trace. The object keeps no state of its own, so that it stays usable after any failure. The owner
/// sees to it that no thread waits when it is destroyed.
///
/// Failures are a `GeneralException` such as "EINVAL  in pthread_cond_wait"; the destructor writes that text instead.
class QUORVIL_API WaitCond
{
public:
    /// A condition on `CLOCK_MONOTONIC`, by `pthread_cond_init`.
    ///
    /// @throws GeneralException  a call failed; no further one is made
    /// @threads any   @realtime bounded on success, I/O on failure
    WaitCond();

    /// Destroys by `pthread_cond_destroy`. A failure is written to `std::cerr`, and the object goes all the same.
    ///
    /// @threads owner   @realtime bounded on success, I/O on failure
    virtual ~WaitCond();

    /// Wakes one waiter, with or without the mutex, by `pthread_cond_signal`.
    ///
    /// @throws GeneralException  the call failed
    /// @threads any   @realtime bounded on success, I/O on failure
    void signal();

    /// Wakes every waiter, with or without the mutex, by `pthread_cond_broadcast`; they take the mutex in turn.
    ///
    /// @throws GeneralException  the call failed
    /// @threads any   @realtime bounded on success, I/O on failure
    void broadcast();

    /// Gives up one level of the mutex, sleeps until woken, and takes the level again, by `pthread_cond_wait`.
    ///
    /// @param mutex  held by the caller at one level: a second one would keep everybody else out
    /// @throws GeneralException  the call failed
    /// @threads any   @realtime waits
    void wait(RecursiveMutex& mutex);

    /// As `wait`, until the monotonic clock reads `until` at the latest, by `pthread_cond_timedwait`. A change of the
    /// system's time does not move the deadline. A normal return means woken.
    ///
    /// @param mutex  as for `wait`; held again on every way out
    /// @param until  absolute: `until.initNow(CLOCK_MONOTONIC)` plus the wait
    /// @throws TimedOutException  `until` came first
    /// @throws GeneralException   the call failed
    /// @threads any   @realtime waits   @clock CLOCK_MONOTONIC
    void timedwait(RecursiveMutex& mutex, const TimeSpec& until);

    WaitCond(const WaitCond&) = delete;
    WaitCond& operator=(const WaitCond&) = delete;

private:
    pthread_cond_t cond;
};

/// Holds one level of a mutex for as long as it lives.
class QUORVIL_API Lock
{
public:
    /// Locks by `pthread_mutex_lock`.
    ///
    /// @param mutex  not owned; it outlives the lock
    /// @threads any   @realtime waits
    explicit Lock(RecursiveMutex& mutex);

    /// Unlocks by `pthread_mutex_unlock`.
    ///
    /// @threads owner   @realtime bounded
    virtual ~Lock();

    /// `cond.wait` with the mutex.
    ///
    /// @throws GeneralException  the call failed
    /// @threads owner   @realtime waits
    void wait(WaitCond& cond);

    /// `cond.timedwait` with the mutex.
    ///
    /// @param until  absolute: `until.initNow(CLOCK_MONOTONIC)` plus the wait
    /// @throws TimedOutException  `until` came first
    /// @throws GeneralException   the call failed
    /// @threads owner   @realtime waits   @clock CLOCK_MONOTONIC
    void timedwait(WaitCond& cond, const TimeSpec& until);

    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    RecursiveMutex& mutex;
};

// In the header, since a short critical section is no longer than these calls would be.

inline Lock::Lock(RecursiveMutex& mutex_)
    : mutex(mutex_)
{
    mutex.lock();
}

inline Lock::~Lock()
{
    mutex.unlock();
}

} // namespace util

#endif
