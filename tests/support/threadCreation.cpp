#include "tests/support/threadCreation.h"

support::AskedThread support::asked{};
timespec support::askedPause{};

/// Notes what is asked for, and asks for the same without the policy.
static SUPPORT_UNINSTRUMENTED const pthread_attr_t* noted(const pthread_attr_t* attributes)
{
    using support::asked;
    asked = {};
    if (attributes == nullptr)
        return nullptr;
    static thread_local pthread_attr_t plain;
    plain = *attributes;
    sched_param parameters{};
    pthread_attr_getstacksize(attributes, &asked.stackBytes);
    pthread_attr_getinheritsched(attributes, &asked.inherit);
    pthread_attr_getschedpolicy(attributes, &asked.policy);
    pthread_attr_getschedparam(attributes, &parameters);
    asked.priority = parameters.sched_priority;
    pthread_attr_setinheritsched(&plain, PTHREAD_INHERIT_SCHED);
    return &plain;
}

SUPPORT_INTERPOSE(int, pthread_create,
                  (pthread_t * thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* arg),
                  (thread, noted(attributes), routine, arg), noexcept)
SUPPORT_INTERPOSE(int, pthread_join, (pthread_t thread, void** result), (thread, result), )
SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)
SUPPORT_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * cond, pthread_mutex_t* mutex), (cond, mutex), )
SUPPORT_INTERPOSE(int, pthread_cond_broadcast, (pthread_cond_t * cond), (cond), noexcept)

constinit support::Fault nanosleepFault{"nanosleep"};

extern "C" __attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int nanosleep(const timespec* pause,
                                                                                       timespec* rest)
{
    support::askedPause = *pause;
    if (!nanosleepFault.strikes())
        return support::real<int (*)(const timespec*, timespec*)>("nanosleep")(pause, rest);
    if (rest != nullptr)
        *rest = {0, 7};
    return static_cast<int>(nanosleepFault.result);
}
