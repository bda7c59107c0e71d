#include "Interrupt.h"

#include "Failure.h"

#include <csignal>
#include <signal.h>

namespace labelPrinter {

namespace {

volatile std::sig_atomic_t interrupted = 0;

void note(int)
{
    interrupted = 1;
}

} // namespace

void watchInterrupts()
{
    struct sigaction action = {};
    action.sa_handler = note;
    // The second signal ends the process at once, should it hang on a reader that does not read.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        // Who was started with a signal ignored (nohup) goes on ignoring it.
        struct sigaction before = {};
        if (sigaction(signalNumber, nullptr, &before) == 0 && before.sa_handler != SIG_IGN)
            sigaction(signalNumber, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    action.sa_flags = 0;
    sigaction(SIGPIPE, &action, nullptr);
    sigaction(SIGXFSZ, &action, nullptr);
}

void stopIfInterrupted(const char* outcome)
{
    if (interrupted != 0)
        throw Failure(std::string("interrupted, ") + outcome);
}

InterruptsHeldOff::InterruptsHeldOff()
{
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
}

InterruptsHeldOff::~InterruptsHeldOff()
{
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace labelPrinter
