// QuorvilSyncLockGroup.h: a lock with its condition that warns about long waits and long holds
// Synchronisation, on Foundation and Diagnostics

#ifndef QUORVIL_QUORVILSYNCLOCKGROUP_H
#define QUORVIL_QUORVILSYNCLOCKGROUP_H

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilExport.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <string>

namespace util {

// Only whether there is a buffer matters here; users of a lock need not know what it is.
class LimitedBuffer;
QUORVIL_API extern std::shared_ptr<LimitedBuffer> gl_pTrenvikLimitedBuffer;

} // namespace util

namespace quorvil {

/// A wait was ended by `interrupt`. It carries no text of its own.
class QUORVIL_API InterruptedException : public std::exception
{
public:
    InterruptedException();
    InterruptedException(const InterruptedException&) = default;
    InterruptedException& operator=(const InterruptedException&) = default;
    ~InterruptedException() override;
};

} // namespace quorvil

namespace quorvil::sync {

class Guard;
class Unguard;

/// A recursive lock and one condition: whatever shares a group shares its critical section and its condition.
///
/// | group       | `Guard::wait`                       | `interrupt`              | locking, `notifyAll` |
/// |-------------|-------------------------------------|--------------------------|----------------------|
/// | undisturbed | sleeps until a notification         | interrupts for ever,     | work                 |
/// |             |                                     | wakes every waiter       |                      |
/// | interrupted | sleeps until a notification, throws | wakes every waiter       | work                 |
///
/// It is taken through a scoped `Guard`, which measures and warns, or by `lock` and `unlock`, which leave a trace in
/// `util::gl_pTrenvikLimitedBuffer`, if a client has installed one; it has to be installed before other threads use the
/// group. Each takes one level, and each level is released by its own counterpart, on the thread that took it. What was
/// written under the lock is seen by the next thread that takes it.
///
/// When a group is destroyed, no guard may be alive and no thread may wait; nothing checks it.
class QUORVIL_API LockGroup
{
public:
    /// A free group.
    ///
    /// @throws std::bad_alloc  no memory for the condition
    /// @threads any   @realtime allocates
    LockGroup();

    /// Destroys mutex and condition.
    ///
    /// @threads owner   @realtime bounded
    ~LockGroup();

    /// Takes the group for as long as the result lives: `const Guard guard = group.guard("Quorvil/File", __LINE__);`
    ///
    /// @param file  source that takes the lock, not null; more than 15 characters take memory
    /// @param line  its line
    /// @throws std::logic_error   `file` is null
    /// @throws std::bad_alloc     no memory for a long `file`; the lock was not asked for
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime waits, allocates for a long `file`
    [[nodiscard]] Guard guard(const char* file, int line);

    /// Gives one level up for as long as the result lives.
    ///
    /// @param file, line  not used
    /// @threads owner   @realtime bounded
    [[nodiscard]] Unguard unguard(const char* file, int line);

    /// Takes one level, waiting for it at most one second, and traces "[file:line] LOCK\n" into the limited buffer.
    ///
    /// After that second it writes "LockGroup::lock failed in file:line for 1sec!\n" and the limited buffer's content
    /// to `std::cout` instead. What the trace throws leaves the lock held.
    ///
    /// @param file  source that takes the lock
    /// @param line  its line, above 0
    /// @return whether the lock is held
    /// @throws std::system_error  the limited buffer cannot be taken
    /// @requires file
    /// @requires line > 0
    /// @threads any   @realtime waits, I/O on failure
    bool lock(const char* file, int line);

    /// Traces "[file:line] UNLOCK\n" into the limited buffer and gives one level back. Without a level it changes
    /// nothing but the trace. What the trace throws keeps the level.
    ///
    /// @param file  source that gives the lock back
    /// @param line  its line, above 0
    /// @throws std::system_error  the limited buffer cannot be taken
    /// @requires file
    /// @requires line > 0
    /// @threads any   @realtime bounded
    void unlock(const char* file, int line);

    LockGroup(const LockGroup&) = delete;
    LockGroup& operator=(const LockGroup&) = delete;

private:
    friend class Guard;
    friend class Unguard;

    static constexpr const char* source = "Quorvil/QuorvilSyncLockGroup";

    bool lockWithinASecond(const char* file, int line);
    static void trace(const char* what, const char* file, int line);

