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

[[noreturn]] void abortDeleted(const char* operation)
{
    std::cerr << "Illegal state CS_DELETED in CountingSemaphore::" << operation << std::endl;
    std::abort();
}

} // namespace

CountingSemaphoreDeletingException::CountingSemaphoreDeletingException() = default;
CountingSemaphoreDeletingException::~CountingSemaphoreDeletingException() = default;

CountingSemaphore::CountingSemaphore(int value)
{
    // A negative value becomes one above SEM_VALUE_MAX, which sem_init refuses.
    safe("util::CountingSemaphore::CountingSemaphore(int)", source, 32, sem_init(&sem, 0, static_cast<unsigned>(value)),
         true);
}

CountingSemaphore::~CountingSemaphore()
{
    constexpr const char* function = "virtual util::CountingSemaphore::~CountingSemaphore()";
    {
        Lock lock(mutex);
        state = CS_DELETING;
        // Each waiter takes at most one count, wherever it stands, and none can leave before the mutex is free.
        for (int i = 0; i < waiters; ++i)
            safe(function, source, 59, sem_post(&sem), true);
        // The last waiter signals under the mutex: once the wait here has it back, that thread is out of the condition
        // and the semaphore, and it touches nothing behind its unlock.
        while (waiters > 0)
            lock.wait(finished);
        state = CS_DELETED;
    }
    safe(function, source, 78, sem_destroy(&sem), true);
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
    safe("void util::CountingSemaphore::post()", source, 230, sem_post(&sem), true);
}

int CountingSemaphore::getValue()
{
    int value = 0;
    safe("int util::CountingSemaphore::getValue()", source, 251, sem_getvalue(&sem, &value), true);
    return value < 0 ? 0 : value;
}

/// Counts the calling thread as a waiter, unless the semaphore is on its way out.
bool CountingSemaphore::prepareWait()
{
    const Lock lock(mutex);
    if (state == CS_DELETED)
        abortDeleted("wait");
    if (state == CS_DELETING)
        throw CountingSemaphoreDeletingException();
    ++waiters;
    return true;
}

void CountingSemaphore::doWait(const TimeSpec* until)
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

/// The blocking call itself; returns its error number.
int CountingSemaphore::takeCount(const TimeSpec* until)
{
    if (until != nullptr) {
        const timespec deadline = *until->to_c();
        return sem_timedwait(&sem, &deadline) == -1 ? errno : 0;
    }
    int result = sem_wait(&sem);
    while (result == -1 && errno == EINTR)
        result = sem_wait(&sem);
    safe("void util::CountingSemaphore::doWait(const util::TimeSpec*)", source, 147, result, true);
    return 0;
}

/// Counts the calling thread out; false if the semaphore is on its way out. The object may be gone on return.
bool CountingSemaphore::finishWait()
{
    const Lock lock(mutex);
    --waiters;
    if (state == CS_DELETING && waiters == 0)
        finished.signal();
    return state == CS_ACTIVE;
}

bool CountingSemaphore::preparePost()
{
    const Lock lock(mutex);
    if (state == CS_DELETED)
        abortDeleted("post");
    if (state == CS_DELETING)
        throw CountingSemaphoreDeletingException();
    return true;
}

} // namespace util
