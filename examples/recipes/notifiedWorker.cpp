#include "Quorvil/CountingSemaphore.h"
#include "Quorvil/ThreadSafeStream.h"
#include "Quorvil/WaitThread.h"

#include <atomic>

namespace {

class Printer : public IWaitThreadHandler
{
public:
    /// Several notifications may come as one call: it does all that there is to do.
    void event() override
    {
        for (; printed < ordered; done.post())
            safeCout << "page " << ++printed << '\n';
    }

    std::atomic<int> ordered{0};
    util::CountingSemaphore done{0};

private:
    int printed = 0;
};

} // namespace

int main()
{
    Printer printer; // outlives its worker
    WaitThread worker(&printer);
    for (int page = 1; page <= 3; ++page) {
        printer.ordered = page;
        worker.notify();
    }
    for (int page = 1; page <= 3; ++page)
        printer.done.wait(); // the end of the worker would not wait for orders that it has not seen
}
