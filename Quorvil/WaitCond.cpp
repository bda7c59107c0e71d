#include "Quorvil/WaitCond.h"

#include "Quorvil/GeneralException.h"

#include <cerrno>
#include <cstdlib>
#include <initializer_list>
#include <iostream>

namespace util {

namespace {

struct NamedError
{
    int code;
    const char* name;
};

/// Throws the text of `error`, if it is one; `names` are those that the call is known for.
void check(int error, std::initializer_list<NamedError> names, const char* where)
{
    if (error == 0)
        return;
    GeneralExceptionThrower thrower(error);
    for (const NamedError& named : names)
        thrower.handle(named.code, named.name);
    thrower.throwNow(where);
}

const char* destroyFailure(int error)
{
    switch (error) {
    case EBUSY:
        return "EBUSY in pthread_mutex_destroy";
    case EINVAL:
        return "EINVAL in pthread_mutex_destroy";
    case EPERM:
        return "EPERM in pthread_mutex_destroy";
    default:
        return "";
    }
}

} // namespace

RecursiveMutex::RecursiveMutex()
{
    pthread_mutexattr_t attributes;
    (void)pthread_mutexattr_init(&attributes);
    (void)pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    (void)pthread_mutex_init(&mutex, &attributes);
    (void)pthread_mutexattr_destroy(&attributes);
}

RecursiveMutex::~RecursiveMutex()
{
    const int error = pthread_mutex_destroy(&mutex);
    if (error == 0)
        return;
    std::cerr << "FATAL ERROR: " << destroyFailure(error) << std::endl;
    std::exit(1);
}

WaitCond::WaitCond()
{
    pthread_condattr_t attributes;
    check(pthread_condattr_init(&attributes), {{EINVAL, "EINVAL"}, {EBUSY, "EBUSY"}, {ENOMEM, "ENOMEM"}},
          " in pthread_condattr_init");
    check(pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC), {{EINVAL, "EINVAL"}},
          " in pthread_condattr_setclock");
    check(pthread_cond_init(&cond, &attributes), {{EINVAL, "EINVAL"}, {EBUSY, "EBUSY"}, {ENOMEM, "ENOMEM"}},
          " in pthread_cond_init");
    check(pthread_condattr_destroy(&attributes), {{EINVAL, "EINVAL"}}, " in pthread_condattr_destroy");
}

WaitCond::~WaitCond()
{
    const int error = pthread_cond_destroy(&cond);
    if (error == 0)
        return;
    GeneralExceptionThrower thrower(error);
    thrower.handle(EINVAL, "EINVAL");
    thrower.writeNow(" in pthread_cond_destroy", std::cerr);
}

void WaitCond::signal()
{
    check(pthread_cond_signal(&cond), {{EINVAL, "EINVAL"}, {EPERM, "EPERM"}}, " in pthread_cond_signal");
}

void WaitCond::broadcast()
{
    check(pthread_cond_broadcast(&cond), {{EINVAL, "EINVAL"}, {EPERM, "EPERM"}}, " in pthread_cond_broadcast");
}

void WaitCond::wait(RecursiveMutex& mutex)
{
    check(pthread_cond_wait(&cond, &mutex.mutex), {{EINVAL, "EINVAL"}, {EPERM, "EPERM"}}, " in pthread_cond_wait");
}

void WaitCond::timedwait(RecursiveMutex& mutex, const TimeSpec& until)
{
    const int error = pthread_cond_timedwait(&cond, &mutex.mutex, until.to_c());
    if (error == ETIMEDOUT)
        throw TimedOutException();
    check(error, {{EPERM, "EPERM"}, {EINVAL, "EINVAL"}}, " in pthread_cond_timedwait");
}

void Lock::wait(WaitCond& cond)
{
    cond.wait(mutex);
}

void Lock::timedwait(WaitCond& cond, const TimeSpec& until)
{
    cond.timedwait(mutex, until);
}

} // namespace util
