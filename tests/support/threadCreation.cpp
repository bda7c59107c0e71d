#include "tests/support/threadCreation.h"

#define CALL(function, parameters, arguments, qualifier)                                                               \
    constinit support::Fault function##Fault(#function);                                                               \
    SUPPORT_INTERPOSE_WITH(function##Fault, int, function, parameters, arguments, qualifier)

CALL(pthread_join, (pthread_t thread, void** result), (thread, result), )
CALL(pthread_detach, (pthread_t thread), (thread), noexcept)
CALL(pthread_cancel, (pthread_t thread), (thread), )
CALL(pthread_setspecific, (pthread_key_t key, const void* value), (key, value), noexcept)
CALL(pthread_attr_init, (pthread_attr_t * attr), (attr), noexcept)
CALL(pthread_attr_destroy, (pthread_attr_t * attr), (attr), noexcept)
CALL(pthread_attr_setstacksize, (pthread_attr_t * attr, size_t size), (attr, size), noexcept)
CALL(pthread_attr_setinheritsched, (pthread_attr_t * attr, int value), (attr, value), noexcept)
CALL(pthread_attr_setschedpolicy, (pthread_attr_t * attr, int value), (attr, value), noexcept)
CALL(pthread_attr_getschedpolicy, (const pthread_attr_t* attr, int* value), (attr, value), noexcept)
CALL(pthread_attr_setschedparam, (pthread_attr_t * attr, const sched_param* value), (attr, value), noexcept)

constinit support::Fault pthread_createFault("pthread_create");
constinit support::Fault nanosleepFault("nanosleep");
constinit support::Fault support::threadStart("a new thread");
support::AskedThread support::asked{};
std::array<timespec, 16> support::pauses{};

namespace {

// Looked up before the tests begin: a look-up allocates.
decltype(&pthread_create) realCreate = support::real<decltype(&pthread_create)>("pthread_create");

struct Start
{
    void* (*routine)(void*);
    void* argument;
};

/// No destructor stands in the way of a cancellation.
void* startBehindHook(void* packet)
{
    const Start start = *static_cast<Start*>(packet);
    delete static_cast<Start*>(packet);
    {
        const support::Call call(support::threadStart);
    }
    return start.routine(start.argument);
}

} // namespace

extern "C" {

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*), void* arg) noexcept
{
    using support::asked;
    asked = {};
    asked.withAttributes = attributes != nullptr;
    if (attributes != nullptr) {
        pthread_attr_getstacksize(attributes, &asked.stackBytes);
        pthread_attr_getinheritsched(attributes, &asked.inherit);
        pthread_attr_getschedpolicy(attributes, &asked.policy);
        pthread_attr_getschedparam(attributes, &asked.parameters);
    }
    if (pthread_createFault.strikes())
        return static_cast<int>(pthread_createFault.result);
    if (!realCreate)
        realCreate = support::real<decltype(&pthread_create)>("pthread_create");
    if (__atomic_load_n(&support::threadStart.before, __ATOMIC_SEQ_CST) != nullptr) {
        arg = new Start{routine, arg};
        routine = startBehindHook;
    }
    if (attributes == nullptr)
        return realCreate(thread, attributes, routine, arg);
    pthread_attr_t plain = *attributes;
    pthread_attr_setinheritsched(&plain, PTHREAD_INHERIT_SCHED);
    return realCreate(thread, &plain, routine, arg);
}

__attribute__((visibility("default"))) SUPPORT_UNINSTRUMENTED int nanosleep(const timespec* pause, timespec* rest)
{
    const support::Call call(nanosleepFault);
    const auto place = static_cast<size_t>(nanosleepFault.calls);
    if (place < support::pauses.size())
        support::pauses[place] = *pause;
    if (nanosleepFault.strikes()) {
        if (rest != nullptr)
            *rest = {1, 7};
        return static_cast<int>(nanosleepFault.result);
    }
    return support::real<int (*)(const timespec*, timespec*)>("nanosleep")(pause, rest);
}
}
