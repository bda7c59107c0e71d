#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/PollingThread.h"
#include "Quorvil/ThreadSafeStream.h"

namespace {

class HeadSensor : public IPollingThreadHandler
{
public:
    void event() override
    {
        degrees += 15; // the reading
        safeCout << degrees << " degrees\n";
        if (degrees < 60)
            return;
        polling.stop(); // no further call begins
        warm.post();
    }

    int degrees = 15;
    util::CountingSemaphore warm{0};
    PollingThread polling{this, 2000}; // microseconds. The last member: its worker ends before the others do
};

} // namespace

int main()
{
    HeadSensor sensor;
    sensor.polling.start(); // the first call comes after one interval
    sensor.warm.wait();
    safeCout << "warm\n";
}
