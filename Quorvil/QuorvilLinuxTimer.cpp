#include "Quorvil/QuorvilLinuxTimer.h"

#include "Quorvil/QuorvilLog.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

QUORVIL_LOG_GROUP("Noname");
QUORVIL_LOG_INDEX();

namespace quorvil {

namespace {

constexpr char source[] = "Quorvil/QuorvilLinuxTimer";

/// The process ends whether or not the log's gate lets the line through.
void checkTimerCall(int result, int line, const char* format)
{
    if (result == 0)
        return;
    QUORVIL_LOG(source, line, format, std::strerror(errno));
    std::abort();
}

} // namespace

LinuxTimer::LinuxTimer() noexcept = default;

LinuxTimer::~LinuxTimer()
{
    cancelAndDelete();
}

void LinuxTimer::create(std::function<void()> function_)
{
    cancelAndDelete();
    function = std::move(function_);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_value.sival_ptr = this;
    event.sigev_notify_function = notifyFunction;
    event.sigev_notify_attributes = nullptr;
    checkTimerCall(timer_create(CLOCK_MONOTONIC, &event, &timer), 72, "timer_create failed: %s\n");
    created = true;
}

void LinuxTimer::start(long firstSec, long firstNsec, long intervalSec, long intervalNsec)
{
    if (!created)
        return;
    itimerspec times{};
    times.it_value = {firstSec, firstNsec};
    times.it_interval = {intervalSec, intervalNsec};
    checkTimerCall(timer_settime(timer, 0, &times, nullptr), 96, "timer_settime failed: %s\n");
}

void LinuxTimer::cancel()
{
    if (!created)
        return;
    const itimerspec times{};
    checkTimerCall(timer_settime(timer, 0, &times, nullptr), 111, "timer_settime failed: %s\n");
}

void LinuxTimer::cancelAndDelete()
{
    if (!created)
        return;
    cancel();
    checkTimerCall(timer_delete(timer), 129, "timer_delete failed: %s\n");
    created = false;
}

void LinuxTimer::notifyFunction(sigval value)
{
    const auto* const expired = static_cast<LinuxTimer*>(value.sival_ptr);
    if (expired->created)
        expired->function();
}

} // namespace quorvil
