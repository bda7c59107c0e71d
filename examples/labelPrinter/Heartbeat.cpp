#include "Heartbeat.h"

#include "Interrupt.h"
#include "Status.h"

#include "Quorvil/QuorvilPeriodicTimer.h"
#include "Quorvil/ThreadSafeStream.h"

#include <mutex>

namespace labelPrinter {

namespace {

/// The timer, and what it calls. It stays to the end of the process: when the timer is stopped, one call more may be on
/// its way, and it finds no status.
class Pulse : private quorvil::TimerCallback
{
public:
    void show(Status* theStatus)
    {
        const std::lock_guard lock(mutex);
        status = theStatus;
    }

    void beat(int microseconds)
    {
        timer.setCallback(this);
        if (microseconds > 0)
            timer.startTimer(microseconds);
        else
            timer.stopTimer();
    }

private:
    void alarm() override
    {
        // The system's timer threads take every signal; those that stop the printer are for the thread that waits.
        const InterruptsHeldOff here;
        const std::lock_guard lock(mutex);
        if (status != nullptr)
            safeCout << "labelPrinter: " << status->line() << std::endl;
    }

    std::mutex mutex;
    Status* status = nullptr;
    quorvil::PeriodicTimer timer;
};

Pulse& pulse()
{
    static auto* const only = new Pulse;
    return *only;
}

} // namespace

Heartbeat::Heartbeat(Status& status, int seconds)
    : beats(seconds > 0)
{
    if (!beats)
        return;
    pulse().show(&status);
    pulse().beat(seconds * 1'000'000);
}

Heartbeat::~Heartbeat()
{
    if (!beats)
        return;
    pulse().beat(0);
    pulse().show(nullptr);
}

} // namespace labelPrinter
