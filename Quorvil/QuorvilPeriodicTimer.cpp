#include "Quorvil/QuorvilPeriodicTimer.h"

#include "Quorvil/QuorvilLog.h"

#include <iostream>

#include <pthread.h>

QUORVIL_LOG_GROUP("Noname");

namespace quorvil {

TimerCallback::~TimerCallback() = default;

Timer::Timer() = default;

Timer::~Timer() = default;

void Timer::setCallback(TimerCallback* callback_)
{
    callback = callback_;
}

void Timer::alarm(sigval value)
{
    const std::lock_guard lock(alarmMtx);
    const auto* const timer = static_cast<Timer*>(value.sival_ptr);
    if (timer == nullptr)
        return;
    // The callback may destroy its timer, which is not touched behind the call.
    TimerCallback* const target = timer->callback;
    if (target != nullptr)
        target->alarm();
}

TimerCallback* Timer::getCallback() const
{
    return callback;
}

PeriodicTimer::PeriodicTimer()
{
    // The system takes the priority where it can, and its own where it cannot.
    pthread_attr_t attributes;
    (void)pthread_attr_init(&attributes);
    sched_param parameters{};
    parameters.sched_priority = 255;
    (void)pthread_attr_setschedparam(&attributes, &parameters);

    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_value.sival_ptr = static_cast<Timer*>(this);
    event.sigev_notify_function = Timer::alarm;
    event.sigev_notify_attributes = &attributes;
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) != 0) {
        timer = timer_t{};
        std::cout << "PeriodicTimer: Could not create the thread" << std::endl;
    }
    // The system library has made a copy.
    (void)pthread_attr_destroy(&attributes);
}

PeriodicTimer::~PeriodicTimer()
{
    // There is nobody to tell of a failure.
    if (timer != timer_t{})
        (void)timer_delete(timer);
}

void PeriodicTimer::startTimer(int periodMicroseconds)
{
    setTimes("startTimer", periodMicroseconds);
}

void PeriodicTimer::stopTimer()
{
    setTimes("stopTimer", 0);
}

void PeriodicTimer::setTimes(const char* operation, int periodMicroseconds)
{
    if (getCallback() == nullptr)
        std::cout << "PeriodicTimer::" << operation << ": no callback defined\n" << std::endl;
    timerSpec.it_interval = {periodMicroseconds / 1'000'000, periodMicroseconds % 1'000'000 * 1000L};
    timerSpec.it_value = timerSpec.it_interval;
    // A timer of thread expiries is never 0: that is one that could not be made.
    if (timer == timer_t{} || timer_settime(timer, 0, &timerSpec, nullptr) == -1)
        std::cout << "PeriodicTimer::" << operation << ": failed\n" << std::endl;
}

} // namespace quorvil
