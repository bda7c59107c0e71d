#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/QuorvilPeriodicTimer.h"
#include "Quorvil/ThreadSafeStream.h"

namespace {

class Blinker : public quorvil::TimerCallback
{
public:
    /// One call at a time in the process, on a thread of the system library.
    void alarm() override
    {
        if (blinks == 3)
            return; // an expiry that was on its way behind stopTimer
        safeCout << "blink " << ++blinks << '\n';
        if (blinks < 3)
            return;
        timer.stopTimer();
        done.post();
    }

    int blinks = 0;
    quorvil::PeriodicTimer timer;
    util::CountingSemaphore done{0};
};

} // namespace

int main()
{
    // Never deleted: stopTimer does not wait for an expiry, and a late one still looks at timer and callback.
    static Blinker& blinker = *new Blinker;
    blinker.timer.setCallback(&blinker);
    blinker.timer.startTimer(5000); // microseconds
    blinker.done.wait();
}
