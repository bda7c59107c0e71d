#include "Interrupt.h"

#include "Failure.h"

#include <atomic>
#include <signal.h>

namespace labelPrinter {

namespace {

/// Set by a signal's handler, and by the controller for its other threads.
constinit std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "a signal's handler may set it");

void note(int)
{
    interrupted = true;
}

} // namespace

void expectFailedWrites()
{
    struct sigaction action = {};
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    sigaction(SIGXFSZ, &action, nullptr);
}

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
    expectFailedWrites();
}

void interrupt()
{
    interrupted = true;
}

bool isInterrupted()
{
    return interrupted;
}

void stopIfInterrupted(const char* outcome)
{
    if (interrupted)
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