    std::recursive_timed_mutex mutex;
    std::condition_variable_any condition;
    bool interrupted = false;
};

/// Holds one level of a group, and warns at its end if the lock was long in coming or was held for long.
///
/// A wait for the lock of more than 499 ms, and a hold of more than 4 ms, each give a line with the guard's source
/// place and the time in microseconds, the content of the limited buffer, and a blank line, on standard output and
/// with the lock still held. Both are measured on the wall clock: a jump of the system's time can feign or hide them.
/// Every guard measures its own wait and hold; `wait` and the stretch of an `Unguard` count as holding.
///
/// A guard that was moved from holds nothing: it may only be assigned to or destroyed.
class QUORVIL_API Guard
{
public:
    /// Takes the lock, without limit of time.
    ///
    /// @param group  not owned; it outlives the guard
    /// @param file   source that takes the lock, not null; kept as a copy, which takes memory above 15 characters
    /// @param line   its line
    /// @throws std::logic_error   `file` is null; the lock was not asked for
    /// @throws std::bad_alloc     no memory for a long `file`; the lock was not asked for
    /// @throws std::system_error  the lock cannot be taken
    /// @threads any   @realtime waits, allocates for a long `file`
    Guard(LockGroup& group, const char* file, int line);

    /// Takes the group and its times over; the lock is not touched. The source place is not taken over: a warning of
    /// the new guard names an empty file and line 0.
    ///
    /// @threads owner   @realtime bounded
    Guard(Guard&& other) noexcept;

    /// Exchanges the groups and their times; locks and source places stay where they are.
    ///
    /// @threads owner   @realtime bounded
    Guard& operator=(Guard&& other) noexcept;

    /// Warns, where a time was too long, and gives the level back. An exception in the output ends the process.
    ///
    /// @threads owner   @realtime bounded, I/O for a warning
    ~Guard();

    /// Gives the level up, sleeps until a notification, and takes the level again. It can return without one: callers
    /// test their own condition in a loop. The group is held at this one level only: a second one would keep everybody
    /// else out. Whether the group is interrupted is looked at only after the wake-up: a wait that begins later than
    /// `interrupt` sleeps all the same, so ask `isInterrupted` first.
    ///
    /// @throws InterruptedException  the group is interrupted; the guard still holds it
    /// @throws std::system_error     the condition failed, or the lock could not be taken again
    /// @requires group
    /// @threads owner   @realtime waits
    void wait();

    /// Wakes all threads in `wait` on this group. A condition that cannot notify ends the process.
    ///
    /// @requires group
    /// @threads owner   @realtime bounded
    void notifyAll();

    /// Wakes all threads in `wait` on this group, as `notifyAll` does. From now on every wait of the group, also one
    /// that begins later, ends in `InterruptedException` once it is woken.
    ///
    /// @requires group
    /// @threads owner   @realtime bounded
    void interrupt();

    /// Whether the group was interrupted.
    ///
    /// @requires group
    /// @threads owner   @realtime bounded
    bool isInterrupted();

    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    using Clock = std::chrono::system_clock;

    LockGroup& held(int line, const char* function);

    LockGroup* group;
    std::string file;
    int line;
    Clock::time_point requestedAt;
    Clock::time_point acquiredAt;
};

/// Gives one level of a group up for as long as it lives, so that others come in while a guard around it waits.
class QUORVIL_API Unguard
{
public:
    /// Unlocks one level, which the caller holds.
    ///
    /// @param group       not owned; it outlives the object
    /// @param file, line  not used
    /// @threads owner   @realtime bounded
    Unguard(LockGroup& group, const char* file, int line);

    /// Takes over the duty of locking again.
    ///
    /// @threads owner   @realtime bounded
    Unguard(Unguard&& other) noexcept;

    /// Locks again, without limit of time. A failure ends the process.
    ///
    /// @threads owner   @realtime waits
    ~Unguard();

    Unguard(const Unguard&) = delete;
    Unguard& operator=(const Unguard&) = delete;
    Unguard& operator=(Unguard&&) = delete;

private:
    LockGroup* group;
};

// In the header, so that a free lock without a trace costs no more than the mutex.

inline bool LockGroup::lock(const char* file, int line)
{
    constexpr const char* function = "void quorvil::sync::LockGroup::lock(const char*, int)";
    intern::require(file != nullptr, "file", source, 136, function);
    intern::require(line > 0, "line > 0", source, 137, function);
    // A free lock needs no deadline, and so no clock.
    if (!mutex.try_lock() && !lockWithinASecond(file, line))
        return false;
    if (util::gl_pTrenvikLimitedBuffer)
        trace("LOCK", file, line);
    return true;
}

inline void LockGroup::unlock(const char* file, int line)
{
    constexpr const char* function = "void quorvil::sync::LockGroup::unlock(const char*, int)";
    intern::require(file != nullptr, "file", source, 150, function);
    intern::require(line > 0, "line > 0", source, 151, function);
    if (util::gl_pTrenvikLimitedBuffer)
        trace("UNLOCK", file, line);
    mutex.unlock();
}

/// A group for common use by the library's clients. The library itself never takes it.
QUORVIL_API extern LockGroup gl_trenvikLockGroup;

} // namespace quorvil::sync

#endif
