#include "Quorvil/QuorvilSyncLockGroup.h"

#include "Quorvil/QuorvilAssert.h"
#include "Quorvil/QuorvilLimitedBuffer.h"
#include "Quorvil/QuorvilLog.h"

#include <iostream>
#include <utility>

QUORVIL_LOG_GROUP("Quorvil");

namespace quorvil {

InterruptedException::InterruptedException() = default;
InterruptedException::~InterruptedException() = default;

} // namespace quorvil

namespace quorvil::sync {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds longestWait = 499ms;
constexpr std::chrono::nanoseconds longestHold = 4ms;

void printLimitedBuffer()
{
    if (util::gl_pTrenvikLimitedBuffer)
        util::gl_pTrenvikLimitedBuffer->print(std::cout);
}

std::string place(const std::string& file, int line)
{
    return file + ":" + std::to_string(line);
}

/// Writes a log line and what belongs under it. It stands out of the way of the guards that have nothing to warn about.
[[gnu::cold, gnu::noinline]] void warn(const char* logLine, const std::string& file, int line, const char* what,
                                       std::chrono::nanoseconds duration)
{
    const std::string text = "[" + place(file, line) + "] " + what + std::to_string(duration.count() / 1000) + "us\n";
    my_printf(logLine, text.c_str());
    printLimitedBuffer();
    std::cout << std::endl;
}

} // namespace

LockGroup::LockGroup() = default;
LockGroup::~LockGroup() = default;

Guard LockGroup::guard(const char* file, int line)
{
    return Guard(*this, file, line);
}

Unguard LockGroup::unguard(const char* file, int line)
{
    return Unguard(*this, file, line);
}

/// Waits for a lock that is taken, and reports the one that stays so.
bool LockGroup::lockWithinASecond(const char* file, int line)
{
    if (mutex.try_lock_for(1s))
        return true;
    std::cout << "LockGroup::lock failed in " + place(file, line) + " for 1sec!\n";
    printLimitedBuffer();
    return false;
}

void LockGroup::trace(const char* what, const char* file, int line)
{
    util::gl_pTrenvikLimitedBuffer->addf("[%s:%d] %s\n", file, line, what);
}

Guard::Guard(LockGroup& group_, const char* file_, int line_)
    : group(&group_)
    , file(file_)
    , line(line_)
    , requestedAt(Clock::now())
{
    group->mutex.lock();
    acquiredAt = Clock::now();
}

Guard::Guard(Guard&& other) noexcept
    : group(std::exchange(other.group, nullptr))
    , line(0)
    , requestedAt(other.requestedAt)
    , acquiredAt(other.acquiredAt)
{
}

Guard& Guard::operator=(Guard&& other) noexcept
{
    std::swap(group, other.group);
    std::swap(requestedAt, other.requestedAt);
    std::swap(acquiredAt, other.acquiredAt);
    return *this;
}

Guard::~Guard()
{
    if (group == nullptr)
        return;
    const Clock::time_point now = Clock::now();
    const std::chrono::nanoseconds lockDuration = acquiredAt - requestedAt;
    const std::chrono::nanoseconds lockedDuration = now - acquiredAt;
    if (lockDuration > longestWait)
        warn("[WARN Quorvil/QuorvilSyncLockGroup:81]    %s", file, line, "lockDuration: ", lockDuration);
    if (lockedDuration > longestHold)
        warn("[WARN Quorvil/QuorvilSyncLockGroup:90]    %s", file, line, "lockedDuration: ", lockedDuration);
    group->mutex.unlock();
}

void Guard::wait()
{
    LockGroup& waitedFor = held(__LINE__, "void quorvil::sync::Guard::wait()");
    // The mutex itself is what the condition unlocks and locks, so that no adopted lock is left on any way out.
    waitedFor.condition.wait(waitedFor.mutex);
    if (waitedFor.interrupted)
        throw InterruptedException();
}

void Guard::notifyAll()
{
    held(__LINE__, "void quorvil::sync::Guard::notifyAll()").condition.notify_all();
}

void Guard::interrupt()
{
    held(__LINE__, "void quorvil::sync::Guard::interrupt()").interrupted = true;
    notifyAll();
}

bool Guard::isInterrupted()
{
    return held(__LINE__, "bool quorvil::sync::Guard::isInterrupted()").interrupted;
}

/// The group of a guard that was not moved from.
LockGroup& Guard::held(int callersLine, const char* function)
{
    intern::require(group != nullptr, "group", LockGroup::source, static_cast<unsigned>(callersLine), function);
    return *group;
}

Unguard::Unguard(LockGroup& group_, const char*, int)
    : group(&group_)
{
    group->mutex.unlock();
}

Unguard::Unguard(Unguard&& other) noexcept
    : group(std::exchange(other.group, nullptr))
{
}

Unguard::~Unguard()
{
    if (group != nullptr)
        group->mutex.lock();
}

} // namespace quorvil::sync
