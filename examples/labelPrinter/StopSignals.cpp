#include "StopSignals.h"

#include "Quorvil/SafeLinuxCalls.h"

#include <csignal>
#include <initializer_list>
#include <signal.h>
#include <unistd.h>

namespace labelPrinter {

namespace {

constexpr const char* source = "labelPrinter/StopSignals";

/// Our own, beside those that the user knows.
int stopSignal()
{
    return SIGRTMIN;
}

} // namespace

StopSignals::StopSignals()
{
    sigemptyset(&signals);
    sigaddset(&signals, stopSignal());
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction before = {};
        if (sigaction(number, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaddset(&signals, number);
    }
    // Were they not blocked, the first would end the process in the midst of its work.
    util::safePosix(__PRETTY_FUNCTION__, source, __LINE__, pthread_sigmask(SIG_BLOCK, &signals, nullptr));
}

void StopSignals::stop()
{
    util::safe(__PRETTY_FUNCTION__, source, __LINE__, kill(getpid(), stopSignal()), true);
}

int StopSignals::wait()
{
    int number = 0;
    util::safePosix(__PRETTY_FUNCTION__, source, __LINE__, sigwait(&signals, &number));
    util::safePosix(__PRETTY_FUNCTION__, source, __LINE__, pthread_sigmask(SIG_UNBLOCK, &signals, nullptr));
    return number;
}

} // namespace labelPrinter
