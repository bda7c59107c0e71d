#include "tests/support/threadCreation.h"

SUPPORT_INTERPOSE(int, pthread_join, (pthread_t thread, void** result), (thread, result), )
SUPPORT_INTERPOSE(int, pthread_detach, (pthread_t thread), (thread), noexcept)
SUPPORT_INTERPOSE(int, pthread_cancel, (pthread_t thread), (thread), )
SUPPORT_INTERPOSE(int, pthread_setspecific, (pthread_key_t key, const void* value), (key, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_init, (pthread_attr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_destroy, (pthread_attr_t * attr), (attr), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setstacksize, (pthread_attr_t * attr, size_t size), (attr, size), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setinheritsched, (pthread_attr_t * attr, int value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setschedpolicy, (pthread_attr_t * attr, int value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_getschedpolicy, (const pthread_attr_t* attr, int* value), (attr, value), noexcept)
SUPPORT_INTERPOSE(int, pthread_attr_setschedparam, (pthread_attr_t * attr, const sched_param* value), (attr, value),
                  noexcept)

SUPPORT_INTERPOSE(int, pthread_cond_wait, (pthread_cond_t * cond, pthread_mutex_t* mutex), (cond, mutex), )
SUPPORT_INTERPOSE(int, pthread_cond_broadcast, (pthread_cond_t * cond), (cond), noexcept)
SUPPORT_INTERPOSE(int, pthread_mutex_lock, (pthread_mutex_t * mutex), (mutex), noexcept)

constinit support::Fault pthread_createFault{"pthread_create"};
constinit support::Fault nanosleepFault{"nanosleep"};
support::AskedThread support::asked{};
timespec support::askedPause{};

// Looked up before the tests begin: a look-up allocates.
static auto realCreate = support::real<decltype(&pthread_create)>("pthread_create");

extern "C" {

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* arg) noexcept
{
    using support::asked;
    asked = {};
    asked.withAttributes = attributes != nullptr;
    pthread_attr_t plain;
    if (attributes != nullptr) {
        pthread_attr_getstacksize(attributes, &asked.stackBytes);
        pthread_attr_getinheritsched(attributes, &asked.inherit);
        pthread_attr_getschedpolicy(attributes, &asked.policy);
        pthread_attr_getschedparam(attributes, &asked.parameters);
        plain = *attributes;
        pthread_attr_setinheritsched(&plain, PTHREAD_INHERIT_SCHED);
    }
    if (pthread_createFault.strikes())
        return static_cast<int>(pthread_createFault.result);
    if (!realCreate)
        realCreate = support::real<decltype(&pthread_create)>("pthread_create");
    return realCreate(thread, attributes ? &plain : nullptr, routine, arg);
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int nanosleep(const timespec* pause, timespec* rest)
{
    support::askedPause = *pause;
    if (!nanosleepFault.strikes())
        return support::real<int (*)(const timespec*, timespec*)>("nanosleep")(pause, rest);
    if (rest != nullptr)
        *rest = {1, 7};
    return static_cast<int>(nanosleepFault.result);
}
}
