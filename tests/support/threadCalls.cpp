#include "tests/support/threadCalls.h"

#include <pthread.h>
#include <semaphore.h>
#include <utility>

namespace {

constinit thread_local bool triesOnly = false;
constinit thread_local bool taken = false;
constinit std::atomic<support::WallClock*> wallClock{nullptr};

} // namespace

#define CALL(function, parameters, arguments, qualifier)                                                               \
    constinit support::Fault function##Fault(#function);                                                               \
    SUPPORT_INTERPOSE_WITH(function##Fault, int, function, parameters, arguments, qualifier)

CALL(pthread_mutexattr_init, (pthread_mutexattr_t * attributes), (attributes), noexcept)
CALL(pthread_mutexattr_settype, (pthread_mutexattr_t * attributes, int type), (attributes, type), noexcept)
CALL(pthread_mutexattr_destroy, (pthread_mutexattr_t * attributes), (attributes), noexcept)
CALL(pthread_mutex_init, (pthread_mutex_t * mutex, const pthread_mutexattr_t* attributes), (mutex, attributes),
     noexcept)
CALL(pthread_mutex_destroy, (pthread_mutex_t * mutex), (mutex), noexcept)
CALL(pthread_mutex_clocklock, (pthread_mutex_t * mutex, clockid_t clock, const timespec* until), (mutex, clock, until),
     noexcept)
CALL(pthread_condattr_init, (pthread_condattr_t * attributes), (attributes), noexcept)
CALL(pthread_condattr_setclock, (pthread_condattr_t * attributes, clockid_t clock), (attributes, clock), noexcept)
CALL(pthread_condattr_destroy, (pthread_condattr_t * attributes), (attributes), noexcept)
CALL(pthread_cond_init, (pthread_cond_t * cond, const pthread_condattr_t* attributes), (cond, attributes), noexcept)
CALL(pthread_cond_destroy, (pthread_cond_t * cond), (cond), noexcept)
CALL(pthread_cond_signal, (pthread_cond_t * cond), (cond), noexcept)
CALL(pthread_cond_broadcast, (pthread_cond_t * cond), (cond), noexcept)
CALL(pthread_cond_wait, (pthread_cond_t * cond, pthread_mutex_t* mutex), (cond, mutex), )
CALL(pthread_cond_timedwait, (pthread_cond_t * cond, pthread_mutex_t* mutex, const timespec* until),
     (cond, mutex, until), )
CALL(sem_init, (sem_t * semaphore, int shared, unsigned value), (semaphore, shared, value), noexcept)
CALL(sem_destroy, (sem_t * semaphore), (semaphore), noexcept)
CALL(sem_wait, (sem_t * semaphore), (semaphore), )
CALL(sem_timedwait, (sem_t * semaphore, const timespec* until), (semaphore, until), )
CALL(sem_trywait, (sem_t * semaphore), (semaphore), noexcept)
CALL(sem_post, (sem_t * semaphore), (semaphore), noexcept)
CALL(sem_getvalue, (sem_t * semaphore, int* value), (semaphore, value), noexcept)

constinit support::Fault pthread_mutex_lockFault("pthread_mutex_lock");

extern "C" {

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept
{
    static int (*realFunction)(pthread_mutex_t*) = nullptr;
    const support::Call call(pthread_mutex_lockFault);
    if (pthread_mutex_lockFault.strikes())
        return static_cast<int>(pthread_mutex_lockFault.result);
    if (triesOnly) {
        const int error = pthread_mutex_trylock(mutex);
        taken = taken || error != 0;
        return error;
    }
    if (!realFunction)
        realFunction = support::real<int (*)(pthread_mutex_t*)>("pthread_mutex_lock");
    return realFunction(mutex);
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int clock_gettime(clockid_t clock, timespec* now) noexcept
{
    static int (*realFunction)(clockid_t, timespec*) = nullptr;
    if (support::WallClock* const fake = clock == CLOCK_REALTIME ? wallClock.load() : nullptr) {
        const int64_t nanoseconds = fake->next();
        *now = {static_cast<time_t>(nanoseconds / 1'000'000'000), static_cast<long>(nanoseconds % 1'000'000'000)};
        return 0;
    }
    if (!realFunction)
        realFunction = support::real<int (*)(clockid_t, timespec*)>("clock_gettime");
    return realFunction(clock, now);
}
}

namespace support {

void tryLocksOnly(bool tries)
{
    triesOnly = tries;
    taken = false;
}

bool lockWasTaken()
{
    return taken;
}

WallClock::WallClock(std::vector<int64_t> readings_)
    : readings(std::move(readings_))
{
    wallClock = this;
}

WallClock::~WallClock()
{
    wallClock = nullptr;
}

int64_t WallClock::next()
{
    const size_t reading = used++;
    return readings[reading < readings.size() ? reading : readings.size() - 1];
}

} // namespace support
