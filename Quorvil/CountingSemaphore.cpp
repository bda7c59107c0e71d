#include "Quorvil/CountingSemaphore.h"

#include "Quorvil/GeneralException.h"
#include "Quorvil/QuorvilLog.h"
#include "Quorvil/SafeLinuxCalls.h"

#include <cerrno>
#include <cstdlib>
#include <iostream>

QUORVIL_LOG_GROUP("Noname");

namespace util {

namespace {

constexpr const char* source = "Quorvil/CountingSemaphore";

/// `safe` for a call that must not fail; one that has succeeded costs nothing more.
inline void mustSucceed(const char* function, int line, int result)
{
    if (result == -1)
        safe(function, source, line, result, true);
}

[[noreturn]] void abortDeleted(const char* operation)
{
    std::cerr << "Illegal state CS_DELETED in CountingSemaphore::" << operation << std::endl;
    std::abort();
}

} // namespace

CountingSemaphoreDeletingException::CountingSemaphoreDeletingException() = default;
CountingSemaphoreDeletingException::~CountingSemaphoreDeletingException() = default;

// The steps stand ahead of their callers and are inline: they are the whole of an uncontended wait or post.

/// Counts the calling thread as a waiter, unless the semaphore is on its way out.
inline bool CountingSemaphore::prepareWait()
{
    const Lock lock(mutex);
    if (state == CS_DELETED)
        abortDeleted("wait");
    if (state == CS_DELETING)
        throw CountingSemaphoreDeletingException();
    ++waiters;
    return true;
}

/// The blocking call itself; returns its error number.
inline int CountingSemaphore::takeCount(const TimeSpec* until)
{
    if (until != nullptr) {
        const timespec deadline = *until->to_c();
        return sem_timedwait(&sem, &deadline) == -1 ? errno : 0;
    }
    int result = sem_wait(&sem);
    while (result == -1 && errno == EINTR)
        result = sem_wait(&sem);
    mustSucceed("void util::CountingSemaphore::doWait(const util::TimeSpec*)", 147, result);
    return 0;
}

/// Counts the calling thread out; false if the semaphore is on its way out. The object may be gone on return.
inline bool CountingSemaphore::finishWait()
{
    const Lock lock(mutex);
    --waiters;
    if (state == CS_DELETING && waiters == 0)
        finished.signal();
    return state == CS_ACTIVE;
}

inline void CountingSemaphore::doWait(const TimeSpec* until)
{
    prepareWait();
    int error = 0;
    try {
        error = takeCount(until);
    } catch (...) {
        // The thread is being cancelled in the semaphore call; the destructor must not wait for it.
        finishWait();
        throw;
    }
    if (!finishWait())
        throw CountingSemaphoreDeletingException();
    if (error == 0)
        return;
    if (error == ETIMEDOUT)
        throw TimedOutException();
    GeneralExceptionThrower thrower(error);
    thrower.handle(EDEADLK, "EDEADLK");
    thrower.handle(EINTR, "EINTR");
    thrower.handle(EINVAL, "EINVAL");
    thrower.throwNow("in sem_wait of CountingSemaphore::wait");
}

inline bool CountingSemaphore::preparePost()
{
    const Lock lock(mutex);
    if (state == CS_DELETED)
        abortDeleted("post");
    if (state == CS_DELETING)
        throw CountingSemaphoreDeletingException();
    return true;
}

CountingSemaphore::CountingSemaphore(int value)
{
    // A negative value becomes one above SEM_VALUE_MAX, which sem_init refuses.
    mustSucceed("util::CountingSemaphore::CountingSemaphore(int)", 32, sem_init(&sem, 0, static_cast<unsigned>(value)));
}

CountingSemaphore::~CountingSemaphore()
{
    constexpr const char* function = "virtual util::CountingSemaphore::~CountingSemaphore()";
    {
        Lock lock(mutex);
        state = CS_DELETING;
        // Each waiter takes at most one count, wherever it stands, and none can leave before the mutex is free.
        for (int i = 0; i < waiters; ++i)
            mustSucceed(function, 59, sem_post(&sem));
        // The last waiter signals under the mutex: once the wait here has it back, that thread is out of the condition
        // and the semaphore, and it touches nothing behind its unlock.
        while (waiters > 0)
            lock.wait(finished);
        state = CS_DELETED;
    }
    mustSucceed(function, 78, sem_destroy(&sem));
}

void CountingSemaphore::wait()
{
    doWait(nullptr);
}

void CountingSemaphore::timedwait(const TimeSpec& until)
{
    doWait(&until);
}

bool CountingSemaphore::tryDown()
{
    if (sem_trywait(&sem) == 0)
        return true;
    if (errno == EAGAIN)
        return false;
    GeneralExceptionThrower thrower(errno);
    thrower.handle(EDEADLK, "EDEADLK");
    thrower.handle(EINTR, "EINTR");
    thrower.handle(EINVAL, "EINVVAL");
    thrower.throwNow("in sem_trywait in CountingSemaphore::tryDown");
}

void CountingSemaphore::post()
{
    preparePost();
    mustSucceed("void util::CountingSemaphore::post()", 230, sem_post(&sem));
}

int CountingSemaphore::getValue()
{
    int value = 0;
    mustSucceed("int util::CountingSemaphore::getValue()", 251, sem_getvalue(&sem, &value));
    return value < 0 ? 0 : value;
}

} // namespace util
