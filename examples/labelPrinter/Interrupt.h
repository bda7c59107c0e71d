// Interrupt.h: a job that is broken off from outside ends in good order

#ifndef LABELPRINTER_INTERRUPT_H
#define LABELPRINTER_INTERRUPT_H

#include <signal.h>

namespace labelPrinter {

/// From now on a reader of our output that goes away (SIGPIPE) and a file that grows too large (SIGXFSZ) show as failed
/// writes.
void expectFailedWrites();

/// `expectFailedWrites`, and from now on SIGINT, SIGTERM and SIGHUP are noted instead of ending the process. The same
/// signal a second time ends the process at once, and leaves temporary files behind. Call it once, first.
void watchInterrupts();

/// As if one of the noted signals had come; also by another thread than those that ask.
void interrupt();

/// Whether one of the noted signals has come.
bool isInterrupted();

/// Throws a `Failure` when one of the noted signals has come, so that everything half done is taken back.
///
/// @param outcome  what the user is told beside that
void stopIfInterrupted(const char* outcome = "nothing was written");

/// While it lives the calling thread gets no signal, and a thread that it starts never gets one: what that thread is
/// writing is not cut short, and signals go to the thread that waits for them.
class InterruptsHeldOff
{
public:
    InterruptsHeldOff();
    ~InterruptsHeldOff();
    InterruptsHeldOff(const InterruptsHeldOff&) = delete;
    InterruptsHeldOff& operator=(const InterruptsHeldOff&) = delete;

private:
    sigset_t before;
};

} // namespace labelPrinter

#endif
