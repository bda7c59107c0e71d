#include "StopSignals.h"

#include <csignal>
#include <initializer_list>
#include <signal.h>

namespace labelPrinter {

StopSignals::StopSignals()
{
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int StopSignals::wait()
{
    int number = 0;
    sigwait(&signals, &number);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    return number;
}

} // namespace labelPrinter
