// StopSignals.h: the signals that stop a service, taken by one thread that waits for them

#ifndef LABELPRINTER_STOPSIGNALS_H
#define LABELPRINTER_STOPSIGNALS_H

#include <signal.h>

namespace labelPrinter {

/// SIGINT, SIGTERM and SIGHUP, without those that the process was started to ignore. They are blocked from the
/// construction on, in the calling thread and in those that it starts, so that nothing is cut short by them. Make it on
/// the main thread, before there are others: of all threads that could take a signal the system asks it first.
class StopSignals
{
public:
    StopSignals();

    /// As if one of them had come, also where all are ignored. Any thread may call, once such an object is there.
    static void stop();

    /// Waits for one of them. From then on they end the process at once: somebody is in a hurry.
    ///
    /// @return its number
    int wait();

private:
    sigset_t signals;
};

} // namespace labelPrinter

#endif
