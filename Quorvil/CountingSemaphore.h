// CountingSemaphore.h: a counting semaphore that can be destroyed under its waiters
// Synchronisation, on Foundation

#ifndef QUORVIL_COUNTINGSEMAPHORE_H
#define QUORVIL_COUNTINGSEMAPHORE_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/TimeSpec.h"
#include "Quorvil/WaitCond.h"

#include <cstdint>
#include <exception>
#include <semaphore.h>

namespace util {

/// The semaphore is being destroyed; the caller must not touch it any more. It carries no text of its own.
class QUORVIL_API CountingSemaphoreDeletingException : public std::exception
{
public:
    CountingSemaphoreDeletingException();
    CountingSemaphoreDeletingException(const CountingSemaphoreDeletingException&) = default;
    CountingSemaphoreDeletingException& operator=(const CountingSemaphoreDeletingException&) = default;
    ~CountingSemaphoreDeletingException() override;
};

/// A POSIX semaphore of the process that may be destroyed while threads wait in it.
///
/// | state        | `wait`, `timedwait`                     | `post`                 | destructor                  |
/// |--------------|-----------------------------------------|------------------------|-----------------------------|
/// | `CS_ACTIVE`  | counts the thread as a waiter, waits    | adds a count           | `CS_DELETING`, then waits   |
/// | `CS_DELETING`| throw; who waits already is woken       | throws                 | `CS_DELETED` after the last |
/// | `CS_DELETED` | a line on `std::cerr`, then `abort()`   | the same               | frees everything            |
///
/// The destructor wakes every waiter, each of which leaves with `CountingSemaphoreDeletingException`, and returns only
/// after the last one has let go of the object. It covers threads that wait, and no others: the owner sees to it that
/// no `post`, `tryDown` or `getValue` is under way and that no new call begins. A waiter that is cancelled is counted
/// out like one that returns. What was written before a `post` is seen by the thread that takes its count.
///
/// Failures of the semaphore calls end the process by `safe`, but for those that `timedwait` and `tryDown` name.
class QUORVIL_API CountingSemaphore
{
public:
    /// A semaphore with `value` counts, by `sem_init`.
    ///
    /// @param value  0 to `SEM_VALUE_MAX`; another one ends the process
    /// @throws GeneralException  the condition cannot be made
    /// @requires linuxFuncResult != -1
    /// @threads any   @realtime bounded on success, I/O on failure
    explicit CountingSemaphore(int value);

    /// Wakes the waiters, waits on a condition until each has left, and destroys by `sem_destroy`. A failure of the
    /// condition ends the process.
    ///
    /// @requires linuxFuncResult != -1
    /// @threads owner   @realtime waits
    virtual ~CountingSemaphore();

    /// Takes one count, waiting for it by `sem_wait`. A signal handler that runs meanwhile does not end the wait.
    ///
    /// @throws CountingSemaphoreDeletingException  the semaphore is being destroyed
    /// @requires linuxFuncResult != -1
    /// @threads any   @realtime waits
    void wait();

    /// Takes one count, waiting for it by `sem_timedwait` until the wall clock reads `until`.
    ///
    /// @param until  absolute: `until.initNow(CLOCK_REALTIME)` plus the wait
    /// @throws TimedOutException  `until` came first; the count is unchanged
    /// @throws CountingSemaphoreDeletingException  the semaphore is being destroyed, whatever else has happened
    /// @throws GeneralException  the call failed, such as "EINTR in sem_wait of CountingSemaphore::wait" after a signal
    /// @threads any   @realtime waits   @clock CLOCK_REALTIME
    void timedwait(const TimeSpec& until);

    /// Takes one count if there is one, by `sem_trywait`.
    ///
    /// @return whether a count was taken
    /// @throws GeneralException  the call failed
    /// @threads any   @realtime bounded on success, I/O on failure
    bool tryDown();

    /// Adds one count, by `sem_post`, and wakes a waiter.
    ///
    /// @throws CountingSemaphoreDeletingException  the semaphore is being destroyed; no count is added
    /// @requires linuxFuncResult != -1
    /// @threads any   @realtime bounded
    void post();

    /// The number of counts at some moment of the call, by `sem_getvalue`; never negative.
    ///
    /// @requires linuxFuncResult != -1
    /// @threads any   @realtime bounded
    int getValue();

    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;

private:
    enum State : std::uint32_t
    {
        CS_ACTIVE,
        CS_DELETING,
        CS_DELETED,
    };

    bool prepareWait();
    void doWait(const TimeSpec* until);
    int takeCount(const TimeSpec* until);
    bool finishWait();
    bool preparePost();

    sem_t sem;
    State state = CS_ACTIVE;
    RecursiveMutex mutex;
    WaitCond finished;
    int waiters = 0;
};

} // namespace util

#endif
